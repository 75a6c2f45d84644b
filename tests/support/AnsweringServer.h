// AnsweringServer.h - an HTTP server on loopback, on the network thread, that gives one answer to
// everything, and those who wait for it. It allocates nothing itself.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "NetworkThread.h"
#include "wface/CAWConnectionManager.h"

namespace zarn::test {

// One connection at a time. A request ends with '!'.
class AnsweringServer final : public wface::IAWAcceptorConnectorSink,
                              public wface::IAWTransportSink {
 public:
  explicit AnsweringServer(std::string answer) : answer_(std::move(answer)) {
    auto* manager = wface::CAWConnectionManager::Instance();
    EXPECT_EQ(manager->CreateAcceptor(1, acceptor_), keelbase::AW_OK);
    const keelbase::CAWInetAddr anyPort("127.0.0.1", 0);
    EXPECT_EQ(acceptor_->StartListen(this, anyPort, 0), keelbase::AW_OK);
  }
  ~AnsweringServer() override {
    StopListen();
    HangUp();
  }

  std::string GetUrl(const std::string& host, const std::string& path) const {
    return "http://" + host + ":" + std::to_string(acceptor_->GetLocalAddr().GetPort()) + path;
  }
  void StopListen() { acceptor_->StopListen(); }
  void HangUp() {
    if (const auto transport = std::move(transport_)) transport->Disconnect(0);
  }

  void OnConnectIndication(long reason, wface::IAWTransport* transport,
                           wface::IAWAcceptorConnectorId*) override {
    HangUp();
    if (reason != 0 || transport->OpenWithSink(this) != keelbase::AW_OK) return;
    transport_ = transport;
  }
  void OnReceive(keelbase::CAWMessageBlock& data, wface::IAWTransport*,
                 wface::CAWTransportParameter*) override {
    if (data.GetReadPtr()[data.GetLength() - 1] != '!') return;
    keelbase::CAWMessageBlock block(answer_.data(), answer_.size(),
                                    keelbase::CAWMessageBlock::borrow);
    transport_->SendData(block, nullptr);
    HangUp();
  }
  void OnSend(wface::IAWTransport*, wface::CAWTransportParameter*) override {}
  void OnDisconnect(long, wface::IAWTransport*) override { transport_ = nullptr; }

 private:
  const std::string answer_;
  keelbase::CAWAutoPtr<wface::IAWAcceptor> acceptor_;
  keelbase::CAWAutoPtr<wface::IAWTransport> transport_;
};

// Serves the network thread until `condition` holds, twenty seconds at most. So much of the hand's
// time passes meanwhile: enough for what is tried again, too little for a time limit.
template <class Condition>
bool WaitWithin(HandClock& clock, std::chrono::milliseconds time, Condition condition) {
  constexpr std::chrono::milliseconds kStep(10);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  for (;;) {
    RunReady();
    if (condition()) return true;
    if (std::chrono::steady_clock::now() > end) return false;
    if (time >= kStep) {
      time -= kStep;
      clock.Advance(kStep);
    }
    std::this_thread::yield();
  }
}

}  // namespace zarn::test
