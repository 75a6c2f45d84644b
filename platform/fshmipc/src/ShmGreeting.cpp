// ShmGreeting.cpp - see ShmGreeting.h.
#include "ShmGreeting.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include "keelbase/internal/Uninterrupted.h"

namespace fshmipc {

using keelbase::internal::Uninterrupted;

namespace {

constexpr std::uint32_t kMagic = 0x4d48535a;  // "ZSHM"
constexpr int kMaxErrno = 4095;
constexpr std::size_t kMaxDescriptors = 8;  // what is beyond is closed by the system

template <class Message>
bool IsOurs(const Message& message, ssize_t length) {
  return static_cast<std::size_t>(length) >= offsetof(Message, version) + sizeof message.version &&
         message.magic == kMagic;
}

// Closes all descriptors but the first, which it returns.
FileDescriptor TakeDescriptor(msghdr& header, std::size_t& count) {
  FileDescriptor first;
  for (cmsghdr* part = CMSG_FIRSTHDR(&header); part != nullptr; part = CMSG_NXTHDR(&header, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
    const std::size_t here = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < here; ++i) {
      int number;
      std::memcpy(&number, CMSG_DATA(part) + i * sizeof number, sizeof number);
      FileDescriptor descriptor(number);
      if (count++ == 0) first = std::move(descriptor);
    }
  }
  return first;
}

int SendAll(int socket, const msghdr& header, std::size_t length) {
  const ssize_t sent =
      Uninterrupted([&] { return ::sendmsg(socket, &header, MSG_NOSIGNAL | MSG_DONTWAIT); });
  if (sent < 0) return errno;
  return static_cast<std::size_t>(sent) == length ? 0 : EPROTO;
}

// How much came; below 0: an errno value, negative. The end of the connection is ECONNRESET.
ssize_t Receive(int socket, msghdr& header) {
  const ssize_t length =
      Uninterrupted([&] { return ::recvmsg(socket, &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC); });
  if (length == 0) return -ECONNRESET;
  return length < 0 ? -errno : length;
}

template <class Message>
int SendPlain(int socket, Message message) {
  iovec piece{&message, sizeof message};
  msghdr header{};
  header.msg_iov = &piece;
  header.msg_iovlen = 1;
  return SendAll(socket, header, sizeof message);
}

// Descriptors that come along are closed by the system.
template <class Message>
int ReceivePlain(int socket, Message& message) {
  message = {};
  iovec piece{&message, sizeof message};
  msghdr header{};
  header.msg_iov = &piece;
  header.msg_iovlen = 1;
  const ssize_t length = Receive(socket, header);
  if (length < 0) return static_cast<int>(-length);
  if (!IsOurs(message, length)) return EPROTO;
  if (message.version != kLayoutVersion) return EPROTONOSUPPORT;
  return length == static_cast<ssize_t>(sizeof message) ? 0 : EPROTO;
}

}  // namespace

int SendWelcome(int socket) { return SendPlain(socket, Welcome{kMagic, kLayoutVersion, 0}); }

int ReceiveWelcome(int socket) {
  Welcome welcome;
  return ReceivePlain(socket, welcome);
}

int SendGreeting(int socket, const CAWShmIPCAddr& local, std::uint32_t ringSize, int memory) {
  Greeting greeting{kMagic, kLayoutVersion, local.GetFirst(), local.GetSecond(), 0, ringSize};
  iovec piece{&greeting, sizeof greeting};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr header{};
  header.msg_iov = &piece;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  cmsghdr* part = CMSG_FIRSTHDR(&header);
  part->cmsg_level = SOL_SOCKET;
  part->cmsg_type = SCM_RIGHTS;
  part->cmsg_len = CMSG_LEN(sizeof memory);
  std::memcpy(CMSG_DATA(part), &memory, sizeof memory);
  return SendAll(socket, header, sizeof greeting);
}

int ReceiveGreeting(int socket, Greeting& greeting, FileDescriptor& memory) {
  greeting = {};
  iovec piece{&greeting, sizeof greeting};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(kMaxDescriptors * sizeof(int))> control{};
  msghdr header{};
  header.msg_iov = &piece;
  header.msg_iovlen = 1;
  header.msg_control = control.data();
  header.msg_controllen = control.size();
  const ssize_t length = Receive(socket, header);
  if (length < 0) return static_cast<int>(-length);
  std::size_t count = 0;
  memory = TakeDescriptor(header, count);
  if (!IsOurs(greeting, length)) return EPROTO;
  if (greeting.version != kLayoutVersion) return EPROTONOSUPPORT;
  // Ours have run out: the peer has sent more than we could take.
  if (count == 0 && (header.msg_flags & MSG_CTRUNC) != 0) return EMFILE;
  const bool whole = length == static_cast<ssize_t>(sizeof greeting) && count == 1 &&
                     (header.msg_flags & MSG_CTRUNC) == 0;
  return whole ? 0 : EPROTO;
}

int SendAnswer(int socket, int result) {
  return SendPlain(socket,
                   GreetingAnswer{kMagic, kLayoutVersion, 0, static_cast<std::uint32_t>(result)});
}

int ReceiveAnswer(int socket) {
  GreetingAnswer answer;
  if (const int error = ReceivePlain(socket, answer); error != 0) return error;
  if (answer.result > kMaxErrno) return EPROTO;
  // To our caller EAGAIN says that nothing has come; an acceptor means memory that it cannot lock.
  return answer.result == EAGAIN ? ENOMEM : static_cast<int>(answer.result);
}

}  // namespace fshmipc
