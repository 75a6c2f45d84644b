// SSLConnector.cpp - see SSLConnector.h.
#include "SSLConnector.h"

#include <cerrno>
#include <memory>
#include <new>
#include <utility>

#include "HandshakeLimit.h"
#include "sslutils/internal/SSLTransport.h"

namespace sslutils {

using internal::SSLTransport;
using internal::TlsStream;
using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWInetAddr;

SSLConnector::SSLConnector(keelbase::internal::EventLoop& loop, CAWAutoPtr<wface::IAWConnector> tcp)
    : LoopObject(loop), tcp_(std::move(tcp)), failure_(loop) {}

AWResult SSLConnector::SetPrivateKey(const keelbase::CAWString& text) try {
  return settings_.identity.SetPrivateKey(text);
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult SSLConnector::SetCertificate(const keelbase::CAWString& text) try {
  return settings_.identity.SetCertificate(text);
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult SSLConnector::SetVerifyMode(int mode) {
  if (mode < AW_SSL_VERIFY_FULL || mode > AW_SSL_VERIFY_NONE) return AW_ERROR_FAILURE;
  mode_ = mode;
  return AW_OK;
}

AWResult SSLConnector::AsyncConnect(IAWSSLConnectionSink* sink, const CAWInetAddr& peer, int verify,
                                    const char* serverName, const CAWInetAddr* local) {
  if (sink == nullptr || sink_ != nullptr || (verify != 0 && verify != 1)) return AW_ERROR_FAILURE;
  try {
    settings_.mode = static_cast<CAWSSLVerifyMode>(verify == 1 ? mode_ : AW_SSL_VERIFY_NONE);
    settings_.serverName = serverName != nullptr ? serverName : "";
    settings_.peer = peer;
    AWResult result = internal::MakeClientSsl(settings_, ssl_);
    sink_ = sink;
    if (result == AW_OK) result = tcp_->AsyncConnect(this, peer, nullptr, local);
    if (result != AW_OK)
      failure_.Start(std::chrono::microseconds(0), 1,
                     [this, result] { Indicate(static_cast<long>(result), nullptr); });
  } catch (const std::bad_alloc&) {
    sink_ = nullptr;
    return AW_ERROR_FAILURE;
  }
  return AW_OK;
}

AWResult SSLConnector::Cancel(long /*reason*/) {
  failure_.Cancel();
  tcp_->CancelConnect();
  GetLoop().Call([this] {
    sink_ = nullptr;
    if (const auto stream = std::move(stream_)) stream->Disconnect();
    ssl_ = nullptr;
  });
  return AW_OK;
}

void SSLConnector::OnConnectIndication(long reason, wface::IAWTransport* transport,
                                       wface::IAWAcceptorConnectorId* /*id*/) {
  if (IsLetGo()) return;
  const CAWAutoPtr<SSLConnector> alive(this);
  if (reason != 0) return Indicate(reason, nullptr);
  try {
    ShakeHands(transport);
  } catch (const std::bad_alloc&) {
    Indicate(ENOMEM, nullptr);
  }
}

void SSLConnector::ShakeHands(wface::IAWTransport* transport) {
  using Bytes = internal::TransportBytes<wface::IAWTransport, wface::IAWTransportSink,
                                         wface::CAWTransportParameter>;
  stream_ = new TlsStream(GetLoop(), std::make_unique<Bytes>(transport), std::move(ssl_));
  stream_->Start(internal::kHandshakeLimit, [this](long reason) { OnEstablished(reason); });
}

void SSLConnector::OnEstablished(long reason) {
  if (IsLetGo()) return;
  const CAWAutoPtr<SSLConnector> alive(this);
  const auto stream = std::move(stream_);
  CAWAutoPtr<IAWSSLTransport> transport;
  if (reason == 0) {
    try {
      transport = new SSLTransport(GetLoop(), stream);
    } catch (const std::bad_alloc&) {
      reason = ENOMEM;
    }
  }
  Indicate(reason, transport.Get());
}

void SSLConnector::Indicate(long reason, IAWSSLTransport* transport) {
  if (IsLetGo()) return;
  const CAWAutoPtr<SSLConnector> alive(this);
  stream_ = nullptr;
  ssl_ = nullptr;
  std::exchange(sink_, nullptr)->OnSSLConnected(reason, transport);
}

}  // namespace sslutils
