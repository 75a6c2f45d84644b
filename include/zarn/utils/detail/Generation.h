// Generation.h - tells code on the stack what an upcall did to its stream.
#pragma once

#include "zarn/utils/zarndefines.h"

namespace zarn::utils::detail {

// A stream's member: which connection the stream is at. A loop that makes upcalls puts a Watch on
// its stack and asks it after each of them, before it touches the stream again.
class ZARNUTILS_API Generation {
 public:
  class ZARNUTILS_API Watch {
   public:
    explicit Watch(Generation& generation);
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    bool IsDestroyed() const { return generation_ == nullptr; }  // with its stream
    bool HasChanged() const { return changed_; }  // the connection is another one, or none

   private:
    friend class Generation;
    Generation* generation_;
    Watch* outer_;  // upcalls may be nested
    bool changed_ = false;
  };

  Generation() = default;
  ~Generation();
  Generation(const Generation&) = delete;
  Generation& operator=(const Generation&) = delete;

  void Raise();  // the connection is another one, or none, from now on

 private:
  Watch* innermost_ = nullptr;
};

}  // namespace zarn::utils::detail
