// ShmIPCAcceptor_test.cpp - listening, meeting those who come, and stopping.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "DescriptorShortage.h"
#include "RawPeer.h"
#include "TraceLines.h"

namespace fshmipc {
namespace {

using namespace zarn::test;
namespace fs = std::filesystem;

AWResult ResultOfListen() {
  ShmIndicationSink sink;
  const auto acceptor = MakeShmAcceptor();
  return acceptor->StartListen(&sink, kShmServer);
}

// A client that is not ours, and has been welcomed.
class Client {
 public:
  explicit Client(const ShmSystem& system) : socket_(PlainSocket::Stream()) {
    EXPECT_EQ(socket_.Connect(system.GetEndpoint()), 0);
    Turn();
    EXPECT_EQ(ReceiveWelcome(Get()), 0);
  }
  bool IsEnded() {
    Turn();
    socket_.Receive();
    return socket_.ended;
  }
  // What it is answered, the end of the connection being ECONNRESET; EAGAIN for nothing.
  int Answer() {
    Turn();
    return ReceiveAnswer(socket_.Get());
  }
  int Get() const { return socket_.Get(); }
  void Close() { socket_.Close(); }

  int GreetWith(const FileDescriptor& memory, std::uint32_t ringSize) {
    EXPECT_EQ(SendGreeting(Get(), kShmClient, ringSize, memory.Get()), 0);
    return Answer();
  }

 private:
  PlainSocket socket_;
};

FileDescriptor GoodMemory(ShmSegment& segment) {
  FileDescriptor memory;
  EXPECT_EQ(segment.Create(kMinShmRing, memory), 0);
  return memory;
}

bool IsServed(const ShmSystem& system) {
  Client client(system);
  ShmSegment segment;
  return client.GreetWith(GoodMemory(segment), kMinShmRing) == 0;
}

// --- starting and stopping ---

TEST(ShmIPCAcceptor, MakesItsDirectoriesAndTheEndpointFileForItsUserOnly) {
  const TempDir dir;
  CAWShmIPCManager::Instance()->SetSystemPath(dir.GetPath() + "/system");
  const std::string endpoint = dir.GetPath() + "/system/zarn/shmipc/1_2";
  {
    ShmServer server;
    for (const auto& [path, mode] : {std::pair<std::string, mode_t>(endpoint, 0600),
                                     {dir.GetPath() + "/system/zarn/shmipc", 0700}}) {
      struct stat status {};
      ASSERT_EQ(::lstat(path.c_str(), &status), 0) << path;
      EXPECT_EQ(status.st_mode & 07777, mode) << path;
    }
  }
  EXPECT_FALSE(fs::exists(endpoint));
  CAWShmIPCManager::Instance()->SetSystemPath("");
}

TEST(ShmIPCAcceptor, MisuseIsRefused) {
  const ShmSystem system;
  ShmServer server;
  EXPECT_EQ(server.acceptor->StartListen(nullptr, kShmServer), AW_ERROR_FAILURE);
  EXPECT_EQ(server.acceptor->StartListen(&server.sink, kShmClient), AW_ERROR_FAILURE);
  bool flag = true;
  std::uint32_t size = kMinShmRing;
  EXPECT_EQ(server.acceptor->SetOption(AW_OPT_ALLOW_ANY_USER, nullptr), AW_ERROR_FAILURE);
  EXPECT_EQ(server.acceptor->SetOption(AW_OPT_ALLOW_ANY_USER, &flag), AW_OK);
  EXPECT_EQ(server.acceptor->SetOption(AW_OPT_RING_SIZE, &size), AW_ERROR_FAILURE);
  EXPECT_TRUE(IsServed(system));
}

TEST(ShmIPCAcceptor, NoSystemDirectoryIsAFailureThatIsTraced) {
  const TraceLines trace;
  CAWShmIPCManager::Instance()->SetSystemPath("");
  EXPECT_EQ(ResultOfListen(), AW_ERROR_FAILURE);
  ASSERT_EQ(trace.Get().size(), 1U);
  EXPECT_EQ(trace.Get()[0].text,
            "no system directory for shared memory: call ZARNLibInit, or SetSystemPath, before");
}

TEST(ShmIPCAcceptor, WhatIsInTheWayIsLeftAlone) {
  const ShmSystem system;
  {
    ShmServer server;
    EXPECT_EQ(ResultOfListen(), static_cast<AWResult>(EADDRINUSE));
    EXPECT_TRUE(IsServed(system));
  }
  std::ofstream(system.GetEndpoint()) << "content";
  EXPECT_EQ(ResultOfListen(), static_cast<AWResult>(EADDRINUSE));
  EXPECT_EQ(fs::file_size(system.GetEndpoint()), 7U);
}

TEST(ShmIPCAcceptor, StaleEndpointIsReplaced) {
  const ShmSystem system;
  PlainSocket dead = PlainSocket::Stream();
  ASSERT_EQ(dead.Bind(system.GetEndpoint()), 0);
  dead.Close();
  ShmServer server;
  EXPECT_TRUE(IsServed(system));
}

TEST(ShmIPCAcceptor, DirectoryThatOthersMayWriteToIsRefused) {
  const ShmSystem system;
  ASSERT_EQ(::chmod((system.GetPath() + "/zarn/shmipc").c_str(), 0777), 0);
  EXPECT_EQ(ResultOfListen(), static_cast<AWResult>(EPERM));
}

TEST(ShmIPCAcceptor, PlaceThatCannotBeMadeIsAnError) {
  const ShmSystem system;
  CAWShmIPCManager::Instance()->SetSystemPath("/proc/no/such/place");
  EXPECT_EQ(ResultOfListen(), static_cast<AWResult>(ENOENT));
}

TEST(ShmIPCAcceptor, LackOfDescriptorsIsAnErrorOfTheStart) {
  const ShmSystem system;
  {
    const DescriptorShortage shortage;
    EXPECT_EQ(ResultOfListen(), static_cast<AWResult>(EMFILE));
  }
  ShmServer server;
  EXPECT_TRUE(IsServed(system));
}

TEST(ShmIPCAcceptor, FailureAfterAWaitForTheDirectoryIsIndicated) {
  const ShmSystem system;
  const std::string directory = system.GetPath() + "/zarn/shmipc";
  FileDescriptor lock(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(::flock(lock.Get(), LOCK_EX | LOCK_NB), 0);
  for (const bool letGo : {false, true}) {
    ShmIndicationSink sink;
    auto acceptor = MakeShmAcceptor();
    sink.onIndication = [&](IAWShmIPCTransport*) {
      if (letGo) acceptor = nullptr;
    };
    EXPECT_EQ(acceptor->StartListen(&sink, kShmServer), AW_OK);
    std::ofstream(system.GetEndpoint()) << "in the way";
    ::flock(lock.Get(), LOCK_UN);
    EXPECT_TRUE(Await([&] { return sink.count == 1; }));
    EXPECT_EQ(sink.got[0].reason, EADDRINUSE);
    fs::remove(system.GetEndpoint());
    EXPECT_TRUE(letGo || acceptor->StartListen(&sink, kShmServer) == AW_OK);  // it had stopped
    acceptor = nullptr;
    ASSERT_EQ(::flock(lock.Get(), LOCK_EX | LOCK_NB), 0);
  }
}

TEST(ShmIPCAcceptor, ConnectionsGoOnAfterTheStop) {
  ShmPair p;
  p.Open();
  EXPECT_EQ(p.GetServer().acceptor->StopListen(), AW_OK);
  EXPECT_EQ(p.GetServer().acceptor->StopListen(), AW_OK);
  p.GetServer().acceptor = nullptr;
  p.client.Send("still here");
  EXPECT_TRUE(Await([&] { return p.server.sink.received == "still here"; }));
}

TEST(ShmIPCAcceptor, MayListenAgain) {
  const ShmSystem system;
  ShmServer server;
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(server.acceptor->StopListen(), AW_OK);
    EXPECT_FALSE(fs::exists(system.GetEndpoint()));
    EXPECT_EQ(server.acceptor->StartListen(&server.sink, kShmServer), AW_OK);
    EXPECT_TRUE(IsServed(system));
  }
}

// --- those who come ---

TEST(ShmIPCAcceptor, WelcomesWhoeverConnectsAtOnceAndOnce) {
  const ShmSystem system;
  ShmServer server;
  PlainSocket client = PlainSocket::Stream();
  ASSERT_EQ(client.Connect(system.GetEndpoint()), 0);
  Turn();
  EXPECT_EQ(client.Receive(), std::string("ZSHM\2\0\0\0", 8));
  EXPECT_FALSE(client.ended);
  EXPECT_EQ(server.sink.count, 0);
}

TEST(ShmIPCAcceptor, PeerThatGreetsBeforeItIsWelcomedIsServed) {
  const ShmSystem system;
  ShmServer server;
  PlainSocket client = PlainSocket::Stream();
  ASSERT_EQ(client.Connect(system.GetEndpoint()), 0);
  ShmSegment segment;
  const FileDescriptor memory = GoodMemory(segment);
  ASSERT_EQ(SendGreeting(client.Get(), kShmClient, kMinShmRing, memory.Get()), 0);
  EXPECT_TRUE(Await([&] { return server.sink.count == 1; }));
  EXPECT_EQ(ReceiveWelcome(client.Get()), 0);
  EXPECT_EQ(ReceiveAnswer(client.Get()), 0);
}

TEST(ShmIPCAcceptor, SilentPeerIsDismissedAfterItsTime) {
  const ShmSystem system;
  ShmServer server;
  HandClock clock;
  const std::size_t before = OpenDescriptors();
  Client silent(system);
  clock.Advance(std::chrono::milliseconds(1000));
  Client late(system);
  clock.Advance(std::chrono::milliseconds(999));
  EXPECT_FALSE(silent.IsEnded());
  clock.Advance(std::chrono::milliseconds(1));
  EXPECT_TRUE(silent.IsEnded());
  EXPECT_FALSE(late.IsEnded());
  ShmSegment segment;
  EXPECT_EQ(late.GreetWith(GoodMemory(segment), kMinShmRing), 0);
  clock.Advance(std::chrono::milliseconds(5000));
  EXPECT_FALSE(late.IsEnded());  // who has greeted may be silent
  EXPECT_EQ(server.sink.count, 1);
  silent.Close();
  late.Close();
  server.sink.got.clear();
  Turn();
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST(ShmIPCAcceptor, PeerThatGoesBeforeItGreetsIsForgotten) {
  const ShmSystem system;
  ShmServer server;
  const std::size_t before = OpenDescriptors();
  for (int i = 0; i < 20; ++i) Client(system).Close();
  Turn();
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_EQ(server.sink.count, 0);
}

TEST(ShmIPCAcceptor, ForeignGreetingIsAnsweredWithTheReasonAndClosed) {
  const ShmSystem system;
  ShmServer server;
  const std::size_t before = OpenDescriptors();
  const Greeting right{0x4d48535a, kLayoutVersion, 3, 4, 0, kMinShmRing};
  const auto answer = [&](const Greeting& greeting, std::size_t length, std::size_t descriptors) {
    Client client(system);
    EXPECT_TRUE(SendWithDescriptors(client.Get(), &greeting, length,
                                    std::vector<int>(descriptors, client.Get())));
    const int result = client.Answer();
    EXPECT_TRUE(client.IsEnded());
    return result;
  };
  Greeting other = right;
  other.version = kLayoutVersion + 1;
  EXPECT_EQ(answer(other, sizeof other, 1), EPROTONOSUPPORT);
  other.magic = 0;
  EXPECT_EQ(answer(other, sizeof other, 1), EPROTO);
  EXPECT_EQ(answer(right, sizeof right, 0), EPROTO);
  EXPECT_EQ(answer(right, sizeof right, 2), EPROTO);
  EXPECT_EQ(answer(right, sizeof right, 9), EPROTO);
  EXPECT_EQ(answer(right, 7, 1), EPROTO);
  EXPECT_EQ(answer(right, sizeof right, 1), EPROTO);  // a socket is no memory
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_EQ(server.sink.count, 0);
  EXPECT_TRUE(IsServed(system));
}

TEST(ShmIPCAcceptor, MemoryThatIsNotAsAgreedIsRefused) {
  const ShmSystem system;
  ShmServer server;
  ShmSegment segment;
  for (const std::uint32_t claimed : {0U, 1U, 4096U, 2 * kMinShmRing, 0x80000000U, ~0U}) {
    Client client(system);
    EXPECT_EQ(client.GreetWith(GoodMemory(segment), claimed), EPROTO) << claimed;
    EXPECT_TRUE(client.IsEnded());
  }
  Client unsealed(system);
  const FileDescriptor memory(::memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  ASSERT_EQ(::ftruncate(memory.Get(), 4096 + 2 * kMinShmRing), 0);
  EXPECT_EQ(unsealed.GreetWith(memory, kMinShmRing), EPROTO);
  EXPECT_EQ(server.sink.count, 0);
}

TEST(ShmIPCAcceptor, PeerThatIsGoneWhenItIsAnsweredIsNoConnection) {
  const ShmSystem system;
  ShmServer server;
  ShmSegment segment;
  Client client(system);
  const FileDescriptor memory = GoodMemory(segment);
  ASSERT_EQ(SendGreeting(client.Get(), kShmClient, kMinShmRing, memory.Get()), 0);
  client.Close();
  Turn();
  EXPECT_EQ(server.sink.count, 0);
}

TEST(ShmIPCAcceptor, LackOfDescriptorsForTheMemoryRefusesThatOneOnly) {
  const ShmSystem system;
  ShmServer server;
  Client client(system);
  ShmSegment segment;
  const FileDescriptor memory = GoodMemory(segment);
  {
    const DescriptorShortage shortage;
    EXPECT_EQ(client.GreetWith(memory, kMinShmRing), EMFILE);
  }
  EXPECT_TRUE(client.IsEnded());
  EXPECT_TRUE(IsServed(system));
}

TEST(ShmIPCAcceptor, StopDismissesThoseWhoHaveNotGreeted) {
  const ShmSystem system;
  for (const bool letGo : {false, true}) {
    ShmServer server;
    Client one(system);
    Client two(system);
    ShmSegment segment;
    const FileDescriptor memory = GoodMemory(segment);
    ASSERT_EQ(SendGreeting(two.Get(), kShmClient, kMinShmRing, memory.Get()), 0);
    if (letGo)
      server.acceptor = nullptr;
    else
      server.acceptor->StopListen();
    EXPECT_TRUE(one.IsEnded());
    EXPECT_TRUE(two.IsEnded());
    EXPECT_EQ(server.sink.count, 0);
  }
}

TEST(ShmIPCAcceptor, MayBeStoppedLetGoOrMovedInsideItsIndicationWhileOthersWait) {
  const ShmSystem system;
  for (const char kind : {'s', 'l', 'm'}) {
    ShmServer server;
    server.sink.onIndication = [&](IAWShmIPCTransport*) {
      if (kind == 'l') {
        server.acceptor = nullptr;
        return;
      }
      server.acceptor->StopListen();
      if (kind == 'm') {
        EXPECT_EQ(server.acceptor->StartListen(&server.sink, kShmServer), AW_OK);
      }
    };
    ShmSegment segment;
    const FileDescriptor memory = GoodMemory(segment);
    Client silent(system);
    Client one(system);
    Client two(system);
    for (const Client* client : {&one, &two})
      ASSERT_EQ(SendGreeting(client->Get(), kShmClient, kMinShmRing, memory.Get()), 0);
    EXPECT_TRUE(Await([&] { return server.sink.count == 1; }));
    EXPECT_TRUE(silent.IsEnded());
    EXPECT_EQ(server.sink.count, 1);
    server.sink.onIndication = nullptr;
    EXPECT_TRUE(kind != 'm' || IsServed(system));
  }
}

TEST(ShmIPCAcceptor, ConnectionThatNobodyTookIsClosed) {
  const ShmSystem system;
  ShmServer server;
  server.sink.keep = false;
  Client client(system);
  ShmSegment segment;
  EXPECT_EQ(client.GreetWith(GoodMemory(segment), kMinShmRing), 0);
  EXPECT_TRUE(client.IsEnded());
  EXPECT_TRUE(RingReader(segment.AcceptorRing()).HasEnded());
}

TEST(ShmIPCAcceptor, ManyComeAtOnce) {
  const ShmSystem system;
  ShmServer server;
  std::vector<CAWAutoPtr<IAWShmIPCConnector>> connectors;
  ShmIndicationSink sink;
  std::uint32_t size = kMinShmRing;
  for (int i = 0; i < 50; ++i) {
    connectors.push_back(MakeShmConnector());
    connectors.back()->SetOption(AW_OPT_RING_SIZE, &size);
    EXPECT_EQ(connectors.back()->AsyncConnect(&sink, kShmServer, 0, &kShmClient), AW_OK);
  }
  EXPECT_TRUE(Await([&] { return sink.count == 50 && server.sink.count == 50; }));
  for (const auto& indication : sink.got) EXPECT_EQ(indication.reason, 0);
}

}  // namespace
}  // namespace fshmipc
