// NameLookup.h - looks a host name up while the loop goes on.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "keelbase/CAWInetAddr.h"
#include "keelbase/internal/EventLoop.h"

namespace shttp {

// All on the loop's thread. The system's resolver cannot be stopped: a lookup that nobody waits for
// any more runs on by itself to its end.
class NameLookup {
 public:
  // 0, or EADDRNOTAVAIL for a name that does not resolve, or what was short: EMFILE, ENOMEM …
  using Done = std::function<void(int error, const keelbase::CAWInetAddr& address)>;

  NameLookup() = default;
  ~NameLookup() { Cancel(); }
  NameLookup(const NameLookup&) = delete;
  NameLookup& operator=(const NameLookup&) = delete;

  // Calls `done` later, once. 0, or EAGAIN when as many lookups are under way as may be. May throw
  // std::bad_alloc, and no call comes.
  int Start(keelbase::internal::EventLoop& loop, const std::string& host, std::uint16_t port,
            Done done);
  void Cancel();

 private:
  class Search;

  std::shared_ptr<Search> search_;
};

}  // namespace shttp
