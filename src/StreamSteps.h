// StreamSteps.h - what the stream classes do alike; each class shows only what it does otherwise.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <new>
#include <utility>

#include "BlockLoop.h"
#include "ReceiveLoop.h"
#include "fshmipc/CAWShmIPCAddr.h"
#include "fshmipc/CAWShmIPCTransport.h"
#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWTransport.h"

namespace zarn::utils {

// Works on the fields of a stream, which are named alike in all classes.
struct StreamSteps {
  using AWResult = keelbase::AWResult;
  using Block = keelbase::CAWMessageBlock;
  using End = ReceivePass::End;

  // --- connecting ---

  // The stream's pointer is null before the platform is called; so it is in DropTransport.
  template <class Stream>
  static void DropConnector(Stream& stream) {
    const auto connector = std::move(stream.connector_);
    if (!connector) return;
    if constexpr (requires { connector->CancelConnect(); }) {
      connector->CancelConnect();
    } else {
      connector->Cancel(0);
    }
  }

  // A connect indication.
  template <class Stream, class Transport>
  static void Connected(Stream& stream, long reason, Transport* transport) {
    if (reason != 0) {
      ++stream.counters_.connectFailures;
      return Report(stream, reason);
    }
    keelbase::CAWAutoPtr<Transport> connected(transport);
    const AWResult attached = stream.SetTransportHandle(connected);
    if (attached != keelbase::AW_OK) return CloseAndReport(stream, attached);
    stream.closed_ = false;
    TellConnected(stream);
  }

  template <class Stream>
  static void TellConnected(Stream& stream) {
    if (!StartOwner(stream)) CloseAndReport(stream, ENOMEM);
  }

  // False: the owner found no memory for its start, and the stream is at that connection still.
  template <class Stream>
  static bool StartOwner(Stream& stream) {
    const detail::Generation::Watch watch(stream.generation_);
    try {
      stream.OnConnected(0);
      return true;
    } catch (const std::bad_alloc&) {
      return watch.IsDestroyed() || watch.HasChanged();
    }
  }

  // SetTransportHandle, `operation`.
  template <class Stream, class Transport>
  static AWResult Attach(Stream& stream, keelbase::CAWAutoPtr<Transport>& transport,
                         const char* operation) {
    if (!transport) return keelbase::AW_ERROR_FAILURE;
    stream.thread_.Claim(operation);
    stream.metrics_.JoinAttached(stream);
    stream.generation_.Raise();
    DropTransport(stream, 0);
    stream.transport_ = transport;
    stream.closed_ = false;
    stream.readGate_.Reset();
    if (stream.transport_->OpenWithSink(&stream) != keelbase::AW_OK)
      return keelbase::AW_ERROR_FAILURE;
    ReadAddresses(*stream.transport_, stream.peerAddr_, stream.localAddr_);
    if constexpr (requires { stream.transportAttached_; }) stream.transportAttached_ = true;
    ++stream.counters_.connects;
    return keelbase::AW_OK;
  }

  template <class Transport, class Address>
  static void ReadAddresses(Transport& transport, Address& peer, Address& local) {
    transport.GetOption(keelbase::AW_OPT_PEER_ADDRESS, &peer);
    transport.GetOption(keelbase::AW_OPT_LOCAL_ADDRESS, &local);
  }

  static void ReadAddresses(fshmipc::IAWShmIPCTransport& transport, fshmipc::CAWShmIPCAddr& peer,
                            fshmipc::CAWShmIPCAddr& local) {
    peer = transport.GetPeerAddr();
    local = transport.GetLocalAddr();
  }

  // --- ending ---

  // What a destructor begins with. A closed stream may be destroyed on any thread: its connector
  // has nothing to tell any more, and to let go of it waits for a callback at most, while
  // cancelling may wait for its thread.
  template <class Stream>
  static void BeginDestruction(Stream& stream, const char* operation) {
    stream.metrics_.Leave();
    if constexpr (requires { stream.connector_; }) {
      if (stream.closed_) stream.connector_ = nullptr;
      if (stream.connector_) stream.thread_.Check(operation);
    }
    if (stream.transport_) stream.thread_.Check(operation);
  }

  template <class Stream>
  static void DropTransport(Stream& stream, long reason) {
    const auto transport = std::move(stream.transport_);
    if (transport) transport->Disconnect(reason);
  }

  // Nothing that was accepted for sending is lost: the transport goes on with it.
  template <class Stream>
  static void EndConnection(Stream& stream, long reason) {
    stream.generation_.Raise();
    if (stream.transport_) stream.sendQueue_.LeaveTo(*stream.transport_);
    DropTransport(stream, reason);
    stream.sendQueue_.Clear();
    stream.received_.Clear();
  }

  // The transport says that it has ended. The buffers are kept: the subclass may still want to know
  // what did not go out.
  template <class Stream>
  static void LoseConnection(Stream& stream, long reason) {
    stream.generation_.Raise();
    stream.transport_ = nullptr;
    stream.transportAttached_ = false;
    Report(stream, reason);
  }

  template <class Stream>
  static void NoteEnd(Stream& stream, long reason) {
    stream.closed_ = true;
    stream.counters_.lastDisconnectReason = reason;
  }

  // Always the last thing that is done: the subclass may delete the stream.
  template <class Stream>
  static void Report(Stream& stream, long reason) {
    NoteEnd(stream, reason);
    stream.OnPeerDisconnect(reason);
  }

  template <class Stream>
  static void CloseAndReport(Stream& stream, long reason) {
    EndConnection(stream, 0);
    Report(stream, reason);
  }

  // --- receiving ---

  // True: nothing more is read on this connection, and of what comes all the same, the peer's last
  // bytes, enough is kept.
  template <class Stream>
  static bool IsPastStop(const Stream& stream) {
    constexpr std::size_t kKept = 1024 * 1024;
    return stream.readGate_.IsStopped() && stream.received_.GetLength() > kKept;
  }

  template <class Stream>
  static ReceiveParts PartsOf(Stream& stream) {
    return {stream.generation_, stream.closed_, stream.counters_, stream.received_};
  }

  // A receive event of the sessions, which leaves `data` as it is.
  template <class Stream>
  static void ReceiveAndLeave(Stream& stream, const Block& data) {
    if (IsPastStop(stream)) return;
    const End end = OfferAndLeave(stream, PartsOf(stream), data).end;
    if (end == End::kDestroyed || end == End::kReplaced) return;
    if (end == End::kNoMemory) return CloseAndReport(stream, keelbase::AW_ERROR_FAILURE);
    if (end != End::kNeedMore && stream.closed_) return CloseAndReport(stream, 0);
    ApplyReadGate(stream);
  }

  // A receive event of the streams that are handed blocks and keep what is left of them.
  template <class Stream>
  static void ReceiveBlocks(Stream& stream, Block& data) {
    const End end = OfferBlocksKeepingRest(stream, PartsOf(stream), data).end;
    if (end == End::kDestroyed || end == End::kReplaced) return;
    if (end == End::kNoMemory) return CloseAndReport(stream, keelbase::AW_ERROR_FAILURE);
    if (end != End::kNeedMore) return CloseAndReport(stream, 0);
    ApplyReadGate(stream);
  }

  // OnReceiveDirect of the streams that are handed bytes; `tracedAs` names them in the trace.
  template <class Stream>
  static AWResult ReceiveDirect(Stream& stream, Block& data, const char* tracedAs) {
    return AnswerDirect(stream, OfferDirect(stream, PartsOf(stream), data, tracedAs));
  }

  // OnReceiveDirect of the streams that are handed blocks.
  template <class Stream>
  static AWResult ReceiveDirectBlock(Stream& stream, Block& data) {
    return AnswerDirect(stream, OfferSameBlock(stream, PartsOf(stream), data));
  }

  template <class Stream>
  static AWResult AnswerDirect(Stream& stream, End end) {
    if (end == End::kNeedMore) return keelbase::AW_OK;
    if (end == End::kClosed) CloseAndReport(stream, 0);
    return keelbase::AW_ERROR_FAILURE;
  }

  // --- reading no more than is wanted ---

  template <class Stream>
  static void ApplyReadGate(Stream& stream) {
    stream.readGate_.Apply(stream.transport_.Get(), stream.received_.GetLength());
  }

  template <class Stream>
  static void SetReceiveLimit(Stream& stream, std::size_t bytes) {
    stream.readGate_.SetLimit(bytes);
    ApplyReadGate(stream);
  }

  template <class Stream>
  static void StopReading(Stream& stream) {
    stream.readGate_.Stop();
    ApplyReadGate(stream);
  }

  template <class Stream>
  static void StopAtMalformedFrame(Stream& stream) {
    if (!stream.readGate_.IsStopped()) ++stream.counters_.malformedFrames;
    StopReading(stream);
  }

  // --- sending ---

  // Sends `data` in order with all that was sent before, and advances it over what was sent or
  // queued. 0; an error of the transport, and `data` is as it was; 10001 without memory, after
  // `close()` when part of the message was on its way already: whatever came next would be taken
  // for its rest.
  template <class Stream, class Parameter, class Close>
  static AWResult Send(Stream& stream, Block& data, Parameter parameter, Close close) {
    const std::size_t length = data.GetChainedLength();
    const AWResult result = stream.sendQueue_.SendInOrder(
        data, [&](Block& block) { return stream.transport_->SendData(block, parameter); });
    NoteQueueLength(stream);
    if (result == keelbase::AW_ERROR_PARTIAL_DATA) {
      close();
      return keelbase::AW_ERROR_FAILURE;
    }
    if (result != keelbase::AW_OK) return result;
    const std::size_t left = data.GetChainedLength();  // queued, or not advanced by the transport
    if (left != 0) data.AdvanceChainedReadPtr(left);
    CountSent(stream, length);
    return keelbase::AW_OK;
  }

  template <class Stream>
  static void CountSent(Stream& stream, std::size_t length) {
    ++stream.counters_.messagesSent;
    stream.counters_.bytesSent += length;
  }

  template <class Stream>
  static void NoteQueueLength(Stream& stream) {
    stream.counters_.sendQueueHighMark =
        std::max(stream.counters_.sendQueueHighMark, stream.sendQueue_.GetLength());
  }

  // A send event.
  template <class Stream>
  static void SendWaiting(Stream& stream) {
    if (!stream.transport_ || stream.sendQueue_.IsEmpty()) return;
    stream.sendQueue_.Offer(
        [&stream](Block& block) { return stream.transport_->SendData(block, nullptr); });
  }
};

}  // namespace zarn::utils
