// BlockLoop.h - hands received bytes to a handler that is given blocks.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <utility>

#include "ReceiveLoop.h"
#include "StreamTrace.h"
#include "keelbase/CAWMessageBlock.h"

namespace zarn::utils {

inline std::unique_ptr<keelbase::CAWMessageBlock> DuplicateOrNull(
    const keelbase::CAWMessageBlock& bytes) try {
  return std::unique_ptr<keelbase::CAWMessageBlock>(bytes.DuplicateChained());
} catch (const std::bad_alloc&) {
  return nullptr;
}

// Calls stream.HandleMessage with a duplicate of the unread bytes of `bytes`, once at least, as
// long as it takes some and some are left, and advances `bytes` over what it took. After each step
// that left bytes `keepRest()` is called, which answers 0, or 10001 without memory. As in
// OfferFrames the handler may do anything to the stream; `bytes` must outlive that.
template <class Stream, class KeepRest>
ReceivePass OfferBlocks(Stream& stream, const ReceiveParts& parts, keelbase::CAWMessageBlock& bytes,
                        KeepRest keepRest) {
  using End = ReceivePass::End;
  const detail::Generation::Watch watch(parts.generation);
  ReceivePass pass;
  const auto ended = [&pass](End end) {
    pass.end = end;
    return pass;
  };
  do {
    pass.offered = bytes.GetChainedLength();
    auto duplicate = DuplicateOrNull(bytes);
    if (duplicate == nullptr) return ended(End::kNoMemory);
    pass.answered = stream.HandleMessage(*duplicate);
    duplicate.reset();
    if (watch.IsDestroyed()) return ended(End::kDestroyed);
    const bool tooLong = pass.answered > pass.offered;
    if (pass.answered != 0 && !tooLong) ++parts.counters.messagesReceived;
    if (watch.HasChanged() && !parts.closed) return ended(End::kReplaced);
    if (parts.closed) return ended(End::kClosed);
    if (tooLong) return ended(End::kTooLong);
    if (pass.answered == 0) return pass;
    bytes.AdvanceChainedReadPtr(pass.answered);
    pass.consumed += pass.answered;
    if (pass.answered < pass.offered && keepRest() != keelbase::AW_OK) return ended(End::kNoMemory);
  } while (pass.answered < pass.offered);
  return pass;
}

// The same for the bytes that wait, behind which those of `data`, which is left as it is, are put
// first. What the handler has not taken waits again.
template <class Stream>
ReceivePass OfferHeldBlocks(Stream& stream, const ReceiveParts& parts,
                            const keelbase::CAWMessageBlock& data) {
  using End = ReceivePass::End;
  ReceivePass pass;
  pass.end = End::kNoMemory;
  if (parts.received.Append(data) != keelbase::AW_OK) return pass;
  detail::ReceiveAccumulator held = std::move(parts.received);
  pass = OfferBlocks(stream, parts, *held.GetBlock(), [] { return keelbase::AW_OK; });
  if (pass.end == End::kDestroyed || pass.end == End::kReplaced) return pass;
  held.Consume(0);
  parts.received = std::move(held);
  return pass;
}

// A receive event of the streams that keep the rest of an event after each of its frames, and do
// not drop it when a later frame takes all of it. With nothing held back `data` is advanced over
// what was handled, else it is left as it is.
template <class Stream>
ReceivePass OfferBlocksKeepingRest(Stream& stream, const ReceiveParts& parts,
                                   keelbase::CAWMessageBlock& data) {
  using End = ReceivePass::End;
  parts.counters.bytesReceived += data.GetChainedLength();
  if (parts.received.GetLength() != 0) return OfferHeldBlocks(stream, parts, data);
  ReceivePass pass;
  if (parts.closed) pass.end = End::kClosed;
  if (data.GetChainedLength() == 0) return pass;
  const auto keepRest = [&] {
    parts.received.Clear();
    return parts.received.Append(data);
  };
  pass = OfferBlocks(stream, parts, data, keepRest);
  if (pass.end == End::kReplaced) parts.received.Clear();  // it came over the earlier connection
  const bool incomplete = pass.end == End::kNeedMore && pass.answered == 0;
  if (incomplete && keepRest() != keelbase::AW_OK) pass.end = End::kNoMemory;
  return pass;
}

// OnReceiveDirect of the streams that are handed blocks: calls stream.HandleMessage with `data`
// itself, until it has answered for the first segment or with 0. The handler sees the same block
// again as long as it does not advance it. kNeedMore or kReplaced, and `data` is advanced over what
// was answered for; kClosed when the stream is to be ended, also for a handler that claims too
// much, which is traced; kDestroyed.
template <class Stream>
ReceivePass::End OfferSameBlock(Stream& stream, const ReceiveParts& parts,
                                keelbase::CAWMessageBlock& data) {
  using End = ReceivePass::End;
  const detail::Generation::Watch watch(parts.generation);
  const std::size_t length = data.GetLength();
  std::size_t consumed = 0;
  bool replaced = false;
  while (consumed < length && !replaced) {
    const std::size_t remaining = length - consumed;
    const std::size_t answered = stream.HandleMessage(data);
    if (watch.IsDestroyed()) return End::kDestroyed;
    const bool tooLong = answered > remaining;
    if (answered != 0 && !tooLong) {
      ++parts.counters.messagesReceived;
      parts.counters.bytesReceived += answered;
      consumed += answered;
    }
    replaced = watch.HasChanged() && !parts.closed;
    if (tooLong && !replaced) {
      TraceTooLongAnswer(kDirectTrace, answered, remaining, &stream);
      return End::kClosed;
    }
    if (answered == 0 || parts.closed) break;
  }
  if (parts.closed) return End::kClosed;
  const std::size_t left = length - consumed;
  if (data.GetLength() > left) data.AdvanceReadPtr(data.GetLength() - left);
  return replaced ? End::kReplaced : End::kNeedMore;
}

}  // namespace zarn::utils
