// ShmLink.cpp - see ShmLink.h.
#include "ShmLink.h"

#include <functional>
#include <utility>

#include "LocalLink.h"
#include "fshmipc/CAWShmIPCManager.h"
#include "zarn/utils/CShmZARNLibClientChannel.h"
#include "zarn/utils/CShmZARNLibServerChannel.h"
#include "zarn/utils/zarnutils.h"

namespace zarn::tool {

namespace {

struct SharedMemory {
  static constexpr const char* kScheme = "shm";
  using Server = utils::CShmZARNLibServerChannel;
  using Transport = fshmipc::IAWShmIPCTransport;
  using TransportParameter = fshmipc::CAWShmIPCTransportParameter;

  static keelbase::AWResult Prepare() { return utils::ZARNLibInit(); }
  static std::string Explain(long reason) {
    if (reason == EPROTONOSUPPORT) return "the peer's shared memory is of another version";
    if (reason == ENOMEM || reason == ENOSPC) return "no memory for the connection's rings";
    return {};
  }
  static std::string DescribePeer(const Server& server) {
    const fshmipc::CAWShmIPCAddr& peer = server.GetPeerAddr();
    if (peer == fshmipc::CAWShmIPCAddr()) return {};
    return ToText(Pair{peer.GetFirst(), peer.GetSecond()});
  }

  // The transport has no queue: what it takes can be read by the peer at once.
  class Client : public utils::CShmZARNLibClientChannel {
   public:
    static std::size_t GetTransportQueue() { return 0; }
  };

  class Listener final : private fshmipc::IAWShmIPCAcceptorConnectorSink {
   public:
    using Accepted = std::function<void(Transport*)>;
    using Failed = std::function<void(long)>;
    Listener(Accepted accepted, Failed failed)
        : accepted_(std::move(accepted)), failed_(std::move(failed)) {}

    keelbase::AWResult Start(Pair own) {
      const keelbase::AWResult result = utils::CreateShmIPCServer(acceptor_);
      if (result != keelbase::AW_OK) return result;
      return acceptor_->StartListen(this, fshmipc::CAWShmIPCAddr(own.first, own.second));
    }
    void Stop() {
      if (acceptor_) acceptor_->StopListen();
      acceptor_ = nullptr;
    }

   private:
    void OnShmIPCConnectIndication(long reason, Transport* transport,
                                   fshmipc::IAWShmIPCAcceptorConnectorId* /*id*/) override {
      reason == 0 ? accepted_(transport) : failed_(reason);
    }

    const Accepted accepted_;
    const Failed failed_;
    keelbase::CAWAutoPtr<fshmipc::IAWShmIPCAcceptor> acceptor_;
  };
};

}  // namespace

constinit const Scheme kShmScheme = MakeLocalScheme<SharedMemory>("shm://X_Y likewise");

}  // namespace zarn::tool
