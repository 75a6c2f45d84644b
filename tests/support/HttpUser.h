// HttpUser.h - a user of the HTTP library over scripted TCP and TLS, driven by hand.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "FakeTcp.h"
#include "FakeTls.h"
#include "NetworkThread.h"
#include "shttp/CAWHttpManager.h"

namespace zarn::test {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_AVAILABLE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::CAWAutoPtr;
using keelbase::CAWMessageBlock;
using shttp::CAWHttpLimits;
using shttp::IAWChannelHttpClient;
using shttp::IAWHttpClient;
using shttp::IAWHttpManager;

inline constexpr const char* kAnswer = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello";

inline CAWAutoPtr<IAWHttpClient> MakeClient() {
  CAWAutoPtr<IAWHttpClient> client;
  EXPECT_EQ(IAWHttpManager::Instance()->CreateHttpClient(client), AW_OK);
  return client;
}

// Does on connect what a user does, unless told otherwise, and notes what it hears.
class User : public shttp::IAWChannelSink, public wface::IAWTransportSink {
 public:
  void OnConnect(long reason, IAWChannelHttpClient* connected) override {
    calls.push_back("connect " + std::to_string(reason));
    if (onConnect) return onConnect(connected);
    channel = connected;
    EXPECT_EQ(channel->OpenWithSink(this), AW_OK);
    setResult = channel->SetRequest(setting);
    sendResult = Send(body);
  }
  keelbase::AWResult Send(const std::string& text) {
    CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
    wface::CAWTransportParameter parameter;
    const auto sent = channel->SendData(block, &parameter);
    bytesLeft = block.GetLength();
    return sent;
  }
  void OnReceive(CAWMessageBlock& data, wface::IAWTransport* from,
                 wface::CAWTransportParameter*) override {
    calls.push_back("receive");
    EXPECT_EQ(from, static_cast<wface::IAWTransport*>(channel.Get()));
    answer = data.FlattenChained();
    EXPECT_EQ(channel->GetResult(result), AW_OK);
    if (onReceive) onReceive();
  }
  void OnSend(wface::IAWTransport*, wface::CAWTransportParameter*) override { FAIL(); }
  void OnDisconnect(long reason, wface::IAWTransport*) override {
    calls.push_back("disconnect " + std::to_string(reason));
  }

  std::string setting = "POST";
  std::string body = "{}";
  std::function<void(IAWChannelHttpClient*)> onConnect;
  std::function<void()> onReceive;

  CAWAutoPtr<IAWChannelHttpClient> channel;
  std::vector<std::string> calls;
  keelbase::AWResult setResult = 1;
  keelbase::AWResult sendResult = 1;
  std::size_t bytesLeft = 99;
  std::string answer = "none";
  long result = 0;
};

using Calls = std::vector<std::string>;
inline const Calls kAnswered = {"connect 0", "receive", "disconnect 0"};

inline Calls FailedWith(int error) {
  return {"connect " + std::to_string(error), "receive", "disconnect 0"};
}

class HttpClient : public ::testing::Test {
 protected:
  void Open(const std::string& url = "http://127.0.0.1:8080/a") {
    EXPECT_EQ(client->Open(url, &user, 0), AW_OK);
    EXPECT_TRUE(user.calls.empty());
    RunReady();
  }
  // Until the request is on its way.
  void Send() {
    Open();
    tcp.Last().Complete(0, transport.Get());
    RunReady();
  }
  void Answer(const std::string& bytes) {
    transport->Receive(bytes);
    RunReady();
  }
  // With its body empty, as that of a failure is.
  void ExpectFailure(int error) {
    EXPECT_EQ(user.calls, kAnswered);
    EXPECT_EQ(user.result, -error);
    EXPECT_EQ(user.answer, "");
    EXPECT_FALSE(transport->disconnects.empty());
  }

  HandClock clock;
  FakeTcpManager tcp;
  FakeTlsManager tls;
  CAWAutoPtr<FakeTcpTransport> transport{new FakeTcpTransport};
  User user;
  CAWAutoPtr<IAWHttpClient> client = MakeClient();
};

}  // namespace zarn::test
