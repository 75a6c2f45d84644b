// TlsStreamClose.cpp - the part of TlsStream that closes a connection.
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <new>
#include <utility>

#include "sslutils/internal/TlsStream.h"

namespace sslutils::internal {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWMessageBlock;
using keelbase::internal::Clock;

void TlsStream::Disconnect() {
  loop_.CheckCurrent("a transport's Disconnect");
  if (IsDisconnected()) return;
  const CAWAutoPtr<TlsStream> alive(this);
  const bool unusable =
      state_ == State::fresh || state_ == State::shaking || state_ == State::refused;
  sink_ = nullptr;
  done_ = nullptr;
  closed_ = nullptr;
  endTurn_.reset();
  timeLimit_.reset();
  state_ = State::closing;
  if (unusable) return CloseNow(0);
  if (writer_.GetError() != 0) return CloseNow();
  if (lowerEnded_) return LeaveToLower();
  try {
    WriteLast();
    if (options_.lingerMs == 0) return CloseNow();
    AwaitEnd();
    Drain();
  } catch (const std::bad_alloc&) {
    CloseNow();
  }
}

// Our alert, too, may be lost if bytes of the peer are unread. A peer that has sent one itself
// needs none, and one that speaks no TLS may get none.
void TlsStream::Refuse(long reason) {
  const bool wrote = BIO_number_written(SSL_get_wbio(ssl_.get())) != 0;
  const bool peerRefused = (SSL_get_shutdown(ssl_.get()) & SSL_RECEIVED_SHUTDOWN) != 0;
  if (!wrote || peerRefused || lowerEnded_ || writer_.GetError() != 0) return Established(reason);
  const Done done = std::move(done_);
  state_ = State::refused;
  try {
    AwaitEnd();
  } catch (const std::bad_alloc&) {
    CloseNow(0);
  }
  done(reason);
}

// For the linger time at most.
void TlsStream::AwaitEnd() {
  timeLimit_ = std::make_unique<keelbase::internal::Timer>(loop_);
  timeLimit_->Start(std::chrono::milliseconds(options_.lingerMs), 1, [this] {
    const CAWAutoPtr<TlsStream> last(this);
    CloseNow(0);
  });
  self_ = this;
  lingerBegin_ = Clock::Now();
  loop_.BeginLinger(*this);
}

// Encrypts no more than there is room for below: that may be little of very much. In the middle of
// a message of the peer's TLS nothing can be written, not even the end.
void TlsStream::WriteLast() {
  writer_.WritePending();
  while (!lingerData_.IsEmpty()) {
    const std::size_t count = writer_.Take(*lingerData_.GetFirst());
    if (count == 0) return;
    lingerData_.DropRead(count);
  }
  writer_.Flush();
  writer_.WriteEnd();
}

// A connection that is closed with bytes of the peer unread is reset, and what we wrote last may be
// lost. So the peer's own end is awaited, and what it still sends is read and dropped.
void TlsStream::Drain() {
  char dropped[4096];
  std::size_t count = 0;
  ERR_clear_error();
  int result = 1;
  while (result == 1) result = SSL_read_ex(ssl_.get(), dropped, sizeof dropped, &count);
  const int error = SSL_get_error(ssl_.get(), result);
  peerEnded_ = peerEnded_ || error == SSL_ERROR_ZERO_RETURN;
  const bool broken = error != SSL_ERROR_WANT_READ && !peerEnded_;
  if (!broken && !writer_.HasEnded()) WriteLast();  // what was in its way may have been read now
  const bool done = peerEnded_ && writer_.HasEnded();
  if (broken || done || writer_.GetError() != 0) return CloseNow();
  ReadLower(!AnswersWait());
}

// Nobody will tell of room any more: the transport below is given all that is left.
void TlsStream::LeaveToLower() {
  if (options_.lingerMs != 0 && endReason_ == 0) {
    writer_.ExpectNoRoom();
    WriteLast();
  }
  CloseNow();
}

std::uint32_t TlsStream::LingerLeft() const {
  if (!self_) return options_.lingerMs;  // it has not begun
  using std::chrono::milliseconds;
  const auto end = lingerBegin_ + milliseconds(options_.lingerMs);
  const auto left = std::chrono::ceil<milliseconds>(end - Clock::Now());
  return static_cast<std::uint32_t>(std::max(left, milliseconds(0)).count());
}

// The transport below goes on with what is left.
void TlsStream::CloseNow(std::uint32_t lingerMs) {
  if (state_ == State::closed) return;
  state_ = State::closed;
  sink_ = nullptr;
  if (std::exchange(dirty_, false)) loop_.DropTurnEnd(*this);
  lower_->SetOption(keelbase::AW_OPT_LINGER, &lingerMs);
  writer_.LeaveToLower();
  lower_->Disconnect();
  for (auto* chain : {&kept_, &lingerData_}) chain->Clear();
  endTurn_.reset();
  timeLimit_.reset();
  if (self_) loop_.EndLinger(*this);
  const CAWAutoPtr<TlsStream> last(std::move(self_));
  if (const Closed closed = std::move(closed_)) closed();
}

AWResult TlsStream::AddLingerData(const CAWMessageBlock& chain) {
  if (IsDisconnected()) return AW_ERROR_NOT_INITIALIZED;
  try {
    lingerData_.Append(chain.DuplicateChained());
  } catch (const std::bad_alloc&) {
    return AW_ERROR_FAILURE;
  }
  return AW_OK;
}

}  // namespace sslutils::internal
