// TcpLink.cpp - see TcpLink.h.
#include "TcpLink.h"

#include <functional>
#include <utility>

#include "SessionLink.h"
#include "wface/CAWConnectionManager.h"
#include "zarn/utils/CZARNTCPSessionBase.h"

namespace zarn::tool {

namespace {

struct PlainTcp {
  static constexpr const char* kScheme = "tcp";
  using Session = utils::CZARNTCPSessionBase;
  using Transport = wface::IAWTransport;
  using TransportParameter = wface::CAWTransportParameter;

  static std::string Prepare(Session&, const Endpoint&) { return {}; }
  static std::string GetSubject(Transport&) { return {}; }
  static bool IsFinal(long /*reason*/) { return false; }

  class Listener final : private wface::IAWAcceptorConnectorSink {
   public:
    Listener(std::function<void(Transport*)> accepted, const std::function<void(long)>& /*refused*/)
        : accepted_(std::move(accepted)) {}

    static std::string Prepare(const Endpoint&) { return {}; }

    keelbase::AWResult Start(const keelbase::CAWInetAddr& address) {
      const keelbase::AWResult made =
          wface::CAWConnectionManager::Instance()->CreateAcceptor(1, acceptor_);
      return made == keelbase::AW_OK ? acceptor_->StartListen(this, address, 0) : made;
    }
    void Stop() {
      if (acceptor_) acceptor_->StopListen();
      acceptor_ = nullptr;
    }

   private:
    void OnConnectIndication(long reason, Transport* transport,
                             wface::IAWAcceptorConnectorId* /*id*/) override {
      if (reason == 0) accepted_(transport);
    }

    const std::function<void(Transport*)> accepted_;
    keelbase::CAWAutoPtr<wface::IAWAcceptor> acceptor_;
  };
};

}  // namespace

constinit const Scheme kTcpScheme = MakeSessionScheme<PlainTcp>(
    "tcp://host:port with a name or an IPv4 address and a port from 1 to 65535");

}  // namespace zarn::tool
