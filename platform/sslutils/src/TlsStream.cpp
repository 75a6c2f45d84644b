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
#include "keelbase/internal/TraceError.h"

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

constexpr std::size_t kRecord = SSL3_RT_MAX_PLAIN_LENGTH;  // 16 KiB

// A peer can ask for new keys again and again, and read none of the answers: behind so much that
// waits for room nothing more is read.
constexpr std::size_t kMostRest = 2 * kRecord;

// Of what had waited for the end of the connection: a request for new keys is short, and costs as
// much as a record.
constexpr std::size_t kMostATurn = kRecord;

}  // namespace

void SslFree::operator()(ssl_st* ssl) const { SSL_free(ssl); }

TlsStream::TlsStream(keelbase::internal::EventLoop& loop, std::unique_ptr<ByteTransport> lower,
                     SslPtr ssl)
    : loop_(loop), lower_(std::move(lower)), ssl_(std::move(ssl)), readSize_(kReadSize) {
  BIO* const bio = TlsBio::Make(*this);
  SSL_set_bio(ssl_.get(), bio, bio);
}

TlsStream::~TlsStream() = default;

// Letting go of a connection ends it in order, and that may take a while.
void TlsStream::OnReferenceDestory() {
  if (state_ == State::closed) {
    delete this;
    return;
  }
  const CAWAutoPtr<TlsStream> alive(this);
  Disconnect();
}

// --- handshake ---

void TlsStream::Start(std::chrono::milliseconds limit, Done done) {
  done_ = std::move(done);
  state_ = State::shaking;
  timer_ = std::make_unique<keelbase::internal::Timer>(loop_);
  timer_->Start(limit, 1, [this] {
    const CAWAutoPtr<TlsStream> alive(this);
    Established(AW_SSL_ERROR_HANDSHAKE_TIME);
  });
  lower_->Open(this);
  WantTurnEnd();
}

void TlsStream::ShakeHands() {
  ERR_clear_error();
  const int result = SSL_do_handshake(ssl_.get());
  if (result == 1) return Established(writeError_);
  switch (SSL_get_error(ssl_.get(), result)) {
    case SSL_ERROR_WANT_READ:
      if (writeError_ != 0) return Established(writeError_);
      if (lowerEnded_) Established(endReason_ != 0 ? endReason_ : AW_SSL_ERROR_CUT);
      return;
    case SSL_ERROR_ZERO_RETURN:
      return Established(AW_SSL_ERROR_REFUSED);
    default:
      return Established(ReasonOfHandshakeFailure(ssl_.get()));
  }
}

void TlsStream::Established(long reason) {
  if (state_ != State::shaking) return;
  timer_.reset();
  const Done done = std::move(done_);
  if (reason == 0) {
    state_ = State::ready;
  } else {
    CloseNow();
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
  WriteRest();
  if (state_ == State::closing) return Drain();
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
  if (timer_ != nullptr) return;  // goes on in the next turn
  turnRead_ = 0;
  Pump();
  if (state_ == State::open && turnRead_ >= kMostATurn) return EndNextTurn();
  if (writeError_ != 0) return End(writeError_);
  End(endReason_ != 0 ? endReason_ : AW_SSL_ERROR_CUT);
}

void TlsStream::EndNextTurn() {
  try {
    timer_ = std::make_unique<keelbase::internal::Timer>(loop_);
  } catch (const std::bad_alloc&) {
    return End(ENOMEM);
  }
  timer_->Start(std::chrono::milliseconds(0), 1, [this] {
    const CAWAutoPtr<TlsStream> alive(this);
    timer_.reset();
    EndOfLower();
  });
}

void TlsStream::OnTurnEnd() {
  const CAWAutoPtr<TlsStream> alive(this);
  dirty_ = false;
  if (state_ == State::shaking) return ShakeHands();
  FlushGather();
  if (state_ != State::open) return;
  if (failed_) lowerEnded_ = true;
  if (lowerEnded_) return EndOfLower();
  Pump();
}

// --- receiving ---

std::size_t TlsStream::ReadBelow(char* data, std::size_t length) {
  if (AnswersWait() || (lowerEnded_ && turnRead_ >= kMostATurn)) return 0;
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
  const bool willGoOut = !lowerEnded_ && !lastWritten_ && writeError_ == 0;
  return state_ != State::shaking && willGoOut && rest_.GetLength() >= kMostRest;
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
  ReadLower(WantsBytes());
  if (writeBlocked_) GoOnWriting();
}

// Decrypts as much as one event may bring and delivers it. False when there is nothing to go on
// with for now, or for good.
bool TlsStream::FillBlock(CAWMessageBlock& block) {
  int error = SSL_ERROR_NONE;
  while (error == SSL_ERROR_NONE && block.GetLength() < readSize_) {
    std::size_t count = 0;
    ERR_clear_error();
    const int result =
        SSL_read_ex(ssl_.get(), block.GetWritePtr(), readSize_ - block.GetLength(), &count);
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
  roomWanted_ = false;
  try {
    if (sink_ != nullptr) sink_->OnRoom();
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

// Takes all, always: OpenSSL would have to be given the same record again, and ends the connection
// when the peer asks for new keys in between. When writing has failed, what comes is dropped, and
// what the peer has sent can still be read: OpenSSL reads nothing behind a request for new keys
// that it cannot answer. What comes behind bytes that are lost is not written: the peer must see
// that they are missing. Nothing follows our end, as OpenSSL's answers would to a peer that goes
// on.
std::size_t TlsStream::WriteBelow(const char* data, std::size_t length) {
  if (writeError_ != 0 || lastWritten_) return length;
  CAWMessageBlock block(data, length, CAWMessageBlock::borrow);
  if (rest_.IsEmpty() && !lowerEnded_ && !SendBelow(block)) return length;
  if (block.GetLength() == 0) return length;
  try {
    rest_.AddBytes(block, kRecord);
    NoteQueued();
  } catch (const std::bad_alloc&) {
    FailWriting(ENOMEM);
  }
  return length;
}

bool TlsStream::SendBelow(CAWMessageBlock& chain) {
  const AWResult result = lower_->Send(chain);
  if (result == AW_OK || result == AW_ERROR_PARTIAL_DATA) return true;
  // That it has ended the transport below tells; that it finds no memory it does not.
  if (result == AW_ERROR_FAILURE) {
    FailWriting(static_cast<long>(result));
  } else if (writeError_ == 0) {
    writeError_ = static_cast<long>(result);
  }
  return false;
}

void TlsStream::WriteRest() {
  if (rest_.IsEmpty()) return;
  const bool well = SendBelow(*rest_.GetFirst());
  rest_.DropRead(rest_.GetLength() - rest_.GetFirst()->GetChainedLength());
  if (!well && state_ == State::closing) CloseNow();
}

AWResult TlsStream::Send(CAWMessageBlock& chain) {
  loop_.CheckCurrent("a transport's SendData");
  if (state_ == State::closing || state_ == State::closed) return AW_ERROR_NOT_INITIALIZED;
  if (writeError_ != 0) return static_cast<AWResult>(writeError_);
  if (state_ == State::ended) return AW_ERROR_FAILURE;
  std::size_t taken = 0;
  bool all = true;
  for (CAWMessageBlock* block = &chain; block != nullptr && all; block = block->GetNext()) {
    while (all && block->GetLength() != 0) {
      const std::size_t count = TakeSome(*block);
      taken += count;
      all = count != 0;
    }
  }
  if (taken != 0) ++counters_.blocksSent;
  counters_.bytesSent += taken;
  if (all) return AW_OK;
  if (taken == 0 && writeError_ != 0) return static_cast<AWResult>(writeError_);
  ++counters_.partialSends;
  roomWanted_ = true;
  return AW_ERROR_PARTIAL_DATA;
}

// Takes bytes up to the end of a record; 0 when it can take none now. Records that fill up from the
// caller's own bytes are encrypted where those lie.
std::size_t TlsStream::TakeSome(CAWMessageBlock& block) {
  std::size_t count = block.GetLength();
  if (Gathered() == 0 && count >= kRecord) {
    if (IsBlocked() || writeError_ != 0) return 0;
    WriteRecord(block.GetReadPtr(), kRecord);
    if (writeError_ != 0) return 0;
    block.AdvanceReadPtr(kRecord);
    return kRecord;
  }
  if (Gathered() == kRecord && !FlushGather()) return 0;
  if (gather_ == nullptr) {
    try {
      gather_ = std::make_unique<CAWMessageBlock>(kRecord);
    } catch (const std::bad_alloc&) {
      FailWriting(ENOMEM);
      return 0;
    }
  }
  count = std::min(count, gather_->GetSpace());
  gather_->Write(block.GetReadPtr(), count);
  block.AdvanceReadPtr(count);
  if (Gathered() == kRecord) FlushGather();
  WantTurnEnd();
  return count;
}

// False when a record is waiting before it.
bool TlsStream::FlushGather() {
  if (IsBlocked() || writeError_ != 0) return false;
  if (Gathered() == 0) return true;
  const auto record = std::move(gather_);
  WriteRecord(record->GetReadPtr(), record->GetLength());
  return true;
}

// What OpenSSL must read before it writes is read also for an owner who has stopped.
void TlsStream::WriteRecord(const char* data, std::size_t length) {
  std::size_t count = 0;
  ERR_clear_error();
  const int result = SSL_write_ex(ssl_.get(), data, length, &count);
  const int error = SSL_get_error(ssl_.get(), result);
  writeBlocked_ = error == SSL_ERROR_WANT_READ;
  if (state_ == State::open) ReadLower(WantsBytes());
  switch (error) {
    case SSL_ERROR_NONE:
      ++counters_.systemCallsSent;
      return;
    case SSL_ERROR_WANT_READ:
      return KeepPending(data, length);
    default:
      return FailWriting(ReasonOfRecordFailure());
  }
}

void TlsStream::KeepPending(const char* data, std::size_t length) {
  try {
    pending_ = std::make_unique<CAWMessageBlock>(length);
    pending_->Write(data, length);
    NoteQueued();
  } catch (const std::bad_alloc&) {
    FailWriting(ENOMEM);
  }
}

void TlsStream::FailWriting(long reason) {
  if (writeError_ == 0) writeError_ = reason;
  failed_ = true;
  WantTurnEnd();
}

void TlsStream::WritePending() {
  if (pending_ == nullptr || writeError_ != 0) return;
  const auto record = std::move(pending_);
  WriteRecord(record->GetReadPtr(), record->GetLength());
}

void TlsStream::GoOnWriting() {
  WritePending();
  FlushGather();
  if (!IsBlocked() && roomWanted_) TellRoom();
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

std::uint64_t TlsStream::Queued() const {
  keelbase::CAWTransportCounters lower;
  lower_->GetOption(keelbase::AW_OPT_COUNTERS, &lower);
  const std::uint64_t pending = pending_ == nullptr ? 0 : pending_->GetLength();
  return Gathered() + pending + rest_.GetLength() + lower.queuedBytes;
}

// Where much comes together, but not for each message.
void TlsStream::NoteQueued() {
  counters_.queuedHighMark = std::max(counters_.queuedHighMark, Queued());
}

keelbase::CAWTransportCounters TlsStream::GetCounters() const {
  keelbase::CAWTransportCounters counters = counters_;
  counters.queuedBytes = Queued();
  counters.queuedHighMark = std::max(counters.queuedHighMark, counters.queuedBytes);
  return counters;
}

AWResult TlsStream::GetOption(int code, void* value) const {
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
}

AWResult TlsStream::SetOption(int code, void* value) {
  if (value == nullptr) return AW_ERROR_FAILURE;
  switch (code) {
    case keelbase::AW_OPT_STOP_READING:
      StopReading(*static_cast<const bool*>(value));
      return AW_OK;
    case keelbase::AW_OPT_READ_SIZE:
      readSize_ = std::clamp<std::size_t>(*static_cast<const std::uint32_t*>(value), 1, kReadSize);
      return AW_OK;
    case keelbase::AW_OPT_LINGER:
      lingerMs_ = *static_cast<const std::uint32_t*>(value);
      return AW_OK;
    case keelbase::AW_OPT_LINGER_DATA:
      return AddLingerData(*static_cast<const CAWMessageBlock*>(value));
    default:
      return lower_->SetOption(code, value);
  }
}

}  // namespace sslutils::internal
