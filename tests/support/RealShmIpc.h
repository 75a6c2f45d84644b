// RealShmIpc.h - real shared-memory IPC for tests: sinks that record, and pairs of connected
// transports on the adopted network thread.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "RealIpc.h"
#include "fshmipc/CAWShmIPCManager.h"

namespace zarn::test {

using ShmTransportSink =
    RecordingTransportSink<fshmipc::IAWShmIPCTransportSink, fshmipc::IAWShmIPCTransport,
                           fshmipc::CAWShmIPCTransportParameter>;

class ShmIndicationSink final
    : public RecordingIndicationSink<fshmipc::IAWShmIPCAcceptorConnectorSink,
                                     fshmipc::IAWShmIPCTransport,
                                     fshmipc::IAWShmIPCAcceptorConnectorId> {
 public:
  void OnShmIPCConnectIndication(long reason, fshmipc::IAWShmIPCTransport* transport,
                                 fshmipc::IAWShmIPCAcceptorConnectorId* id) override {
    Record(reason, transport, id);
  }
};

inline void Turn() {
  for (int i = 0; i < 20; ++i) RunReady();
}

inline CAWAutoPtr<fshmipc::IAWShmIPCConnector> MakeShmConnector() {
  CAWAutoPtr<fshmipc::IAWShmIPCConnector> out;
  EXPECT_EQ(fshmipc::CAWShmIPCManager::Instance()->CreateConnector(out), AW_OK);
  return out;
}
inline CAWAutoPtr<fshmipc::IAWShmIPCAcceptor> MakeShmAcceptor() {
  CAWAutoPtr<fshmipc::IAWShmIPCAcceptor> out;
  EXPECT_EQ(fshmipc::CAWShmIPCManager::Instance()->CreateAcceptor(out), AW_OK);
  return out;
}

inline const fshmipc::CAWShmIPCAddr kShmServer(1, 2);
inline const fshmipc::CAWShmIPCAddr kShmClient(3, 4);

// A system directory of its own, for as long as it lives.
class ShmSystem {
 public:
  explicit ShmSystem() {
    const std::filesystem::path endpoints = dir_.GetPath() + "/zarn/shmipc";
    std::filesystem::create_directories(endpoints);
    std::filesystem::permissions(endpoints, std::filesystem::perms::owner_all);
    fshmipc::CAWShmIPCManager::Instance()->SetSystemPath(dir_.GetPath());
  }
  ~ShmSystem() { fshmipc::CAWShmIPCManager::Instance()->SetSystemPath(""); }
  ShmSystem(const ShmSystem&) = delete;
  ShmSystem& operator=(const ShmSystem&) = delete;

  const std::string& GetPath() const { return dir_.GetPath(); }
  std::string GetEndpoint(const std::string& name = "1_2") const {
    return dir_.GetPath() + "/zarn/shmipc/" + name;
  }

 private:
  TempDir dir_;
};

// A listening endpoint, and what it accepts.
class ShmServer {
 public:
  ShmServer() : acceptor(MakeShmAcceptor()) {
    EXPECT_EQ(acceptor->StartListen(&sink, kShmServer), AW_OK);
  }
  ~ShmServer() {
    if (acceptor) acceptor->StopListen();
  }
  // The next accepted connection, of which the caller has the only reference.
  CAWAutoPtr<fshmipc::IAWShmIPCTransport> Accept() {
    if (!Await([this] { return !sink.got.empty(); })) {
      ADD_FAILURE() << "nobody came";
      return {};
    }
    auto transport = sink.got.front().transport;
    sink.got.erase(sink.got.begin());
    return transport;
  }

  ShmIndicationSink sink;
  CAWAutoPtr<fshmipc::IAWShmIPCAcceptor> acceptor;
};

// Of one end of a connection: the transport and what it has told.
struct ShmEnd {
  CAWAutoPtr<fshmipc::IAWShmIPCTransport> transport;
  ShmTransportSink sink;

  void Open() { EXPECT_EQ(transport->OpenWithSink(&sink), AW_OK); }
  AWResult Send(const std::string& text) {
    CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
    return transport->SendData(block, nullptr);
  }
  // Sends until the ring is full; what was taken.
  std::string Fill() {
    std::string taken;
    for (AWResult result = AW_OK; result == AW_OK;) {
      const std::string text = Pattern(5000, taken.size());
      CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
      result = transport->SendData(block, nullptr);
      taken += text.substr(0, text.size() - block.GetLength());
    }
    return taken;
  }
  template <class Value>
  void Set(int code, Value value) {
    EXPECT_EQ(transport->SetOption(code, &value), AW_OK);
  }
  CAWTransportCounters Counters() const {
    CAWTransportCounters counters;
    EXPECT_EQ(transport->GetOption(keelbase::AW_OPT_COUNTERS, &counters), AW_OK);
    return counters;
  }
};

inline constexpr std::uint32_t kLeastShmRing = 64 * 1024;

// Both ends of a connection, not opened yet.
class ShmPair {
 public:
  explicit ShmPair(std::uint32_t ringSize = kLeastShmRing) {
    const auto connector = MakeShmConnector();
    ShmIndicationSink connected;
    EXPECT_EQ(connector->SetOption(fshmipc::AW_OPT_RING_SIZE, &ringSize), AW_OK);
    EXPECT_EQ(connector->AsyncConnect(&connected, kShmServer, 0, &kShmClient), AW_OK);
    server.transport = server_.Accept();
    EXPECT_TRUE(Await([&] { return !connected.got.empty(); }));
    if (!connected.got.empty()) client.transport = connected.got[0].transport;
  }
  void Open() {
    client.Open();
    server.Open();
  }
  ShmServer& GetServer() { return server_; }

 private:
  ShmSystem system_;
  ShmServer server_;

 public:
  ShmEnd client;
  ShmEnd server;
};

}  // namespace zarn::test
