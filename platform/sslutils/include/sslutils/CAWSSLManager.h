// CAWSSLManager.h - connectors and acceptors of TLS over TCP, and the manager that makes them.
#pragma once

#include <cstdint>

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWInetAddr.h"
#include "keelbase/CAWString.h"
#include "sslutils/CAWDefines.h"
#include "sslutils/CAWSSLError.h"
#include "sslutils/CAWSSLTransport.h"

namespace sslutils {

// Wherever a text is asked for (key, certificate, authorities): PEM itself when it contains
// "-----BEGIN", else the path of a regular file of PEM, read at that moment, 1 MiB at most.

// What a connecting side checks before it says that it is connected.
enum CAWSSLVerifyMode : int {
  // The peer's certificate chain leads to a trusted authority, and the certificate is for the
  // server name. The default, and the only one that keeps a third party out.
  AW_SSL_VERIFY_FULL = 0,
  // The chain only: anybody with a certificate of a trusted authority may answer.
  AW_SSL_VERIFY_CHAIN = 1,
  // Nothing: anybody may answer, listen and change what is sent.
  AW_SSL_VERIFY_NONE = 2,
};

class IAWSSLConnectionSink {
 public:
  // A handshake has ended. reason 0: `transport` is the connection; a sink that wants it takes a
  // reference, else it is closed after this call. Otherwise transport is null and reason one of
  // CAWSSLError.h. A connector is done then; an acceptor goes on listening: one peer was refused.
  virtual void OnSSLConnected(long reason, IAWSSLTransport* transport) = 0;
  virtual ~IAWSSLConnectionSink() = default;
};

// What connectors and acceptors have in common.
//
// Threads: used on the thread that made it when that is a platform thread, else from one thread at
// a time; callbacks come on that platform thread, else on the network thread. References may be
// dropped on any thread. Releasing the last reference cancels or stops. On the thread of the
// callbacks, and on a thread without a loop, no indication begins after it, and the latter waits
// for one that is just running, and for nothing else. Another thread with a loop does not wait,
// since the callback may be waiting for it: there one may still begin or end a moment later; to be
// sure, let go in a Call on the thread of the callbacks. An acceptor that is released on another
// thread than that of its callbacks gives its port up a moment later; StopListen waits for that.
class SSLUTILS_API IAWSSLConnectorAcceptor {
 public:
  virtual std::uint32_t AddReference() = 0;
  virtual std::uint32_t ReleaseReference() = 0;

  // Our own private key, not encrypted, and our certificate, followed by those of the authorities
  // between it and the root, if any. To be set before AsyncConnect or StartListen, in any order. 0,
  // or why the text is of no use: the same reason then comes from the connect or the listen.
  virtual keelbase::AWResult SetPrivateKey(const keelbase::CAWString& text) = 0;
  virtual keelbase::AWResult SetCertificate(const keelbase::CAWString& text) = 0;

 protected:
  virtual ~IAWSSLConnectorAcceptor() = default;
};

class SSLUTILS_API IAWSSLConnector : public IAWSSLConnectorAcceptor {
 public:
  // What is checked of the peer; AW_SSL_VERIFY_FULL unless set. 0; 10001 for an unknown mode.
  virtual keelbase::AWResult SetVerifyMode(int mode) = 0;

  // Connects to `peer` from `local` (null: from any address). verify 1: the peer is checked as
  // SetVerifyMode says; 0: as AW_SSL_VERIFY_NONE. `serverName` is the name that its certificate
  // must be for, and that it is told (a server may have several); null or empty: its IP address.
  // All is copied. Never blocks on the peer, never calls back from inside; exactly one indication
  // follows unless cancelled, also when nothing can even be tried. The handshake may take 10
  // seconds. An earlier session with the same peer is resumed when name, mode, trusted and own
  // certificates are all the same, and were checked within the last hour. 0; 10001 for a null sink,
  // another `verify`, and while a connect is under way.
  virtual keelbase::AWResult AsyncConnect(IAWSSLConnectionSink* sink,
                                          const keelbase::CAWInetAddr& peer, int verify,
                                          const char* serverName,
                                          const keelbase::CAWInetAddr* local) = 0;

  // No indication comes after this. Does nothing when there was one already; never touches a
  // transport. `reason` is 0. Always 0.
  virtual keelbase::AWResult Cancel(long reason) = 0;
};

class SSLUTILS_API IAWSSLAcceptor : public IAWSSLConnectorAcceptor {
 public:
  // Asks each client for a certificate that leads to one of `authorities` (a text, see above; its
  // certificates may be several). `required`: refuses clients without one; otherwise only those
  // with a bad one. An empty text asks for none, as by default. To be set before StartListen. 0, or
  // a reason.
  virtual keelbase::AWResult SetClientAuthorities(const keelbase::CAWString& authorities,
                                                  bool required) = 0;

  // Listens at `addr` (port 0: any, see GetLocalAddr); `backlog` connections may wait to be
  // accepted. Each handshake may take 10 seconds. At once there may be 256 from one address, or
  // `backlog` when that is more, and four times as many in all, but no more than half as many as
  // the process may have descriptors (RLIMIT_NOFILE) when it starts to listen; beyond that each
  // newcomer ends the oldest of its address, or of all, which is indicated as ECONNABORTED. One
  // that was refused, and indicated so, counts until its client has closed, 2 seconds at most. 0;
  // 10001 for a null sink or while listening; else a reason: AW_SSL_ERROR_OWN_CERTIFICATE_MISSING
  // and the like, EADDRINUSE, EACCES …
  virtual keelbase::AWResult StartListen(IAWSSLConnectionSink* sink,
                                         const keelbase::CAWInetAddr& addr, int backlog) = 0;

  // Stops, and ends the handshakes that are under way. Accepted connections go on. Always 0.
  virtual keelbase::AWResult StopListen() = 0;

  virtual keelbase::CAWInetAddr GetLocalAddr() = 0;  // 0.0.0.0:0 while not listening
};

// Makes connectors and acceptors. One for the process; any thread.
class SSLUTILS_API IAWSSLManager {
 public:
  static IAWSSLManager* Instance();

  // On failure (10001) out is null.
  virtual keelbase::AWResult CreateSSLConnector(keelbase::CAWAutoPtr<IAWSSLConnector>& out) = 0;
  virtual keelbase::AWResult CreateSSLAcceptor(keelbase::CAWAutoPtr<IAWSSLAcceptor>& out) = 0;

  // The certificates of authorities that connectors trust besides those of the system, in place of
  // those that were set before; for connects from now on. Each is trusted by itself, without a
  // root, and may also be a server's own. An empty text: none. 0, or a reason, and nothing has
  // changed.
  virtual keelbase::AWResult SetTrustedCertificates(const keelbase::CAWString& text) = 0;

  // Puts another manager in place, not owned; null restores the real one.
  static void TEST_SetInstance(IAWSSLManager* manager);

 protected:
  virtual ~IAWSSLManager() = default;
};

}  // namespace sslutils
