// Gunzip.h - unpacks gzip piece by piece.
#pragma once

#include <memory>
#include <string_view>

#include "AnswerBody.h"

struct z_stream_s;

namespace shttp {

class Gunzip {
 public:
  Gunzip();  // may throw std::bad_alloc
  ~Gunzip();
  Gunzip(const Gunzip&) = delete;
  Gunzip& operator=(const Gunzip&) = delete;

  // Unpacks to the end of `out`. 0; EPROTO for damaged bytes; EMSGSIZE beyond the body's limit;
  // ENOMEM. May throw std::bad_alloc.
  int Add(std::string_view packed, AnswerBody& out);

  bool IsWhole() const { return whole_; }  // nothing has come, or all up to an end mark

 private:
  std::unique_ptr<z_stream_s> stream_;
  bool whole_ = true;
};

}  // namespace shttp
