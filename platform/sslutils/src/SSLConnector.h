// SSLConnector.h - connects by TCP and shakes hands.
#pragma once

#include "keelbase/internal/LoopObject.h"
#include "sslutils/CAWSSLManager.h"
#include "sslutils/internal/TlsClient.h"
#include "sslutils/internal/TlsStream.h"
#include "wface/CAWConnectionManager.h"

namespace sslutils {

class SSLConnector final : public keelbase::internal::LoopObject<IAWSSLConnector>,
                           private wface::IAWAcceptorConnectorSink {
 public:
  SSLConnector(keelbase::internal::EventLoop& loop, keelbase::CAWAutoPtr<wface::IAWConnector> tcp);
  ~SSLConnector() override = default;

  keelbase::AWResult SetPrivateKey(const keelbase::CAWString& text) override;
  keelbase::AWResult SetCertificate(const keelbase::CAWString& text) override;
  keelbase::AWResult SetVerifyMode(int mode) override;
  keelbase::AWResult AsyncConnect(IAWSSLConnectionSink* sink, const keelbase::CAWInetAddr& peer,
                                  int verify, const char* serverName,
                                  const keelbase::CAWInetAddr* local) override;
  keelbase::AWResult Cancel(long reason) override;

 private:
  void OnConnectIndication(long reason, wface::IAWTransport* transport,
                           wface::IAWAcceptorConnectorId* id) override;
  void OnLastReference() override { Cancel(0); }
  void ShakeHands(wface::IAWTransport* transport);
  void OnEstablished(long reason);
  void Indicate(long reason, IAWSSLTransport* transport);

  const keelbase::CAWAutoPtr<wface::IAWConnector> tcp_;
  IAWSSLConnectionSink* sink_ = nullptr;  // null: no connect under way
  int mode_ = AW_SSL_VERIFY_FULL;
  internal::TlsClientSettings settings_;
  internal::SslPtr ssl_;
  keelbase::CAWAutoPtr<internal::TlsStream> stream_;
  keelbase::internal::Timer failure_;  // a connect that cannot even be tried
};

}  // namespace sslutils
