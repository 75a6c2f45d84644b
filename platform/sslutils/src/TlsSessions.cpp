// TlsSessions.cpp - see TlsSessions.h.
#include "TlsSessions.h"

#include <ctime>
#include <utility>

namespace sslutils::internal {

using keelbase::internal::MutexLock;

namespace {

bool IsGood(const SSL_SESSION* session) {
  const long left = SSL_SESSION_get_time(session) + SSL_SESSION_get_timeout(session) -
                    static_cast<long>(std::time(nullptr));
  return left > 0 && SSL_SESSION_is_resumable(session) == 1;
}

}  // namespace

void TlsSessions::Add(const std::string& key, SessionPtr session) {
  const MutexLock lock(mutex_);
  const auto found = index_.find(key);
  if (found != index_.end()) {
    entries_.splice(entries_.begin(), entries_, found->second);
  } else {
    entries_.push_front({key, {}});
    index_[key] = entries_.begin();
  }
  auto& sessions = entries_.front().sessions;
  if (sessions.size() == kMaxPerKey) sessions.erase(sessions.begin());
  sessions.push_back(std::move(session));
  if (entries_.size() <= kMaxKeys) return;
  index_.erase(entries_.back().key);
  entries_.pop_back();
}

SessionPtr TlsSessions::Take(const std::string& key) {
  const MutexLock lock(mutex_);
  const auto found = index_.find(key);
  if (found == index_.end()) return nullptr;
  auto& sessions = found->second->sessions;
  while (!sessions.empty()) {
    SessionPtr session = std::move(sessions.back());
    sessions.pop_back();
    if (!IsGood(session.get())) continue;
    if (SSL_SESSION_get_protocol_version(session.get()) < TLS1_3_VERSION) {
      SSL_SESSION_up_ref(session.get());
      sessions.emplace_back(session.get());
    }
    return session;
  }
  return nullptr;
}

}  // namespace sslutils::internal
