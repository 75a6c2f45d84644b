// CZARNShareMemory.h - a named piece of memory that the processes of an install root share.
#pragma once

#include <cstddef>

#include "keelbase/CAWError.h"
#include "keelbase/CAWReferenceControl.h"
#include "keelbase/CAWShmBase.h"
#include "keelbase/CAWString.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// A handle on the segment of a name, in the file zarn/shm/zarnshmm/zarn_shm_NAME below the system
// directory. Whoever comes first makes it, zeroed; the others attach and see the same bytes.
//
//   keelbase::CAWAutoPtr<zarn::utils::CZARNShareMemory> memory;
//   if (zarn::utils::CreateMemory(memory, "cfg", 4096) != 0) ...
//   memory->MemLock();
//   auto* settings = static_cast<Settings*>(memory->GetAddress());
//   if (memory->WasAbandoned()) ...  // whoever changed it last died doing so
//   memory->MemUnlock();
//
// Lifetime: counted, from 0; a CAWAutoPtr holds it. The end of any handle removes the file, also
// while other processes use the segment and also when its createshm has failed: these keep the
// memory that they have, and whoever creates the name from then on gets a new segment. So one
// process, the one that outlives the others, is the one to let go. Forking: the child of a fork
// lets go of its parent's handles when it ends with exit; let it end with _exit.
//
// Threads: createshm and the counting on one thread; MemLock and MemUnlock by any. The lock
// excludes threads and processes alike, and the death of its holder does not lock the others out.
class ZARNUTILS_API CZARNShareMemory
    : public keelbase::CAWReferenceControlT<keelbase::CAWMutexNullSingleThread> {
 public:
  // `name` is part of a file's name. `size` is in bytes. Makes nothing yet.
  CZARNShareMemory(const keelbase::CAWString& name, unsigned int size);
  ~CZARNShareMemory() override;

  // As keelbase::CAWShmBase: 0: the lock is ours. 10001: the calling thread holds it already, or
  // does not hold it. 10002: there is no segment. MemLock waits.
  virtual keelbase::AWResult MemLock();
  virtual keelbase::AWResult MemUnlock();

  // Makes the directories and the segment, or attaches the one that is there, whole when it is
  // larger. 0; -1 without a system directory (nothing is made then); else what
  // keelbase::CAWShmBase::Create answers: 10001 when the one that is there is smaller or no segment
  // of ours, when there is no room, and when this object has its segment already; 10012 when
  // another process kept it locked for ten seconds. A name with a '/' or a NUL byte is answered
  // with 10001.
  int createshm();

  // The memory, aligned to 4096 bytes, and how many bytes it has; null and 0 without a segment.
  void* GetAddress() const { return segment_.GetAddress(); }
  std::size_t GetSize() const { return segment_.GetSize(); }

  // For the holder of the lock: the one before died with the lock held, so the memory may be half
  // changed. Told once, until MemUnlock; a trace line says it too.
  bool WasAbandoned() const { return segment_.WasAbandoned(); }

 private:
  keelbase::CAWString name_;
  keelbase::CAWString path_;
  unsigned int size_;
  keelbase::CAWShmBase segment_;
};

}  // namespace zarn::utils
