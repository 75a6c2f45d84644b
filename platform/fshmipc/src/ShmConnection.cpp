// ShmConnection.cpp - see ShmConnection.h.
#include "ShmConnection.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <new>
#include <utility>

#include "keelbase/internal/Chains.h"
#include "keelbase/internal/Processor.h"
#include "keelbase/internal/TellOwner.h"
#include "keelbase/internal/Uninterrupted.h"

namespace fshmipc {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWMessageBlock;
using keelbase::internal::AppendCopy;
using keelbase::internal::Clock;
using keelbase::internal::HasBytes;
using keelbase::internal::LengthUpTo;
using keelbase::internal::Timer;
using keelbase::internal::Uninterrupted;

namespace {

// So much is shown to the reader before the turn's end: it can work while we go on.
constexpr std::size_t kPublishSize = 16 * 1024;

// So often a read looks for the rest of what the peer is copying in: a few microseconds, about as
// long as the longest message takes.
constexpr unsigned kLooksForRest = 128;

// The socket is watched edge by edge, so that a wake-up costs no read. Each time that we ask for
// one a byte may come, needed or not; after so many they are read off, or a full socket would keep
// out the one that counts.
constexpr std::uint32_t kAsksPerDrain = 32;

}  // namespace

ShmConnection::ShmConnection(keelbase::internal::EventLoop& loop, FileDescriptor socket,
                             ShmSegment segment, Side side)
    : loop_(loop),
      socket_(std::move(socket)),
      segment_(std::move(segment)),
      writer_(side == Side::connector ? segment_.ConnectorRing() : segment_.AcceptorRing()),
      reader_(side == Side::connector ? segment_.AcceptorRing() : segment_.ConnectorRing()) {}

AWResult ShmConnection::Open(keelbase::internal::StreamSocketSink* sink) {
  loop_.CheckCurrent("a transport's OpenWithSink");
  if (sink == nullptr || state_ != State::fresh) return AW_ERROR_FAILURE;
  sink_ = sink;
  state_ = State::open;
  const int error = loop_.Watch(socket_.Get(), EPOLLIN | EPOLLRDHUP | EPOLLET, *this);
  watched_ = error == 0;
  if (error != 0) Failed(error);
  KeepPolling();
  return AW_OK;
}

// --- events ---

void ShmConnection::OnReady(std::uint32_t events) {
  const CAWAutoPtr<ShmConnection> alive(this);
  if (state_ == State::lingering) return WriteLingering();
  if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) {
    ReadRest(0);
  } else {
    KeepPolling();  // in this very turn
  }
}

// What was not seen yet goes too: to be followed by a look at the rings.
void ShmConnection::DrainSocket() {
  std::array<char, 4096> bytes;
  const ssize_t count = ::recv(socket_.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
  if (count < static_cast<ssize_t>(bytes.size())) asks_ = 0;
}

void ShmConnection::KeepPolling() {
  if (std::exchange(polled_, true)) return;
  reader_.Awake();
  loop_.StartPolling(*this);
}

void ShmConnection::StopPolling() {
  if (std::exchange(polled_, false)) loop_.StopPolling(*this);
}

// The end is told by the next poll, never from inside a call of the owner.
void ShmConnection::Failed(int error) {
  if (failure_ == 0) failure_ = error;
  if (state_ == State::open) KeepPolling();
}

// Does what there is to do, for as long as there is; then Arm asks the peer to wake us and looks
// once more. Whatever the peer does at that moment, either we see it or it sees that we sleep.
bool ShmConnection::Poll() {
  if (failure_ != 0) {
    const CAWAutoPtr<ShmConnection> alive(this);
    ReadRest(failure_);
    return true;
  }
  const bool input = reading_ && (reader_.Available() != 0 || reader_.IsBroken());
  if (!input && !roomWanted_ && !writer_.IsBroken()) return false;
  const CAWAutoPtr<ShmConnection> alive(this);
  bool any = TellRoom();
  if (state_ == State::open && reading_) any |= ReadOnce();
  if (!writer_.IsBroken()) return any;
  End(EPROTO);
  return true;
}

bool ShmConnection::Arm() {
  if (++asks_ > kAsksPerDrain) DrainSocket();
  const bool work = state_ == State::open &&
                    (failure_ != 0 || writer_.IsBroken() ||
                     (roomWanted_ && !writer_.WaitForRoom()) || (reading_ && !reader_.Sleep()));
  if (!work) polled_ = false;
  return !work;
}

// True when something was delivered, or the end was told.
bool ShmConnection::ReadOnce() {
  const std::size_t available = reader_.Available();
  if (available == 0) {
    if (!reader_.IsBroken()) return false;
    End(EPROTO);
    return true;
  }
  try {
    CAWMessageBlock& block = loop_.Buffers().TakeReadBlock();
    const std::size_t unread = CopyOut(available, block);
    if (reader_.ShallTellRoom(unread)) WakePeer();
    ++counters_.blocksReceived;
    counters_.bytesReceived += block.GetLength();
    sink_->OnBytes(block);
    if (state_ == State::open && reader_.ShallTellRoomForSure()) WakePeer();
  } catch (const std::bad_alloc&) {
    End(ENOMEM);
  }
  return true;
}

// What is there and fits; how much is left. Behind a long piece we look for the next one, so that
// the peer copies in while we copy out. It may pretend to for as long as it likes: looks are
// counted.
std::size_t ShmConnection::CopyOut(std::size_t available, CAWMessageBlock& block) {
  const bool more = available >= kPublishSize;
  for (unsigned looks = 0;; ++looks) {
    const std::size_t length = std::min(available, options_.readSize - block.GetLength());
    if (length == 0) {
      keelbase::internal::Pause();
    } else {
      reader_.Read(block.GetWritePtr(), length);
      block.AdvanceWritePtr(length);
      available -= length;
    }
    if (!more || looks == kLooksForRest || block.GetLength() == options_.readSize) return available;
    const bool writing = reader_.IsWriting();
    available = reader_.Available();
    if (available == 0 && !writing) return 0;
  }
}

// The peer is gone, or we have failed: what it has left is delivered, also to an owner who had
// stopped reading, and then the end. A ring at most, in case somebody goes on writing all the same.
void ShmConnection::ReadRest(int failure) {
  std::size_t left = reader_.Size();
  while (state_ == State::open && left != 0) {
    const std::uint64_t before = counters_.bytesReceived;
    if (!ReadOnce()) break;
    left -= std::min<std::size_t>(left, counters_.bytesReceived - before);
  }
  if (state_ != State::open) return;  // closed by its owner: the memory may be gone
  if (failure != 0) return End(failure);
  End(reader_.HasEnded() ? 0 : ECONNRESET);
}

// What arrives is left in the ring, which fills up; the peer's end is still noticed.
void ShmConnection::StopReading(bool stop) {
  if (reading_ == !stop) return;
  reading_ = !stop;
  if (reading_ && state_ == State::open) KeepPolling();
}

bool ShmConnection::TellRoom() {
  if (!roomWanted_ || state_ != State::open || !writer_.HasRoom()) return false;
  roomWanted_ = false;
  try {
    sink_->OnRoom();
  } catch (const std::bad_alloc&) {
    End(ENOMEM);
  }
  return true;
}

void ShmConnection::End(long reason) {
  if (state_ != State::open) return;
  state_ = State::ended;
  StopPolling();
  if (std::exchange(watched_, false)) loop_.Unwatch(socket_.Get(), *this);
  keelbase::internal::TellOwner(
      [sink = std::exchange(sink_, nullptr), reason] { sink->OnEnd(reason); });
}

// --- sending ---

AWResult ShmConnection::Send(CAWMessageBlock& chain) {
  loop_.CheckCurrent("a transport's SendData");
  if (IsDisconnected()) return AW_ERROR_NOT_INITIALIZED;
  if (state_ == State::ended || writer_.IsBroken()) return AW_ERROR_FAILURE;
  const std::size_t written = Write(chain);
  if (written != 0) {
    ++counters_.blocksSent;
    chain.AdvanceChainedReadPtr(written);
  }
  if (!HasBytes(chain)) return AW_OK;
  if (writer_.Unpublished() != 0) Publish();
  ++counters_.partialSends;
  roomWanted_ = true;
  if (state_ == State::open) KeepPolling();
  return writer_.IsBroken() && written == 0 ? AW_ERROR_FAILURE : AW_ERROR_PARTIAL_DATA;
}

// Into the ring, as much as there is room for. The first bytes of a turn are shown to the reader at
// once. What follows is when much is together or the turn ends: showing costs more than copying a
// small message.
std::size_t ShmConnection::Write(const CAWMessageBlock& chain) {
  const bool much = LengthUpTo(chain, kPublishSize) >= kPublishSize;
  const std::size_t written = much ? WriteMuch(chain) : WriteLittle(chain);
  counters_.bytesSent += written;
  const bool first = written != 0 && !std::exchange(dirty_, true);
  if (first) loop_.AtTurnEnd(*this);
  if (first && writer_.Unpublished() != 0) Publish();
  return written;
}

// The reader works while we copy: it is woken before, and each piece is shown to it. One that can
// not, since it sleeps on our own processor, is woken when all is there and nothing more to wait
// for.
std::size_t ShmConnection::WriteMuch(const CAWMessageBlock& chain) {
  WakePeerUnlessHere();
  writer_.SetWriting(true);
  const std::size_t written = WriteByPieces(chain);
  writer_.Show();
  writer_.SetWriting(false);
  if (writer_.ShallWakeReader()) WakePeer();
  return written;
}

std::size_t ShmConnection::WriteByPieces(const CAWMessageBlock& chain) {
  std::size_t written = 0;
  for (const CAWMessageBlock* block = &chain; block != nullptr; block = block->GetNext()) {
    for (std::size_t at = 0; at < block->GetLength();) {
      const std::size_t piece = std::min(block->GetLength() - at, kPublishSize);
      const std::size_t taken = writer_.Write(block->GetReadPtr() + at, piece);
      written += taken;
      at += taken;
      if (taken != piece) return written;
      if (writer_.Unpublished() < kPublishSize) continue;
      writer_.Show();
      WakePeerUnlessHere();
    }
  }
  return written;
}

std::size_t ShmConnection::WriteLittle(const CAWMessageBlock& chain) {
  std::size_t written = 0;
  for (const CAWMessageBlock* block = &chain; block != nullptr; block = block->GetNext()) {
    const std::size_t taken = writer_.Write(block->GetReadPtr(), block->GetLength());
    written += taken;
    if (taken != block->GetLength()) break;
  }
  if (writer_.Unpublished() >= kPublishSize) Publish();
  return written;
}

void ShmConnection::OnTurnEnd() {
  dirty_ = false;
  if (writer_.Unpublished() != 0) Publish();
}

void ShmConnection::Publish() {
  if (writer_.Publish()) WakePeer();
}

void ShmConnection::WakePeerUnlessHere() {
  if (!writer_.ReaderSleepsHere() && writer_.ShallWakeReader()) WakePeer();
}

// A full socket means that the peer has more wake-ups than it can need: it looks before it sleeps.
// One that cannot be woken would sleep for ever. That it is gone is seen by its socket's end, after
// what it has left.
void ShmConnection::WakePeer() {
  ++counters_.systemCallsSent;
  const ssize_t sent =
      Uninterrupted([this] { return ::send(socket_.Get(), "", 1, MSG_NOSIGNAL | MSG_DONTWAIT); });
  if (sent >= 0 || errno == EAGAIN || errno == EPIPE || errno == ECONNRESET) return;
  Failed(errno);
}

// --- closing ---

void ShmConnection::Disconnect() {
  loop_.CheckCurrent("a transport's Disconnect");
  if (IsDisconnected()) return;
  const CAWAutoPtr<ShmConnection> alive(this);
  const bool gone = state_ == State::ended;
  sink_ = nullptr;
  StopPolling();
  state_ = State::lingering;
  DrainSocket();  // the socket must have room for the byte that tells of room in the ring
  if (gone || WriteLingerData() || options_.lingerMs == 0) return CloseNow();
  BeginLinger();
}

void ShmConnection::BeginLinger() {
  self_ = this;
  lingerEnd_ = Clock::Now() + std::chrono::milliseconds(options_.lingerMs);
  try {
    loop_.BeginLinger(*this);
    lingerTimer_ = std::make_unique<Timer>(loop_);
    lingerTimer_->Start(std::chrono::milliseconds(options_.lingerMs), 1, [this] { CloseNow(); });
  } catch (const std::bad_alloc&) {
    return CloseNow();
  }
  if (!watched_) {  // nobody had opened it
    watched_ = loop_.Watch(socket_.Get(), EPOLLIN | EPOLLRDHUP | EPOLLET, *this) == 0;
  }
  if (!watched_) CloseNow();
}

AWResult ShmConnection::AddLingerData(const CAWMessageBlock& chain) {
  if (IsDisconnected()) return AW_ERROR_NOT_INITIALIZED;
  return AppendCopy(lingerData_, chain);
}

// True when nothing is left to write, or nobody will ever take it.
bool ShmConnection::WriteLingerData() {
  while (lingerData_ != nullptr) {
    lingerData_->AdvanceChainedReadPtr(Write(*lingerData_));
    keelbase::internal::DropRead(lingerData_);
    if (writer_.Unpublished() != 0) Publish();
    if (lingerData_ == nullptr || writer_.IsBroken()) break;
    if (writer_.WaitForRoom()) return false;
  }
  return true;
}

void ShmConnection::WriteLingering() {
  const CAWAutoPtr<ShmConnection> alive(this);
  DrainSocket();
  char byte;
  const ssize_t seen = ::recv(socket_.Get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK);
  const bool gone = seen == 0 || (seen < 0 && errno != EAGAIN && errno != EINTR);
  if (gone || WriteLingerData()) CloseNow();
}

// The peer reads what is in the ring, which lives as long as one of us maps it.
void ShmConnection::Leave() {
  writer_.End();
  Publish();
}

void ShmConnection::CloseNow() {
  if (state_ == State::closed) return;
  state_ = State::closed;
  sink_ = nullptr;
  StopPolling();
  if (std::exchange(dirty_, false)) loop_.DropTurnEnd(*this);
  if (std::exchange(watched_, false)) loop_.Unwatch(socket_.Get(), *this);
  Leave();
  socket_.Reset();
  segment_.Unmap();
  lingerData_.reset();
  lingerTimer_.reset();
  if (self_) loop_.EndLinger(*this);
  const CAWAutoPtr<ShmConnection> last(std::move(self_));
}

// --- options ---

AWResult ShmConnection::GetOption(int code, void* value) const {
  if (value == nullptr || code != keelbase::AW_OPT_COUNTERS) return AW_ERROR_FAILURE;
  *static_cast<keelbase::CAWTransportCounters*>(value) = counters_;
  return AW_OK;
}

AWResult ShmConnection::SetOption(int code, const void* value) {
  const auto result = keelbase::internal::SetCommonOption(*this, options_, code, value);
  return result.value_or(AW_ERROR_FAILURE);
}

}  // namespace fshmipc
