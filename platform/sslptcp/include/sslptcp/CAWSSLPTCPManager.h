// CAWSSLPTCPManager.h - connectors and acceptors of TLS over pseudo-TCP, and the manager that makes
// them.
#pragma once

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWInetAddr.h"
#include "sslptcp/CAWDefines.h"
#include "sslutils/CAWSSLManager.h"
#include "sslutils/CAWSSLTransport.h"

namespace sslptcp {

// Connects as sslutils::IAWSSLConnector does, whose comments hold here too, by pseudo-TCP instead
// of TCP. The peer is always checked as SetVerifyMode says.
class SSLPTCP_API IAWSSLPTCPConnector : public sslutils::IAWSSLConnectorAcceptor {
 public:
  // What is checked of the peer; sslutils::AW_SSL_VERIFY_FULL unless set. 0; 10001 for an unknown
  // mode.
  virtual keelbase::AWResult SetVerifyMode(int mode) = 0;

  // `serverName` is the name that the peer's certificate must be for, and that it is told; null or
  // empty: its IP address. The connect below may take 10 seconds, and so may the handshake. What is
  // indicated to the sink is sslutils' own transport. 0; 10001 for a null sink and while a connect
  // is under way.
  virtual keelbase::AWResult AsyncConnect(sslutils::IAWSSLConnectionSink* sink,
                                          const keelbase::CAWInetAddr& peer, const char* serverName,
                                          const keelbase::CAWInetAddr* local) = 0;

  // No indication comes after this. Does nothing when there was one already; never touches a
  // transport. `reason` is 0. Always 0.
  virtual keelbase::AWResult Cancel(long reason) = 0;
};

// Makes connectors and acceptors. One for the process; any thread. Trusted certificates are those
// of sslutils::IAWSSLManager.
class SSLPTCP_API IAWSSLPTCPManager {
 public:
  static IAWSSLPTCPManager* Instance();

  // On failure (10001) out is null. `backlog` of the acceptor's StartListen is what
  // ptcp::IAWPseudoTCPAcceptor says until the connection below is there, and what
  // sslutils::IAWSSLAcceptor says of handshakes from then on.
  virtual keelbase::AWResult CreateConnector(keelbase::CAWAutoPtr<IAWSSLPTCPConnector>& out) = 0;
  virtual keelbase::AWResult CreateAcceptor(
      keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor>& out) = 0;

  // Puts another manager in place, not owned; null restores the real one.
  static void TEST_SetInstance(IAWSSLPTCPManager* manager);

 protected:
  virtual ~IAWSSLPTCPManager() = default;
};

}  // namespace sslptcp
