// RealIpc.h - real local IPC for tests: sinks that record, plain peers that know no library, and an
// adopted network thread that is turned until something has happened.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "NetworkThread.h"
#include "TempRoot.h"
#include "fipc/CAWIPCManager.h"
#include "keelbase/internal/FileDescriptor.h"

namespace zarn::test {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWIPCAddr;
using keelbase::CAWMessageBlock;
using keelbase::CAWTransportCounters;
using keelbase::internal::FileDescriptor;

// Turns the network thread until `condition` holds; false when that takes more than twenty seconds.
template <class Condition>
bool Await(Condition&& condition) {
  auto* network =
      keelbase::CAWThreadManager::Instance()->GetThread(keelbase::CAWThreadManager::TT_NETWORK);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    if (!network->TEST_RunReady()) std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  return true;
}

// Records everything; a hook may do what an owner would do in that place.
template <class Interface, class Transport, class Parameter>
class RecordingTransportSink final : public Interface {
 public:
  void OnReceive(CAWMessageBlock& data, Transport* transport, Parameter*) override {
    EXPECT_FALSE(ended);
    received += data.FlattenChained();
    ++receives;
    if (onReceive) onReceive(transport);
  }
  void OnSend(Transport* transport, Parameter*) override {
    EXPECT_FALSE(ended);
    ++sends;
    if (onSend) onSend(transport);
  }
  void OnDisconnect(long why, Transport* transport) override {
    EXPECT_FALSE(ended);
    ended = true;
    reason = why;
    if (onDisconnect) onDisconnect(transport);
  }

  std::string received;
  int receives = 0;
  int sends = 0;
  bool ended = false;
  long reason = -1;
  std::function<void(Transport*)> onReceive;
  std::function<void(Transport*)> onSend;
  std::function<void(Transport*)> onDisconnect;
};
using TransportSink = RecordingTransportSink<fipc::IAWIPCTransportSink, fipc::IAWIPCTransport,
                                             fipc::CAWIPCTransportParameter>;

template <class Interface, class Transport, class Id>
class RecordingIndicationSink : public Interface {
 public:
  struct Indication {
    long reason;
    CAWAutoPtr<Transport> transport;
    Id* id;
  };

  std::vector<Indication> got;
  int count = 0;
  bool keep = true;
  std::function<void(Transport*)> onIndication;

 protected:
  void Record(long reason, Transport* transport, Id* id) {
    EXPECT_EQ(reason == 0, transport != nullptr);
    if (onIndication) onIndication(transport);
    if (keep) got.push_back({reason, transport, id});
    ++count;
  }
};

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

  // As much as the system takes now.
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
  // The next accepted connection.
  CAWAutoPtr<fipc::IAWIPCTransport> Accept() {
    EXPECT_TRUE(Await([this] { return sink.got.size() > taken_; }));
    return sink.got.size() > taken_ ? sink.got[taken_++].transport
                                    : CAWAutoPtr<fipc::IAWIPCTransport>();
  }
  // A plain client, and the transport at this end.
  CAWAutoPtr<fipc::IAWIPCTransport> AcceptFrom(PlainSocket& client) {
    EXPECT_EQ(client.Connect(path_), 0);
    return Accept();
  }
  // Lets the sink's own references go, so that a test's one is the last.
  CAWAutoPtr<fipc::IAWIPCTransport> TakeOver(CAWAutoPtr<fipc::IAWIPCTransport> transport) {
    sink.got.clear();
    taken_ = 0;
    return transport;
  }
  CAWAutoPtr<fipc::IAWIPCAcceptor>& GetAcceptor() { return acceptor_; }

  IndicationSink sink;

 private:
  std::string path_;
  CAWAutoPtr<fipc::IAWIPCAcceptor> acceptor_;
  std::size_t taken_ = 0;
};

// A transport of the library and a plain peer at its other end.
class Connection {
 public:
  Connection() : server_(dir_.GetPath() + "/1_2"), peer(PlainSocket::Stream()) {
    transport = server_.AcceptFrom(peer);
    server_.sink.got.clear();
  }

  CAWTransportCounters Counters() const {
    CAWTransportCounters counters;
    EXPECT_EQ(transport->GetOption(keelbase::AW_OPT_COUNTERS, &counters), AW_OK);
    return counters;
  }
  AWResult Send(const std::string& text) {
    CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
    return transport->SendData(block, nullptr);
  }
  // Everything up to the end of the connection, turning the loop meanwhile.
  std::string ReceiveAll() {
    std::string all;
    EXPECT_TRUE(Await([&] {
      all += peer.Receive();
      return peer.ended;
    }));
    return all;
  }
  std::string ReceiveBytes(std::size_t count) {
    std::string all;
    EXPECT_TRUE(Await([&] {
      all += peer.Receive();
      return all.size() >= count;
    }));
    return all;
  }

 private:
  TempDir dir_;
  Server server_;

 public:
  PlainSocket peer;
  TransportSink sink;
  CAWAutoPtr<fipc::IAWIPCTransport> transport;
};

// Bytes that tell where they belong.
inline std::string Pattern(std::size_t size, std::size_t from = 0) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    const std::size_t at = i + from;
    text[i] = static_cast<char>((at >> 8) ^ (at * 7) ^ (at >> 16));
  }
  return text;
}

}  // namespace zarn::test
