// Lingers.h - closed connections that are not done yet.
#pragma once

#include <sys/epoll.h>

#include <cstdint>

#include "keelbase/CAWDefines.h"
#include "keelbase/internal/Clock.h"
#include "keelbase/internal/IntrusiveList.h"

namespace keelbase::internal {

// A closed connection that still has bytes to write, or waits for its peer to end.
class LingerTask {
 public:
  virtual int LingerDescriptor() const = 0;
  virtual std::uint32_t LingerEvents() const { return EPOLLOUT; }  // what it waits for
  virtual Clock::Point LingerDeadline() const = 0;
  virtual void WriteLingering() = 0;  // calls EndLinger when done
  virtual void AbandonLinger() = 0;   // at the deadline: calls EndLinger, or sets a later one

  ListPlace<LingerTask> placeInLingers;  // the loop's own
  bool isReady = false;                  // the same

 protected:
  ~LingerTask() = default;
};

class KEELBASE_API Lingers {
 public:
  void Begin(LingerTask& task);  // not twice
  void End(LingerTask& task);    // any time, also while others are served

  // Serves everybody, and nothing else, until done or out of time.
  void Finish();

 private:
  void AwaitReady();
  void ServeReady();

  IntrusiveList<LingerTask, &LingerTask::placeInLingers> tasks_;
  LingerTask* next_ = nullptr;  // to be looked at by ServeReady
};

}  // namespace keelbase::internal
