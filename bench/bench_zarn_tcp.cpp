// bench_zarn_tcp.cpp - the TCP session of zarnutils with the frame of the channels.
#include "common/ChannelBench.h"
#include "common/FramedSession.h"
#include "common/TcpPort.h"
#include "wface/CAWConnectionManager.h"
#include "zarn/utils/CZARNTCPSessionBase.h"

namespace {

using keelbase::CAWInetAddr;

std::string GetDirectory() { return std::getenv("ZARN_ROOT"); }

struct OverTcp {
  using Session = bench::FramedSession<zarn::utils::CZARNTCPSessionBase>;
  using Transport = wface::IAWTransport;
  using TransportParameter = wface::CAWTransportParameter;

  class ClientChannel : public Session {
   public:
    // The endpoint is that of the run.
    keelbase::AWResult Init(std::uint16_t, std::uint16_t, std::uint16_t, std::uint16_t) {
      static const CAWInetAddr server(bench::GetAddress().c_str(), bench::ReadPort(GetDirectory()));
      return Connect(server, nullptr);
    }
  };

  class ServerChannel : public Session {
   public:
    explicit ServerChannel(Transport* transport) {
      keelbase::CAWAutoPtr<Transport> held(transport);
      bench::Check(SetTransportHandle(held), "transport");
    }
  };

  class Listener final : public wface::IAWAcceptorConnectorSink {
   public:
    explicit Listener(std::function<void(Transport*)> accepted) : accepted_(std::move(accepted)) {
      auto* manager = wface::CAWConnectionManager::Instance();
      bench::Check(manager->CreateAcceptor(1, acceptor_), "acceptor");
      bench::Check(acceptor_->StartListen(this, CAWInetAddr(bench::GetAddress().c_str(), 0), 0),
                   "listen");
      bench::WritePort(GetDirectory(), acceptor_->GetLocalAddr().GetPort());
    }
    void OnConnectIndication(long reason, Transport* transport,
                             wface::IAWAcceptorConnectorId*) override {
      bench::Check(static_cast<keelbase::AWResult>(reason), "accept");
      accepted_(transport);
    }

   private:
    std::function<void(Transport*)> accepted_;
    keelbase::CAWAutoPtr<wface::IAWAcceptor> acceptor_;
  };
};

}  // namespace

int main(int argc, char** argv) { return bench::ChannelBench<OverTcp>::Run(argc, argv); }
