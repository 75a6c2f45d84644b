// CAWPseudoTCPManager.h - connectors and acceptors of pseudo-TCP, and the manager that makes them.
#pragma once

#include <cstdint>

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWInetAddr.h"
#include "keelbase/CAWTimeValue.h"
#include "ptcp/CAWDefines.h"
#include "ptcp/CAWPseudoTCPTransport.h"

namespace ptcp {

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
class PTCP_API IAWPseudoTCPAcceptorConnectorId {
 public:
  virtual std::uint32_t AddReference() = 0;
  virtual std::uint32_t ReleaseReference() = 0;

 protected:
  virtual ~IAWPseudoTCPAcceptorConnectorId() = default;
};

class IAWPseudoTCPAcceptorConnectorSink {
 public:
  // A connect has ended or a connection was accepted. reason 0: `transport` is the connection; a
  // sink that wants it takes a reference, else it is closed after this call. Otherwise transport is
  // null and reason an errno value (ECONNREFUSED: nobody listens; ETIMEDOUT: no answer;
  // EHOSTUNREACH, ENETUNREACH; EMFILE: no descriptors …).
  virtual void OnConnectIndication(long reason, IAWPseudoTCPTransport* transport,
                                   IAWPseudoTCPAcceptorConnectorId* id) = 0;
  virtual ~IAWPseudoTCPAcceptorConnectorSink() = default;
};

class PTCP_API IAWPseudoTCPConnector : public IAWPseudoTCPAcceptorConnectorId {
 public:
  // Connects to `peer`, from `local` when that is not null (port 0: any port). `timeout`, when not
  // null, counts from now and ends the connect with ETIMEDOUT; ten seconds do in any case. All are
  // copied. Never blocks on the peer, never calls back from inside; exactly one indication follows
  // unless cancelled. The address 0.0.0.0:0, which is what a name that does not resolve leaves, is
  // indicated as EADDRNOTAVAIL. 0; 10001 for a null sink, while a connect is under way, or without
  // memory.
  virtual keelbase::AWResult AsyncConnect(IAWPseudoTCPAcceptorConnectorSink* sink,
                                          const keelbase::CAWInetAddr& peer,
                                          const keelbase::CAWTimeValue* timeout,
                                          const keelbase::CAWInetAddr* local) = 0;

  // No indication comes after this. Does nothing when there was one already; never touches a
  // transport. Always 0.
  virtual keelbase::AWResult CancelConnect() = 0;
};

class PTCP_API IAWPseudoTCPAcceptor : public IAWPseudoTCPAcceptorConnectorId {
 public:
  // Listens at `addr`; 0.0.0.0 is every address of the machine, port 0 a free one (GetLocalAddr
  // tells). `backlog`, when above 0, is how many connections may be half open before a newcomer
  // must prove its address, which takes one round trip more and costs the acceptor no memory; else
  // 256. With proved addresses as many more of one address may be half open, and four times as many
  // in all; the packets of who comes beyond that are dropped, and it tries again. 0; an errno value
  // (EADDRINUSE, EADDRNOTAVAIL, EACCES, EMFILE …); 10001 for a null sink or while listening.
  virtual keelbase::AWResult StartListen(IAWPseudoTCPAcceptorConnectorSink* sink,
                                         const keelbase::CAWInetAddr& addr, int backlog) = 0;

  // Stops; who is half open is turned away. Accepted connections go on, on the same port, where
  // newcomers are refused. The address can be listened at again at once, on the thread of this
  // acceptor. Always 0.
  virtual keelbase::AWResult StopListen() = 0;

  // Where it listens, or listened last; 0.0.0.0:0 before.
  virtual keelbase::CAWInetAddr GetLocalAddr() const = 0;
};

// Makes connectors and acceptors. One for the process; any thread.
class PTCP_API CAWPseudoTCPManager {
 public:
  static CAWPseudoTCPManager* Instance();

  // 0; 10001 without memory or without a thread to call back on, and out is null.
  virtual keelbase::AWResult CreateConnector(keelbase::CAWAutoPtr<IAWPseudoTCPConnector>& out) = 0;
  virtual keelbase::AWResult CreateAcceptor(keelbase::CAWAutoPtr<IAWPseudoTCPAcceptor>& out) = 0;

  // Puts another manager in place, not owned; null restores the real one.
  static void TEST_SetInstance(CAWPseudoTCPManager* manager);

 protected:
  virtual ~CAWPseudoTCPManager() = default;
};

}  // namespace ptcp
