// UdpPort.cpp - see UdpPort.h.
#include "UdpPort.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <new>
#include <utility>

#include "ClockAndRandom.h"
#include "keelbase/internal/Immortal.h"
#include "keelbase/internal/Mutex.h"
#include "keelbase/internal/TraceError.h"

namespace ptcp {

using keelbase::CAWAutoPtr;
using keelbase::CAWInetAddr;
using keelbase::internal::Clock;
using keelbase::internal::EventLoop;
using keelbase::internal::Mutex;
using keelbase::internal::MutexLock;

namespace {

constexpr std::size_t kMaxSegments = 64;      // of one write
constexpr std::size_t kMaxBatch = 64 * 1000;  // below what one UDP write may have
constexpr int kReadsPerTurn = 64;
constexpr int kMaxAsked = 16;     // whether a reset is theirs
constexpr int kMaxFailures = 64;  // in a row: then reading fails for good, as it seems
constexpr std::chrono::milliseconds kReadPause{100};

// The ports that a listener can find again while connections of an earlier one use them.
struct Directory {
  Mutex mutex;
  std::map<std::pair<EventLoop*, CAWInetAddr>, UdpPort*> ports AW_GUARDED_BY(mutex);
};
Directory& GetDirectory() { return keelbase::internal::Immortal<Directory>(); }

void Forget(std::vector<PortUser*>& list, PortUser& user) {
  std::replace(list.begin(), list.end(), &user, static_cast<PortUser*>(nullptr));
}

}  // namespace

std::size_t UdpPort::IdHash::operator()(const ConnectionId& id) const {
  std::uint64_t hash = seed;
  for (const std::uint8_t byte : id.View()) {
    hash = (hash ^ byte) * 0x9E3779B97F4A7C15ULL;
    hash ^= hash >> 29;
  }
  return hash ^ seed >> 17;
}

UdpPort::UdpPort(EventLoop& loop)
    : loop_(loop), resetKey_(RandomKey()), usersById_(0, IdHash{RandomSeed()}), readPause_(loop) {}

UdpPort::~UdpPort() {
  if (listed_) {
    Directory& directory = GetDirectory();
    const MutexLock lock(directory.mutex);
    directory.ports.erase({&loop_, GetLocalAddr()});
  }
  if (batch_ != nullptr) loop_.Buffers().GiveGather(std::move(batch_));
  if (socket_.IsOpen()) loop_.Unwatch(socket_.Get(), *this);
}

CAWAutoPtr<UdpPort> UdpPort::Find(EventLoop& loop, const CAWInetAddr& local) {
  Directory& directory = GetDirectory();
  const MutexLock lock(directory.mutex);
  const auto found = directory.ports.find({&loop, local});
  if (found == directory.ports.end() || found->second->HasListener()) return {};
  return CAWAutoPtr<UdpPort>(found->second);
}

int UdpPort::Open(const CAWInetAddr* local, const CAWInetAddr* peer) {
  int error = socket_.Open(local, peer);
  if (error == 0) error = loop_.Watch(socket_.Get(), EPOLLIN, *this);
  if (error != 0) socket_.Close();
  if (error != 0 || peer != nullptr) return error;
  Directory& directory = GetDirectory();
  const MutexLock lock(directory.mutex);
  listed_ = directory.ports.emplace(std::make_pair(&loop_, GetLocalAddr()), this).second;
  return 0;
}

bool UdpPort::IsLoopback(const CAWInetAddr& peer) const {
  sockaddr_in address{};
  std::memcpy(&address, peer.GetPtr(), sizeof address);
  const bool loopback = ntohl(address.sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
  return loopback && socket_.LongestOnLoopback() >= kMaxDatagramLoopback;
}

// --- users ---

bool UdpPort::AddId(const ConnectionId& id, PortUser& user) {
  usersByPeer_.emplace(user.GetPath().peer, &user);
  return usersById_.emplace(id, &user).second;
}

void UdpPort::Remove(PortUser& user) {
  usersByPeer_.erase({user.GetPath().peer, &user});
  Forget(touched_, user);
  Forget(waiting_, user);
  EndLinger(user);
}

// --- receiving ---

void UdpPort::OnReady(std::uint32_t events) {
  const CAWAutoPtr<UdpPort> alive(this);
  if ((events & EPOLLERR) != 0) ReadErrors();
  if ((events & EPOLLOUT) != 0 && blocked_) BecomeFree();
  if ((events & EPOLLIN) != 0) ReadDatagrams();
}

void UdpPort::ReadErrors() {
  for (int reads = 0; reads < kReadsPerTurn && ReadOneError(); ++reads) {
  }
  EndBatch();
}

// Believed when what it quotes is a packet that the connection may have sent: who only knows the
// addresses cannot end it.
bool UdpPort::ReadOneError() {
  std::array<char, 64> room;
  UdpSocket::NetworkError told;
  if (const int error = socket_.ReadError(room, told); error != 0) return ReadFailed(error);
  if (told.error == 0) return true;
  for (auto one = usersByPeer_.lower_bound({told.peer, nullptr});
       one != usersByPeer_.end() && one->first == told.peer; ++one) {
    PortUser& user = *one->second;
    if (!user.MayHaveSent(told.quoted)) continue;
    user.OnPortError(told.error);
    NoteTouched(user);
    break;
  }
  return true;
}

// Without memory it looks after itself when its timer is due.
void UdpPort::NoteTouched(PortUser& user) {
  if (std::find(touched_.begin(), touched_.end(), &user) != touched_.end()) return;
  try {
    touched_.push_back(&user);
  } catch (const std::bad_alloc&) {
  }
}

void UdpPort::ReadDatagrams() {
  const Time now = Now();
  for (int reads = 0; reads < kReadsPerTurn && ReadOnce(now); ++reads) {
  }
  EndBatch();
}

bool UdpPort::ReadOnce(Time now) {
  try {
    keelbase::CAWMessageBlock& block = loop_.Buffers().TakeReadBlock();
    UdpSocket::Received received;
    // The error may be a report on a datagram that we sent; there may be datagrams behind it.
    if (const int error =
            socket_.Read({block.GetWritePtr(), keelbase::internal::kReadSize}, received);
        error != 0)
      return ReadFailed(error);
    readFailures_ = 0;
    Bytes data = received.data;
    while (!data.empty()) {
      const std::size_t length =
          received.segment == 0 ? data.size() : std::min(received.segment, data.size());
      Dispatch(received.from, data.first(length), now);
      data = data.subspan(length);
    }
  } catch (const std::bad_alloc&) {  // as if this one had been lost
    return ReadFailed(ENOMEM);
  }
  return true;
}

// True: there is sense in another read. When all fail, reading is left alone for a while, or the
// loop would do nothing else.
bool UdpPort::ReadFailed(int error) {
  if (error == EAGAIN) {
    readFailures_ = 0;
    return false;
  }
  if (++readFailures_ < kMaxFailures) return true;
  if (readFailures_ == kMaxFailures)
    keelbase::internal::TraceError("no datagram can be received for now", error);
  loop_.Unwatch(socket_.Get(), *this);
  readPause_.Start(kReadPause, 1, [this] { ResumeReading(); });
  return false;
}

void UdpPort::ResumeReading() {
  const std::uint32_t events = EPOLLIN | (blocked_ ? EPOLLOUT : 0U);
  if (const int error = loop_.Watch(socket_.Get(), events, *this); error != 0) ReadFailed(error);
}

void UdpPort::Dispatch(const Path& from, Bytes datagram, Time now) {
  const auto id = DestinationOf(datagram);
  if (!id) return;
  const auto found = usersById_.find(*id);
  if (found == usersById_.end()) return OnUnknown(from, *id, datagram, now);
  PortUser* const user = found->second;
  if (!(user->GetPath().peer == from.peer)) return;
  if (touched_.empty() || touched_.back() != user) touched_.push_back(user);
  user->OnDatagram(datagram, now);
}

// A first packet, or one of a connection that is over here while its peer does not know.
void UdpPort::OnUnknown(const Path& from, const ConnectionId& id, Bytes datagram, Time now) {
  if (HasLongHeader(datagram)) {
    if (stranger_ != nullptr) return stranger_(from, datagram, now);
    if (listed_) Refuse(from, datagram);
    return;
  }
  if (datagram.size() == kResetSize) return OfferReset(from, datagram, now);
  // A function's own type would be exported with the library's symbols.
  const auto fill = [](std::uint8_t* out, std::size_t length) { FillWithRandom(out, length); };
  const auto reset = MakeReset(datagram, ResetToken(id), fill);
  if (!reset.empty()) Send(from, reset);
}

// They know whose token it bears. A connector of ours has a port of its own, so there is one; who
// opens many connections from one port makes us ask a few of them.
void UdpPort::OfferReset(const Path& from, Bytes datagram, Time now) {
  int left = kMaxAsked;
  for (auto one = usersByPeer_.lower_bound({from.peer, nullptr});
       one != usersByPeer_.end() && one->first == from.peer && left > 0; ++one, --left) {
    NoteTouched(*one->second);
    one->second->OnReset(datagram, now);
  }
}

// The listener has stopped, and connections of it keep the port open.
void UdpPort::Refuse(const Path& from, Bytes datagram) {
  const auto initial = ReadInitial(datagram);
  if (!initial) return;
  const auto refusal = MakeRefusal(*initial);
  if (!refusal.empty()) Send(from, refusal);
}

void UdpPort::EndBatch() {
  FlushBatch();
  while (!touched_.empty()) {
    PortUser* const user = touched_.back();
    touched_.pop_back();
    if (user == nullptr) continue;  // gone meanwhile
    Forget(touched_, *user);
    user->OnBatchEnd();
  }
}

// --- sending ---

bool UdpPort::IsOfBatch(const Path& path, std::size_t size) const {
  return path.peer == batchPath_.peer && path.local.s_addr == batchPath_.local.s_addr &&
         size <= segment_ && batchSize_ % segment_ == 0 && batchCount_ < kMaxSegments &&
         batchSize_ + size <= kMaxBatch;
}

// While the system takes nothing more, what does not fit behind is lost, as on any path.
void UdpPort::Send(const Path& path, Bytes datagram) {
  if (batchSize_ != 0 && !IsOfBatch(path, datagram.size())) FlushBatch();
  if (blocked_ && batchSize_ != 0 && !IsOfBatch(path, datagram.size())) return;
  try {
    if (batch_ == nullptr) batch_ = loop_.Buffers().TakeGather();
  } catch (const std::bad_alloc&) {
    return;
  }
  if (batchSize_ == 0) {
    batchPath_ = path;
    segment_ = datagram.size();
  }
  std::memcpy(batch_->data() + batchSize_, datagram.data(), datagram.size());
  batchSize_ += datagram.size();
  ++batchCount_;
}

void UdpPort::FlushBatch() {
  if (batchSize_ == 0 || blocked_) return;
  if (!WriteBatch()) {
    blocked_ = loop_.Change(socket_.Get(), EPOLLIN | EPOLLOUT, *this) == 0;
    if (blocked_) return;
  }
  batchSize_ = 0;
  batchCount_ = 0;
  loop_.Buffers().GiveGather(std::move(batch_));
}

// False when the system takes no more for now. Any other failure is as if the packets were lost,
// also ENOBUFS: the queue of a device is full while the socket says that it has room.
bool UdpPort::WriteBatch() {
  const Bytes all(reinterpret_cast<const std::uint8_t*>(batch_->data()), batchSize_);
  if (batchCount_ == 1 || offload_) {
    const int error = socket_.Write(batchPath_, all, batchCount_ == 1 ? 0 : segment_);
    if (error == EAGAIN) return false;
    // No device of this path can cut it up, or the system is too old.
    const bool cannot = error == EIO || error == EINVAL || error == EOPNOTSUPP;
    if (batchCount_ == 1 || !cannot) return true;
    offload_ = false;
  }
  for (std::size_t at = 0; at < all.size(); at += segment_) {
    const Bytes one = all.subspan(at, std::min(segment_, all.size() - at));
    const int error = socket_.Write(batchPath_, one, 0);
    if (error == EAGAIN || error == ENOBUFS) break;  // the rest is sent again in time
  }
  return true;
}

void UdpPort::BecomeFree() {
  blocked_ = false;
  loop_.Change(socket_.Get(), EPOLLIN, *this);
  FlushBatch();
  if (blocked_) return;
  const std::vector<PortUser*> waited = std::exchange(waiting_, {});
  for (PortUser* user : waited) {
    if (user != nullptr) user->OnPortFree();
  }
}

// --- lingers ---

void UdpPort::BeginLinger(PortUser& user) {
  if (lingering_.IsEmpty()) loop_.BeginLinger(*this);
  lingering_.Append(user);
}

void UdpPort::EndLinger(PortUser& user) {
  if (!lingering_.Contains(user)) return;
  if (nextLingering_ == &user) nextLingering_ = lingering_.After(user);
  lingering_.Remove(user);
  if (lingering_.IsEmpty()) loop_.EndLinger(*this);
}

// At the process's end no timers run: what is due of a connection is done at this deadline.
Clock::Point UdpPort::LingerDeadline() const {
  Time due = kNever;
  for (const PortUser* user = lingering_.First(); user != nullptr; user = lingering_.After(*user))
    due = std::min(due, user->LingerDue());
  return Clock::Point(std::chrono::nanoseconds(static_cast<std::int64_t>(due)));
}

void UdpPort::WriteLingering() {
  const CAWAutoPtr<UdpPort> alive(this);
  if (blocked_) BecomeFree();
  ReadErrors();
  ReadDatagrams();
  ServeLingering();
}

void UdpPort::ServeLingering() {
  const CAWAutoPtr<UdpPort> alive(this);
  for (nextLingering_ = lingering_.First(); nextLingering_ != nullptr;) {
    PortUser& user = *nextLingering_;
    nextLingering_ = lingering_.After(user);
    user.OnLinger();
  }
}

}  // namespace ptcp
