// TlsStream.cpp - see TlsStream.h. TlsStreamClose.cpp has how it is closed.
#include "sslutils/internal/TlsStream.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "TlsBio.h"
#include "TlsReason.h"
#include "keelbase/internal/BufferPool.h"
#include "keelbase/internal/Chains.h"
#include "keelbase/internal/TellOwner.h"

namespace sslutils::internal {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWMessageBlock;
using keelbase::internal::HasBytes;
using keelbase::internal::kGatherSize;
using keelbase::internal::kReadSize;

namespace {

// Encrypted bytes that one turn decrypts once the connection below has ended: the peer may have
// left thousands of key updates, each a few bytes that cost as much as a full record.
constexpr std::size_t kMaxPerTurn = kRecordSize;

}  // namespace

void SslFree::operator()(ssl_st* ssl) const { SSL_free(ssl); }

TlsStream::TlsStream(keelbase::internal::EventLoop& loop, std::unique_ptr<ByteTransport> lower,
                     SslPtr ssl)
    : loop_(loop),
      lower_(std::move(lower)),
      ssl_(std::move(ssl)),
      writer_(ssl_.get(), *lower_, counters_) {
  BIO* const bio = TlsBio::Make(*this);
  SSL_set_bio(ssl_.get(), bio, bio);
}

TlsStream::~TlsStream() = default;

// --- handshake ---

void TlsStream::Start(std::chrono::milliseconds limit, Done done, Closed closed) {
  done_ = std::move(done);
  closed_ = std::move(closed);
  state_ = State::shaking;
  timeLimit_ = std::make_unique<keelbase::internal::Timer>(loop_);
  timeLimit_->Start(limit, 1, [this] {
    const CAWAutoPtr<TlsStream> alive(this);
    Established(AW_SSL_ERROR_HANDSHAKE_TIME);
  });
  lower_->Open(this);
  WantTurnEnd();
}

void TlsStream::ShakeHands() {
  ERR_clear_error();
  const int result = SSL_do_handshake(ssl_.get());
  if (result == 1) return Established(writer_.GetError());
  switch (SSL_get_error(ssl_.get(), result)) {
    case SSL_ERROR_WANT_READ:
      if (writer_.GetError() != 0) return Established(writer_.GetError());
      if (lowerEnded_) Established(endReason_ != 0 ? endReason_ : AW_SSL_ERROR_CUT);
      return;
    case SSL_ERROR_ZERO_RETURN:
      return Established(AW_SSL_ERROR_REFUSED);
    default:
      return Refuse(ReasonOfHandshakeFailure(ssl_.get()));
  }
}

void TlsStream::Established(long reason) {
  if (state_ != State::shaking) return;
  timeLimit_.reset();
  const Done done = std::move(done_);
  if (reason == 0) {
    state_ = State::ready;
    closed_ = nullptr;
  } else {
    CloseNow(0);
  }
  done(reason);
  if (state_ == State::ready) ReadLower(false);  // until somebody wants the bytes
}

AWResult TlsStream::Open(ByteSink* sink) {
  loop_.CheckCurrent("a transport's OpenWithSink");
  if (sink == nullptr || state_ != State::ready) return AW_ERROR_FAILURE;
  sink_ = sink;
  state_ = State::open;
  ReadLower(WantsBytes());
  WantTurnEnd();
  return AW_OK;
}

// --- events of the transport below ---

void TlsStream::OnBytes(CAWMessageBlock& block) {
  if (lowerEnded_) return;  // what is missing in front had no room
  const CAWAutoPtr<TlsStream> alive(this);
  arriving_ = &block;
  try {
    if (state_ == State::shaking) ShakeHands();
    if (state_ == State::open) Pump();
    if (state_ == State::closing) Drain();
    const bool awaited = state_ == State::closing && !peerEnded_;
    const bool wanted = state_ == State::ready || state_ == State::open || awaited;
    if (wanted && HasBytes(*arriving_)) kept_.Append(arriving_->DuplicateChained());
  } catch (const std::bad_alloc&) {
    End(ENOMEM);
  }
  arriving_ = nullptr;
}

void TlsStream::OnRoom() {
  const CAWAutoPtr<TlsStream> alive(this);
  const bool well = writer_.WriteRest();
  if (state_ == State::closing) return well ? Drain() : CloseNow();
  GoOnWriting();
  Pump();  // what the answers had held up
}

void TlsStream::OnEnd(long reason) {
  const CAWAutoPtr<TlsStream> alive(this);
  lowerEnded_ = true;
  endReason_ = reason;
  switch (state_) {
    case State::shaking:
      return ShakeHands();
    case State::refused:
      return CloseNow(0);
    case State::open:
      return EndOfLower();
    case State::closing:
      return LeaveToLower();
    default:
      return;  // whoever opens the stream is told then
  }
}

// What came before the end is delivered first, also to an owner who had stopped reading.
void TlsStream::EndOfLower() {
  if (endTurn_ != nullptr) return;
  turnRead_ = 0;
  Pump();
  if (state_ == State::open && turnRead_ >= kMaxPerTurn) return EndNextTurn();
  if (writer_.GetError() != 0) return End(writer_.GetError());
  End(endReason_ != 0 ? endReason_ : AW_SSL_ERROR_CUT);
}

void TlsStream::EndNextTurn() {
  try {
    endTurn_ = std::make_unique<keelbase::internal::Timer>(loop_);
  } catch (const std::bad_alloc&) {
    return End(ENOMEM);
  }
  endTurn_->Start(std::chrono::milliseconds(0), 1, [this] {
    const CAWAutoPtr<TlsStream> alive(this);
    endTurn_.reset();
    EndOfLower();
  });
}

void TlsStream::OnTurnEnd() {
  const CAWAutoPtr<TlsStream> alive(this);
  dirty_ = false;
  if (state_ == State::shaking) return ShakeHands();
  writer_.Flush();
  if (state_ != State::open) return;
  if (writer_.HasFailed()) lowerEnded_ = true;
  if (lowerEnded_) return EndOfLower();
  Pump();
  TellRoom();  // there may have been nobody to tell so far
}

// --- receiving ---

std::size_t TlsStream::ReadBelow(char* data, std::size_t length) {
  if (AnswersWait() || (lowerEnded_ && turnRead_ >= kMaxPerTurn)) return 0;
  std::size_t count = 0;
  if (!kept_.IsEmpty()) {
    count = kept_.Read(data, length);
  } else if (arriving_ != nullptr) {
    count = arriving_->CopyChained(data, length);
    arriving_->AdvanceChainedReadPtr(count);
  }
  turnRead_ += count;
  return count;
}

bool TlsStream::MayRead() const {
  if (state_ != State::open || (!reading_ && !lowerEnded_)) return false;
  return !kept_.IsEmpty() || (arriving_ != nullptr && HasBytes(*arriving_)) ||
         SSL_has_pending(ssl_.get()) == 1;
}

bool TlsStream::AnswersWait() const {
  return state_ != State::shaking && !lowerEnded_ && writer_.IsFull();
}

void TlsStream::Pump() {
  if (std::exchange(pumping_, true)) return;  // inside an upcall: the loop below goes on
  try {
    for (bool more = true; more && MayRead();) {
      // Room in front, so that a receiver can put the start of a cut frame there.
      const auto block = std::make_unique<CAWMessageBlock>(kReadSize, kGatherSize);
      more = FillBlock(*block);
    }
  } catch (const std::bad_alloc&) {
    End(ENOMEM);
  }
  pumping_ = false;
  if (state_ != State::open) return;
  AfterWriting();  // reading may have brought about answers
  if (writer_.WaitsForPeer()) GoOnWriting();
}

// Decrypts as much as one event may bring and delivers it. False when there is nothing to go on
// with for now, or for good.
bool TlsStream::FillBlock(CAWMessageBlock& block) {
  int error = SSL_ERROR_NONE;
  while (error == SSL_ERROR_NONE && block.GetLength() < options_.readSize) {
    std::size_t count = 0;
    ERR_clear_error();
    const int result =
        SSL_read_ex(ssl_.get(), block.GetWritePtr(), options_.readSize - block.GetLength(), &count);
    if (result == 1) {
      block.AdvanceWritePtr(count);
    } else {
      error = SSL_get_error(ssl_.get(), result);
    }
  }
  const bool broken = error == SSL_ERROR_SSL;
  const long reason = broken ? ReasonOfRecordFailure() : 0;
  peerEnded_ = peerEnded_ || error == SSL_ERROR_ZERO_RETURN;
  if (block.GetLength() != 0) Deliver(block);
  if (broken || peerEnded_) End(reason);
  return error == SSL_ERROR_NONE;
}

void TlsStream::Deliver(CAWMessageBlock& block) {
  ++counters_.blocksReceived;
  counters_.bytesReceived += block.GetLength();
  sink_->OnBytes(block);
}

void TlsStream::TellRoom() {
  if (!roomWanted_ || writer_.IsBlocked() || sink_ == nullptr) return;
  roomWanted_ = false;
  try {
    sink_->OnRoom();
  } catch (const std::bad_alloc&) {
    End(ENOMEM);
  }
}

// A connection that is broken is closed here; after an orderly end what was taken may still go out.
void TlsStream::End(long reason) {
  if (state_ == State::shaking) return Established(reason);
  if (state_ == State::ready) {  // whoever opens it is told
    lowerEnded_ = true;
    endReason_ = reason;
  }
  if (state_ != State::open) return;
  state_ = State::ended;
  ByteSink* const sink = std::exchange(sink_, nullptr);
  if (reason != 0) CloseNow();
  keelbase::internal::TellOwner([sink, reason] { sink->OnEnd(reason); });
}

void TlsStream::StopReading(bool stop) {
  reading_ = !stop;
  if (state_ != State::open) return;
  ReadLower(WantsBytes());
  if (reading_) WantTurnEnd();
}

void TlsStream::ReadLower(bool read) {
  if (lowerReading_ == read) return;
  lowerReading_ = read;
  bool stop = !read;
  lower_->SetOption(keelbase::AW_OPT_STOP_READING, &stop);
}

// --- sending ---

void TlsStream::WriteBelow(const char* data, std::size_t length) {
  writer_.WriteBelow(data, length, lowerEnded_);
}

AWResult TlsStream::Send(CAWMessageBlock& chain) {
  loop_.CheckCurrent("a transport's SendData");
  if (IsDisconnected()) return AW_ERROR_NOT_INITIALIZED;
  if (writer_.GetError() != 0) return static_cast<AWResult>(writer_.GetError());
  if (state_ == State::ended) return AW_ERROR_FAILURE;
  std::size_t taken = 0;
  bool all = true;
  for (CAWMessageBlock* block = &chain; block != nullptr && all; block = block->GetNext()) {
    while (all && block->GetLength() != 0) {
      const std::size_t count = writer_.Take(*block);
      taken += count;
      all = count != 0;
    }
  }
  if (taken != 0 && writer_.Gathered() != 0) WantTurnEnd();
  AfterWriting();
  if (taken != 0) ++counters_.blocksSent;
  counters_.bytesSent += taken;
  if (all) return AW_OK;
  if (taken == 0 && writer_.GetError() != 0) return static_cast<AWResult>(writer_.GetError());
  ++counters_.partialSends;
  roomWanted_ = true;
  return AW_ERROR_PARTIAL_DATA;
}

// What OpenSSL must read before it writes is read also for an owner who has stopped. That writing
// has failed is told at the turn's end, never from inside a call of the owner.
void TlsStream::AfterWriting() {
  if (state_ == State::open) ReadLower(WantsBytes());
  if (writer_.HasFailed() && !lowerEnded_) WantTurnEnd();
}

void TlsStream::GoOnWriting() {
  writer_.WritePending();
  writer_.Flush();
  AfterWriting();
  TellRoom();
}

void TlsStream::WantTurnEnd() {
  if (!std::exchange(dirty_, true)) loop_.AtTurnEnd(*this);
}

// --- options ---

CAWSSLInfo TlsStream::GetInfo() const {
  CAWSSLInfo info;
  info.protocol = SSL_get_version(ssl_.get());
  info.cipher = SSL_get_cipher_name(ssl_.get());
  info.resumed = SSL_session_reused(ssl_.get()) == 1;
  DescribePeerCertificate(ssl_.get(), info);
  return info;
}

keelbase::CAWTransportCounters TlsStream::GetCounters() const {
  keelbase::CAWTransportCounters counters = counters_;
  counters.queuedBytes = writer_.Queued();
  counters.queuedHighMark = std::max(counters.queuedHighMark, counters.queuedBytes);
  return counters;
}

AWResult TlsStream::GetOption(int code, void* value) const try {
  if (value == nullptr) return AW_ERROR_FAILURE;
  switch (code) {
    case AW_OPT_SSL_INFO:
      *static_cast<CAWSSLInfo*>(value) = GetInfo();
      return AW_OK;
    case keelbase::AW_OPT_COUNTERS:
      *static_cast<keelbase::CAWTransportCounters*>(value) = GetCounters();
      return AW_OK;
    default:
      return lower_->GetOption(code, value);
  }
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult TlsStream::SetOption(int code, void* value) {
  const auto result = keelbase::internal::SetCommonOption(*this, options_, code, value);
  return result ? *result : lower_->SetOption(code, value);
}

}  // namespace sslutils::internal
