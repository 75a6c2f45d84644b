// IPCTransport.cpp - see IPCTransport.h.
#include "IPCTransport.h"

#include <new>
#include <utility>

namespace fipc {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::internal::StreamSocket;

IPCTransport::IPCTransport(keelbase::internal::EventLoop& loop,
                           keelbase::internal::FileDescriptor socket, keelbase::CAWIPCAddr local,
                           keelbase::CAWIPCAddr peer,
                           const keelbase::CAWPeerCredentials& credentials)
    : EngineTransport(loop, new StreamSocket(loop, std::move(socket))),
      local_(std::move(local)),
      peer_(std::move(peer)),
      credentials_(credentials) {}

AWResult IPCTransport::GetOption(int code, void* value) try {
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
      return GetEngine().GetOption(code, value);
  }
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult IPCTransport::SetOption(int code, void* value) {
  return GetEngine().SetOption(code, value);
}

}  // namespace fipc
