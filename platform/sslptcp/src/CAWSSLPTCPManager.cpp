// CAWSSLPTCPManager.cpp - see CAWSSLPTCPManager.h.
#include "sslptcp/CAWSSLPTCPManager.h"

#include <atomic>

#include "keelbase/internal/Everlasting.h"
#include "keelbase/internal/MakeOnLoop.h"
#include "ptcp/CAWPseudoTCPManager.h"
#include "sslutils/internal/TlsAcceptor.h"
#include "sslutils/internal/TlsConnector.h"

namespace sslptcp {

namespace {

using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::internal::MakeOnLoop;

struct OverPtcp {
  using Transport = ptcp::IAWPseudoTCPTransport;
  using TransportSink = ptcp::IAWPseudoTCPTransportSink;
  using Parameter = ptcp::CAWPseudoTCPTransportParameter;
  using Connector = ptcp::IAWPseudoTCPConnector;
  using Acceptor = ptcp::IAWPseudoTCPAcceptor;
  using ConnectSink = ptcp::IAWPseudoTCPAcceptorConnectorSink;
  using Id = ptcp::IAWPseudoTCPAcceptorConnectorId;
};

class SSLPTCPConnector final
    : public sslutils::internal::TlsConnector<IAWSSLPTCPConnector, OverPtcp> {
 public:
  using TlsConnector::TlsConnector;
  ~SSLPTCPConnector() override = default;

  AWResult AsyncConnect(sslutils::IAWSSLConnectionSink* sink, const keelbase::CAWInetAddr& peer,
                        const char* serverName, const keelbase::CAWInetAddr* local) override {
    return Start(sink, peer, true, serverName, local);
  }
};

class SSLPTCPManager final : public IAWSSLPTCPManager {
 public:
  AWResult CreateConnector(CAWAutoPtr<IAWSSLPTCPConnector>& out) override {
    CAWAutoPtr<ptcp::IAWPseudoTCPConnector> below;
    out = nullptr;
    const AWResult made = ptcp::CAWPseudoTCPManager::Instance()->CreateConnector(below);
    return made == keelbase::AW_OK ? MakeOnLoop<SSLPTCPConnector>(out, below) : made;
  }
  AWResult CreateAcceptor(CAWAutoPtr<sslutils::IAWSSLAcceptor>& out) override {
    CAWAutoPtr<ptcp::IAWPseudoTCPAcceptor> below;
    out = nullptr;
    const AWResult made = ptcp::CAWPseudoTCPManager::Instance()->CreateAcceptor(below);
    using Acceptor = sslutils::internal::TlsAcceptor<OverPtcp>;
    return made == keelbase::AW_OK ? MakeOnLoop<Acceptor>(out, below) : made;
  }
};

std::atomic<IAWSSLPTCPManager*> testInstance{nullptr};

}  // namespace

IAWSSLPTCPManager* IAWSSLPTCPManager::Instance() {
  auto& manager = keelbase::internal::Everlasting<SSLPTCPManager>();
  IAWSSLPTCPManager* replaced = testInstance.load(std::memory_order_acquire);
  return replaced != nullptr ? replaced : &manager;
}

void IAWSSLPTCPManager::TEST_SetInstance(IAWSSLPTCPManager* manager) {
  testInstance.store(manager, std::memory_order_release);
}

}  // namespace sslptcp
