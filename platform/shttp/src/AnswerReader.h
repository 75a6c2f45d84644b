// AnswerReader.h - makes an answer of the bytes that a server sends.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include "keelbase/CAWMessageBlock.h"
#include "shttp/CAWHttpManager.h"

namespace shttp {

// Skips the answers that only announce one (1xx), undoes chunks and gzip, and holds what has come
// of the body. All may throw std::bad_alloc.
class AnswerReader {
 public:
  // `bodyless`: the answer has none whatever its header says, as that to a HEAD.
  AnswerReader(const CAWHttpLimits& limits, bool bodyless);
  ~AnswerReader();
  AnswerReader(const AnswerReader&) = delete;
  AnswerReader& operator=(const AnswerReader&) = delete;

  // 0, or an errno value of CAWHttpResult.h, after which nothing more may be added. What comes
  // behind the answer is ignored.
  int Add(std::string_view bytes);

  // The connection has ended in order. 0, and the answer is whole; else ECONNABORTED or EPROTO.
  int End();

  bool IsWhole() const;
  int GetStatus() const;
  std::unique_ptr<keelbase::CAWMessageBlock> TakeBody();  // null for none

 private:
  class Parser;
  struct Gathered;

  void ExpectAnswer();

  const std::unique_ptr<Gathered> gathered_;
  std::unique_ptr<Parser> parser_;
  const bool bodyless_;
};

}  // namespace shttp
