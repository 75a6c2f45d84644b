// TlsTrust.h - the authorities that connectors trust.
#pragma once

#include <cstdint>
#include <string>

#include "OpenSslPointers.h"
#include "keelbase/CAWError.h"
#include "keelbase/internal/Mutex.h"

namespace sslutils::internal {

// The system's, and those that the process adds. Any thread.
class TlsTrust {
 public:
  // See IAWSSLManager::SetTrustedCertificates.
  keelbase::AWResult Set(const std::string& text);

  struct Snapshot {
    StorePtr store;
    std::uint64_t generation = 0;  // another one after each Set
  };
  // 0, or the shortage (EMFILE, ENFILE, ENOMEM) for which the store is not whole: the next call
  // makes it anew.
  keelbase::AWResult Get(Snapshot& out);

 private:
  keelbase::internal::Mutex mutex_;
  Certificates added_ AW_GUARDED_BY(mutex_);
  std::uint64_t generation_ AW_GUARDED_BY(mutex_) = 0;
  StorePtr store_ AW_GUARDED_BY(mutex_);  // whole, or null until it is needed
};

}  // namespace sslutils::internal
