// RestfulAllocations_test.cpp - each allocation of CRestfulClient fails in turn, on the thread that
// starts a request and on the network thread, which is the same here: the callback runs once, on
// the main thread, unless StartClient has thrown. Real sockets.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <new>
#include <string>

#include "AnsweringServer.h"
#include "Exhaustion.h"
#include "FakeHttp.h"
#include "MainThread.h"
#include "TraceLines.h"
#include "zarn/utils/CRestfulClient.h"

namespace zarn::test {
namespace {

using keelbase::CAWAutoPtr;
using keelbase::CAWString;
using utils::CRestfulClient;

const std::string kBody(30000, 'a');

std::string MakeLongAnswer() {
  return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(kBody.size()) + "\r\n\r\n" + kBody;
}

class RestfulAllocations : public ::testing::Test {
 protected:
  // False: it has thrown.
  bool Start(const std::string& url) try {
    client->StartClient(url, setting, body,
                        [this, large = setting](const CAWString& answer, long got) {
                          EXPECT_EQ(answer, got == 200 ? kBody : "");
                          result = got;
                          ++calls;
                        });
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
  void AwaitCallback() {
    EXPECT_TRUE(WaitWithin(clock, std::chrono::seconds(2), [this] { return calls != 0; }));
  }
  // Nothing more comes.
  void ExpectCalls(int expected) {
    RunReady();
    main->Call([] {});
    EXPECT_EQ(calls, expected);
    calls = 0;
  }

  keelbase::CAWThread* main = kMainThread->Start();
  HandClock clock;
  TraceLines trace;
  AnsweringServer server{MakeLongAnswer()};
  const std::string setting = "PUT\nX-Long: a field that is longer than a short text";
  const std::string body = "a body that is longer than a short text!";
  std::unique_ptr<CRestfulClient> client = std::make_unique<CRestfulClient>();
  std::atomic<int> calls{0};
  std::atomic<long> result{0};
};

TEST_F(RestfulAllocations, ARequestIsToldOnce) {
  client->SetRestfulInfo("a user of this server", "a password that is long");
  ASSERT_TRUE(Start(server.GetUrl("127.0.0.1", "/zarn/tcpchannel")));
  AwaitCallback();
  ExpectCalls(1);
  server.HangUp();
  // By the same client of the platform: nothing tells when another cannot be made.
  const std::string url = server.GetUrl("127.0.0.1", "/again");
  const EmptyPool outer;  // that the others are quickly made
  for (EachAllocation each; each.Next();) {
    bool started = false;
    const EmptyPool empty;
    each.Try([&] {
      started = Start(url);
      if (started) AwaitCallback();
    });
    ExpectCalls(started ? 1 : 0);
    EXPECT_TRUE(each.HasFailed() || (started && result == 200));
    EXPECT_TRUE(!started || result == 200 || result < 0) << result;
    server.HangUp();
    ASSERT_FALSE(HasFailure()) << "allocation " << each.GetNumber();
  }
}

TEST_F(RestfulAllocations, AStartThatThrowsLeavesTheRequestUnderWay) {
  const std::string url = server.GetUrl("127.0.0.1", "/zarn/tcpchannel");
  for (std::size_t number = 1; number <= 6; ++number) {
    ASSERT_TRUE(Start(url));
    bool started = true;
    {
      const EmptyPool empty;
      const FailingAllocation failing(number);
      started = Start(url);
    }
    EXPECT_FALSE(started);
    AwaitCallback();
    EXPECT_EQ(result, 200);
    ExpectCalls(1);
  }
}

// The answer is there, and nothing to keep it in.
TEST_F(RestfulAllocations, AnAnswerThatFindsNoMemoryIsToldAsThat) {
  FakeHttpManager http;
  const CAWAutoPtr<FakeHttpChannel> channel(new FakeHttpChannel);
  ASSERT_TRUE(Start("/zarn/tcpchannel"));
  http.Last().Connect(0, channel.Get());
  keelbase::CAWMessageBlock block(kBody.data(), kBody.size(), keelbase::CAWMessageBlock::borrow);
  {
    const Exhaustion none;
    client->OnReceive(block, nullptr, nullptr);
  }
  AwaitCallback();
  EXPECT_EQ(result, -ENOMEM);
  ExpectCalls(1);
}

}  // namespace
}  // namespace zarn::test
