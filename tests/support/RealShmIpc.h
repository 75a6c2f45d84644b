// RealShmIpc.h - real shared-memory IPC for tests: sinks that record, and pairs of connected
// transports on the adopted network thread.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>

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
  CAWAutoPtr<fshmipc::IAWShmIPCTransport> Accept() { return sink.Take(); }

  ShmIndicationSink sink;
  CAWAutoPtr<fshmipc::IAWShmIPCAcceptor> acceptor;
};

using ShmEnd = TransportEnd<ShmTransportSink>;

inline constexpr std::uint32_t kMinShmRing = 64 * 1024;

// Both ends of a connection, not opened yet.
class ShmPair {
 public:
  explicit ShmPair(std::uint32_t ringSize = kMinShmRing) {
    const auto connector = MakeShmConnector();
    ShmIndicationSink connected;
    EXPECT_EQ(connector->SetOption(fshmipc::AW_OPT_RING_SIZE, &ringSize), AW_OK);
    EXPECT_EQ(connector->AsyncConnect(&connected, kShmServer, 0, &kShmClient), AW_OK);
    server.transport = server_.Accept();
    client.transport = connected.Take();
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

// An end of the library's that reads only when it is asked to, for tests of the other end.
class ShmPeer {
 public:
  explicit ShmPeer(std::uint32_t ringSize, bool accepting)
      : pair_(ringSize), end_(accepting ? pair_.server : pair_.client) {
    end_.StopReading(true);
    end_.Open();
  }
  CAWAutoPtr<fshmipc::IAWShmIPCTransport> TakeOtherEnd() {
    return std::move(&end_ == &pair_.client ? pair_.server.transport : pair_.client.transport);
  }

  // As much as there is room for; how much.
  std::size_t Send(const std::string& text) {
    CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
    end_.transport->SendData(block, nullptr);
    return text.size() - block.GetLength();
  }
  // What has come; reads on, in pieces of `limit` bytes. Sets `ended` and `error` at the end.
  std::string Receive(std::uint32_t limit = 65535) {
    end_.Set(keelbase::AW_OPT_READ_SIZE, limit);
    end_.StopReading(false);
    ended = end_.sink.ended;
    error = ended ? end_.sink.reason : 0;
    return std::exchange(end_.sink.received, "");
  }
  bool HasEnded() const { return end_.sink.ended; }
  // Nothing is told to it afterwards.
  void Close() { EXPECT_EQ(end_.transport->Disconnect(0), AW_OK); }

  bool ended = false;
  long error = 0;

 private:
  ShmPair pair_;
  ShmEnd& end_;
};

}  // namespace zarn::test
