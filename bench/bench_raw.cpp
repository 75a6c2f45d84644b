// bench_raw.cpp - what the system itself gives: a Unix socket, with --tcp TCP, epoll, and nothing
// between.
//
// Messages are gathered in a buffer of 64 KiB, which is written when it is full, and read by as
// much. With --spin a side that has nothing to do looks again before it sleeps: a microsecond of
// pause, then it yields between looks.
#include <sched.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/Bench.h"
#include "common/Frame.h"
#include "common/TcpPort.h"
#include "common/TcpSocket.h"
#include "keelbase/internal/Processor.h"

namespace {

using namespace bench;

sockaddr_un MakeAddress(const Options& options) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = options.dir + "/raw";
  if (path.size() >= sizeof address.sun_path) Fail("path too long: " + path);
  path.copy(address.sun_path, path.size());
  return address;
}

int MakeSocket() {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0) FailErrno("socket");
  return fd;
}

int AcceptOverTcp(const Options& options, const Control& control) {
  std::uint16_t port = 0;
  const int listener = ListenTcp(port, options.congestion);
  WritePort(options.dir, port);
  control.SendReady();
  const int fd = AcceptTcp(listener);
  ::close(listener);
  return fd;
}

int Accept(const Options& options, const Control& control) {
  if (options.tcp) return AcceptOverTcp(options, control);
  const sockaddr_un address = MakeAddress(options);
  const int listener = MakeSocket();
  if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener, 1) != 0)
    FailErrno("listen");
  control.SendReady();
  const int fd = ::accept(listener, nullptr, nullptr);
  if (fd < 0) FailErrno("accept");
  ::close(listener);
  return fd;
}

int Connect(const Options& options) {
  if (options.tcp) return ConnectTcp(ReadPort(options.dir), options.congestion);
  const sockaddr_un address = MakeAddress(options);
  const int fd = MakeSocket();
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    FailErrno("connect");
  return fd;
}

// A connected socket. Both transfers wait until they can move something.
class Connection {
 public:
  Connection(int fd, unsigned spinUs)
      : fd_(fd), epoll_(::epoll_create1(0)), spin_(static_cast<double>(spinUs) * 1e-6) {
    epoll_event event{};
    event.events = EPOLLIN;
    if (epoll_ < 0 || ::epoll_ctl(epoll_, EPOLL_CTL_ADD, fd_, &event) != 0) FailErrno("epoll");
  }
  ~Connection() {
    ::close(fd_);
    ::close(epoll_);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  std::size_t Read(char* data, std::size_t size) {
    return Move(EPOLLIN, [&] { return ::recv(fd_, data, size, MSG_DONTWAIT); });
  }

  void WriteAll(SendBatch& batch) {
    while (!batch.IsEmpty()) {
      batch.Consume(Move(EPOLLOUT, [&] {
        return ::send(fd_, batch.Data(), batch.Size(), MSG_DONTWAIT | MSG_NOSIGNAL);
      }));
    }
  }

 private:
  template <class Transfer>
  std::size_t Move(std::uint32_t direction, Transfer transfer) {
    // Ready or not is asked first when reading sleeps, tried first otherwise.
    if (direction == EPOLLIN && spin_ == 0) Sleep(direction);
    for (double start = 0;;) {
      const ssize_t count = transfer();
      if (count > 0) return static_cast<std::size_t>(count);
      if (count == 0) Fail("the connection has ended");
      if (errno != EAGAIN) FailErrno("transfer");
      if (direction == EPOLLOUT || spin_ == 0) {
        Sleep(direction);
        continue;
      }
      const double now = Now();
      if (start == 0) start = now;
      Pause(direction, now - start);
    }
  }

  void Pause(std::uint32_t direction, double waited) {
    if (waited < 1e-6) {
      keelbase::internal::Pause();
    } else if (waited < spin_) {
      ::sched_yield();
    } else {
      Sleep(direction);
    }
  }

  void Sleep(std::uint32_t direction) {
    if (direction != watched_) {
      epoll_event event{};
      event.events = direction;
      if (::epoll_ctl(epoll_, EPOLL_CTL_MOD, fd_, &event) != 0) FailErrno("epoll_ctl");
      watched_ = direction;
    }
    epoll_event event;
    if (::epoll_wait(epoll_, &event, 1, -1) < 0 && errno != EINTR) FailErrno("epoll_wait");
  }

  int fd_;
  int epoll_;
  double spin_;
  std::uint32_t watched_ = EPOLLIN;
};

void Receive(const Options& options, const Control& control, Tally& tally) {
  Connection connection(Accept(options, control), options.spinUs);
  Incoming incoming(options, tally);
  ReceiveBuffer buffer;
  const auto take = [&](const char* message, std::size_t size) {
    return incoming.Take(message, size);
  };
  while (buffer.Added(connection.Read(buffer.WritePtr(), buffer.Room()), take)) {
  }
  control.SendReport(tally.meter.measured);
  control.WaitForParent();
}

void Send(const Options& options, const Control&, Sending& sending) {
  Connection connection(Connect(options), options.spinUs);
  sending.Start();
  Outgoing outgoing(options, sending);
  SendBatch batch;
  while (outgoing.Next()) {
    if (!batch.HasRoom(options.size)) connection.WriteAll(batch);
    batch.Add(outgoing.Message().data(), options.size);
  }
  connection.WriteAll(batch);
}

void Echo(const Options& options, const Control& control) {
  Connection connection(Accept(options, control), options.spinUs);
  ReceiveBuffer buffer;
  SendBatch batch;
  const auto answer = [&](const char* message, std::size_t size) {
    batch.Add(message, size);
    return GetStamp(message).kind != Kind::kLast;
  };
  for (bool go = true; go;) {
    go = buffer.Added(connection.Read(buffer.WritePtr(), buffer.Room()), answer);
    connection.WriteAll(batch);
  }
  control.WaitForParent();
}

void Ask(const Options& options, const Control&, RoundTrips& trips) {
  Connection connection(Connect(options), options.spinUs);
  ReceiveBuffer buffer;
  SendBatch batch;
  const auto take = [&](const char* message, std::size_t size) {
    trips.Take(message, size);
    return false;
  };
  for (trips.Pause(); trips.Next(); trips.Pause()) {
    batch.Add(trips.Message().data(), options.size);
    connection.WriteAll(batch);
    while (buffer.Added(connection.Read(buffer.WritePtr(), buffer.Room()), take)) {
    }
  }
}

}  // namespace

int main(int argc, char** argv) { return Main(argc, argv, {"raw", Receive, Send, Echo, Ask}); }
