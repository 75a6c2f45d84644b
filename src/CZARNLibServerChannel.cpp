// CZARNLibServerChannel.cpp - see CZARNLibServerChannel.h.
#include "zarn/utils/CZARNLibServerChannel.h"

#include "ChannelFrame.h"

namespace zarn::utils {

using keelbase::AWResult;
using keelbase::CAWMessageBlock;

CZARNLibServerChannel::CZARNLibServerChannel(fipc::IAWIPCTransport* transport) {
  SetReceiveLimit(kChannelReceiveLimit);
  keelbase::CAWAutoPtr<fipc::IAWIPCTransport> accepted(transport);
  CZARNIPCStreamBase::SetTransportHandle(accepted);
}

std::size_t CZARNLibServerChannel::HandleMessage(const char* data, std::size_t len) {
  return TakeFrame(
      "CZARNLibServerChannel", data, len,
      [this](const Frame& frame) {
        OnZARNMessage(frame.type, frame.tag, frame.payload, frame.datasize);
      },
      [this] { StopAtMalformedFrame(); });
}

void CZARNLibServerChannel::OnPeerDisconnect(long) {}
int CZARNLibServerChannel::OnConnected(long) { return 0; }
void CZARNLibServerChannel::OnRcvBufferOverFlow(std::uint32_t) {}
void CZARNLibServerChannel::OnClose() {}
void CZARNLibServerChannel::OnConnectFailure(long) {}

AWResult CZARNLibServerChannel::SendZARNMessage(std::uint16_t type, std::uint32_t tag,
                                                CAWMessageBlock& data) {
  return SendFrame(*this, type, tag, &data);
}

AWResult CZARNLibServerChannel::SendZARNMessage(std::uint16_t type, std::uint32_t tag,
                                                const char* data, std::size_t len) {
  return SendBytes(*this, type, tag, data, len);
}

}  // namespace zarn::utils
