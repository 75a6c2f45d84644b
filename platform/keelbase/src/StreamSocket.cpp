// StreamSocket.cpp - see StreamSocket.h.
#include "keelbase/internal/StreamSocket.h"

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <utility>

#include "keelbase/internal/Chains.h"
#include "keelbase/internal/TellOwner.h"
#include "keelbase/internal/Uninterrupted.h"

namespace keelbase::internal {

namespace {

// From here on one sendmsg from the caller's bytes is cheaper than a copy into the gather buffer:
// each write wakes the peer, so that gathering two messages of 16 KiB pays for their copy.
constexpr std::size_t kDirectSize = 32 * 1024;

constexpr std::size_t kMaxPieces = 64;  // of one sendmsg

// More than most have on their way to us when we tell our end; a flood must not cost more.
constexpr std::size_t kMaxDropped = std::size_t{16} << 20;

// So much is read behind the end of a connection whatever the system says to be there.
constexpr std::size_t kMinRest = std::size_t{16} << 20;

class Pieces {
 public:
  void Add(const char* data, std::size_t length) {
    if (length == 0 || count_ == kMaxPieces) return;
    pieces_[count_++] = {const_cast<char*>(data), length};
    total_ += length;
  }
  void AddChain(const CAWMessageBlock* block) {
    for (; block != nullptr && count_ < kMaxPieces; block = block->GetNext())
      Add(block->GetReadPtr(), block->GetLength());
  }
  std::size_t Total() const { return total_; }

  ssize_t WriteTo(int fd) {
    msghdr message{};
    message.msg_iov = pieces_.data();
    message.msg_iovlen = count_;
    return Uninterrupted([&] { return ::sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT); });
  }

 private:
  std::array<iovec, kMaxPieces> pieces_;
  std::size_t count_ = 0;
  std::size_t total_ = 0;
};

bool IsWouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

}  // namespace

StreamSocket::StreamSocket(EventLoop& loop, FileDescriptor descriptor)
    : loop_(loop), descriptor_(std::move(descriptor)) {}

StreamSocket::~StreamSocket() { CloseNow(); }

AWResult StreamSocket::Open(StreamSocketSink* sink) {
  loop_.CheckCurrent("a transport's OpenWithSink");
  if (sink == nullptr || state_ != State::fresh) return AW_ERROR_FAILURE;
  sink_ = sink;
  state_ = State::open;
  UpdateWatch();
  if (writeError_ != 0) WantTurnEnd();
  return AW_OK;
}

// --- events ---

void StreamSocket::UpdateWatch() {
  // Fresh: there is nobody to tell; Open looks after it.
  if (state_ == State::fresh || state_ == State::closed) return;
  std::uint32_t events = 0;
  if (state_ == State::open) events |= EPOLLRDHUP | (reading_ ? EPOLLIN : 0U);
  if (state_ == State::draining) events |= EPOLLIN;
  if (blocked_) events |= EPOLLOUT;
  if (events == 0) return Unwatch();
  if (watched_ && events == watchedEvents_) return;
  const int error = watched_ ? loop_.Change(descriptor_.Get(), events, *this)
                             : loop_.Watch(descriptor_.Get(), events, *this);
  if (error != 0) return WriteFailed(error);
  watched_ = true;
  watchedEvents_ = events;
}

void StreamSocket::Unwatch() {
  if (std::exchange(watched_, false)) loop_.Unwatch(descriptor_.Get(), *this);
}

void StreamSocket::OnReady(std::uint32_t events) {
  const CAWAutoPtr<StreamSocket> alive(this);
  const bool over = (events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
  if (IsDisconnected()) return WriteLingering();
  if (blocked_ && (over || (events & EPOLLOUT) != 0)) WriteAgain();
  if (state_ != State::open) return;
  if (reading_ && (over || (events & EPOLLIN) != 0)) {
    ReadOnce();
  } else if (over) {
    ReadRest();
  }
}

void StreamSocket::WriteAgain() {
  blocked_ = false;
  WriteOut(nullptr);
  if (!blocked_ && roomWanted_) TellRoom();
  UpdateWatch();
}

bool StreamSocket::OnSpin() {
  if (state_ != State::open || !reading_) return false;
  const CAWAutoPtr<StreamSocket> alive(this);
  return ReadOnce();
}

// True when something was delivered.
bool StreamSocket::ReadOnce() {
  CAWMessageBlock* block = nullptr;
  try {
    block = &loop_.Buffers().TakeReadBlock();
  } catch (const std::bad_alloc&) {
    End(ENOMEM);
    return false;
  }
  const ssize_t count = Uninterrupted([&] {
    return ::recv(descriptor_.Get(), block->GetWritePtr(), options_.readSize, MSG_DONTWAIT);
  });
  if (count > 0) {
    block->AdvanceWritePtr(static_cast<std::size_t>(count));
    Deliver(*block);
    return true;
  }
  if (count == 0) {
    End(writeError_);
  } else if (!IsWouldBlock(errno)) {
    End(errno);
  }
  return false;
}

// The connection is over: what has come in by now is delivered, also to an owner who had stopped
// reading, and then the end. How much that is the system knows; urgent bytes can hide some of it.
void StreamSocket::ReadRest() {
  int waiting = 0;
  ::ioctl(descriptor_.Get(), FIONREAD, &waiting);
  const std::uint64_t most =
      counters_.bytesReceived + std::max(static_cast<std::size_t>(waiting), kMinRest);
  while (state_ == State::open && counters_.bytesReceived < most && ReadOnce()) {
  }
  End(writeError_);
}

void StreamSocket::Deliver(CAWMessageBlock& block) {
  ++counters_.blocksReceived;
  counters_.bytesReceived += block.GetLength();
  try {
    sink_->OnBytes(block);
  } catch (const std::bad_alloc&) {
    End(ENOMEM);
  }
}

void StreamSocket::TellRoom() {
  roomWanted_ = false;
  try {
    if (sink_ != nullptr) sink_->OnRoom();
  } catch (const std::bad_alloc&) {
    End(ENOMEM);
  }
}

void StreamSocket::End(long reason) {
  if (state_ != State::open) return;
  state_ = State::ended;
  blocked_ = blocked_ && reason == 0;  // who has only ended its side still takes what we have
  UpdateWatch();
  TellOwner([sink = std::exchange(sink_, nullptr), reason] { sink->OnEnd(reason); });
}

void StreamSocket::StopReading(bool stop) {
  if (reading_ == !stop) return;
  reading_ = !stop;
  if (state_ == State::open) UpdateWatch();
}

// --- sending ---

AWResult StreamSocket::Send(CAWMessageBlock& chain) {
  loop_.CheckCurrent("a transport's SendData");
  if (IsDisconnected()) return AW_ERROR_NOT_INITIALIZED;
  if (writeError_ != 0) return static_cast<AWResult>(writeError_);
  if (state_ == State::ended) return AW_ERROR_FAILURE;

  const std::size_t length = LengthUpTo(chain, kDirectSize);
  if (length == 0) return AW_OK;
  try {
    if (length < kDirectSize && CopyIn(chain, length)) return AW_OK;
  } catch (const std::bad_alloc&) {
    return AW_ERROR_FAILURE;
  }
  const bool taken = !blocked_ && WriteOut(&chain);
  if (taken) ++counters_.blocksSent;
  if (!HasBytes(chain)) return AW_OK;
  if (!taken && writeError_ != 0) return static_cast<AWResult>(writeError_);
  ++counters_.partialSends;
  roomWanted_ = true;
  return AW_ERROR_PARTIAL_DATA;
}

// Gathers a small chain, if there is room for all of it.
bool StreamSocket::CopyIn(CAWMessageBlock& chain, std::size_t length) {
  if (gather_ == nullptr) gather_ = loop_.Buffers().TakeGather();
  if (length > kGatherSize - gatherEnd_) return false;
  chain.CopyChained(gather_->data() + gatherEnd_, length);
  chain.AdvanceChainedReadPtr(length);
  gatherEnd_ += length;
  ++counters_.blocksSent;
  counters_.queuedHighMark = std::max<std::uint64_t>(counters_.queuedHighMark, Gathered());
  WantTurnEnd();
  return true;
}

void StreamSocket::WantTurnEnd() {
  if (!std::exchange(dirty_, true)) loop_.AtTurnEnd(*this);
}

void StreamSocket::OnTurnEnd() {
  const CAWAutoPtr<StreamSocket> alive(this);
  dirty_ = false;
  if (!blocked_) WriteOut(nullptr);
  if (writeError_ != 0) ReadRest();
}

// Writes what was gathered and then the chain, until both are empty or the system takes no more.
// True when anything of the chain was written.
bool StreamSocket::WriteOut(CAWMessageBlock* chain) {
  bool anyOfChain = false;
  while (!blocked_ && writeError_ == 0) {
    // A chain may be long: what was written is not walked over again.
    while (chain != nullptr && chain->GetLength() == 0) chain = chain->GetNext();
    Pieces pieces;
    if (gather_ != nullptr) pieces.Add(gather_->data() + gatherBegin_, Gathered());
    pieces.AddChain(chain);
    if (pieces.Total() == 0) break;
    const ssize_t result = pieces.WriteTo(descriptor_.Get());
    if (result < 0 && !IsWouldBlock(errno)) {
      WriteFailed(errno);
      break;
    }
    const std::size_t written = result < 0 ? 0 : static_cast<std::size_t>(result);
    const std::size_t fromGather = std::min(written, Gathered());
    Written(written);
    gatherBegin_ += fromGather;
    if (written > fromGather) {
      chain->AdvanceChainedReadPtr(written - fromGather);
      anyOfChain = true;
    }
    if (written < pieces.Total()) {
      blocked_ = true;
      UpdateWatch();
    }
  }
  if (Gathered() == 0) GiveGather();
  return anyOfChain;
}

void StreamSocket::Written(std::size_t count) {
  ++counters_.systemCallsSent;
  counters_.bytesSent += count;
}

// Nothing more can be sent. The end is told later, after what the peer had sent before it.
void StreamSocket::WriteFailed(int error) {
  if (writeError_ != 0) return;
  writeError_ = error;
  blocked_ = false;
  GiveGather();
  if (state_ == State::open) WantTurnEnd();
}

void StreamSocket::GiveGather() {
  gatherBegin_ = gatherEnd_ = 0;
  if (gather_ != nullptr) loop_.Buffers().GiveGather(std::move(gather_));
}

// --- closing ---

void StreamSocket::Disconnect() {
  loop_.CheckCurrent("a transport's Disconnect");
  if (IsDisconnected()) return;
  const CAWAutoPtr<StreamSocket> alive(this);
  sink_ = nullptr;
  state_ = State::lingering;
  if (!blocked_) WriteLingerData();
  if (options_.lingerMs == 0 || !GoOnClosing()) return CloseNow();
  self_ = this;
  lingerEnd_ = Clock::Now() + std::chrono::milliseconds(options_.lingerMs);
  try {
    loop_.BeginLinger(*this);
    lingerTimer_ = std::make_unique<Timer>(loop_);
    lingerTimer_->Start(std::chrono::milliseconds(options_.lingerMs), 1, [this] { CloseNow(); });
  } catch (const std::bad_alloc&) {
    return CloseNow();
  }
  UpdateWatch();
  if (writeError_ != 0) CloseNow();
}

AWResult StreamSocket::AddLingerData(const CAWMessageBlock& chain) {
  if (IsDisconnected()) return AW_ERROR_NOT_INITIALIZED;
  return AppendCopy(lingerData_, chain);
}

void StreamSocket::WriteLingering() {
  const CAWAutoPtr<StreamSocket> alive(this);
  if (state_ == State::lingering) {
    blocked_ = false;
    WriteLingerData();
  }
  if (!GoOnClosing()) return CloseNow();
  UpdateWatch();
}

// False: nothing is left to wait for. Closed with unread input, TCP would drop what is on its way
// to the peer. So, if we ever sent anything, we tell our end, drop what comes, and wait for the
// peer's. Without unread input only owners with AW_OPT_AWAIT_END wait: most peers are silent then.
bool StreamSocket::GoOnClosing() {
  if (writeError_ != 0) return false;
  if (state_ == State::draining) return DropInput();
  if (HasOutput()) return true;
  if (counters_.bytesSent == 0 || !(awaitsEnd_ || HasInput())) return false;
  state_ = State::draining;
  blocked_ = false;  // what a send could not write of its chain is its caller's
  return ::shutdown(descriptor_.Get(), SHUT_WR) == 0;
}

bool StreamSocket::HasInput() const {
  int unread = 0;
  return ::ioctl(descriptor_.Get(), FIONREAD, &unread) == 0 && unread > 0;
}

// False: nothing more can come, or too much does.
bool StreamSocket::DropInput() {
  std::array<char, 64 * 1024> bytes;
  const ssize_t count = ::recv(descriptor_.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
  if (count < 0) return IsWouldBlock(errno) || errno == EINTR;
  dropped_ += static_cast<std::size_t>(count);
  return count != 0 && dropped_ <= kMaxDropped;
}

void StreamSocket::WriteLingerData() {
  WriteOut(lingerData_.get());
  DropRead(lingerData_);
}

void StreamSocket::CloseNow() {
  if (state_ == State::closed) return;
  state_ = State::closed;
  sink_ = nullptr;
  if (std::exchange(dirty_, false)) loop_.DropTurnEnd(*this);
  Unwatch();
  descriptor_.Reset();
  GiveGather();
  lingerData_.reset();
  lingerTimer_.reset();
  if (self_) loop_.EndLinger(*this);
  const CAWAutoPtr<StreamSocket> last(std::move(self_));
}

// --- options ---

CAWTransportCounters StreamSocket::GetCounters() const {
  CAWTransportCounters counters = counters_;
  counters.queuedBytes = Gathered();
  return counters;
}

AWResult StreamSocket::GetOption(int code, void* value) const {
  if (value == nullptr || code != AW_OPT_COUNTERS) return AW_ERROR_FAILURE;
  *static_cast<CAWTransportCounters*>(value) = GetCounters();
  return AW_OK;
}

AWResult StreamSocket::SetOption(int code, const void* value) {
  if (const auto result = SetCommonOption(*this, options_, code, value)) return *result;
  if (code != AW_OPT_AWAIT_END) return AW_ERROR_FAILURE;
  awaitsEnd_ = *static_cast<const bool*>(value);
  return AW_OK;
}

}  // namespace keelbase::internal
