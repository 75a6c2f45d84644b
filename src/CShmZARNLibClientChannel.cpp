// CShmZARNLibClientChannel.cpp - see CShmZARNLibClientChannel.h.
#include "zarn/utils/CShmZARNLibClientChannel.h"

#include "ChannelFrame.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;

CShmZARNLibClientChannel::CShmZARNLibClientChannel() : reconnector_(this) {
  SetReceiveLimit(kChannelReceiveLimit);
}

CShmZARNLibClientChannel::~CShmZARNLibClientChannel() = default;

// --- connecting ---

AWResult CShmZARNLibClientChannel::Init(std::uint16_t localFirst, std::uint16_t localSecond,
                                        std::uint16_t peerFirst, std::uint16_t peerSecond) {
  if (!reconnector_.Prepare()) return AW_ERROR_FAILURE;
  localFirst_ = localFirst;
  localSecond_ = localSecond;
  peerFirst_ = peerFirst;
  peerSecond_ = peerSecond;
  reconnector_.SetLost();  // whatever comes of the connect: OnConnectFailure leaves it to the timer
  return ConnectToPeer();
}

AWResult CShmZARNLibClientChannel::ConnectToPeer() {
  fshmipc::CAWShmIPCAddr local(localFirst_, localSecond_);
  return Connect(fshmipc::CAWShmIPCAddr(peerFirst_, peerSecond_), &local);
}

void CShmZARNLibClientChannel::OnTimer(keelbase::CAWTimerWrapperID*) {
  if (reconnector_.NextAttempt()) ConnectToPeer();
}

int CShmZARNLibClientChannel::OnConnected(long) {
  reconnector_.SetConnected();
  return 1;
}

void CShmZARNLibClientChannel::OnPeerDisconnect(long reason) {
  Close(reason);
  reconnector_.SetLost();
}

void CShmZARNLibClientChannel::OnClose() {
  Close(0);
  reconnector_.SetLost();
}

void CShmZARNLibClientChannel::OnConnectFailure(long) {}

void CShmZARNLibClientChannel::OnRcvBufferOverFlow(std::uint32_t) { Close(0); }

AWResult CShmZARNLibClientChannel::Close(long reason) {
  reconnector_.SetDown();
  return CZARNShmIPCStreamBase::Close(reason);
}

// --- messages ---

std::size_t CShmZARNLibClientChannel::HandleMessage(const char* data, std::size_t len) {
  return TakeFrame(
      "CShmZARNLibClientChannel", data, len,
      [this](const Frame& frame) {
        OnZARNMessage(frame.type, frame.tag, frame.payload, frame.datasize);
      },
      [this] { StopAtMalformedFrame(); });
}

AWResult CShmZARNLibClientChannel::SendZARNMessage(std::uint16_t type, std::uint32_t tag,
                                                   const char* data, std::size_t len) {
  if (len == 0) return SendFrameOrReconnect(*this, reconnector_, type, tag, nullptr);
  return SendBytes(*this, type, tag, data, len);
}

AWResult CShmZARNLibClientChannel::SendZARNMessage(std::uint16_t type, std::uint32_t tag,
                                                   CAWMessageBlock& data) {
  if (!IsConnected()) return AW_ERROR_FAILURE;
  const bool empty = data.GetChainedLength() == 0;
  return SendFrameOrReconnect(*this, reconnector_, type, tag, empty ? nullptr : &data);
}

}  // namespace zarn::utils
