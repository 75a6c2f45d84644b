// bench_usrsctp.cpp - SCTP in the process, over UDP, by usrsctp: blocking calls, threads of its
// own.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <usrsctp.h>

#include <cerrno>
#include <vector>

#include "common/Bench.h"
#include "common/Frame.h"

namespace {

using namespace bench;

// Each side has a namespace or a port of its own.
constexpr std::uint16_t kReceiverUdpPort = 19899;
constexpr std::uint16_t kSenderUdpPort = 19900;
constexpr std::uint16_t kPort = 5001;
constexpr int kReceiveWindow = 8 << 20;  // as much as pseudo-TCP has
constexpr int kSendQueue =
    1 << 20;  // what is left at the end is gone in seconds also where it is slow

void Start(std::uint16_t udpPort) {
  ::usrsctp_init(udpPort, nullptr, nullptr);
  ::usrsctp_sysctl_set_sctp_blackhole(2);  // says nothing to SCTP of others
  ::usrsctp_sysctl_set_sctp_max_chunks_on_queue(1 << 20);
  ::usrsctp_sysctl_set_sctp_sendspace(kSendQueue);
  ::usrsctp_sysctl_set_sctp_recvspace(kReceiveWindow);
}

sockaddr_in MakeAddress() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(kPort);
  ::inet_pton(AF_INET, GetAddress().c_str(), &address.sin_addr);
  return address;
}

template <class Value>
void Set(struct socket* socket, int level, int option, const Value& value, const char* what) {
  if (::usrsctp_setsockopt(socket, level, option, &value, sizeof value) != 0) FailErrno(what);
}

struct socket* MakeSocket(std::uint16_t peerUdpPort) {
  struct socket* const socket =
      ::usrsctp_socket(AF_INET, SOCK_STREAM, IPPROTO_SCTP, nullptr, nullptr, 0, nullptr);
  if (socket == nullptr) FailErrno("socket");
  const int on = 1;
  Set(socket, IPPROTO_SCTP, SCTP_NODELAY, on, "SCTP_NODELAY");
  Set(socket, SOL_SOCKET, SO_SNDBUF, kSendQueue, "SO_SNDBUF");
  Set(socket, SOL_SOCKET, SO_RCVBUF, kReceiveWindow, "SO_RCVBUF");
  sctp_udpencaps encapsulation{};
  encapsulation.sue_address.ss_family = AF_INET;
  encapsulation.sue_port = htons(peerUdpPort);
  Set(socket, IPPROTO_SCTP, SCTP_REMOTE_UDP_ENCAPS_PORT, encapsulation, "SCTP over UDP");
  return socket;
}

// Keeps the boundaries of messages, so there is no header.
class Connection {
 public:
  explicit Connection(struct socket* socket) : socket_(socket) {}
  ~Connection() { ::usrsctp_close(socket_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void Write(const std::vector<char>& message) {
    sctp_sndinfo info{};
    const ssize_t count = ::usrsctp_sendv(socket_, message.data(), message.size(), nullptr, 0,
                                          &info, sizeof info, SCTP_SENDV_SNDINFO, 0);
    if (count != static_cast<ssize_t>(message.size())) FailErrno("send");
  }

  // Valid until the next call.
  const std::vector<char>& Read() {
    message_.resize(kBatchSize);
    std::size_t size = 0;
    for (int flags = 0; (flags & MSG_EOR) == 0;) {
      flags = 0;
      unsigned infoType = 0;
      socklen_t fromSize = 0, infoSize = 0;
      const ssize_t count =
          ::usrsctp_recvv(socket_, &message_[size], message_.size() - size, nullptr, &fromSize,
                          nullptr, &infoSize, &infoType, &flags);
      if (count == 0) Fail("the connection has ended");
      if (count < 0) FailErrno("receive");
      size += static_cast<std::size_t>(count);
    }
    message_.resize(size);
    return message_;
  }

 private:
  struct socket* socket_;
  std::vector<char> message_;
};

struct socket* Accept(const Control& control) {
  Start(kReceiverUdpPort);
  struct socket* const listener = MakeSocket(kSenderUdpPort);
  sockaddr_in address = MakeAddress();
  if (::usrsctp_bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::usrsctp_listen(listener, 1) != 0)
    FailErrno("listen");
  control.SendReady();
  struct socket* const socket = ::usrsctp_accept(listener, nullptr, nullptr);
  if (socket == nullptr) FailErrno("accept");
  ::usrsctp_close(listener);
  return socket;
}

struct socket* Connect() {
  Start(kSenderUdpPort);
  struct socket* const socket = MakeSocket(kReceiverUdpPort);
  sockaddr_in address = MakeAddress();
  if (::usrsctp_connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
    FailErrno("connect");
  return socket;
}

void Receive(const Options& options, const Control& control, Tally& tally) {
  Connection connection(Accept(control));
  Incoming incoming(options, tally);
  for (bool go = true; go;) {
    const std::vector<char>& message = connection.Read();
    go = incoming.Take(message.data(), message.size());
  }
  control.SendReport(tally.meter.measured);
  control.WaitForParent();
}

void Send(const Options& options, const Control& control, Sending& sending) {
  Connection connection(Connect());
  sending.Start();
  Outgoing outgoing(options, sending);
  while (outgoing.Next()) connection.Write(outgoing.Message());
  control.WaitDone();
}

void Echo(const Options&, const Control& control) {
  Connection connection(Accept(control));
  for (bool go = true; go;) {
    const std::vector<char>& message = connection.Read();
    go = GetStamp(message.data()).kind != Kind::kLast;
    connection.Write(message);
  }
  control.WaitForParent();
}

void Ask(const Options&, const Control&, RoundTrips& trips) {
  Connection connection(Connect());
  for (trips.Pause(); trips.Next(); trips.Pause()) {
    connection.Write(trips.Message());
    const std::vector<char>& answer = connection.Read();
    trips.Take(answer.data(), answer.size());
  }
}

}  // namespace

int main(int argc, char** argv) { return Main(argc, argv, {"usrsctp", Receive, Send, Echo, Ask}); }
