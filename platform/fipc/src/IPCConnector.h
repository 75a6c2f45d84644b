// IPCConnector.h - connects to an endpoint file.
#pragma once

#include <atomic>

#include "fipc/CAWIPCManager.h"
#include "keelbase/internal/EndpointDialer.h"
#include "keelbase/internal/LoopObject.h"

namespace fipc {

class IPCConnector final : public keelbase::internal::LoopObject<IAWIPCConnector> {
 public:
  explicit IPCConnector(keelbase::internal::EventLoop& loop) : LoopObject(loop), dialer_(loop) {}
  ~IPCConnector() override = default;

  keelbase::AWResult SetOption(int code, void* value) override;
  keelbase::AWResult AsyncConnect(IAWIPCAcceptorConnectorSink* sink,
                                  const keelbase::CAWIPCAddr& peer, std::uint32_t parameter,
                                  const keelbase::CAWIPCAddr* local) override;
  keelbase::AWResult CancelConnect() override;

 private:
  void OnLastReference() override { dialer_.Cancel(); }
  int BindOwnName(int socket) const;
  void OnDialled(int error, keelbase::internal::FileDescriptor socket,
                 const keelbase::CAWPeerCredentials& credentials);

  // Null: no connect under way. Set and asked by the user's thread, taken by the loop's.
  std::atomic<IAWIPCAcceptorConnectorSink*> sink_{nullptr};
  keelbase::CAWIPCAddr peer_;
  keelbase::CAWIPCAddr local_;
  keelbase::internal::EndpointDialer dialer_;
};

}  // namespace fipc
