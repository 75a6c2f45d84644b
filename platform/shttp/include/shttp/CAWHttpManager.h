// CAWHttpManager.h - HTTP clients, and the manager that makes them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWString.h"
#include "shttp/CAWDefines.h"
#include "shttp/CAWHttpChannel.h"
#include "shttp/CAWHttpResult.h"

namespace shttp {

// How long the steps of a request may take, each as a whole, and how much an answer may hold. Short
// times fail requests to slow servers; long ones keep callers waiting for dead ones. A large body
// limit is what a hostile server can make this process hold for each request. Whatever is set, a
// folded header field may have 4 KiB, and a connection may show no life for a day at most.
struct CAWHttpLimits {
  std::uint32_t connectMs = 10000;  // the name, TCP and TLS, which has 10 s at most
  std::uint32_t sendMs = 30000;     // until the system has taken the request
  std::uint32_t answerMs = 60000;   // from then on until the answer is whole
  std::size_t headerBytes = std::size_t{256} << 10;  // of all header and trailer lines
  std::size_t bodyBytes = std::size_t{64} << 20;     // once unpacked
};

// Sends requests, one at a time, each over a connection of its own: HTTP/1.1 over TCP or TLS 1.2
// and 1.3, with the server's certificate verified (docs/tls.md). Redirects are not followed,
// cookies not kept, proxies not asked.
//
// Threads: callbacks come on the network thread. Operations are called by one thread at a time,
// any; none blocks. References may be dropped on any thread. Ownership: counted. Letting go of the
// last reference ends a request that is under way and waits for nobody: on the network thread no
// callback comes after that; on another one may still begin or end a moment later. To be sure, let
// go in a Call on the network thread.
class SHTTP_API IAWHttpClient {
 public:
  virtual std::uint32_t AddReference() = 0;
  virtual std::uint32_t ReleaseReference() = 0;

  // User name and password for Basic authentication, from the next Open on; both empty: none. 0;
  // 10001 for control characters, a ':' in the name, and more than 4 KiB: requests then fail with
  // -EINVAL until good ones are set. 10001 without memory, too, and they fail with -ENOMEM.
  virtual keelbase::AWResult SetInfo(const keelbase::CAWString& user,
                                     const keelbase::CAWString& password) = 0;

  // From the next Open on; those of the manager unless set. Always 0.
  virtual keelbase::AWResult SetLimits(const CAWHttpLimits& limits) = 0;

  // Connects to `url`'s server; one OnConnect follows, never from inside, for a bad url too. A
  // request that is under way is ended first, as by letting go. The sink must live until then, or
  // until the client is let go. `reserved` is 0. 0; 10001 for a null sink and without memory, and
  // nothing follows.
  virtual keelbase::AWResult Open(const keelbase::CAWString& url, IAWChannelSink* sink,
                                  std::uint32_t reserved) = 0;

 protected:
  virtual ~IAWHttpClient() = default;
};

// Makes clients. One for the process; any thread.
class SHTTP_API IAWHttpManager {
 public:
  static IAWHttpManager* Instance();

  // On failure (10001) out is null.
  virtual keelbase::AWResult CreateHttpClient(keelbase::CAWAutoPtr<IAWHttpClient>& out) = 0;

  // Of the clients made from now on.
  virtual void SetLimits(const CAWHttpLimits& limits) = 0;

  // Puts another manager in place, not owned; null restores the real one.
  static void TEST_SetInstance(IAWHttpManager* manager);

 protected:
  virtual ~IAWHttpManager() = default;
};

}  // namespace shttp
