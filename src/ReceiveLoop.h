// ReceiveLoop.h - hands received bytes to a stream's handler, frame by frame.
#pragma once

#include <cstddef>
#include <utility>

#include "StreamTrace.h"
#include "keelbase/CAWMessageBlock.h"
#include "zarn/utils/CZARNStreamCounters.h"
#include "zarn/utils/detail/Generation.h"
#include "zarn/utils/detail/ReceiveAccumulator.h"

namespace zarn::utils {

// What came of offering some bytes.
struct ReceivePass {
  enum class End {
    kNeedMore,   // the rest is no complete frame, or there is none
    kTooLong,    // the handler claims more bytes than there are
    kClosed,     // the handler has closed the stream
    kNoMemory,   // the bytes could not be kept
    kReplaced,   // the stream has another connection, or none, and is not closed: leave it alone
    kDestroyed,  // there is no stream any more
  };
  End end = End::kNeedMore;
  std::size_t consumed = 0;
  std::size_t offered = 0;   // to the last call
  std::size_t answered = 0;  // by the last call
};

// The parts of a stream that a receive event works on; gone with the stream.
struct ReceiveParts {
  detail::Generation& generation;
  const bool& closed;
  CZARNStreamCounters& counters;
  detail::ReceiveAccumulator& received;  // what the handler has not taken yet
};

// Calls stream.HandleMessage as long as frames and bytes are left. It may do anything to the
// stream, also delete it: neither `stream` nor its parts are touched then. The bytes must outlive
// the call.
template <class Stream>
ReceivePass OfferFrames(Stream& stream, const ReceiveParts& parts, const char* data,
                        std::size_t length) {
  using End = ReceivePass::End;
  const detail::Generation::Watch watch(parts.generation);
  ReceivePass pass;
  const auto ended = [&pass](End end) {
    pass.end = end;
    return pass;
  };
  while (pass.consumed < length) {
    pass.offered = length - pass.consumed;
    pass.answered = stream.HandleMessage(data + pass.consumed, pass.offered);
    if (watch.IsDestroyed()) return ended(End::kDestroyed);
    const bool tooLong = pass.answered > pass.offered;
    if (pass.answered != 0 && !tooLong) {
      ++parts.counters.messagesReceived;
      pass.consumed += pass.answered;
    }
    if (watch.HasChanged() && !parts.closed) return ended(End::kReplaced);
    if (tooLong) return ended(End::kTooLong);
    if (parts.closed) return ended(End::kClosed);
    if (pass.answered == 0) break;
  }
  return pass;
}

// Offers a block while nothing waits: in place, and only what the handler has not taken is kept.
template <class Stream>
ReceivePass OfferInPlace(Stream& stream, const ReceiveParts& parts,
                         const keelbase::CAWMessageBlock& block) {
  using End = ReceivePass::End;
  const std::size_t length = block.GetLength();
  parts.counters.bytesReceived += length;
  ReceivePass pass = OfferFrames(stream, parts, block.GetReadPtr(), length);
  const bool stays = pass.end == End::kNeedMore || pass.end == End::kTooLong;
  if (!stays || pass.consumed == length) return pass;
  if (parts.received.Append(block) == keelbase::AW_OK) {
    parts.received.Consume(pass.consumed);
  } else {
    pass.end = End::kNoMemory;
  }
  return pass;
}

// A receive event: adds the unread bytes of `data`, which is left as it is, to those that wait, and
// offers them. What the handler has not taken waits again, unless the stream is destroyed or has
// another connection by then. The caller keeps the bytes of `data` while the handler runs, whatever
// that does to the stream.
template <class Stream>
ReceivePass OfferAndLeave(Stream& stream, const ReceiveParts& parts,
                          const keelbase::CAWMessageBlock& data) {
  ReceivePass pass;
  const std::size_t length = data.GetChainedLength();
  if (length == 0) return pass;
  if (parts.received.GetLength() == 0 && data.GetNext() == nullptr)
    return OfferInPlace(stream, parts, data);
  if (parts.received.Append(data) != keelbase::AW_OK) {
    pass.end = ReceivePass::End::kNoMemory;
    return pass;
  }
  parts.counters.bytesReceived += length;

  // Held here while the handler runs, the bytes outlive whatever it does to the stream.
  detail::ReceiveAccumulator held = std::move(parts.received);
  pass = OfferFrames(stream, parts, held.GetData(), held.GetLength());
  const bool lost =
      pass.end == ReceivePass::End::kDestroyed || pass.end == ReceivePass::End::kReplaced;
  if (lost) return pass;
  held.Consume(pass.consumed);
  parts.received = std::move(held);
  return pass;
}

// The same, and advances `data` over all of its bytes.
template <class Stream>
ReceivePass OfferAndAdvance(Stream& stream, const ReceiveParts& parts,
                            keelbase::CAWMessageBlock& data) {
  const std::size_t length = data.GetChainedLength();
  const ReceivePass pass = OfferAndLeave(stream, parts, data);
  if (pass.end != ReceivePass::End::kNoMemory) data.AdvanceChainedReadPtr(length);
  return pass;
}

// OnReceiveDirect: offers the first segment of `data` in place. kNeedMore or kReplaced, and `data`
// is advanced over what was taken; kClosed when the stream is to be ended, also for a handler that
// claims too much, which is traced under the name of `operation`; kDestroyed.
template <class Stream>
ReceivePass::End OfferDirect(Stream& stream, const ReceiveParts& parts,
                             keelbase::CAWMessageBlock& data, const char* operation) {
  using End = ReceivePass::End;
  const ReceivePass pass = OfferFrames(stream, parts, data.GetReadPtr(), data.GetLength());
  if (pass.end == End::kDestroyed) return pass.end;
  parts.counters.bytesReceived += pass.consumed;
  if (pass.end == End::kTooLong)
    TraceTooLongAnswer(operation, pass.answered, pass.offered, &stream);
  if (pass.end == End::kTooLong || parts.closed) return End::kClosed;
  data.AdvanceReadPtr(pass.consumed);
  return pass.end;
}

}  // namespace zarn::utils
