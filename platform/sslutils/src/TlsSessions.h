// TlsSessions.h - sessions that connectors may resume.
#pragma once

#include <cstddef>
#include <list>
#include <string>
#include <unordered_map>
#include <vector>

#include "OpenSslPointers.h"
#include "keelbase/internal/Mutex.h"

namespace sslutils::internal {

// Filed under a text that names all that must be the same. The least recently used make room. Any
// thread.
class TlsSessions {
 public:
  void Add(const std::string& key, SessionPtr session);

  // Null when there is none. A session of TLS 1.3 is handed out once, so that nobody on the way can
  // tell that two connections belong together.
  SessionPtr Take(const std::string& key);

 private:
  static constexpr std::size_t kMaxKeys = 1024;
  static constexpr std::size_t kMaxPerKey = 4;
  struct Entry {
    std::string key;
    std::vector<SessionPtr> sessions;  // the newest last
  };

  keelbase::internal::Mutex mutex_;
  std::list<Entry> entries_ AW_GUARDED_BY(mutex_);  // the most recently used first
  std::unordered_map<std::string, std::list<Entry>::iterator> index_ AW_GUARDED_BY(mutex_);
};

}  // namespace sslutils::internal
