// IPCConnector.cpp - see IPCConnector.h.
#include "IPCConnector.h"

#include <cerrno>
#include <new>
#include <utility>

#include "ClientName.h"
#include "IPCTransport.h"
#include "keelbase/internal/TellOwner.h"
#include "keelbase/internal/TryMake.h"

namespace fipc {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWIPCAddr;
using keelbase::CAWPeerCredentials;
using keelbase::internal::EndpointPath;
using keelbase::internal::FileDescriptor;

AWResult IPCConnector::SetOption(int code, void* value) {
  if (code != AW_OPT_ALLOW_ANY_USER || value == nullptr) return AW_ERROR_FAILURE;
  dialer_.AllowAnyUser(*static_cast<const bool*>(value));
  return AW_OK;
}

AWResult IPCConnector::AsyncConnect(IAWIPCAcceptorConnectorSink* sink, const CAWIPCAddr& peer,
                                    std::uint32_t /*parameter*/, const CAWIPCAddr* local) {
  if (sink == nullptr || sink_ != nullptr) return AW_ERROR_FAILURE;
  try {
    peer_ = peer;
    local_ = local != nullptr ? *local : CAWIPCAddr();
    sink_ = sink;
    dialer_.Start(
        peer_.GetPath(), [this](int socket) { return BindOwnName(socket); },
        [this](int error, FileDescriptor socket, const CAWPeerCredentials& credentials) {
          OnDialled(error, std::move(socket), credentials);
        });
  } catch (const std::bad_alloc&) {
    sink_ = nullptr;
    return AW_ERROR_FAILURE;
  }
  return AW_OK;
}

AWResult IPCConnector::CancelConnect() {
  dialer_.Cancel();
  sink_ = nullptr;
  return AW_OK;
}

// That is how the acceptor learns our address.
int IPCConnector::BindOwnName(int socket) const {
  const EndpointPath local(local_.GetPath());
  if (local_.GetPath().find('\0') != keelbase::CAWString::npos) return EINVAL;
  if (local.name.empty()) return 0;
  const auto name = MakeClientName(local.name);
  if (!name) return ENAMETOOLONG;
  return ::bind(socket, name->Get(), name->size) == 0 ? 0 : errno;
}

void IPCConnector::OnDialled(int error, FileDescriptor socket,
                             const CAWPeerCredentials& credentials) {
  const auto alive = Hold();
  if (!alive) return;
  CAWAutoPtr<IAWIPCTransport> transport;
  if (error == 0) {
    error = keelbase::internal::TryMake<IPCTransport>(transport, GetLoop(), std::move(socket),
                                                      local_, peer_, credentials);
  }
  keelbase::internal::TellOwner([&, sink = sink_.exchange(nullptr)] {
    sink->OnIPCConnectIndication(error, transport.Get(), this);
  });
}

}  // namespace fipc
