// SSLTransport.h - the transport that users see, on an established TLS stream.
#pragma once

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/internal/LoopObject.h"
#include "sslutils/CAWDefines.h"
#include "sslutils/CAWSSLTransport.h"
#include "sslutils/internal/TlsStream.h"

namespace sslutils::internal {

class SSLUTILS_API SSLTransport final : public keelbase::internal::LoopObject<IAWSSLTransport>,
                                        private ByteSink {
 public:
  SSLTransport(keelbase::internal::EventLoop& loop, keelbase::CAWAutoPtr<TlsStream> stream);
  ~SSLTransport() override;

  keelbase::AWResult OpenWithSink(IAWSSLTransportSink* sink) override;
  keelbase::AWResult SendData(keelbase::CAWMessageBlock& data,
                              CAWSSLTransportParameter* parameter) override;
  keelbase::AWResult Disconnect(long reason) override;
  keelbase::AWResult GetOption(int code, void* value) override;
  keelbase::AWResult SetOption(int code, void* value) override;

 private:
  void OnBytes(keelbase::CAWMessageBlock& block) override;
  void OnRoom() override;
  void OnEnd(long reason) override;

  const keelbase::CAWAutoPtr<TlsStream> stream_;
  IAWSSLTransportSink* sink_ = nullptr;
};

}  // namespace sslutils::internal
