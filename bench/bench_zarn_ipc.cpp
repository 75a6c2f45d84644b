// bench_zarn_ipc.cpp - zarnutils over local IPC.
#include "common/ChannelBench.h"
#include "fipc/CAWIPCManager.h"
#include "zarn/utils/CZARNLibClientChannel.h"
#include "zarn/utils/CZARNLibServerChannel.h"

namespace {

struct LocalIpc {
  using ClientChannel = zarn::utils::CZARNLibClientChannel;
  using ServerChannel = zarn::utils::CZARNLibServerChannel;
  using Transport = fipc::IAWIPCTransport;
  using TransportParameter = fipc::CAWIPCTransportParameter;

  class Listener final : public fipc::IAWIPCAcceptorConnectorSink {
   public:
    explicit Listener(std::function<void(Transport*)> accepted) : accepted_(std::move(accepted)) {
      bench::Check(zarn::utils::CreateIPCServer(acceptor_), "acceptor");
      keelbase::CAWIPCAddr address;
      bench::Check(zarn::utils::ZARNCreateIPCAddr(2, 1, address), "address");
      bench::Check(acceptor_->StartListen(this, address), "listen");
    }
    void OnIPCConnectIndication(long reason, Transport* transport,
                                fipc::IAWIPCAcceptorConnectorId*) override {
      bench::Check(static_cast<keelbase::AWResult>(reason), "accept");
      accepted_(transport);
    }

   private:
    std::function<void(Transport*)> accepted_;
    keelbase::CAWAutoPtr<fipc::IAWIPCAcceptor> acceptor_;
  };
};

}  // namespace

int main(int argc, char** argv) { return bench::ChannelBench<LocalIpc>::Run(argc, argv); }
