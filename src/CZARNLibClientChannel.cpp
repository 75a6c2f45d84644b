// CZARNLibClientChannel.cpp - see CZARNLibClientChannel.h.
#include "zarn/utils/CZARNLibClientChannel.h"

#include "ChannelFrame.h"
#include "zarn/utils/zarnutils.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;

CZARNLibClientChannel::CZARNLibClientChannel() : reconnector_(this) {
  SetReceiveLimit(kChannelReceiveLimit);
}

CZARNLibClientChannel::~CZARNLibClientChannel() = default;

// --- connecting ---

AWResult CZARNLibClientChannel::Init(std::uint16_t localFirst, std::uint16_t localSecond,
                                     std::uint16_t peerFirst, std::uint16_t peerSecond) {
  if (!reconnector_.Prepare()) return AW_ERROR_FAILURE;
  localFirst_ = localFirst;
  localSecond_ = localSecond;
  peerFirst_ = peerFirst;
  peerSecond_ = peerSecond;
  return ConnectToPeer();
}

// Made anew for each attempt: the install root may come back, or another one take its place.
AWResult CZARNLibClientChannel::ConnectToPeer() {
  keelbase::CAWIPCAddr local;
  keelbase::CAWIPCAddr peer;
  // The factory puts its second number first in the name.
  if (ZARNCreateIPCAddr(localSecond_, localFirst_, local) != AW_OK ||
      ZARNCreateIPCAddr(peerSecond_, peerFirst_, peer) != AW_OK)
    return AW_ERROR_FAILURE;
  reconnector_.SetDown();  // Connect ends a connection that there was
  return Connect(peer, &local);
}

void CZARNLibClientChannel::OnTimer(keelbase::CAWTimerWrapperID*) {
  if (reconnector_.NextAttempt()) ConnectToPeer();
}

int CZARNLibClientChannel::OnConnected(long) {
  reconnector_.SetConnected();
  return 1;
}

void CZARNLibClientChannel::OnPeerDisconnect(long reason) {
  Close(reason);
  reconnector_.SetLost();
}

void CZARNLibClientChannel::OnClose() {
  Close(0);
  reconnector_.SetLost();
}

void CZARNLibClientChannel::OnConnectFailure(long) {}

void CZARNLibClientChannel::OnRcvBufferOverFlow(std::uint32_t) {
  reconnector_.SetDown();
  Close(0);
}

// When a connection is lost the stream is closed already as it calls this: a subclass can still
// tell a loss from a failed attempt in its OnPeerDisconnect.
AWResult CZARNLibClientChannel::Close(long reason) {
  if (!IsClosed()) reconnector_.SetDown();
  return CZARNIPCStreamBase::Close(reason);
}

// --- messages ---

std::size_t CZARNLibClientChannel::HandleMessage(const char* data, std::size_t len) {
  return TakeFrame(
      "CZARNLibClientChannel", data, len,
      [this](const Frame& frame) {
        OnZARNMessage(frame.type, frame.tag, frame.payload, frame.datasize);
      },
      [this] { StopAtMalformedFrame(); });
}

AWResult CZARNLibClientChannel::SendZARNMessage(std::uint16_t type, std::uint32_t tag,
                                                const char* data, std::size_t len) {
  if (len == 0) return SendFrameOrReconnect(*this, reconnector_, type, tag, nullptr);
  return SendBytes(*this, type, tag, data, len);
}

AWResult CZARNLibClientChannel::SendZARNMessage(std::uint16_t type, std::uint32_t tag,
                                                CAWMessageBlock& data) {
  if (!IsConnected()) return AW_ERROR_FAILURE;
  const bool empty = data.GetChainedLength() == 0;
  return SendFrameOrReconnect(*this, reconnector_, type, tag, empty ? nullptr : &data);
}

}  // namespace zarn::utils
