// bench_zarn_shm.cpp - zarnutils over shared memory.
#include "common/ChannelBench.h"
#include "fshmipc/CAWShmIPCManager.h"
#include "zarn/utils/CShmZARNLibClientChannel.h"
#include "zarn/utils/CShmZARNLibServerChannel.h"

namespace {

struct SharedMemory {
  using ClientChannel = zarn::utils::CShmZARNLibClientChannel;
  using ServerChannel = zarn::utils::CShmZARNLibServerChannel;
  using Transport = fshmipc::IAWShmIPCTransport;
  using TransportParameter = fshmipc::CAWShmIPCTransportParameter;

  class Listener final : public fshmipc::IAWShmIPCAcceptorConnectorSink {
   public:
    explicit Listener(std::function<void(Transport*)> accepted) : accepted_(std::move(accepted)) {
      bench::Check(zarn::utils::CreateShmIPCServer(acceptor_), "acceptor");
      bench::Check(acceptor_->StartListen(this, fshmipc::CAWShmIPCAddr(1, 2)), "listen");
    }
    void OnShmIPCConnectIndication(long reason, Transport* transport,
                                   fshmipc::IAWShmIPCAcceptorConnectorId*) override {
      bench::Check(static_cast<keelbase::AWResult>(reason), "accept");
      accepted_(transport);
    }

   private:
    std::function<void(Transport*)> accepted_;
    keelbase::CAWAutoPtr<fshmipc::IAWShmIPCAcceptor> acceptor_;
  };
};

}  // namespace

int main(int argc, char** argv) { return bench::ChannelBench<SharedMemory>::Run(argc, argv); }
