// CAWTrace.cpp - the trace facility, its default sink, and lines built in place.
#include "keelbase/CAWTrace.h"

#include <cxxabi.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>
#include <utility>

#include "keelbase/internal/Immortal.h"
#include "keelbase/internal/Mutex.h"
#include "keelbase/internal/RepeatLimiter.h"

namespace keelbase {
namespace {

// One system call a line, so that lines of several processes do not mix.
void WriteLine(std::string_view text) {
  char lineEnd = '\n';
  const iovec parts[] = {{const_cast<char*>(text.data()), text.size()}, {&lineEnd, 1}};
  [[maybe_unused]] const ssize_t written = ::writev(STDERR_FILENO, parts, 2);
}

class TraceManager final : public IAWTraceManager {
 public:
  void Trace(std::uint32_t level, std::string_view text) override {
    if (tracing_) return;  // a sink that traces would wait for itself
    const internal::MutexLock lock(mutex_);
    tracing_ = true;
    try {
      Tell(level, text);
    } catch (const abi::__forced_unwind&) {  // the thread is cancelled, which may not be stopped
      EndLine();
      throw;
    } catch (...) {  // nothing that a sink throws may reach whoever traces
    }
    EndLine();
  }

  void SetSink(Sink sink) override {
    if (tracing_) return SetNextSink(std::move(sink));
    const internal::MutexLock lock(mutex_);
    std::swap(sink_, sink);
  }

 private:
  void Tell(std::uint32_t level, std::string_view text) AW_REQUIRES(mutex_) {
    if (sink_) {
      sink_(level, text);
    } else if (level == 0) {
      limiter_.Offer(text, internal::RepeatLimiter::Clock::now(), WriteLine);
    }
  }

  void EndLine() AW_REQUIRES(mutex_) {
    if (next_) sink_ = std::move(*next_);
    next_.reset();
    tracing_ = false;
  }

  // Inside the sink, under the lock of whoever traces.
  void SetNextSink(Sink sink) AW_NO_THREAD_SAFETY_ANALYSIS { next_ = std::move(sink); }

  inline static thread_local bool tracing_ = false;  // on this thread
  internal::Mutex mutex_;
  Sink sink_ AW_GUARDED_BY(mutex_);
  std::optional<Sink> next_ AW_GUARDED_BY(mutex_);  // set by the sink that is running
  internal::RepeatLimiter limiter_ AW_GUARDED_BY(mutex_);
};

template <class Number>
void AppendNumber(CAWTextFormator& out, Number value, int base = 10) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof(digits), value, base);
  out << std::string_view(digits, static_cast<std::size_t>(end.ptr - digits));
}

}  // namespace

IAWTraceManager* IAWTraceManager::Instance() {
  return &internal::Immortal<TraceManager>();  // the last destructors may trace
}

CAWTextFormator::CAWTextFormator(char* buffer, std::size_t size) : buffer_(buffer), size_(size) {
  static char nothing = '\0';  // what GetText shows of a buffer without room for its own end
  if (size_ == 0) buffer_ = &nothing;
  if (size_ != 0) buffer_[0] = '\0';
}

CAWTextFormator& CAWTextFormator::operator<<(std::string_view text) {
  if (size_ == 0) return *this;
  const std::size_t taken = std::min(text.size(), size_ - 1 - length_);
  if (taken != 0) std::memcpy(buffer_ + length_, text.data(), taken);
  length_ += taken;
  buffer_[length_] = '\0';
  return *this;
}

CAWTextFormator& CAWTextFormator::operator<<(const char* text) {
  return *this << std::string_view(text != nullptr ? text : "(null)");
}

CAWTextFormator& CAWTextFormator::operator<<(char value) {
  return *this << std::string_view(&value, 1);
}

CAWTextFormator& CAWTextFormator::operator<<(int value) {
  AppendNumber(*this, value);
  return *this;
}

CAWTextFormator& CAWTextFormator::operator<<(unsigned value) {
  AppendNumber(*this, value);
  return *this;
}

CAWTextFormator& CAWTextFormator::operator<<(long value) {
  AppendNumber(*this, value);
  return *this;
}

CAWTextFormator& CAWTextFormator::operator<<(unsigned long value) {
  AppendNumber(*this, value);
  return *this;
}

CAWTextFormator& CAWTextFormator::operator<<(long long value) {
  AppendNumber(*this, value);
  return *this;
}

CAWTextFormator& CAWTextFormator::operator<<(unsigned long long value) {
  AppendNumber(*this, value);
  return *this;
}

CAWTextFormator& CAWTextFormator::operator<<(const void* address) {
  *this << std::string_view("0x");
  AppendNumber(*this, reinterpret_cast<std::uintptr_t>(address), 16);
  return *this;
}

}  // namespace keelbase
