// SSLAcceptor.h - listens by TCP and shakes hands with who comes.
#pragma once

#include <unordered_map>

#include "keelbase/internal/LoopObject.h"
#include "sslutils/CAWSSLManager.h"
#include "sslutils/internal/TlsServer.h"
#include "sslutils/internal/TlsStream.h"
#include "wface/CAWConnectionManager.h"

namespace sslutils {

class SSLAcceptor final : public keelbase::internal::LoopObject<IAWSSLAcceptor>,
                          private wface::IAWAcceptorConnectorSink {
 public:
  SSLAcceptor(keelbase::internal::EventLoop& loop, keelbase::CAWAutoPtr<wface::IAWAcceptor> tcp);
  ~SSLAcceptor() override = default;

  keelbase::AWResult SetPrivateKey(const keelbase::CAWString& text) override;
  keelbase::AWResult SetCertificate(const keelbase::CAWString& text) override;
  keelbase::AWResult SetClientAuthorities(const keelbase::CAWString& authorities,
                                          bool required) override;
  keelbase::AWResult StartListen(IAWSSLConnectionSink* sink, const keelbase::CAWInetAddr& addr,
                                 int backlog) override;
  keelbase::AWResult StopListen() override;
  keelbase::CAWInetAddr GetLocalAddr() override;

 private:
  using Stream = internal::TlsStream;

  void OnConnectIndication(long reason, wface::IAWTransport* transport,
                           wface::IAWAcceptorConnectorId* id) override;
  void OnLastReference() override { StopListen(); }
  void ShakeHands(wface::IAWTransport* transport);
  void OnEstablished(Stream* stream, long reason);

  const keelbase::CAWAutoPtr<wface::IAWAcceptor> tcp_;
  IAWSSLConnectionSink* sink_ = nullptr;  // null: not listening
  internal::TlsServer server_;
  std::unordered_map<Stream*, keelbase::CAWAutoPtr<Stream>> shaking_;
};

}  // namespace sslutils
