// ReconnectAllocations_test.cpp - each allocation of a client channel and of its server fails in
// turn, from Init on: the client comes back by itself, and the messages after that arrive. Real
// sockets; time is driven by hand.
#include <gtest/gtest.h>

#include <chrono>
#include <list>
#include <memory>
#include <string>

#include "Exhaustion.h"
#include "NetworkThread.h"
#include "TempRoot.h"
#include "TraceLines.h"
#include "fshmipc/CAWShmIPCManager.h"
#include "zarn/utils/CShmZARNLibClientChannel.h"
#include "zarn/utils/CShmZARNLibServerChannel.h"
#include "zarn/utils/CZARNLibClientChannel.h"
#include "zarn/utils/CZARNLibServerChannel.h"
#include "zarn/utils/zarnutils.h"

namespace zarn::test {
namespace {

using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;

struct Ipc {
  static constexpr const char* kName = "LocalIpc";
  using Client = utils::CZARNLibClientChannel;
  using Server = utils::CZARNLibServerChannel;
  using Transport = fipc::IAWIPCTransport;
  using Acceptor = fipc::IAWIPCAcceptor;
  struct Sink : fipc::IAWIPCAcceptorConnectorSink {
    virtual void Accepted(Transport* transport) = 0;
    void OnIPCConnectIndication(long reason, Transport* transport,
                                fipc::IAWIPCAcceptorConnectorId*) override {
      if (reason == 0) Accepted(transport);
    }
  };
  static AWResult Listen(CAWAutoPtr<Acceptor>& acceptor, Sink& sink) {
    keelbase::CAWIPCAddr address;
    AWResult result = utils::ZARNCreateIPCAddr(2, 1, address);
    if (result == AW_OK) result = utils::CreateIPCServer(acceptor);
    return result == AW_OK ? acceptor->StartListen(&sink, address) : result;
  }
};

struct Shm {
  static constexpr const char* kName = "SharedMemory";
  using Client = utils::CShmZARNLibClientChannel;
  using Server = utils::CShmZARNLibServerChannel;
  using Transport = fshmipc::IAWShmIPCTransport;
  using Acceptor = fshmipc::IAWShmIPCAcceptor;
  struct Sink : fshmipc::IAWShmIPCAcceptorConnectorSink {
    virtual void Accepted(Transport* transport) = 0;
    void OnShmIPCConnectIndication(long reason, Transport* transport,
                                   fshmipc::IAWShmIPCAcceptorConnectorId*) override {
      if (reason == 0) Accepted(transport);
    }
  };
  static AWResult Listen(CAWAutoPtr<Acceptor>& acceptor, Sink& sink) {
    const AWResult result = utils::CreateShmIPCServer(acceptor);
    return result == AW_OK ? acceptor->StartListen(&sink, fshmipc::CAWShmIPCAddr(1, 2)) : result;
  }
};

// Sends back what comes.
template <class Over>
class Echo final : public Over::Server {
 public:
  using Over::Server::Server;
  bool isOver = false;
  void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                     std::size_t size) override {
    this->SendZARNMessage(type, tag, data, size);
  }
  void OnPeerDisconnect(long) override { isOver = true; }
};

template <class Over>
class Host final : public Over::Sink {
 public:
  Host() { EXPECT_EQ(Over::Listen(acceptor_, *this), AW_OK); }
  ~Host() override { acceptor_->StopListen(); }
  void Accepted(typename Over::Transport* transport) override {
    echoes_.remove_if([](const auto& echo) { return echo->isOver; });
    echoes_.push_back(std::make_unique<Echo<Over>>(transport));
  }
  void HangUp() { echoes_.clear(); }

 private:
  CAWAutoPtr<typename Over::Acceptor> acceptor_;
  std::list<std::unique_ptr<Echo<Over>>> echoes_;
};

template <class Over>
class Client final : public Over::Client {
 public:
  std::size_t answers = 0;
  void OnZARNMessage(std::uint16_t, std::uint32_t, const char* data, std::size_t size) override {
    EXPECT_EQ(std::string_view(data, size), std::string_view("question"));
    ++answers;
  }
};

template <class Over>
class ReconnectAllocations : public ::testing::Test {
 protected:
  ReconnectAllocations() { EXPECT_EQ(utils::ZARNLibInit(), AW_OK); }
  ~ReconnectAllocations() override {
    for (int second = 0; second < 5; ++second) clock_.Advance(std::chrono::seconds(1));
    fshmipc::CAWShmIPCManager::Instance()->SetSystemPath("");
  }

  // Asks until the answer comes, three seconds at most.
  bool IsAnswered(Client<Over>& client) {
    for (int tenth = 0; tenth < 30 && client.answers == 0; ++tenth) {
      client.SendZARNMessage(1, 2, "question", 8);
      RunReady();
      clock_.Advance(std::chrono::milliseconds(100));
    }
    return client.answers != 0;
  }

  const TempRoot root_;
  HandClock clock_;
  TraceLines trace_;
};

struct OverNames {
  template <class Over>
  static std::string GetName(int) {
    return Over::kName;
  }
};

using Families = ::testing::Types<Ipc, Shm>;
TYPED_TEST_SUITE(ReconnectAllocations, Families, OverNames);

TYPED_TEST(ReconnectAllocations, AClientThatStartsFindsItsServerAtLast) {
  Host<TypeParam> host;
  for (EachAllocation each; each.Next();) {
    Client<TypeParam> client;
    AWResult started = AW_OK;
    bool answered = false;
    each.Try([&] {
      started = client.Init(3, 4, 1, 2);
      answered = started == AW_OK && this->IsAnswered(client);
    });
    if (started != AW_OK) {
      EXPECT_TRUE(each.HasFailed());
      ASSERT_EQ(client.Init(3, 4, 1, 2), AW_OK);
      answered = this->IsAnswered(client);
    }
    ASSERT_TRUE(answered) << "allocation " << each.GetNumber();
    client.Close(0);
    RunReady();
  }
}

TYPED_TEST(ReconnectAllocations, AClientThatStartsBeforeItsServerFindsItAtLast) {
  for (EachAllocation each; each.Next();) {
    Client<TypeParam> client;
    AWResult started = AW_OK;
    each.Try([&] {
      started = client.Init(3, 4, 1, 2);
      RunReady();
      this->clock_.Advance(std::chrono::seconds(1));
    });
    if (started != AW_OK) {
      EXPECT_TRUE(each.HasFailed());
      ASSERT_EQ(client.Init(3, 4, 1, 2), AW_OK);
    }
    Host<TypeParam> host;
    ASSERT_TRUE(this->IsAnswered(client)) << "allocation " << each.GetNumber();
    client.Close(0);
    RunReady();
  }
}

TYPED_TEST(ReconnectAllocations, AClientThatIsLostWhileThereIsNoneComesBack) {
  Host<TypeParam> host;
  Client<TypeParam> client;
  ASSERT_EQ(client.Init(3, 4, 1, 2), AW_OK);
  ASSERT_TRUE(this->IsAnswered(client));
  host.HangUp();
  {
    const Exhaustion none;
    RunReady();
    for (int second = 0; second < 3; ++second) this->clock_.Advance(std::chrono::seconds(1));
  }
  EXPECT_FALSE(client.IsConnected());
  client.answers = 0;
  EXPECT_TRUE(this->IsAnswered(client));
}

}  // namespace
}  // namespace zarn::test
