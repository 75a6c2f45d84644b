// PtcpTransport.h - a pseudo-TCP connection with the addresses of its ends.
#pragma once

#include "PtcpEngine.h"
#include "keelbase/internal/EngineTransport.h"
#include "ptcp/CAWPseudoTCPTransport.h"

namespace ptcp {

class PtcpTransport final
    : public keelbase::internal::EngineTransport<IAWPseudoTCPTransport, IAWPseudoTCPTransportSink,
                                                 CAWPseudoTCPTransportParameter, PtcpEngine> {
 public:
  PtcpTransport(keelbase::internal::EventLoop& loop, PtcpEngine* engine,
                const keelbase::CAWInetAddr& local)
      : EngineTransport(loop, engine), local_(local) {}

  keelbase::AWResult GetOption(int code, void* value) override {
    const bool isLocal = code == keelbase::AW_OPT_LOCAL_ADDRESS;
    if (value == nullptr || (!isLocal && code != keelbase::AW_OPT_PEER_ADDRESS))
      return GetEngine().GetOption(code, value);
    *static_cast<keelbase::CAWInetAddr*>(value) = isLocal ? local_ : GetEngine().GetPath().peer;
    return keelbase::AW_OK;
  }
  keelbase::AWResult SetOption(int code, void* value) override {
    return GetEngine().SetOption(code, value);
  }

 private:
  const keelbase::CAWInetAddr local_;
};

}  // namespace ptcp
