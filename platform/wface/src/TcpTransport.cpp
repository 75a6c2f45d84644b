// TcpTransport.cpp - see TcpTransport.h.
#include "TcpTransport.h"

#include <utility>

#include "keelbase/internal/TryMake.h"

namespace wface {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWInetAddr;
using keelbase::internal::FileDescriptor;
using keelbase::internal::StreamSocket;

TcpTransport::TcpTransport(keelbase::internal::EventLoop& loop, FileDescriptor socket,
                           const TcpEnds& ends)
    : EngineTransport(loop, new StreamSocket(loop, std::move(socket))), ends_(ends) {}

AWResult TcpTransport::GetOption(int code, void* value) {
  if (value == nullptr) return AW_ERROR_FAILURE;
  switch (code) {
    case keelbase::AW_OPT_LOCAL_ADDRESS:
      *static_cast<CAWInetAddr*>(value) = ends_.local;
      return AW_OK;
    case keelbase::AW_OPT_PEER_ADDRESS:
      *static_cast<CAWInetAddr*>(value) = ends_.peer;
      return AW_OK;
    default:
      return GetEngine().GetOption(code, value);
  }
}

AWResult TcpTransport::SetOption(int code, void* value) {
  if (code != AW_OPT_SILENCE_LIMIT) return GetEngine().SetOption(code, value);
  if (value == nullptr) return AW_ERROR_FAILURE;
  const auto limit = *static_cast<const std::uint32_t*>(value);
  return SetSilenceLimit(GetEngine().GetDescriptor(), limit) ? AW_OK : AW_ERROR_FAILURE;
}

int MakeTransport(keelbase::internal::EventLoop& loop, FileDescriptor socket, const TcpEnds& ends,
                  keelbase::CAWAutoPtr<IAWTransport>& out) {
  return keelbase::internal::TryMake<TcpTransport>(out, loop, std::move(socket), ends);
}

}  // namespace wface
