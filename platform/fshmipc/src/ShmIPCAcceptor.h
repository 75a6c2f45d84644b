// ShmIPCAcceptor.h - listens at an endpoint, welcomes those who connect and takes the memory that
// they offer.
#pragma once

#include <list>

#include "ShmGreeting.h"
#include "SystemPath.h"
#include "fshmipc/CAWShmIPCManager.h"
#include "keelbase/internal/EndpointListener.h"
#include "keelbase/internal/LoopObject.h"

namespace fshmipc {

class ShmIPCAcceptor final : public keelbase::internal::LoopObject<IAWShmIPCAcceptor> {
 public:
  ShmIPCAcceptor(keelbase::internal::EventLoop& loop, const SystemPath& systemPath);
  ~ShmIPCAcceptor() override;

  keelbase::AWResult SetOption(int code, void* value) override;
  keelbase::AWResult StartListen(IAWShmIPCAcceptorConnectorSink* sink,
                                 const CAWShmIPCAddr& addr) override;
  keelbase::AWResult StopListen() override;

 private:
  // A connection that has not greeted yet.
  class Guest;

  void OnAccepted(FileDescriptor socket, const keelbase::CAWPeerCredentials& credentials);
  void OnFailed(int error);
  void OnGreeted(Guest& guest, int error, const Greeting& greeting, const FileDescriptor& memory);
  void Dismiss(const Guest& guest);
  void Stop();

  const SystemPath& systemPath_;
  IAWShmIPCAcceptorConnectorSink* sink_ = nullptr;  // null: not listening
  CAWShmIPCAddr address_;
  keelbase::internal::EndpointListener listener_;
  std::list<Guest> guests_;
};

}  // namespace fshmipc
