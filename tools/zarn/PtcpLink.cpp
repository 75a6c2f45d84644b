// PtcpLink.cpp - see PtcpLink.h.
#include "PtcpLink.h"

#include <functional>
#include <utility>

#include "PtcpSession.h"
#include "SessionLink.h"

namespace zarn::tool {

namespace {

struct OverPtcp {
  static constexpr const char* kScheme = "ptcp";
  using Session = PtcpSession;
  using Transport = ptcp::IAWPseudoTCPTransport;
  using TransportParameter = ptcp::CAWPseudoTCPTransportParameter;

  static std::string Prepare(Session&, const Endpoint&) { return {}; }
  static std::string GetSubject(Transport&) { return {}; }
  static bool IsFinal(long /*reason*/) { return false; }

  class Listener final : private ptcp::IAWPseudoTCPAcceptorConnectorSink {
   public:
    Listener(std::function<void(Transport*)> accepted, const std::function<void(long)>& /*refused*/)
        : accepted_(std::move(accepted)) {}

    static std::string Prepare(const Endpoint&) { return {}; }

    keelbase::AWResult Start(const keelbase::CAWInetAddr& address) {
      const keelbase::AWResult made =
          ptcp::CAWPseudoTCPManager::Instance()->CreateAcceptor(acceptor_);
      return made == keelbase::AW_OK ? acceptor_->StartListen(this, address, 0) : made;
    }
    void Stop() {
      if (acceptor_) acceptor_->StopListen();
      acceptor_ = nullptr;
    }

   private:
    void OnConnectIndication(long reason, Transport* transport,
                             ptcp::IAWPseudoTCPAcceptorConnectorId* /*id*/) override {
      if (reason == 0) accepted_(transport);
    }

    const std::function<void(Transport*)> accepted_;
    keelbase::CAWAutoPtr<ptcp::IAWPseudoTCPAcceptor> acceptor_;
  };
};

}  // namespace

constinit const Scheme kPtcpScheme = MakeSessionScheme<OverPtcp>("ptcp://host:port likewise");

}  // namespace zarn::tool
