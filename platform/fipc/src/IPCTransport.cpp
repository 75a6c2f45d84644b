// IPCTransport.cpp - see IPCTransport.h.
#include "IPCTransport.h"

#include <utility>

namespace fipc {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;

IPCTransport::IPCTransport(keelbase::internal::EventLoop& loop,
                           keelbase::internal::FileDescriptor socket, keelbase::CAWIPCAddr local,
                           keelbase::CAWIPCAddr peer,
                           const keelbase::CAWPeerCredentials& credentials)
    : LoopObject(loop),
      socket_(new keelbase::internal::StreamSocket(loop, std::move(socket))),
      local_(std::move(local)),
      peer_(std::move(peer)),
      credentials_(credentials) {}

IPCTransport::~IPCTransport() { socket_->Disconnect(); }

AWResult IPCTransport::OpenWithSink(IAWIPCTransportSink* sink) {
  if (sink == nullptr || sink_ != nullptr) return AW_ERROR_FAILURE;
  const AWResult result = socket_->Open(this);
  if (result == AW_OK) sink_ = sink;
  return result;
}

AWResult IPCTransport::Disconnect(long /*reason*/) {
  sink_ = nullptr;
  socket_->Disconnect();
  return AW_OK;
}

AWResult IPCTransport::GetOption(int code, void* value) {
  if (value == nullptr) return AW_ERROR_FAILURE;
  switch (code) {
    case keelbase::AW_OPT_LOCAL_ADDRESS:
      *static_cast<keelbase::CAWIPCAddr*>(value) = local_;
      return AW_OK;
    case keelbase::AW_OPT_PEER_ADDRESS:
      *static_cast<keelbase::CAWIPCAddr*>(value) = peer_;
      return AW_OK;
    case keelbase::AW_OPT_PEER_CREDENTIALS:
      *static_cast<keelbase::CAWPeerCredentials*>(value) = credentials_;
      return AW_OK;
    default:
      return socket_->GetOption(code, value);
  }
}

AWResult IPCTransport::SetOption(int code, void* value) { return socket_->SetOption(code, value); }

void IPCTransport::OnBytes(keelbase::CAWMessageBlock& block) {
  if (IsLetGo()) return;
  const CAWAutoPtr<IPCTransport> alive(this);
  sink_->OnReceive(block, this, nullptr);
}

void IPCTransport::OnRoom() {
  if (IsLetGo()) return;
  const CAWAutoPtr<IPCTransport> alive(this);
  sink_->OnSend(this, nullptr);
}

void IPCTransport::OnEnd(long reason) {
  if (IsLetGo()) return;
  const CAWAutoPtr<IPCTransport> alive(this);
  std::exchange(sink_, nullptr)->OnDisconnect(reason, this);
}

}  // namespace fipc
