// RealPtcp.h - pseudo-TCP over loopback sockets, on the test's own thread.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "NetworkThread.h"
#include "ptcp/CAWPseudoTCPManager.h"

namespace ptcp::test {

using keelbase::CAWAutoPtr;
using keelbase::CAWInetAddr;
using keelbase::CAWMessageBlock;

// Runs the loop until `condition` holds; false when that takes too long.
template <class Condition>
bool WaitFor(Condition&& condition, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    zarn::test::RunReady();
    std::this_thread::sleep_for(std::chrono::microseconds(50));
  }
  return true;
}

// Keeps what one transport tells.
class Recorder : public IAWPseudoTCPTransportSink {
 public:
  void OnReceive(CAWMessageBlock& data, IAWPseudoTCPTransport*,
                 CAWPseudoTCPTransportParameter*) override {
    EXPECT_FALSE(ended);
    received += data.FlattenChained();
    if (onReceive) onReceive();
  }
  void OnSend(IAWPseudoTCPTransport*, CAWPseudoTCPTransportParameter*) override {
    ++rooms;
    if (onSend) onSend();
  }
  void OnDisconnect(long why, IAWPseudoTCPTransport*) override {
    EXPECT_FALSE(ended);
    ended = true;
    reason = why;
    if (onDisconnect) onDisconnect();
  }

  std::string received;
  int rooms = 0;
  bool ended = false;
  long reason = -1;
  std::function<void()> onReceive;
  std::function<void()> onSend;
  std::function<void()> onDisconnect;
};

class ConnectRecorder : public IAWPseudoTCPAcceptorConnectorSink {
 public:
  void OnConnectIndication(long why, IAWPseudoTCPTransport* transport,
                           IAWPseudoTCPAcceptorConnectorId* who) override {
    ++indications;
    reason = why;
    id = who;
    if (keep) transports.emplace_back(transport);
    if (onIndication) onIndication();
  }

  int indications = 0;
  long reason = -1;
  bool keep = true;
  IAWPseudoTCPAcceptorConnectorId* id = nullptr;
  std::vector<CAWAutoPtr<IAWPseudoTCPTransport>> transports;
  std::function<void()> onIndication;
};

inline CAWInetAddr Loopback(std::uint16_t port = 0) { return {"127.0.0.1", port}; }

inline keelbase::AWResult SendText(IAWPseudoTCPTransport& transport, const std::string& text) {
  CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
  const auto result = transport.SendData(block, nullptr);
  if (result == keelbase::AW_OK) {
    EXPECT_EQ(block.GetLength(), 0U);
  }
  return result;
}

// Bytes of which each stretch is different.
inline std::string Pattern(std::size_t length) {
  std::string text(length, '\0');
  std::uint64_t state = length;
  for (char& byte : text) {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    byte = static_cast<char>(state >> 56);
  }
  return text;
}

// An acceptor and a connector; Connect() makes a pair of transports, not open yet.
class RealPtcp : public ::testing::Test {
 protected:
  void SetUp() override {
    auto* manager = CAWPseudoTCPManager::Instance();
    ASSERT_EQ(manager->CreateAcceptor(acceptor), keelbase::AW_OK);
    ASSERT_EQ(manager->CreateConnector(connector), keelbase::AW_OK);
  }
  void TearDown() override {
    accepted.transports.clear();
    connected.transports.clear();
    client = nullptr;
    server = nullptr;
    acceptor = nullptr;
    connector = nullptr;
    zarn::test::RunReady();
  }
  void Listen() {
    ASSERT_EQ(acceptor->StartListen(&accepted, Loopback(), 0), keelbase::AW_OK);
    address = acceptor->GetLocalAddr();
  }
  void Connect() { ConnectTo(address); }
  void ConnectTo(const CAWInetAddr& peer) {
    const int before = accepted.indications;
    ASSERT_EQ(connector->AsyncConnect(&connected, peer, nullptr, nullptr), keelbase::AW_OK);
    ASSERT_TRUE(
        WaitFor([&] { return connected.indications != 0 && accepted.indications > before; }));
    ASSERT_EQ(connected.reason, 0);
    client = connected.transports.back();
    server = accepted.transports.back();
    connected.transports.clear();
    accepted.transports.clear();
    connected.indications = 0;
  }
  void ListenAndConnect() {
    Listen();
    Connect();
  }
  void Open() {
    ASSERT_EQ(client->OpenWithSink(&clientSink), keelbase::AW_OK);
    ASSERT_EQ(server->OpenWithSink(&serverSink), keelbase::AW_OK);
  }

  ConnectRecorder accepted;
  ConnectRecorder connected;
  Recorder clientSink;
  Recorder serverSink;
  CAWInetAddr address;
  CAWAutoPtr<IAWPseudoTCPAcceptor> acceptor;
  CAWAutoPtr<IAWPseudoTCPConnector> connector;
  CAWAutoPtr<IAWPseudoTCPTransport> client;
  CAWAutoPtr<IAWPseudoTCPTransport> server;
};

}  // namespace ptcp::test
