// UdpPort.cpp - see UdpPort.h.
#include "UdpPort.h"

#include <linux/errqueue.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <new>
#include <utility>

#include "keelbase/internal/Mutex.h"

namespace ptcp {

using keelbase::CAWAutoPtr;
using keelbase::CAWInetAddr;
using keelbase::internal::Clock;
using keelbase::internal::EventLoop;
using keelbase::internal::FileDescriptor;
using keelbase::internal::Mutex;
using keelbase::internal::MutexLock;

namespace {

constexpr int kSocketBuffer = 4 << 20;
constexpr std::size_t kMaxSegments = 64;     // of one write
constexpr std::size_t kMaxBatch = 64 * 1000;  // below what one UDP write may have
constexpr int kReadsPerTurn = 64;

// The ports that a listener can find again while connections of an earlier one use them.
struct Directory {
  Mutex mutex;
  std::map<std::pair<EventLoop*, CAWInetAddr>, UdpPort*> ports AW_GUARDED_BY(mutex);
};
Directory& GetDirectory() {
  static Directory& directory = *new Directory;  // lives for ever, like the loops
  return directory;
}

void Set(int socket, int level, int option, int value) {
  ::setsockopt(socket, level, option, &value, sizeof value);
}

CAWInetAddr ToAddr(const sockaddr_in& address) {
  return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
}

template <class Function>
void ForEachControl(msghdr& message, Function&& function) {
  for (cmsghdr* one = CMSG_FIRSTHDR(&message); one != nullptr; one = CMSG_NXTHDR(&message, one))
    function(*one);
}

template <class Value>
Value ValueOf(const cmsghdr& control) {
  Value value;
  std::memcpy(&value, CMSG_DATA(&control), sizeof value);
  return value;
}

// Room for what we read and write beside the data.
struct alignas(cmsghdr) ControlBuffer {
  std::array<char, 512> bytes{};
};

template <class Value>
void AddControl(msghdr& message, int level, int type, const Value& value) {
  auto* control = reinterpret_cast<cmsghdr*>(static_cast<char*>(message.msg_control) +
                                             message.msg_controllen);
  control->cmsg_level = level;
  control->cmsg_type = type;
  control->cmsg_len = CMSG_LEN(sizeof value);
  std::memcpy(CMSG_DATA(control), &value, sizeof value);
  message.msg_controllen += CMSG_SPACE(sizeof value);
}

PacketKey RandomKey() {
  std::array<std::uint8_t, 32> secret;
  FillWithRandom(secret.data(), secret.size());
  return PacketKey(secret);
}

std::uint64_t RandomSeed() {
  std::array<std::uint8_t, 8> bytes;
  FillWithRandom(bytes.data(), bytes.size());
  std::uint64_t seed;
  std::memcpy(&seed, bytes.data(), sizeof seed);
  return seed;
}

void Forget(std::vector<PortUser*>& list, PortUser& user) {
  std::replace(list.begin(), list.end(), &user, static_cast<PortUser*>(nullptr));
}

}  // namespace

Time Now() {
  return static_cast<Time>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::Now().time_since_epoch())
          .count());
}

// Fails on no kernel that has it for so few bytes; whoever sees zeroes has no connection, no more.
void FillWithRandom(std::uint8_t* out, std::size_t length) {
  std::memset(out, 0, length);
  while (::getrandom(out, length, 0) < 0 && errno == EINTR) {
  }
}

std::size_t UdpPort::IdHash::operator()(const ConnectionId& id) const {
  std::uint64_t hash = seed;
  for (const std::uint8_t byte : id.View()) {
    hash = (hash ^ byte) * 0x9E3779B97F4A7C15ULL;
    hash ^= hash >> 29;
  }
  return hash ^ seed >> 17;
}

UdpPort::UdpPort(EventLoop& loop)
    : loop_(loop), resetKey_(RandomKey()), users_(0, IdHash{RandomSeed()}) {}

UdpPort::~UdpPort() {
  if (listed_) {
    Directory& directory = GetDirectory();
    const MutexLock lock(directory.mutex);
    directory.ports.erase({&loop_, local_});
  }
  if (batch_ != nullptr) loop_.Buffers().GiveGather(std::move(batch_));
  if (socket_) loop_.Unwatch(socket_.Get(), *this);
}

CAWAutoPtr<UdpPort> UdpPort::Find(EventLoop& loop, const CAWInetAddr& local) {
  Directory& directory = GetDirectory();
  const MutexLock lock(directory.mutex);
  const auto found = directory.ports.find({&loop, local});
  if (found == directory.ports.end() || found->second->HasListener()) return {};
  return CAWAutoPtr<UdpPort>(found->second);
}

int UdpPort::Open(const CAWInetAddr* local, const CAWInetAddr* peer) {
  FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) return errno;
  socket_ = std::move(socket);
  int error = SetUp(local, peer);
  if (error == 0) error = loop_.Watch(socket_.Get(), EPOLLIN, *this);
  if (error != 0) socket_.Reset();
  if (error != 0 || peer != nullptr) return error;
  Directory& directory = GetDirectory();
  const MutexLock lock(directory.mutex);
  listed_ = directory.ports.emplace(std::make_pair(&loop_, local_), this).second;
  return 0;
}

int UdpPort::SetUp(const CAWInetAddr* local, const CAWInetAddr* peer) {
  const int socket = socket_.Get();
  Set(socket, SOL_SOCKET, SO_RCVBUF, kSocketBuffer);
  Set(socket, SOL_SOCKET, SO_SNDBUF, kSocketBuffer);
  Set(socket, IPPROTO_UDP, UDP_GRO, 1);
  Set(socket, IPPROTO_IP, IP_RECVERR, 1);
  Set(socket, IPPROTO_IP, IP_MTU_DISCOVER, IP_PMTUDISC_PROBE);  // we find the MTU out ourselves
  if (peer == nullptr) Set(socket, IPPROTO_IP, IP_PKTINFO, 1);
  if (local != nullptr && ::bind(socket, local->GetPtr(), local->GetSize()) != 0) return errno;
  if (peer != nullptr && ::connect(socket, peer->GetPtr(), peer->GetSize()) != 0) return errno;
  sockaddr_in bound{};
  socklen_t size = sizeof bound;
  if (::getsockname(socket, reinterpret_cast<sockaddr*>(&bound), &size) != 0) return errno;
  local_ = ToAddr(bound);
  connected_ = peer != nullptr;
  if (connected_) peer_ = *peer;
  return 0;
}

// --- users ---

bool UdpPort::AddId(const ConnectionId& id, PortUser& user) {
  return users_.emplace(id, &user).second;
}

void UdpPort::Remove(PortUser& user) {
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

// What a router or the peer's system says of an earlier packet; its data is the packet's.
bool UdpPort::ReadOneError() {
  sockaddr_in to{};
  ControlBuffer control;
  msghdr message{};
  message.msg_name = &to;
  message.msg_namelen = sizeof to;
  message.msg_control = control.bytes.data();
  message.msg_controllen = control.bytes.size();
  if (::recvmsg(socket_.Get(), &message, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) return false;
  int error = 0;
  ForEachControl(message, [&error](const cmsghdr& one) {
    if (one.cmsg_level == IPPROTO_IP && one.cmsg_type == IP_RECVERR)
      error = static_cast<int>(ValueOf<sock_extended_err>(one).ee_errno);
  });
  const CAWInetAddr peer = connected_ ? peer_ : ToAddr(to);
  if (error == 0) return true;
  for (const auto& [id, user] : users_) {
    if (user->GetPath().peer == peer) {
      user->OnPortError(error);
      if (std::find(touched_.begin(), touched_.end(), user) == touched_.end())
        touched_.push_back(user);
    }
  }
  return true;
}

void UdpPort::ReadDatagrams() {
  const Time now = Now();
  for (int reads = 0; reads < kReadsPerTurn && ReadOnce(now); ++reads) {
  }
  EndBatch();
}

bool UdpPort::ReadOnce(Time now) {
  sockaddr_in from{};
  ControlBuffer control;
  msghdr message{};
  message.msg_name = &from;
  message.msg_namelen = sizeof from;
  message.msg_control = control.bytes.data();
  message.msg_controllen = control.bytes.size();
  try {
    keelbase::CAWMessageBlock& block = loop_.Buffers().TakeReadBlock();
    iovec piece{block.GetWritePtr(), keelbase::internal::kReadSize};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    const ssize_t count = ::recvmsg(socket_.Get(), &message, MSG_DONTWAIT);
    // An error that waited for us has been taken by that; there may be datagrams behind it.
    if (count < 0) return errno != EAGAIN && errno != EWOULDBLOCK;
    Path path{connected_ ? peer_ : ToAddr(from), {}};
    std::size_t segment = 0;
    ForEachControl(message, [&](const cmsghdr& one) {
      if (one.cmsg_level == IPPROTO_UDP && one.cmsg_type == UDP_GRO)
        segment = static_cast<std::size_t>(ValueOf<int>(one));
      if (one.cmsg_level == IPPROTO_IP && one.cmsg_type == IP_PKTINFO)
        path.local = ValueOf<in_pktinfo>(one).ipi_spec_dst;
    });
    Bytes data(reinterpret_cast<const std::uint8_t*>(piece.iov_base),
               static_cast<std::size_t>(count));
    while (!data.empty()) {
      const std::size_t length = segment == 0 ? data.size() : std::min(segment, data.size());
      Dispatch(path, data.first(length), now);
      data = data.subspan(length);
    }
  } catch (const std::bad_alloc&) {  // as if this one had been lost
  }
  return true;
}

void UdpPort::Dispatch(const Path& from, Bytes datagram, Time now) {
  const auto id = PtcpConnection::Destination(datagram);
  if (!id) return;
  const auto found = users_.find(*id);
  if (found == users_.end()) return OnUnknown(from, *id, datagram);
  PortUser* const user = found->second;
  if (!(user->GetPath().peer == from.peer)) return;
  if (touched_.empty() || touched_.back() != user) touched_.push_back(user);
  user->OnDatagram(datagram, now);
}

// A first packet, or one of a connection that is over here while its peer does not know.
void UdpPort::OnUnknown(const Path& from, const ConnectionId& id, Bytes datagram) {
  constexpr std::uint8_t kLongHeader = 0x80;
  if ((datagram[0] & kLongHeader) != 0) {
    if (stranger_ != nullptr) stranger_(from, datagram);
    return;
  }
  const auto reset = PtcpConnection::MakeReset(datagram, ResetToken(id), &FillWithRandom);
  if (!reset.empty()) Send(from, reset);
}

void UdpPort::EndBatch() {
  FlushBatch();
  for (std::size_t i = 0; i < touched_.size(); ++i) {
    PortUser* const user = touched_[i];
    if (user == nullptr) continue;  // gone meanwhile
    Forget(touched_, *user);
    user->OnBatchEnd();
  }
  touched_.clear();
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

// False when the system takes no more for now. Any other failure is as if the packets were lost.
bool UdpPort::WriteBatch() {
  const Bytes all(reinterpret_cast<const std::uint8_t*>(batch_->data()), batchSize_);
  if (batchCount_ == 1 || offload_) {
    const long error = Write(all, batchCount_ == 1 ? 0 : segment_);
    if (error == EAGAIN || error == ENOBUFS) return false;
    // No device of this path can cut it up, or the system is too old.
    const bool cannot = error == EIO || error == EINVAL || error == EOPNOTSUPP;
    if (batchCount_ == 1 || !cannot) return true;
    offload_ = false;
  }
  for (std::size_t at = 0; at < all.size(); at += segment_) {
    const long error = Write(all.subspan(at, std::min(segment_, all.size() - at)), 0);
    if (error == EAGAIN || error == ENOBUFS) break;  // the rest is sent again in time
  }
  return true;
}

// 0 or an errno value. An error of an earlier packet comes instead of sending this one.
long UdpPort::Write(Bytes data, std::size_t segment) {
  sockaddr_in to{};
  std::memcpy(&to, batchPath_.peer.GetPtr(), sizeof to);
  ControlBuffer control;
  iovec piece{const_cast<std::uint8_t*>(data.data()), data.size()};
  msghdr message{};
  if (!connected_) {
    message.msg_name = &to;
    message.msg_namelen = sizeof to;
  }
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  message.msg_control = control.bytes.data();
  if (segment != 0)
    AddControl(message, IPPROTO_UDP, UDP_SEGMENT, static_cast<std::uint16_t>(segment));
  if (batchPath_.local.s_addr != 0) {
    in_pktinfo info{};
    info.ipi_spec_dst = batchPath_.local;
    AddControl(message, IPPROTO_IP, IP_PKTINFO, info);
  }
  if (message.msg_controllen == 0) message.msg_control = nullptr;
  for (int tries = 0;; ++tries) {
    ++writes_;
    if (::sendmsg(socket_.Get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) return 0;
    const bool again = errno == EINTR || errno == ECONNREFUSED;
    if (!again || tries == 3) return errno;
  }
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
  if (lingering_.empty()) loop_.BeginLinger(*this);
  lingering_.push_back(&user);
}

void UdpPort::EndLinger(PortUser& user) {
  if (std::erase(lingering_, &user) != 0 && lingering_.empty()) loop_.EndLinger(*this);
}

// At the process's end no timers run: what is due of a connection is done at this deadline.
Clock::Point UdpPort::LingerDeadline() const {
  Time due = kNever;
  for (const PortUser* user : lingering_) due = std::min(due, user->LingerDue());
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
  const std::vector<PortUser*> users = lingering_;
  for (PortUser* user : users) {
    const bool there = std::find(lingering_.begin(), lingering_.end(), user) != lingering_.end();
    if (there) user->OnLinger();
  }
}

}  // namespace ptcp
