// CAWShmBase.h - a shared memory segment in a file, with a lock of its own.
#pragma once

#include <atomic>
#include <cstddef>

#include "keelbase/CAWDefines.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWString.h"

namespace keelbase {

// Memory that processes of one user share by naming the same file, and a lock for whoever wants to
// use it without disturbing the others. The file holds one page of administration and then the
// memory; it stays until somebody deletes it, and what is in the memory stays with it.
//
// Threads and processes: Create and Close by one thread while nobody uses the object; MemLock and
// MemUnlock by any thread. The lock holds between threads, objects and processes alike, as long as
// the processes run on one machine and see each other's process ids. Trust: whoever may write the
// file is trusted with the lock; nobody but the user may (mode 0600).
class KEELBASE_API CAWShmBase {
 public:
  CAWShmBase() = default;
  ~CAWShmBase() { Close(1); }
  CAWShmBase(const CAWShmBase&) = delete;
  CAWShmBase& operator=(const CAWShmBase&) = delete;

  // Makes a zeroed segment of `size` bytes, its disk blocks reserved, or attaches the one that
  // `path` names, whole, also when it is larger. `flags` is 0. Its directory must be there. Waits
  // while another process is just making it, ten seconds at most.
  //
  // 0; 10012 when that wait was in vain; else 10001, with a trace line that says why: a size of 0,
  // a path with a NUL byte, no room, an existing segment that is smaller, a file that is not a
  // segment or is damaged (it is left as it is), is not a regular one, belongs to another user, or
  // is a symbolic link. What a process left half made when it died is made anew. 10001 also when
  // the object is attached already; it stays so.
  AWResult Create(const CAWString& path, std::size_t size, int flags = 0);

  // Detaches; 1 is the only mode. Gives the lock back when the calling thread holds it; no other
  // thread may hold it through this object. The file stays. 0, also when nothing is attached; 10001
  // for another mode.
  AWResult Close(int mode = 1);

  // The memory, aligned to 4096 bytes; null and 0 while nothing is attached. Good until Close.
  void* GetAddress() const { return address_; }
  std::size_t GetSize() const { return size_; }

  // Waits for the lock. 0: it is ours, also when the one who held it died: that is told once, to
  // whoever comes next, by a trace line and by WasAbandoned(). 10001: the calling thread holds it
  // already. 10002: nothing is attached.
  AWResult MemLock();

  // 0; 10001 when the calling thread does not hold the lock through this object; 10002.
  AWResult MemUnlock();

  // For the holder of the lock: the one before died with the lock held, so the memory may be half
  // changed. True from the MemLock that found out until its MemUnlock.
  bool WasAbandoned() const { return abandoned_; }

 private:
  AWResult Attach(std::size_t size);

  CAWString path_;
  void* header_ = nullptr;  // the mapping begins here
  void* address_ = nullptr;
  std::size_t size_ = 0;
  std::atomic<int> holder_{0};  // the thread that holds the lock through this object
  bool abandoned_ = false;      // touched by the holder only
};

}  // namespace keelbase
