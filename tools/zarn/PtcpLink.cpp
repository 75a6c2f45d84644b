// PtcpLink.cpp - see PtcpLink.h.
#include "PtcpLink.h"

#include "PtcpSession.h"
#include "SessionLink.h"

namespace zarn::tool {

namespace {

struct Ptcp {
  static constexpr const char* kScheme = "ptcp";
  using Session = PtcpSession;
  using Transport = ptcp::IAWPseudoTCPTransport;
  using TransportParameter = ptcp::CAWPseudoTCPTransportParameter;
  using Acceptor = ptcp::IAWPseudoTCPAcceptor;
  using ConnectSink = ptcp::IAWPseudoTCPAcceptorConnectorSink;
  using Id = ptcp::IAWPseudoTCPAcceptorConnectorId;

  static keelbase::AWResult MakeAcceptor(keelbase::CAWAutoPtr<Acceptor>& out) {
    return ptcp::CAWPseudoTCPManager::Instance()->CreateAcceptor(out);
  }
};

}  // namespace

constinit const Scheme kPtcpScheme =
    MakeSessionScheme<OverPlain<Ptcp>>("ptcp://host:port likewise");

}  // namespace zarn::tool
