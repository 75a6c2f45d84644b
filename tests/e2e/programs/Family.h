// Family.h - the two families of channels, local IPC and shared memory, for programs that can use
// either.
#pragma once

#include "Program.h"
#include "zarn/utils/CShmZARNLibClientChannel.h"
#include "zarn/utils/CShmZARNLibServerChannel.h"
#include "zarn/utils/CZARNLibClientChannel.h"
#include "zarn/utils/CZARNLibServerChannel.h"

namespace e2e {

struct LocalIpc {
  using ClientChannel = zarn::utils::CZARNLibClientChannel;
  using ServerChannel = zarn::utils::CZARNLibServerChannel;
  using Transport = fipc::IAWIPCTransport;

  static keelbase::AWResult Prepare() { return keelbase::AW_OK; }

  class Listener : public fipc::IAWIPCAcceptorConnectorSink {
   public:
    virtual void OnIndication(long reason, Transport* transport) = 0;

   protected:
    keelbase::AWResult Listen(const Endpoint& endpoint) {
      keelbase::CAWIPCAddr address;
      keelbase::AWResult result =
          zarn::utils::ZARNCreateIPCAddr(endpoint.second, endpoint.first, address);
      if (result == keelbase::AW_OK) result = zarn::utils::CreateIPCServer(acceptor_);
      return result == keelbase::AW_OK ? acceptor_->StartListen(this, address) : result;
    }
    void StopListening() { acceptor_ = nullptr; }

   private:
    void OnIPCConnectIndication(long reason, Transport* transport,
                                fipc::IAWIPCAcceptorConnectorId* /*id*/) override {
      OnIndication(reason, transport);
    }
    keelbase::CAWAutoPtr<fipc::IAWIPCAcceptor> acceptor_;
  };
};

struct SharedMemory {
  using ClientChannel = zarn::utils::CShmZARNLibClientChannel;
  using ServerChannel = zarn::utils::CShmZARNLibServerChannel;
  using Transport = fshmipc::IAWShmIPCTransport;

  static keelbase::AWResult Prepare() { return zarn::utils::ZARNLibInit(); }

  class Listener : public fshmipc::IAWShmIPCAcceptorConnectorSink {
   public:
    virtual void OnIndication(long reason, Transport* transport) = 0;

   protected:
    keelbase::AWResult Listen(const Endpoint& endpoint) {
      const fshmipc::CAWShmIPCAddr address(endpoint.first, endpoint.second);
      const keelbase::AWResult result = zarn::utils::CreateShmIPCServer(acceptor_);
      return result == keelbase::AW_OK ? acceptor_->StartListen(this, address) : result;
    }
    void StopListening() { acceptor_ = nullptr; }

   private:
    void OnShmIPCConnectIndication(long reason, Transport* transport,
                                   fshmipc::IAWShmIPCAcceptorConnectorId* /*id*/) override {
      OnIndication(reason, transport);
    }
    keelbase::CAWAutoPtr<fshmipc::IAWShmIPCAcceptor> acceptor_;
  };
};

}  // namespace e2e
