// UdpSocket.cpp - see UdpSocket.h.
#include "UdpSocket.h"

#include <linux/errqueue.h>
#include <net/if.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace ptcp {

using keelbase::CAWInetAddr;
using keelbase::internal::FileDescriptor;

namespace {

constexpr int kSocketBuffer = 4 << 20;
constexpr int kTries = 3;  // of one write

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
  auto* control =
      reinterpret_cast<cmsghdr*>(static_cast<char*>(message.msg_control) + message.msg_controllen);
  control->cmsg_level = level;
  control->cmsg_type = type;
  control->cmsg_len = CMSG_LEN(sizeof value);
  std::memcpy(CMSG_DATA(control), &value, sizeof value);
  message.msg_controllen += CMSG_SPACE(sizeof value);
}

// A message to be filled in by the system: from whom, the data, and more.
struct Incoming {
  explicit Incoming(std::span<char> room) : piece{room.data(), room.size()} {
    message.msg_name = &from;
    message.msg_namelen = sizeof from;
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control.bytes.data();
    message.msg_controllen = control.bytes.size();
  }
  Bytes Data(ssize_t count) const {
    return {static_cast<const std::uint8_t*>(piece.iov_base), static_cast<std::size_t>(count)};
  }

  sockaddr_in from{};
  iovec piece;
  ControlBuffer control;
  msghdr message{};
};

}  // namespace

int UdpSocket::Open(const CAWInetAddr* local, const CAWInetAddr* peer) {
  FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) return errno;
  socket_ = std::move(socket);
  const int error = SetUp(local, peer);
  if (error != 0) socket_.Reset();
  return error;
}

int UdpSocket::SetUp(const CAWInetAddr* local, const CAWInetAddr* peer) {
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

std::size_t UdpSocket::LongestOnLoopback() const {
  constexpr std::size_t kHeaders = 28;  // IP's and UDP's
  ifreq loopback{};
  std::strcpy(loopback.ifr_name, "lo");
  if (::ioctl(socket_.Get(), SIOCGIFMTU, &loopback) != 0) return 0;
  const auto mtu = static_cast<std::size_t>(loopback.ifr_mtu);
  return mtu - std::min(mtu, kHeaders);
}

int UdpSocket::Read(std::span<char> room, Received& received) const {
  Incoming incoming(room);
  const ssize_t count = ::recvmsg(socket_.Get(), &incoming.message, MSG_DONTWAIT);
  if (count < 0) return errno;
  received.from = {connected_ ? peer_ : ToAddr(incoming.from), {}};
  received.data = incoming.Data(count);
  received.segment = 0;
  ForEachControl(incoming.message, [&](const cmsghdr& one) {
    if (one.cmsg_level == IPPROTO_UDP && one.cmsg_type == UDP_GRO)
      received.segment = static_cast<std::size_t>(ValueOf<int>(one));
    if (one.cmsg_level == IPPROTO_IP && one.cmsg_type == IP_PKTINFO)
      received.from.local = ValueOf<in_pktinfo>(one).ipi_spec_dst;
  });
  return 0;
}

int UdpSocket::ReadError(std::span<char> room, NetworkError& error) const {
  Incoming incoming(room);
  const ssize_t count = ::recvmsg(socket_.Get(), &incoming.message, MSG_ERRQUEUE | MSG_DONTWAIT);
  if (count < 0) return errno;
  error.error = 0;
  error.peer = connected_ ? peer_ : ToAddr(incoming.from);
  error.quoted = incoming.Data(count);
  ForEachControl(incoming.message, [&error](const cmsghdr& one) {
    if (one.cmsg_level == IPPROTO_IP && one.cmsg_type == IP_RECVERR)
      error.error = static_cast<int>(ValueOf<sock_extended_err>(one).ee_errno);
  });
  return 0;
}

// The network's report on an earlier datagram, to whatever peer, may be the result of this call,
// which then has sent nothing: another try does. EAGAIN and ENOBUFS are never such a report.
int UdpSocket::Write(const Path& path, Bytes data, std::size_t segment) {
  sockaddr_in to{};
  std::memcpy(&to, path.peer.GetPtr(), sizeof to);
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
  if (path.local.s_addr != 0) {
    in_pktinfo info{};
    info.ipi_spec_dst = path.local;
    AddControl(message, IPPROTO_IP, IP_PKTINFO, info);
  }
  if (message.msg_controllen == 0) message.msg_control = nullptr;
  for (int tries = 1;; ++tries) {
    ++writes_;
    if (::sendmsg(socket_.Get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) return 0;
    if (errno == EAGAIN || errno == ENOBUFS || tries == kTries) return errno;
  }
}

}  // namespace ptcp
