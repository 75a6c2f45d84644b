// CShmZARNLibServerChannel.cpp - see CShmZARNLibServerChannel.h.
#include "zarn/utils/CShmZARNLibServerChannel.h"

#include "ChannelFrame.h"

namespace zarn::utils {

using keelbase::AWResult;
using keelbase::CAWMessageBlock;

CShmZARNLibServerChannel::CShmZARNLibServerChannel(fshmipc::IAWShmIPCTransport* transport) {
  SetReceiveLimit(kChannelReceiveLimit);
  keelbase::CAWAutoPtr<fshmipc::IAWShmIPCTransport> accepted(transport);
  CZARNShmIPCStreamBase::SetTransportHandle(accepted);
}

std::size_t CShmZARNLibServerChannel::HandleMessage(const char* data, std::size_t len) {
  return TakeFrame(
      "CShmZARNLibServerChannel", data, len,
      [this](const Frame& frame) {
        OnZARNMessage(frame.type, frame.tag, frame.payload, frame.datasize);
      },
      [this] { StopAtMalformedFrame(); });
}

void CShmZARNLibServerChannel::OnPeerDisconnect(long) {}
int CShmZARNLibServerChannel::OnConnected(long) { return 0; }
void CShmZARNLibServerChannel::OnRcvBufferOverFlow(std::uint32_t) {}
void CShmZARNLibServerChannel::OnClose() {}
void CShmZARNLibServerChannel::OnConnectFailure(long) {}

AWResult CShmZARNLibServerChannel::SendZARNMessage(std::uint16_t type, std::uint32_t tag,
                                                   CAWMessageBlock& data) {
  return SendFrame(*this, type, tag, &data);
}

AWResult CShmZARNLibServerChannel::SendZARNMessage(std::uint16_t type, std::uint32_t tag,
                                                   const char* data, std::size_t len) {
  return SendBytes(*this, type, tag, data, len);
}

}  // namespace zarn::utils
