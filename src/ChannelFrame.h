// ChannelFrame.h - what all message channels do with frames, whatever carries them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "FrameCodec.h"
#include "StreamTrace.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWMessageBlock.h"
#include "zarn/utils/detail/Reconnector.h"

namespace zarn::utils {

// Sixteen of the longest frames: more than that stands unconsumed only behind a malformed one.
inline constexpr std::size_t kChannelReceiveLimit = 1024 * 1024;

// The channel's HandleMessage: `deliver(frame)` for a frame that is there. A malformed one is
// traced, `refuse()` is called, and it is never consumed, so nothing behind it is ever misread.
// Deliver may delete the channel, whose class is called `name`.
template <class Deliver, class Refuse>
std::size_t TakeFrame(const char* name, const char* data, std::size_t len, Deliver deliver,
                      Refuse refuse) {
  const Frame frame = DecodeFrame(data, len);
  switch (frame.result) {
    case FrameResult::kNeedMore:
      return 0;
    case FrameResult::kMalformed:
      TraceMalformedFrame(name, frame);
      refuse();
      return 0;
    case FrameResult::kFrame:
      deliver(frame);
      return frame.pdulen;
  }
  return 0;
}

// Sends one frame. The header stands on the stack and the payload (null: none) is chained behind it
// for the call only, so nothing is copied or allocated before the transport, and the payload stays
// the caller's. 10001 for a payload that is too long, else the result of SendMsg.
template <class Channel>
keelbase::AWResult SendFrame(Channel& channel, std::uint16_t type, std::uint32_t tag,
                             keelbase::CAWMessageBlock* payload) {
  const std::size_t size = payload == nullptr ? 0 : payload->GetChainedLength();
  if (size > kMaxPayloadSize) return keelbase::AW_ERROR_FAILURE;
  const FrameHeader header = EncodeFrameHeader(type, tag, size);
  keelbase::CAWMessageBlock frame(header.data(), header.size(), keelbase::CAWMessageBlock::borrow);
  if (payload == nullptr) return channel.SendMsg(frame);
  const keelbase::CAWMessageBlock::LinkForCall link(frame, *payload);
  return channel.SendMsg(frame);
}

// The same for a client channel, which comes back when its stream had to close: there was no memory
// for the rest of the frame.
template <class Channel>
keelbase::AWResult SendFrameOrReconnect(Channel& channel, detail::Reconnector& reconnector,
                                        std::uint16_t type, std::uint32_t tag,
                                        keelbase::CAWMessageBlock* payload) {
  const bool wasConnected = reconnector.IsConnected();
  const keelbase::AWResult result = SendFrame(channel, type, tag, payload);
  const bool failed = result == keelbase::AW_ERROR_FAILURE;
  if (failed && wasConnected && channel.IsClosed()) reconnector.SetLost();
  return result;
}

// Sends plain bytes by way of the channel's own block form, uncopied.
template <class Channel>
keelbase::AWResult SendBytes(Channel& channel, std::uint16_t type, std::uint32_t tag,
                             const char* data, std::size_t len) {
  if (len > kMaxPayloadSize) return keelbase::AW_ERROR_FAILURE;
  keelbase::CAWMessageBlock payload(data, len, keelbase::CAWMessageBlock::borrow);
  return channel.SendZARNMessage(type, tag, payload);
}

}  // namespace zarn::utils
