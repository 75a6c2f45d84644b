// ShmIPCTransport_test.cpp - opening, receiving, ending and letting go of a connection, both ends
// of which are the library's.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ChildTest.h"
#include "RealShmIpc.h"
#include "VirtualSlot.h"
#include "fshmipc/CAWShmIPCTransport.h"
#include "keelbase/internal/TimerQueue.h"

namespace fshmipc {
namespace {

using namespace zarn::test;

// --- opening ---

TEST(ShmIPCTransport, BytesGoBothWays) {
  ShmPair p;
  p.Open();
  EXPECT_EQ(p.client.Send("to the server"), AW_OK);
  EXPECT_EQ(p.server.Send("to the client"), AW_OK);
  EXPECT_EQ(p.server.sink.received, "");  // never from inside an operation
  EXPECT_TRUE(Await([&] { return p.server.sink.received == "to the server"; }));
  EXPECT_TRUE(Await([&] { return p.client.sink.received == "to the client"; }));
}

TEST(ShmIPCTransport, EarlyBytesWaitForTheOpen) {
  ShmPair p;
  p.client.Open();
  p.client.Send("early");
  Turn();
  p.server.Open();
  EXPECT_EQ(p.server.sink.received, "");
  EXPECT_TRUE(Await([&] { return p.server.sink.received == "early"; }));
}

TEST(ShmIPCTransport, BytesMayBeSentBeforeTheOpen) {
  ShmPair p;
  p.server.Open();
  EXPECT_EQ(p.client.Send("early"), AW_OK);
  EXPECT_TRUE(Await([&] { return p.server.sink.received == "early"; }));
  p.client.Open();
  p.server.Send("answer");
  EXPECT_TRUE(Await([&] { return p.client.sink.received == "answer"; }));
}

TEST(ShmIPCTransport, SecondOpenAndNullSinkAreMisuse) {
  ShmPair p;
  EXPECT_EQ(p.server.transport->OpenWithSink(nullptr), AW_ERROR_FAILURE);
  p.server.Open();
  ShmTransportSink other;
  EXPECT_EQ(p.server.transport->OpenWithSink(&p.server.sink), AW_ERROR_FAILURE);
  EXPECT_EQ(p.server.transport->OpenWithSink(&other), AW_ERROR_FAILURE);
  p.client.Send("x");
  EXPECT_TRUE(Await([&] { return p.server.sink.received == "x"; }));
  EXPECT_EQ(other.received, "");
}

TEST(ShmIPCTransport, OpenOnADeadConnectionIsFollowedByItsEnd) {
  ShmPair p;
  p.client.Send("last words");
  p.client.transport->Disconnect(0);
  Turn();
  p.server.Open();
  EXPECT_FALSE(p.server.sink.ended);
  EXPECT_TRUE(Await([&] { return p.server.sink.ended; }));
  EXPECT_EQ(p.server.sink.received, "last words");
  EXPECT_EQ(p.server.sink.reason, 0);
}

TEST(ShmIPCTransport, OpenAfterDisconnectAndAfterTheEndIsMisuse) {
  ShmPair p;
  p.server.Open();
  EXPECT_EQ(p.client.transport->Disconnect(0), AW_OK);
  EXPECT_EQ(p.client.transport->OpenWithSink(&p.client.sink), AW_ERROR_FAILURE);
  EXPECT_TRUE(Await([&] { return p.server.sink.ended; }));
  EXPECT_EQ(p.server.transport->OpenWithSink(&p.server.sink), AW_ERROR_FAILURE);
}

TEST(ShmIPCTransport, RoomThatCameBeforeTheOpenIsToldAfterIt) {
  ShmPair p;
  const std::string sent = p.client.Fill();
  p.server.Open();
  EXPECT_TRUE(Await([&] { return p.server.sink.received == sent; }));
  p.client.Open();
  EXPECT_TRUE(Await([&] { return p.client.sink.sends == 1; }));
}

// --- ends ---

TEST(ShmIPCTransport, OrderlyEndIsZeroAndComesAfterEverything) {
  ShmPair p;
  p.Open();
  const std::string sent = p.client.Fill();
  p.client.transport->Disconnect(0);
  EXPECT_FALSE(p.server.sink.ended);
  EXPECT_TRUE(Await([&] { return p.server.sink.ended; }));
  EXPECT_EQ(p.server.sink.reason, 0);
  EXPECT_TRUE(p.server.sink.received == sent);
  EXPECT_FALSE(p.client.sink.ended);
}

TEST(ShmIPCTransport, SendAfterTheEndIsAnError) {
  ShmPair p;
  p.Open();
  p.client.transport->Disconnect(0);
  EXPECT_TRUE(Await([&] { return p.server.sink.ended; }));
  EXPECT_EQ(p.server.Send("x"), AW_ERROR_FAILURE);
  EXPECT_EQ(p.server.Send(Pattern(1000000)), AW_ERROR_FAILURE);
  EXPECT_EQ(p.client.Send("x"), AW_ERROR_NOT_INITIALIZED);
}

TEST(ShmIPCTransport, SendingToAPeerThatHasJustGoneDoesNoHarm) {
  ShmPair p;
  p.Open();
  p.client.Send("last words");
  p.client.transport->Disconnect(0);
  EXPECT_EQ(p.server.Send("hello?"), AW_OK);
  EXPECT_TRUE(Await([&] { return p.server.sink.ended; }));
  EXPECT_EQ(p.server.sink.received, "last words");
}

// Connects to the parent's endpoint, sends, and waits to be killed.
void RunVictim() {
  CAWShmIPCManager::Instance()->SetSystemPath(ChildTest::Argument());
  const auto connector = MakeShmConnector();
  ShmIndicationSink connected;
  connector->AsyncConnect(&connected, kShmServer, 0, &kShmClient);
  EXPECT_TRUE(Await([&] { return !connected.got.empty(); }));
  ShmEnd end{connected.got.at(0).transport, {}};
  end.Open();
  end.Send("last words");
  RunReady();
  ::send(ChildTest::ParentChannel(), "", 1, 0);
  for (;;) ::pause();
}

TEST(ShmIPCTransport, DeathOfThePeerIsAReset) {
  if (ChildTest::Role() == "victim") RunVictim();
  const ShmSystem system;
  ShmServer server;
  ChildTest victim("victim", system.GetPath());
  ShmEnd end{server.Accept(), {}};
  end.Open();
  EXPECT_TRUE(Await([&] { return end.sink.received == "last words"; }));
  EXPECT_FALSE(end.sink.ended);
  ::kill(victim.GetProcess(), SIGKILL);
  EXPECT_TRUE(Await([&] { return end.sink.ended; }));
  EXPECT_EQ(end.sink.reason, ECONNRESET);
}

double ProcessorSeconds() {
  timespec time{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// Sends all the time, as much as there is room for.
void RunFlooder() {
  CAWShmIPCManager::Instance()->SetSystemPath(ChildTest::Argument());
  const auto connector = MakeShmConnector();
  ShmIndicationSink connected;
  connector->AsyncConnect(&connected, kShmServer, 0, &kShmClient);
  EXPECT_TRUE(Await([&] { return !connected.got.empty(); }));
  ShmEnd end{connected.got.at(0).transport, {}};
  end.Open();
  auto* network =
      keelbase::CAWThreadManager::Instance()->GetThread(keelbase::CAWThreadManager::TT_NETWORK);
  keelbase::internal::Timer flood(network->GetLoop());
  const std::string text = Pattern(2000000);
  flood.Start(std::chrono::milliseconds(1), 0, [&] { end.Send(text); });
  network->Run();
}

TEST(ShmIPCTransport, StoppedPeerCostsNoProcessorTimeAndGoesOnAfterwards) {
  if (ChildTest::Role() == "flooder") RunFlooder();
  auto* network =
      keelbase::CAWThreadManager::Instance()->GetThread(keelbase::CAWThreadManager::TT_NETWORK);
  for (const std::uint32_t spin : {0U, 100U}) {
    network->SetSpin(spin);
    const ShmSystem system;
    ShmServer server;
    ChildTest flooder("flooder", system.GetPath());
    ShmEnd end{server.Accept(), {}};
    std::size_t received = 0;
    end.sink.onReceive = [&](IAWShmIPCTransport*) {
      received += std::exchange(end.sink.received, "").size();
    };
    end.Open();
    EXPECT_TRUE(Await([&] { return received > 10000000; }));
    ASSERT_EQ(::kill(flooder.GetProcess(), SIGSTOP), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(flooder.GetProcess(), &status, WUNTRACED), flooder.GetProcess());
    end.Fill();
    const double before = ProcessorSeconds();
    keelbase::internal::Timer over(network->GetLoop());
    over.Start(std::chrono::milliseconds(500), 1, [&] { network->Stop(); });
    EXPECT_EQ(network->Run(), AW_OK);
    EXPECT_LT(ProcessorSeconds() - before, 0.1) << "spin " << spin;
    EXPECT_FALSE(end.sink.ended);
    const std::size_t soFar = received;
    ASSERT_EQ(::kill(flooder.GetProcess(), SIGCONT), 0);
    EXPECT_TRUE(Await([&] { return received > soFar + 10000000 && end.sink.sends != 0; }));
  }
  network->SetSpin(0);
}

// --- reading ---

TEST(ShmIPCTransport, OneEventHoldsAtMostTheReadSize) {
  for (const std::uint32_t most : {1U, 1000U, 65535U, 0U, 1000000U}) {
    ShmPair p(256 * 1024);
    p.Open();
    std::size_t largest = 0;
    std::size_t before = 0;
    p.server.sink.onReceive = [&](IAWShmIPCTransport*) {
      largest = std::max(largest, p.server.sink.received.size() - before);
      before = p.server.sink.received.size();
    };
    p.server.Set(keelbase::AW_OPT_READ_SIZE, most);
    const std::string text = Pattern(most < 2 ? 1000 : 200000);
    EXPECT_EQ(p.client.Send(text), AW_OK);
    EXPECT_TRUE(Await([&] { return p.server.sink.received.size() == text.size(); }));
    EXPECT_TRUE(p.server.sink.received == text);
    EXPECT_EQ(largest, std::clamp(most, 1U, 65535U));
  }
}

class KeepingSink final : public IAWShmIPCTransportSink {
 public:
  ~KeepingSink() override {
    for (CAWMessageBlock* block : kept) block->DestroyChained();
  }
  void OnReceive(CAWMessageBlock& data, IAWShmIPCTransport*,
                 CAWShmIPCTransportParameter*) override {
    kept.push_back(data.DuplicateChained());
  }
  void OnSend(IAWShmIPCTransport*, CAWShmIPCTransportParameter*) override {}
  void OnDisconnect(long, IAWShmIPCTransport*) override {}
  std::vector<CAWMessageBlock*> kept;
};

TEST(ShmIPCTransport, ReceivedBytesMayBeKept) {
  ShmPair p;
  KeepingSink sink;
  p.server.transport->OpenWithSink(&sink);
  for (std::size_t i = 0; i < 5; ++i) {
    p.client.Send("message " + std::to_string(i));
    EXPECT_TRUE(Await([&] { return sink.kept.size() == i + 1; }));
  }
  for (std::size_t i = 0; i < 5; ++i)
    EXPECT_EQ(sink.kept[i]->FlattenChained(), "message " + std::to_string(i));
  p.server.transport->Disconnect(0);
}

TEST(ShmIPCTransport, StoppedReadingLetsBytesWait) {
  ShmPair p;
  p.Open();
  p.server.Set(keelbase::AW_OPT_STOP_READING, true);
  const std::string sent = p.client.Fill();
  Turn();
  EXPECT_EQ(p.server.sink.received, "");
  EXPECT_EQ(p.client.sink.sends, 0);
  p.server.Set(keelbase::AW_OPT_STOP_READING, false);
  EXPECT_TRUE(Await([&] { return p.server.sink.received == sent && p.client.sink.sends == 1; }));
}

TEST(ShmIPCTransport, StoppedReadingMayComeBeforeTheOpen) {
  ShmPair p;
  p.server.Set(keelbase::AW_OPT_STOP_READING, true);
  p.Open();
  p.client.Send("x");
  Turn();
  EXPECT_EQ(p.server.sink.received, "");
  p.server.Set(keelbase::AW_OPT_STOP_READING, false);
  EXPECT_TRUE(Await([&] { return p.server.sink.received == "x"; }));
}

TEST(ShmIPCTransport, EndIsNoticedWhileReadingIsStoppedAndTheRestComesFirst) {
  ShmPair p;
  p.Open();
  p.server.Set(keelbase::AW_OPT_STOP_READING, true);
  const std::string sent = p.client.Fill();
  Turn();
  p.client.transport->Disconnect(0);
  EXPECT_TRUE(Await([&] { return p.server.sink.ended; }));
  EXPECT_TRUE(p.server.sink.received == sent);
  EXPECT_EQ(p.server.sink.reason, 0);
}

TEST(ShmIPCTransport, ReadingMayBeStoppedInsideTheEvent) {
  ShmPair p(256 * 1024);
  p.server.sink.onReceive = [&](IAWShmIPCTransport*) {
    p.server.Set(keelbase::AW_OPT_STOP_READING, true);
  };
  p.Open();
  p.client.Send(Pattern(150000));
  EXPECT_TRUE(Await([&] { return p.server.sink.receives == 1; }));
  Turn();
  EXPECT_EQ(p.server.sink.receives, 1);
  p.client.transport->Disconnect(0);
  EXPECT_TRUE(Await([&] { return p.server.sink.ended; }));
  EXPECT_TRUE(p.server.sink.received == Pattern(150000));
}

// --- letting go ---

TEST(ShmIPCTransport, NothingComesAfterDisconnect) {
  ShmPair p;
  p.Open();
  p.client.Send("too late");
  RunReady();
  const int before = p.server.sink.receives;
  p.client.Send("much too late");
  EXPECT_EQ(p.server.transport->Disconnect(0), AW_OK);
  EXPECT_EQ(p.server.transport->Disconnect(0), AW_OK);
  EXPECT_TRUE(Await([&] { return p.client.sink.ended; }));
  EXPECT_EQ(p.server.sink.receives, before);
  EXPECT_FALSE(p.server.sink.ended);
}

TEST(ShmIPCTransport, DisconnectInsideAReceiveEndsTheEvents) {
  ShmPair p(256 * 1024);
  p.server.sink.onReceive = [](IAWShmIPCTransport* transport) { transport->Disconnect(0); };
  p.Open();
  p.client.Send(Pattern(150000));
  EXPECT_TRUE(Await([&] { return p.client.sink.ended; }));
  EXPECT_EQ(p.server.sink.receives, 1);
  EXPECT_FALSE(p.server.sink.ended);
}

TEST(ShmIPCTransport, DisconnectWhileTheRestIsDeliveredEndsTheEvents) {
  ShmPair p(256 * 1024);
  p.server.sink.onReceive = [](IAWShmIPCTransport* transport) { transport->Disconnect(0); };
  p.Open();
  p.server.Set(keelbase::AW_OPT_STOP_READING, true);
  p.client.Send(Pattern(150000));
  p.client.transport->Disconnect(0);
  EXPECT_TRUE(Await([&] { return p.server.sink.receives != 0; }));
  Turn();
  EXPECT_EQ(p.server.sink.receives, 1);
  EXPECT_FALSE(p.server.sink.ended);
}

TEST(ShmIPCTransport, DisconnectInsideOnSendAndOnDisconnectIsAllowed) {
  {
    ShmPair p;
    p.client.sink.onSend = [](IAWShmIPCTransport* transport) { transport->Disconnect(0); };
    p.Open();
    const std::string sent = p.client.Fill();
    EXPECT_TRUE(Await([&] { return p.server.sink.ended; }));
    EXPECT_TRUE(p.server.sink.received == sent);
    EXPECT_EQ(p.client.sink.sends, 1);
  }
  {
    ShmPair p;
    p.server.sink.onDisconnect = [](IAWShmIPCTransport* transport) { transport->Disconnect(0); };
    p.Open();
    p.client.transport->Disconnect(0);
    EXPECT_TRUE(Await([&] { return p.server.sink.ended; }));
    Turn();
  }
}

TEST(ShmIPCTransport, LettingGoIsADisconnect) {
  ShmPair p;
  p.Open();
  EXPECT_EQ(p.client.Send("taken"), AW_OK);
  p.client.transport = nullptr;
  EXPECT_TRUE(Await([&] { return p.server.sink.ended; }));
  EXPECT_EQ(p.server.sink.received, "taken");
  EXPECT_EQ(p.server.sink.reason, 0);
  EXPECT_FALSE(p.client.sink.ended);
}

TEST(ShmIPCTransport, LettingGoInsideEachCallbackIsAllowed) {
  {
    ShmPair p;
    p.server.sink.onReceive = [&](IAWShmIPCTransport*) { p.server.transport = nullptr; };
    p.Open();
    p.client.Send("x");
    EXPECT_TRUE(Await([&] { return p.client.sink.ended; }));
    EXPECT_EQ(p.server.sink.receives, 1);
  }
  {
    ShmPair p;
    p.server.sink.onReceive = [&](IAWShmIPCTransport*) { p.server.transport = nullptr; };
    p.Open();
    p.server.Set(keelbase::AW_OPT_STOP_READING, true);
    p.client.Send("x");
    p.client.transport = nullptr;
    EXPECT_TRUE(Await([&] { return p.server.sink.receives == 1; }));
    Turn();
  }
  {
    ShmPair p;
    p.server.sink.onDisconnect = [&](IAWShmIPCTransport*) { p.server.transport = nullptr; };
    p.Open();
    p.client.transport = nullptr;
    EXPECT_TRUE(Await([&] { return p.server.sink.ended; }));
  }
  {
    ShmPair p;
    p.client.sink.onSend = [&](IAWShmIPCTransport*) { p.client.transport = nullptr; };
    p.Open();
    p.client.Fill();
    EXPECT_TRUE(Await([&] { return p.server.sink.ended; }));
    EXPECT_EQ(p.client.sink.sends, 1);
  }
}

class SelfDeletingSink final : public IAWShmIPCTransportSink {
 public:
  SelfDeletingSink(CAWAutoPtr<IAWShmIPCTransport> transport, int& deleted)
      : transport_(std::move(transport)), deleted_(deleted) {
    transport_->OpenWithSink(this);
  }
  ~SelfDeletingSink() override { ++deleted_; }
  void OnReceive(CAWMessageBlock&, IAWShmIPCTransport*, CAWShmIPCTransportParameter*) override {
    delete this;
  }
  void OnSend(IAWShmIPCTransport*, CAWShmIPCTransportParameter*) override { delete this; }
  void OnDisconnect(long, IAWShmIPCTransport*) override { delete this; }

 private:
  CAWAutoPtr<IAWShmIPCTransport> transport_;
  int& deleted_;
};

TEST(ShmIPCTransport, SinkMayDeleteItselfInsideACallback) {
  for (const char* kind : {"receive", "send", "end"}) {
    ShmPair p;
    int deleted = 0;
    if (kind == std::string("send")) p.server.Fill();
    new SelfDeletingSink(std::move(p.server.transport), deleted);
    if (kind == std::string("receive")) p.client.Send("x");
    if (kind == std::string("end")) p.client.transport->Disconnect(0);
    if (kind != std::string("end")) p.client.Open();
    EXPECT_TRUE(Await([&] { return deleted != 0; })) << kind;
    Turn();
    EXPECT_EQ(deleted, 1);
  }
}

TEST(ShmIPCTransport, LastReferenceMayBeDroppedOnAnotherThread) {
  ShmPair p;
  p.Open();
  EXPECT_EQ(p.client.Send("taken"), AW_OK);
  p.server.Send("already here");
  std::thread([&] { p.client.transport = nullptr; }).join();
  EXPECT_TRUE(Await([&] { return p.server.sink.ended; }));
  EXPECT_EQ(p.server.sink.received, "taken");
  EXPECT_EQ(p.client.sink.receives, 0);
  EXPECT_FALSE(p.client.sink.ended);
}

#ifndef NDEBUG
TEST(ShmIPCTransport, WrongThreadStopsADebugBuildAndIsNamed) {
  if (ChildTest::Role() == "misuse") {
    ShmPair p;
    auto* network =
        keelbase::CAWThreadManager::Instance()->GetThread(keelbase::CAWThreadManager::TT_NETWORK);
    std::thread([&] {
      network->Call([] {});  // the loop runs
      p.client.transport->Disconnect(0);
    }).detach();
    network->Run();
    std::exit(0);
  }
  ChildTest child("misuse");
  EXPECT_EQ(child.Wait(), -SIGABRT);
  EXPECT_NE(child.GetErrors().find("Disconnect belongs to thread "), std::string::npos)
      << child.GetErrors();
}
#endif

// --- lack of memory ---

TEST(ShmIPCTransport, SinkThatFindsNoMemoryEndsItsConnection) {
  for (const bool onSend : {false, true}) {
    ShmPair p;
    const auto fail = [](IAWShmIPCTransport*) { throw std::bad_alloc(); };
    if (onSend) p.server.Fill();
    (onSend ? p.server.sink.onSend : p.server.sink.onReceive) = fail;
    p.Open();
    if (!onSend) p.client.Send("x");
    EXPECT_TRUE(Await([&] { return p.server.sink.ended; }));
    EXPECT_EQ(p.server.sink.reason, ENOMEM);
    p.server.transport->Disconnect(0);
    EXPECT_TRUE(Await([&] { return p.client.sink.ended; }));
  }
}

// --- options and addresses ---

TEST(ShmIPCTransport, BothSidesKnowTheAddresses) {
  ShmPair p;
  EXPECT_EQ(p.client.transport->GetLocalAddr(), kShmClient);
  EXPECT_EQ(p.client.transport->GetPeerAddr(), kShmServer);
  EXPECT_EQ(p.server.transport->GetLocalAddr(), kShmServer);
  EXPECT_EQ(p.server.transport->GetPeerAddr(), kShmClient);
}

TEST(ShmIPCTransport, UnknownOptionsAndNullAreRefused) {
  ShmPair p;
  IAWShmIPCTransport& transport = *p.client.transport;
  std::uint64_t value = 1;
  for (const int code : {0, 9999, -1, int{keelbase::AW_OPT_LOCAL_ADDRESS},
                         int{keelbase::AW_OPT_PEER_ADDRESS}, int{AW_OPT_RING_SIZE}}) {
    EXPECT_EQ(transport.GetOption(code, &value), AW_ERROR_FAILURE) << code;
    EXPECT_EQ(transport.SetOption(code, &value), AW_ERROR_FAILURE) << code;
  }
  EXPECT_EQ(transport.SetOption(keelbase::AW_OPT_COUNTERS, &value), AW_ERROR_FAILURE);
  EXPECT_EQ(transport.GetOption(keelbase::AW_OPT_LINGER, &value), AW_ERROR_FAILURE);
  EXPECT_EQ(transport.GetOption(keelbase::AW_OPT_COUNTERS, nullptr), AW_ERROR_FAILURE);
  EXPECT_EQ(transport.GetOption(keelbase::AW_OPT_PEER_CREDENTIALS, nullptr), AW_ERROR_FAILURE);
  for (const int code : {keelbase::AW_OPT_STOP_READING, keelbase::AW_OPT_LINGER,
                         keelbase::AW_OPT_LINGER_DATA, keelbase::AW_OPT_READ_SIZE})
    EXPECT_EQ(transport.SetOption(code, nullptr), AW_ERROR_FAILURE) << code;
}

TEST(ShmIPCTransport, CredentialsAreThoseOfThePeer) {
  ShmPair p;
  for (const ShmEnd* end : {&p.client, &p.server}) {
    keelbase::CAWPeerCredentials who;
    EXPECT_EQ(end->transport->GetOption(keelbase::AW_OPT_PEER_CREDENTIALS, &who), AW_OK);
    EXPECT_EQ(who.processId, ::getpid());
    EXPECT_EQ(who.userId, ::geteuid());
    EXPECT_EQ(who.groupId, ::getegid());
  }
}

TEST(ShmIPCTransport, SlotsOfTransportAndSink) {
  EXPECT_EQ(VirtualSlot(&IAWShmIPCTransportSink::OnReceive), 0);
  EXPECT_EQ(VirtualSlot(&IAWShmIPCTransportSink::OnSend), 1);
  EXPECT_EQ(VirtualSlot(&IAWShmIPCTransportSink::OnDisconnect), 2);
  EXPECT_EQ(VirtualSlot(&IAWShmIPCTransport::AddReference), 0);
  EXPECT_EQ(VirtualSlot(&IAWShmIPCTransport::ReleaseReference), 1);
  EXPECT_EQ(VirtualSlot(&IAWShmIPCTransport::OpenWithSink), 2);
  EXPECT_EQ(VirtualSlot(&IAWShmIPCTransport::SendData), 3);
  EXPECT_EQ(VirtualSlot(&IAWShmIPCTransport::Disconnect), 4);
  EXPECT_EQ(VirtualSlot(&IAWShmIPCTransport::GetPeerAddr), 5);
  EXPECT_EQ(VirtualSlot(&IAWShmIPCTransport::GetLocalAddr), 6);
  EXPECT_EQ(VirtualSlot(&IAWShmIPCTransport::GetOption), 7);
  EXPECT_EQ(VirtualSlot(&IAWShmIPCTransport::SetOption), 8);
}

}  // namespace
}  // namespace fshmipc
