// SSLTransport.cpp - see SSLTransport.h.
#include "sslutils/internal/SSLTransport.h"

#include <utility>

namespace sslutils::internal {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWMessageBlock;

SSLTransport::SSLTransport(keelbase::internal::EventLoop& loop, CAWAutoPtr<TlsStream> stream)
    : LoopObject(loop), stream_(std::move(stream)) {}

SSLTransport::~SSLTransport() { stream_->Disconnect(); }

AWResult SSLTransport::OpenWithSink(IAWSSLTransportSink* sink) {
  if (sink == nullptr || sink_ != nullptr) return AW_ERROR_FAILURE;
  const AWResult result = stream_->Open(this);
  if (result == AW_OK) sink_ = sink;
  return result;
}

AWResult SSLTransport::SendData(CAWMessageBlock& data, CAWSSLTransportParameter*) {
  return stream_->Send(data);
}

AWResult SSLTransport::Disconnect(long /*reason*/) {
  sink_ = nullptr;
  if (!GetLoop().IsLeftToParent()) stream_->Disconnect();
  return AW_OK;
}

AWResult SSLTransport::GetOption(int code, void* value) { return stream_->GetOption(code, value); }

AWResult SSLTransport::SetOption(int code, void* value) { return stream_->SetOption(code, value); }

void SSLTransport::OnBytes(CAWMessageBlock& block) {
  const auto alive = Hold();
  if (!alive) return;
  sink_->OnSSLDataReceive(block, this);
}

void SSLTransport::OnRoom() {
  const auto alive = Hold();
  if (!alive) return;
  sink_->OnSSLDataSend(this);
}

void SSLTransport::OnEnd(long reason) {
  const auto alive = Hold();
  if (!alive) return;
  std::exchange(sink_, nullptr)->OnSSLDisconnect(reason, this);
}

}  // namespace sslutils::internal
