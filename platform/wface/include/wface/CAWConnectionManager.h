// CAWConnectionManager.h - connectors and acceptors of TCP, and the manager that makes them.
#pragma once

#include <cstdint>

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWInetAddr.h"
#include "keelbase/CAWTimeValue.h"
#include "wface/CAWDefines.h"
#include "wface/CAWTransport.h"

namespace wface {

// What connectors and acceptors have in common: the count, and an identity for the sink to compare.
//
// Threads: used on the thread that made it when that is a platform thread, else from one thread at
// a time; callbacks come on that platform thread, else on the network thread. References may be
// dropped on any thread. Releasing the last reference cancels or stops. On the thread of the
// callbacks, and on a thread without a loop, no indication begins after it, and the latter waits
// for one that is just running, and for nothing else. Another thread with a loop does not wait,
// since the callback may be waiting for it: there one may still begin or end a moment later; to be
// sure, let go in a Call on the thread of the callbacks. An acceptor that is released on another
// thread than that of its callbacks gives its port up a moment later; StopListen waits for that.
class WFACE_API IAWAcceptorConnectorId {
 public:
  virtual std::uint32_t AddReference() = 0;
  virtual std::uint32_t ReleaseReference() = 0;

 protected:
  virtual ~IAWAcceptorConnectorId() = default;
};

class IAWAcceptorConnectorSink {
 public:
  // A connect has ended or a connection was accepted. reason 0: `transport` is the connection; a
  // sink that wants it takes a reference, else it is closed after this call. Otherwise transport is
  // null and reason an errno value (ECONNREFUSED: nobody listens; ETIMEDOUT: no answer;
  // EHOSTUNREACH, ENETUNREACH; EMFILE: no descriptors …).
  virtual void OnConnectIndication(long reason, IAWTransport* transport,
                                   IAWAcceptorConnectorId* id) = 0;
  virtual ~IAWAcceptorConnectorSink() = default;
};

class WFACE_API IAWConnector : public IAWAcceptorConnectorId {
 public:
  // Connects to `peer`, from `local` when that is not null (port 0: any port). `timeout`, when not
  // null, counts from now and ends the connect with ETIMEDOUT; without one the system gives up in
  // its own time, which is minutes. All are copied. Never blocks on the peer, never calls back from
  // inside; exactly one indication follows unless cancelled. The address 0.0.0.0:0, which is what a
  // name that does not resolve leaves, is indicated as EADDRNOTAVAIL. 0; 10001 for a null sink,
  // while a connect is under way, or without memory.
  virtual keelbase::AWResult AsyncConnect(IAWAcceptorConnectorSink* sink,
                                          const keelbase::CAWInetAddr& peer,
                                          const keelbase::CAWTimeValue* timeout,
                                          const keelbase::CAWInetAddr* local) = 0;

  // No indication comes after this. Does nothing when there was one already; never touches a
  // transport. Always 0.
  virtual keelbase::AWResult CancelConnect() = 0;
};

class WFACE_API IAWAcceptor : public IAWAcceptorConnectorId {
 public:
  // Listens at `addr`; 0.0.0.0 is every address of the machine, port 0 a free one (GetLocalAddr
  // tells). `backlog`, when above 0, is how many connections may wait to be accepted; else as many
  // as the system allows. 0; an errno value (EADDRINUSE: somebody listens there; EADDRNOTAVAIL: not
  // an address of this machine; EACCES: a reserved port; EMFILE …); 10001 for a null sink or while
  // listening.
  virtual keelbase::AWResult StartListen(IAWAcceptorConnectorSink* sink,
                                         const keelbase::CAWInetAddr& addr, int backlog) = 0;

  // Stops; who waits to be accepted is turned away. Accepted connections go on. The address can be
  // listened at again at once. Always 0.
  virtual keelbase::AWResult StopListen() = 0;

  // Where it listens, or listened last; 0.0.0.0:0 before.
  virtual keelbase::CAWInetAddr GetLocalAddr() const = 0;
};

// The kind of CAWConnectionManager: plain TCP.
inline constexpr int AW_KIND_TCP = 1;

// Makes connectors and acceptors. One for the process; any thread.
class WFACE_API CAWConnectionManager {
 public:
  static CAWConnectionManager* Instance();

  // `kind` is AW_KIND_TCP; any other is refused with 10001. On failure out is null.
  virtual keelbase::AWResult CreateConnector(int kind, keelbase::CAWAutoPtr<IAWConnector>& out) = 0;
  virtual keelbase::AWResult CreateAcceptor(int kind, keelbase::CAWAutoPtr<IAWAcceptor>& out) = 0;

  // Puts another manager in place, not owned; null restores the real one.
  static void TEST_SetInstance(CAWConnectionManager* manager);

 protected:
  virtual ~CAWConnectionManager() = default;
};

}  // namespace wface
