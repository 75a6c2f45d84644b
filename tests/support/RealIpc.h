// RealIpc.h - real local IPC for tests: sinks that record, plain peers that know no library.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>

#include "RealTransport.h"
#include "TempRoot.h"
#include "fipc/CAWIPCManager.h"
#include "keelbase/internal/FileDescriptor.h"

namespace zarn::test {

using keelbase::CAWIPCAddr;
using keelbase::internal::FileDescriptor;

using TransportSink = RecordingTransportSink<fipc::IAWIPCTransportSink, fipc::IAWIPCTransport,
                                             fipc::CAWIPCTransportParameter>;

class IndicationSink final
    : public RecordingIndicationSink<fipc::IAWIPCAcceptorConnectorSink, fipc::IAWIPCTransport,
                                     fipc::IAWIPCAcceptorConnectorId> {
 public:
  void OnIPCConnectIndication(long reason, fipc::IAWIPCTransport* transport,
                              fipc::IAWIPCAcceptorConnectorId* id) override {
    Record(reason, transport, id);
  }
};

inline CAWAutoPtr<fipc::IAWIPCConnector> MakeConnector() {
  CAWAutoPtr<fipc::IAWIPCConnector> out;
  EXPECT_EQ(fipc::CAWIPCManager::Instance()->CreateConnector(1, out), AW_OK);
  return out;
}
inline CAWAutoPtr<fipc::IAWIPCAcceptor> MakeAcceptor() {
  CAWAutoPtr<fipc::IAWIPCAcceptor> out;
  EXPECT_EQ(fipc::CAWIPCManager::Instance()->CreateAcceptor(1, out), AW_OK);
  return out;
}

inline socklen_t MakeAddress(const std::string& path, sockaddr_un& address) {
  address = {};
  address.sun_family = AF_UNIX;
  EXPECT_LT(path.size(), sizeof address.sun_path);
  std::memcpy(address.sun_path, path.data(), path.size());
  // An abstract name has no end mark.
  const std::size_t length = path.size() + (path.empty() || path[0] != '\0' ? 1 : 0);
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
}

// A socket that knows nothing of the library. It never blocks.
class PlainSocket {
 public:
  explicit PlainSocket(int descriptor) : socket_(descriptor) {}
  explicit PlainSocket(int type, int) : socket_(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0)) {}

  static PlainSocket Stream() { return PlainSocket(SOCK_STREAM | SOCK_NONBLOCK, 0); }

  int Bind(const std::string& path) {
    sockaddr_un address;
    const socklen_t size = MakeAddress(path, address);
    return ::bind(Get(), reinterpret_cast<sockaddr*>(&address), size) == 0 ? 0 : errno;
  }
  int Listen() { return ::listen(Get(), 128) == 0 ? 0 : errno; }
  int Connect(const std::string& path) {
    sockaddr_un address;
    const socklen_t size = MakeAddress(path, address);
    return ::connect(Get(), reinterpret_cast<sockaddr*>(&address), size) == 0 ? 0 : errno;
  }
  PlainSocket Accept() {
    return PlainSocket(::accept4(Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  }

  // As much as the system takes now; how much.
  std::size_t Send(const std::string& text) {
    const ssize_t count = ::send(Get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return count < 0 ? 0 : static_cast<std::size_t>(count);
  }
  // What has come; sets `ended` and `error` at the end.
  std::string Receive(std::size_t limit = 1 << 20) {
    std::string text(limit, '\0');
    const ssize_t count = ::recv(Get(), text.data(), text.size(), MSG_DONTWAIT);
    ended = count == 0 || (count < 0 && errno != EAGAIN);
    error = count < 0 && ended ? errno : 0;
    text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return text;
  }
  bool HasEnded() const {
    pollfd watched{Get(), POLLRDHUP, 0};
    return ::poll(&watched, 1, 0) == 1;
  }
  void ShutdownWrite() { ::shutdown(Get(), SHUT_WR); }
  void Close() { socket_.Reset(); }
  int Get() const { return socket_.Get(); }

  bool ended = false;
  int error = 0;

 private:
  FileDescriptor socket_;
};

// A listening endpoint of the library, and what it accepts.
class Server {
 public:
  explicit Server(const std::string& path) : path_(path), acceptor_(MakeAcceptor()) {
    EXPECT_EQ(acceptor_->StartListen(&sink, CAWIPCAddr(path)), AW_OK);
  }
  ~Server() {
    if (acceptor_) acceptor_->StopListen();
  }
  CAWAutoPtr<fipc::IAWIPCTransport> Accept() { return sink.Take(); }
  // A plain client, and the transport at this end.
  CAWAutoPtr<fipc::IAWIPCTransport> AcceptFrom(PlainSocket& client) {
    EXPECT_EQ(client.Connect(path_), 0);
    return Accept();
  }
  CAWAutoPtr<fipc::IAWIPCAcceptor>& GetAcceptor() { return acceptor_; }

  IndicationSink sink;

 private:
  std::string path_;
  CAWAutoPtr<fipc::IAWIPCAcceptor> acceptor_;
};

// A transport of the library and a plain peer at its other end.
struct Connection : EndWithPeer<TransportSink, PlainSocket> {
  Connection() : EndWithPeer{{}, PlainSocket::Stream()} {
    const TempDir dir;
    transport = Server(dir.GetPath() + "/1_2").AcceptFrom(peer);
  }
};

}  // namespace zarn::test
