// ShmIPCTransport_test.cpp - what is particular to connections in shared memory: a peer that dies
// or is stopped, addresses. What all transports do alike is tested in tests/transports.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <string>
#include <utility>

#include "ChildTest.h"
#include "ProcessorTime.h"
#include "RealShmIpc.h"
#include "VirtualSlot.h"
#include "fshmipc/CAWShmIPCTransport.h"
#include "keelbase/internal/TimerQueue.h"

namespace fshmipc {
namespace {

using namespace zarn::test;

CAWAutoPtr<IAWShmIPCTransport> ConnectToParent() {
  CAWShmIPCManager::Instance()->SetSystemPath(ChildTest::Argument());
  const auto connector = MakeShmConnector();
  ShmIndicationSink connected;
  connector->AsyncConnect(&connected, kShmServer, 0, &kShmClient);
  return connected.Take();
}

// In a child: sends, and waits to be killed.
void RunVictim() {
  ShmEnd end{ConnectToParent(), {}};
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

// In a child: sends all the time, as much as there is room for.
void RunFlooder() {
  ShmEnd end{ConnectToParent(), {}};
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
    const double before = zarn::test::ProcessorSeconds();
    keelbase::internal::Timer over(network->GetLoop());
    over.Start(std::chrono::milliseconds(500), 1, [&] { network->Stop(); });
    EXPECT_EQ(network->Run(), AW_OK);
    EXPECT_LT(zarn::test::ProcessorSeconds() - before, 0.1) << "spin " << spin;
    EXPECT_FALSE(end.sink.ended);
    const std::size_t soFar = received;
    ASSERT_EQ(::kill(flooder.GetProcess(), SIGCONT), 0);
    EXPECT_TRUE(Await([&] { return received > soFar + 10000000 && end.sink.sends != 0; }));
  }
  network->SetSpin(0);
}

TEST(ShmIPCTransport, BothSidesKnowTheAddresses) {
  ShmPair p;
  EXPECT_EQ(p.client.transport->GetLocalAddr(), kShmClient);
  EXPECT_EQ(p.client.transport->GetPeerAddr(), kShmServer);
  EXPECT_EQ(p.server.transport->GetLocalAddr(), kShmServer);
  EXPECT_EQ(p.server.transport->GetPeerAddr(), kShmClient);
}

TEST(ShmIPCTransport, AddressesAndTheRingSizeAreNoOptions) {
  ShmPair p;
  std::uint64_t value = 1;
  for (const int code : {int{keelbase::AW_OPT_LOCAL_ADDRESS}, int{keelbase::AW_OPT_PEER_ADDRESS},
                         int{AW_OPT_RING_SIZE}}) {
    EXPECT_EQ(p.client.transport->GetOption(code, &value), AW_ERROR_FAILURE) << code;
    EXPECT_EQ(p.client.transport->SetOption(code, &value), AW_ERROR_FAILURE) << code;
  }
}

TEST(ShmIPCTransport, VirtualFunctionsOfTransportAndSinkKeepTheirSlots) {
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
