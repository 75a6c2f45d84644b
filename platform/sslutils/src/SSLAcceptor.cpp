// SSLAcceptor.cpp - see SSLAcceptor.h.
#include "SSLAcceptor.h"

#include <cerrno>
#include <memory>
#include <new>
#include <utility>

#include "HandshakeLimit.h"
#include "sslutils/internal/SSLTransport.h"

namespace sslutils {

using internal::SSLTransport;
using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWInetAddr;

SSLAcceptor::SSLAcceptor(keelbase::internal::EventLoop& loop, CAWAutoPtr<wface::IAWAcceptor> tcp)
    : LoopObject(loop), tcp_(std::move(tcp)) {}

AWResult SSLAcceptor::SetPrivateKey(const keelbase::CAWString& text) try {
  return server_.SetPrivateKey(text);
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult SSLAcceptor::SetCertificate(const keelbase::CAWString& text) try {
  return server_.SetCertificate(text);
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult SSLAcceptor::SetClientAuthorities(const keelbase::CAWString& authorities,
                                           bool required) try {
  return server_.SetClientAuthorities(authorities, required);
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult SSLAcceptor::StartListen(IAWSSLConnectionSink* sink, const CAWInetAddr& addr,
                                  int backlog) {
  if (sink == nullptr) return AW_ERROR_FAILURE;
  AWResult result = AW_ERROR_FAILURE;
  GetLoop().Call([&] {
    if (sink_ != nullptr) return;
    try {
      result = server_.Prepare();
      if (result == AW_OK) result = tcp_->StartListen(this, addr, backlog);
    } catch (const std::bad_alloc&) {
      result = AW_ERROR_FAILURE;
    }
    if (result == AW_OK) sink_ = sink;
  });
  return result;
}

AWResult SSLAcceptor::StopListen() {
  GetLoop().Call([this] {
    sink_ = nullptr;
    tcp_->StopListen();
    const auto shaking = std::move(shaking_);
    shaking_.clear();
    for (const auto& each : shaking) each.second->Disconnect();
  });
  return AW_OK;
}

CAWInetAddr SSLAcceptor::GetLocalAddr() {
  CAWInetAddr address;
  GetLoop().Call([&] {
    if (sink_ != nullptr) address = tcp_->GetLocalAddr();
  });
  return address;
}

void SSLAcceptor::OnConnectIndication(long /*reason*/, wface::IAWTransport* transport,
                                      wface::IAWAcceptorConnectorId* /*id*/) {
  if (transport == nullptr || IsLetGo()) return;
  try {
    ShakeHands(transport);
  } catch (const std::bad_alloc&) {
    // This one connection is closed; the next may find memory again.
  }
}

void SSLAcceptor::ShakeHands(wface::IAWTransport* transport) {
  using Bytes = internal::TransportBytes<wface::IAWTransport, wface::IAWTransportSink,
                                         wface::CAWTransportParameter>;
  internal::SslPtr ssl = server_.MakeSsl();
  if (ssl == nullptr) return;
  CAWAutoPtr<Stream> stream(
      new Stream(GetLoop(), std::make_unique<Bytes>(transport), std::move(ssl)));
  Stream* const key = stream.Get();
  shaking_.emplace(key, stream);
  stream->Start(internal::kHandshakeLimit,
                [this, key](long reason) { OnEstablished(key, reason); });
}

void SSLAcceptor::OnEstablished(Stream* stream, long reason) {
  if (IsLetGo()) return;
  const CAWAutoPtr<SSLAcceptor> alive(this);
  const CAWAutoPtr<Stream> held(stream);
  shaking_.erase(stream);
  CAWAutoPtr<IAWSSLTransport> transport;
  if (reason == 0) {
    try {
      transport = new SSLTransport(GetLoop(), held);
    } catch (const std::bad_alloc&) {
      reason = ENOMEM;
    }
  }
  sink_->OnSSLConnected(reason, transport.Get());
}

}  // namespace sslutils
