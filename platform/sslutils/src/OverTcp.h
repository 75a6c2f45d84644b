// OverTcp.h - TLS on the platform's TCP.
#pragma once

#include "sslutils/internal/TlsAcceptor.h"
#include "sslutils/internal/TlsConnector.h"
#include "wface/CAWConnectionManager.h"

namespace sslutils {

struct OverTcp {
  using Transport = wface::IAWTransport;
  using TransportSink = wface::IAWTransportSink;
  using Parameter = wface::CAWTransportParameter;
  using Connector = wface::IAWConnector;
  using Acceptor = wface::IAWAcceptor;
  using ConnectSink = wface::IAWAcceptorConnectorSink;
  using Id = wface::IAWAcceptorConnectorId;
};

class SSLConnector final : public internal::TlsConnector<IAWSSLConnector, OverTcp> {
 public:
  using TlsConnector::TlsConnector;
  ~SSLConnector() override = default;

  keelbase::AWResult AsyncConnect(IAWSSLConnectionSink* sink, const keelbase::CAWInetAddr& peer,
                                  int verify, const char* serverName,
                                  const keelbase::CAWInetAddr* local) override {
    if (verify != 0 && verify != 1) return keelbase::AW_ERROR_FAILURE;
    return Start(sink, peer, verify == 1, serverName, local);
  }
};

using SSLAcceptor = internal::TlsAcceptor<OverTcp>;

}  // namespace sslutils
