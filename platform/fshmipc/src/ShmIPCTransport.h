// ShmIPCTransport.h - a shared-memory connection with the addresses of its ends.
#pragma once

#include "ShmConnection.h"
#include "fshmipc/CAWShmIPCTransport.h"
#include "keelbase/internal/EngineTransport.h"

namespace fshmipc {

class ShmIPCTransport final
    : public keelbase::internal::EngineTransport<IAWShmIPCTransport, IAWShmIPCTransportSink,
                                                 CAWShmIPCTransportParameter, ShmConnection> {
 public:
  ShmIPCTransport(keelbase::internal::EventLoop& loop, ShmConnection* connection,
                  const CAWShmIPCAddr& local, const CAWShmIPCAddr& peer,
                  const keelbase::CAWPeerCredentials& credentials)
      : EngineTransport(loop, connection), local_(local), peer_(peer), credentials_(credentials) {}

  CAWShmIPCAddr GetPeerAddr() const override { return peer_; }
  CAWShmIPCAddr GetLocalAddr() const override { return local_; }
  keelbase::AWResult GetOption(int code, void* value) override {
    if (code != keelbase::AW_OPT_PEER_CREDENTIALS || value == nullptr)
      return GetEngine().GetOption(code, value);
    *static_cast<keelbase::CAWPeerCredentials*>(value) = credentials_;
    return keelbase::AW_OK;
  }
  keelbase::AWResult SetOption(int code, void* value) override {
    return GetEngine().SetOption(code, value);
  }

 private:
  const CAWShmIPCAddr local_;
  const CAWShmIPCAddr peer_;
  const keelbase::CAWPeerCredentials credentials_;
};

}  // namespace fshmipc
