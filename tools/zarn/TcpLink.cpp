// TcpLink.cpp - see TcpLink.h.
#include "TcpLink.h"

#include "SessionLink.h"
#include "wface/CAWConnectionManager.h"
#include "zarn/utils/CZARNTCPSessionBase.h"

namespace zarn::tool {

namespace {

struct Tcp {
  static constexpr const char* kScheme = "tcp";
  using Session = utils::CZARNTCPSessionBase;
  using Transport = wface::IAWTransport;
  using TransportParameter = wface::CAWTransportParameter;
  using Acceptor = wface::IAWAcceptor;
  using ConnectSink = wface::IAWAcceptorConnectorSink;
  using Id = wface::IAWAcceptorConnectorId;

  static keelbase::AWResult MakeAcceptor(keelbase::CAWAutoPtr<Acceptor>& out) {
    return wface::CAWConnectionManager::Instance()->CreateAcceptor(wface::AW_KIND_TCP, out);
  }
};

}  // namespace

constinit const Scheme kTcpScheme = MakeSessionScheme<OverPlain<Tcp>>(
    "tcp://host:port with a name or an IPv4 address and a port from 1 to 65535");

}  // namespace zarn::tool
