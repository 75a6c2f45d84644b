// IpcLink.cpp - see IpcLink.h.
#include "IpcLink.h"

#include <functional>
#include <utility>

#include "LocalLink.h"
#include "fipc/CAWIPCManager.h"
#include "zarn/utils/CZARNLibClientChannel.h"
#include "zarn/utils/CZARNLibServerChannel.h"
#include "zarn/utils/zarnutils.h"

namespace zarn::tool {

namespace {

struct LocalIpc {
  static constexpr const char* kScheme = "ipc";
  using Server = utils::CZARNLibServerChannel;
  using Transport = fipc::IAWIPCTransport;
  using TransportParameter = fipc::CAWIPCTransportParameter;

  static keelbase::AWResult Prepare() { return keelbase::AW_OK; }
  static std::string Explain(long /*reason*/) { return {}; }
  static std::string DescribePeer(const Server& server) {
    const std::string& path = server.GetPeerAddr().GetPath();
    return path.substr(path.rfind('/') + 1);
  }

  // Remembers its transport, which gathers what it has not written yet.
  class Client : public utils::CZARNLibClientChannel {
   public:
    std::size_t GetTransportQueue() const {
      keelbase::CAWTransportCounters counters;
      if (transport_) transport_->GetOption(keelbase::AW_OPT_COUNTERS, &counters);
      return counters.queuedBytes;
    }
    void OnIPCConnectIndication(long reason, Transport* transport,
                                fipc::IAWIPCAcceptorConnectorId* id) override {
      transport_ = transport;
      CZARNLibClientChannel::OnIPCConnectIndication(reason, transport, id);
    }
    void OnDisconnect(long reason, Transport* transport) override {
      transport_ = nullptr;
      CZARNLibClientChannel::OnDisconnect(reason, transport);
    }
    keelbase::AWResult Close(long reason) override {
      transport_ = nullptr;
      return CZARNLibClientChannel::Close(reason);
    }

   private:
    keelbase::CAWAutoPtr<Transport> transport_;
  };

  class Listener final : private fipc::IAWIPCAcceptorConnectorSink {
   public:
    using Accepted = std::function<void(Transport*)>;
    using Failed = std::function<void(long)>;
    Listener(Accepted accepted, Failed failed)
        : accepted_(std::move(accepted)), failed_(std::move(failed)) {}

    keelbase::AWResult Start(Pair own) {
      keelbase::CAWIPCAddr address;
      keelbase::AWResult result = utils::ZARNCreateIPCAddr(own.second, own.first, address);
      if (result == keelbase::AW_OK) result = utils::CreateIPCServer(acceptor_);
      return result == keelbase::AW_OK ? acceptor_->StartListen(this, address) : result;
    }
    void Stop() {
      if (acceptor_) acceptor_->StopListen();
      acceptor_ = nullptr;
    }

   private:
    void OnIPCConnectIndication(long reason, Transport* transport,
                                fipc::IAWIPCAcceptorConnectorId* /*id*/) override {
      reason == 0 ? accepted_(transport) : failed_(reason);
    }

    const Accepted accepted_;
    const Failed failed_;
    keelbase::CAWAutoPtr<fipc::IAWIPCAcceptor> acceptor_;
  };
};

}  // namespace

constinit const Scheme kIpcScheme =
    MakeLocalScheme<LocalIpc>("ipc://X_Y with numbers from 0 to 65535");

}  // namespace zarn::tool
