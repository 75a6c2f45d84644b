// SystemPath.h - the directory below which endpoints meet.
#pragma once

#include "keelbase/CAWString.h"
#include "keelbase/internal/Mutex.h"

namespace fshmipc {

// Of the manager; read by its connectors and acceptors when they start. Any thread.
class SystemPath {
 public:
  void Set(const keelbase::CAWString& directory) {
    const keelbase::internal::MutexLock lock(mutex_);
    directory_ = directory;
  }
  keelbase::CAWString Get() const {
    const keelbase::internal::MutexLock lock(mutex_);
    return directory_;
  }
  bool IsEmpty() const {
    const keelbase::internal::MutexLock lock(mutex_);
    return directory_.empty();
  }

 private:
  mutable keelbase::internal::Mutex mutex_;
  keelbase::CAWString directory_ AW_GUARDED_BY(mutex_);
};

}  // namespace fshmipc
