// RealTcp.h - real TCP on loopback for tests: sinks that record, plain peers that know no library.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

#include "RealIpc.h"
#include "keelbase/CAWInetAddr.h"
#include "wface/CAWConnectionManager.h"

namespace zarn::test::tcp {

using keelbase::CAWInetAddr;
using keelbase::CAWTimeValue;
using wface::IAWTransport;

using TransportSink =
    RecordingTransportSink<wface::IAWTransportSink, IAWTransport, wface::CAWTransportParameter>;

class IndicationSink final
    : public RecordingIndicationSink<wface::IAWAcceptorConnectorSink, IAWTransport,
                                     wface::IAWAcceptorConnectorId> {
 public:
  void OnConnectIndication(long reason, IAWTransport* transport,
                           wface::IAWAcceptorConnectorId* id) override {
    Record(reason, transport, id);
  }
};

inline CAWAutoPtr<wface::IAWConnector> MakeConnector() {
  CAWAutoPtr<wface::IAWConnector> out;
  EXPECT_EQ(wface::CAWConnectionManager::Instance()->CreateConnector(1, out), AW_OK);
  return out;
}
inline CAWAutoPtr<wface::IAWAcceptor> MakeAcceptor() {
  CAWAutoPtr<wface::IAWAcceptor> out;
  EXPECT_EQ(wface::CAWConnectionManager::Instance()->CreateAcceptor(1, out), AW_OK);
  return out;
}

inline CAWInetAddr Loopback(std::uint16_t port = 0) { return {"127.0.0.1", port}; }

// A socket that knows nothing of the library. It never blocks.
class PlainTcp : public PlainSocket {
 public:
  explicit PlainTcp(int descriptor) : PlainSocket(descriptor) {}
  PlainTcp() : PlainSocket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {}

  int Bind(const CAWInetAddr& address) {
    return ::bind(Get(), address.GetPtr(), address.GetSize()) == 0 ? 0 : errno;
  }
  int Listen(int backlog = 128) { return ::listen(Get(), backlog) == 0 ? 0 : errno; }
  int Connect(const CAWInetAddr& address) {
    return ::connect(Get(), address.GetPtr(), address.GetSize()) == 0 ? 0 : errno;
  }
  PlainTcp Accept() {
    return PlainTcp(::accept4(Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  }
  CAWInetAddr LocalAddress() const {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    EXPECT_EQ(::getsockname(Get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    return {ntohl(address.sin_addr.s_addr), ntohs(address.sin_port)};
  }
  // The end of the process instead of an orderly close.
  void Reset() {
    const linger none{1, 0};
    ::setsockopt(Get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
    Close();
  }
};

// A plain listener on a free port.
class PlainListener : public PlainTcp {
 public:
  explicit PlainListener(int backlog = 128) {
    EXPECT_EQ(Bind(Loopback()), 0);
    EXPECT_EQ(Listen(backlog), 0);
  }
};

// A port at which nobody listens: nobody else is given it while this lives.
class DeadPort {
 public:
  DeadPort() { EXPECT_EQ(socket_.Bind(Loopback()), 0); }
  CAWInetAddr Address() const { return socket_.LocalAddress(); }

 private:
  PlainTcp socket_;
};

// A listening port of the library, and what it accepts.
class Server {
 public:
  Server() : acceptor_(MakeAcceptor()) {
    EXPECT_EQ(acceptor_->StartListen(&sink, Loopback(), 0), AW_OK);
  }
  ~Server() { acceptor_->StopListen(); }

  CAWInetAddr Address() const { return acceptor_->GetLocalAddr(); }
  CAWAutoPtr<IAWTransport> Accept() { return sink.Take(); }
  wface::IAWAcceptor& GetAcceptor() { return *acceptor_; }

  IndicationSink sink;

 private:
  CAWAutoPtr<wface::IAWAcceptor> acceptor_;
};

// A transport of the library and a plain peer at its other end.
struct Connection : EndWithPeer<TransportSink, PlainTcp> {
  Connection() {
    Server server;
    peer.Connect(server.Address());
    transport = server.Accept();
  }
};

}  // namespace zarn::test::tcp
