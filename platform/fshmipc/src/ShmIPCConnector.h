// ShmIPCConnector.h - connects to an endpoint and, once it is welcomed, makes the shared memory and
// offers it.
#pragma once

#include <atomic>

#include "ShmSegment.h"
#include "SystemPath.h"
#include "fshmipc/CAWShmIPCManager.h"
#include "keelbase/internal/EndpointDialer.h"
#include "keelbase/internal/LoopObject.h"

namespace fshmipc {

class ShmIPCConnector final : public keelbase::internal::LoopObject<IAWShmIPCConnector>,
                              private keelbase::internal::Watcher {
 public:
  ShmIPCConnector(keelbase::internal::EventLoop& loop, const SystemPath& systemPath)
      : LoopObject(loop), systemPath_(systemPath), dialer_(loop), timeLimit_(loop) {}
  ~ShmIPCConnector() override { Stop(); }

  keelbase::AWResult SetOption(int code, void* value) override;
  keelbase::AWResult AsyncConnect(IAWShmIPCAcceptorConnectorSink* sink, const CAWShmIPCAddr& peer,
                                  std::uint32_t parameter, const CAWShmIPCAddr* local) override;
  keelbase::AWResult CancelConnect() override;

 private:
  // On any thread, and waits for nobody; the rest is undone when the loop destroys us.
  void OnLastReference() override {
    dialer_.Cancel();
    timeLimit_.Cancel();
  }
  void OnDialled(int error, FileDescriptor socket, const keelbase::CAWPeerCredentials& credentials);
  int AwaitWelcome();
  int Greet();
  void OnReady(std::uint32_t events) override;
  void Finish(int error);
  void Stop();

  const SystemPath& systemPath_;
  // Null: no connect under way. Set and asked by the user's thread, taken by the loop's.
  std::atomic<IAWShmIPCAcceptorConnectorSink*> sink_{nullptr};
  CAWShmIPCAddr peer_;
  CAWShmIPCAddr local_;
  std::uint32_t ringSize_ = kDefaultRingSize;
  keelbase::internal::EndpointDialer dialer_;

  // From the connect to the answer.
  FileDescriptor socket_;
  bool watched_ = false;
  bool greeted_ = false;  // else the welcome has not come
  ShmSegment segment_;
  keelbase::CAWPeerCredentials credentials_;
  keelbase::internal::Timer timeLimit_;
};

}  // namespace fshmipc
