// IPCAcceptor_test.cpp - listening: what may stand at the endpoint's place, who is let in, and how
// it ends.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ChildTest.h"
#include "DescriptorShortage.h"
#include "ExitingChild.h"
#include "ProcessorTime.h"
#include "ProofScale.h"
#include "RealIpc.h"
#include "keelbase/internal/EventLoop.h"

namespace fipc {
namespace {

namespace fs = std::filesystem;
using namespace zarn::test;

std::string Endpoint(const TempDir& dir) { return dir.GetPath() + "/1_2"; }

AWResult Listen(IAWIPCAcceptor& acceptor, IndicationSink& sink, const std::string& path) {
  return acceptor.StartListen(&sink, CAWIPCAddr(path));
}

// What a listener that tries it is told; it must change nothing then.
AWResult ResultAt(const std::string& path) {
  IndicationSink sink;
  const auto acceptor = MakeAcceptor();
  const AWResult result = Listen(*acceptor, sink, path);
  for (int i = 0; i < 5; ++i) RunReady();
  EXPECT_EQ(sink.count, 0);
  return result;
}

bool IsServed(const std::string& path) {
  PlainSocket client = PlainSocket::Stream();
  return client.Connect(path) == 0;
}

ino_t Inode(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

// --- the file ---

TEST(IPCAcceptor, EndpointIsForItsUserOnly) {
  const TempDir dir;
  const mode_t before = ::umask(0);
  Server server(Endpoint(dir));
  ::umask(before);
  struct stat status {};
  ASSERT_EQ(::lstat(Endpoint(dir).c_str(), &status), 0);
  EXPECT_TRUE(S_ISSOCK(status.st_mode));
  EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST(IPCAcceptor, StopRemovesTheFileAndLeavesConnections) {
  const TempDir dir;
  Server server(Endpoint(dir));
  PlainSocket client = PlainSocket::Stream();
  const auto transport = server.AcceptFrom(client);
  TransportSink events;
  transport->OpenWithSink(&events);
  EXPECT_EQ(server.GetAcceptor()->StopListen(), AW_OK);
  EXPECT_EQ(server.GetAcceptor()->StopListen(), AW_OK);
  EXPECT_FALSE(fs::exists(Endpoint(dir)));
  client.Send("still here");
  EXPECT_TRUE(Await([&] { return events.received == "still here"; }));
}

TEST(IPCAcceptor, LettingGoStops) {
  const TempDir dir;
  IndicationSink sink;
  for (const bool elsewhere : {false, true}) {
    auto acceptor = MakeAcceptor();
    ASSERT_EQ(Listen(*acceptor, sink, Endpoint(dir)), AW_OK);
    if (elsewhere) {
      std::thread([&] { acceptor = nullptr; }).join();
      RunReady();
    }
    acceptor = nullptr;
    EXPECT_FALSE(fs::exists(Endpoint(dir)));
  }
}

TEST(IPCAcceptor, ThreadThatLetGoOfItMayListenThereAtOnce) {
  const TempDir dir;
  IndicationSink sink;
  auto acceptor = MakeAcceptor();
  ASSERT_EQ(Listen(*acceptor, sink, Endpoint(dir)), AW_OK);
  std::atomic<bool> done{false};
  std::thread other([&] {
    acceptor = nullptr;
    acceptor = MakeAcceptor();
    EXPECT_EQ(Listen(*acceptor, sink, Endpoint(dir)), AW_OK);
    done = true;
  });
  EXPECT_TRUE(Await([&] { return done.load(); }));
  other.join();
  EXPECT_TRUE(IsServed(Endpoint(dir)));
}

TEST(IPCAcceptor, StopRemovesOnlyItsOwnFile) {
  const TempDir dir;
  Server server(Endpoint(dir));
  ASSERT_TRUE(fs::remove(Endpoint(dir)));
  std::ofstream(Endpoint(dir)) << "somebody else's";
  server.GetAcceptor()->StopListen();
  EXPECT_TRUE(fs::is_regular_file(Endpoint(dir)));
}

TEST(IPCAcceptor, MayListenAgain) {
  const TempDir dir;
  Server server(Endpoint(dir));
  for (int i = 0; i < 3; ++i) {
    server.GetAcceptor()->StopListen();
    EXPECT_EQ(Listen(*server.GetAcceptor(), server.sink, Endpoint(dir)), AW_OK);
    EXPECT_TRUE(IsServed(Endpoint(dir)));
  }
}

TEST(IPCAcceptor, MisuseIsRefused) {
  const TempDir dir;
  Server server(Endpoint(dir));
  IndicationSink sink;
  EXPECT_EQ(Listen(*server.GetAcceptor(), sink, dir.GetPath() + "/5_6"), AW_ERROR_FAILURE);
  const auto other = MakeAcceptor();
  EXPECT_EQ(other->StartListen(nullptr, CAWIPCAddr(dir.GetPath() + "/5_6")), AW_ERROR_FAILURE);
  EXPECT_EQ(other->StopListen(), AW_OK);
  EXPECT_FALSE(fs::exists(dir.GetPath() + "/5_6"));
}

TEST(IPCAcceptor, PathsThatNameNoEndpointAreErrors) {
  const TempDir dir;
  EXPECT_EQ(ResultAt(""), static_cast<AWResult>(EINVAL));
  EXPECT_EQ(ResultAt(dir.GetPath() + "/"), static_cast<AWResult>(EINVAL));
  EXPECT_EQ(ResultAt(dir.GetPath() + "/."), static_cast<AWResult>(EINVAL));
  EXPECT_EQ(ResultAt(dir.GetPath() + "/missing/1_2"), static_cast<AWResult>(ENOENT));
  EXPECT_EQ(ResultAt(dir.GetPath() + "/" + std::string(200, 'x')),
            static_cast<AWResult>(ENAMETOOLONG));
  std::ofstream(dir.GetPath() + "/file") << "x";
  EXPECT_EQ(ResultAt(dir.GetPath() + "/file/1_2"), static_cast<AWResult>(ENOTDIR));
}

TEST(IPCAcceptor, DirectoryThatOthersMayWriteToIsRefused) {
  for (const mode_t mode : {0770U, 0707U, 0777U, 01777U}) {
    const TempDir dir;
    ASSERT_EQ(::chmod(dir.GetPath().c_str(), mode), 0);
    EXPECT_EQ(ResultAt(Endpoint(dir)), static_cast<AWResult>(EPERM)) << std::oct << mode;
    EXPECT_FALSE(fs::exists(Endpoint(dir)));
  }
  const TempDir readable;
  ASSERT_EQ(::chmod(readable.GetPath().c_str(), 0755), 0);
  Server server(Endpoint(readable));
  EXPECT_TRUE(IsServed(Endpoint(readable)));
}

// --- what is in the way ---

TEST(IPCAcceptor, ForeignThingsInTheWayAreLeftAlone) {
  const TempDir dir;
  const std::string base = dir.GetPath();
  std::ofstream(base + "/regular") << "content";
  fs::create_directory(base + "/directory");
  fs::create_symlink(base + "/elsewhere", base + "/symlink");
  ASSERT_EQ(::mkfifo((base + "/fifo").c_str(), 0600), 0);
  for (const char* name : {"/regular", "/directory", "/symlink", "/fifo"}) {
    const ino_t before = Inode(base + name);
    EXPECT_EQ(ResultAt(base + name), static_cast<AWResult>(EADDRINUSE)) << name;
    EXPECT_EQ(Inode(base + name), before) << name;
  }
  EXPECT_FALSE(fs::exists(base + "/elsewhere"));
  std::string content;
  std::ifstream(base + "/regular") >> content;
  EXPECT_EQ(content, "content");
}

TEST(IPCAcceptor, SymbolicLinkToAStaleSocketIsLeftAlone) {
  const TempDir dir;
  PlainSocket dead = PlainSocket::Stream();
  ASSERT_EQ(dead.Bind(dir.GetPath() + "/dead"), 0);
  dead.Close();
  fs::create_symlink(dir.GetPath() + "/dead", Endpoint(dir));
  EXPECT_EQ(ResultAt(Endpoint(dir)), static_cast<AWResult>(EADDRINUSE));
  EXPECT_TRUE(fs::is_symlink(Endpoint(dir)));
  EXPECT_TRUE(fs::exists(dir.GetPath() + "/dead"));
}

TEST(IPCAcceptor, SocketOfAnotherUserIsLeftAlone) {
  if (::geteuid() != 0) return;  // only root can make one
  const TempDir dir;
  PlainSocket dead = PlainSocket::Stream();
  ASSERT_EQ(dead.Bind(Endpoint(dir)), 0);
  dead.Close();
  ASSERT_EQ(::lchown(Endpoint(dir).c_str(), 65534, 65534), 0);
  EXPECT_EQ(ResultAt(Endpoint(dir)), static_cast<AWResult>(EADDRINUSE));
  EXPECT_TRUE(fs::exists(Endpoint(dir)));
}

TEST(IPCAcceptor, SocketsThatAreInUseAreNotRobbed) {
  const TempDir dir;
  PlainSocket bound = PlainSocket::Stream();  // not listening yet: it may any moment
  ASSERT_EQ(bound.Bind(dir.GetPath() + "/bound"), 0);
  PlainSocket datagrams(SOCK_DGRAM, 0);
  ASSERT_EQ(datagrams.Bind(dir.GetPath() + "/datagrams"), 0);
  PlainSocket packets(SOCK_SEQPACKET, 0);
  ASSERT_EQ(packets.Bind(dir.GetPath() + "/packets"), 0);
  for (const char* name : {"/bound", "/datagrams", "/packets"}) {
    const ino_t before = Inode(dir.GetPath() + name);
    EXPECT_EQ(ResultAt(dir.GetPath() + name), static_cast<AWResult>(EADDRINUSE)) << name;
    EXPECT_EQ(Inode(dir.GetPath() + name), before) << name;
  }
}

TEST(IPCAcceptor, StaleEndpointIsReplaced) {
  const TempDir dir;
  PlainSocket dead = PlainSocket::Stream();
  ASSERT_EQ(dead.Bind(Endpoint(dir)), 0);
  ASSERT_EQ(dead.Listen(), 0);
  dead.Close();
  ASSERT_FALSE(IsServed(Endpoint(dir)));
  Server server(Endpoint(dir));
  EXPECT_TRUE(IsServed(Endpoint(dir)));
}

TEST(IPCAcceptor, LiveListenerIsNeitherRobbedNorDisturbed) {
  const TempDir dir;
  Server server(Endpoint(dir));
  const ino_t before = Inode(Endpoint(dir));
  for (int i = 0; i < 10; ++i)
    EXPECT_EQ(ResultAt(Endpoint(dir)), static_cast<AWResult>(EADDRINUSE));
  Turn();
  EXPECT_EQ(server.sink.count, 0);
  EXPECT_EQ(Inode(Endpoint(dir)), before);
  PlainSocket client = PlainSocket::Stream();
  EXPECT_NE(server.AcceptFrom(client), nullptr);
}

TEST(IPCAcceptor, FailedStartLeavesTheAcceptorUsable) {
  const TempDir dir;
  IndicationSink sink;
  const auto acceptor = MakeAcceptor();
  std::ofstream(Endpoint(dir)) << "in the way";
  EXPECT_EQ(Listen(*acceptor, sink, Endpoint(dir)), static_cast<AWResult>(EADDRINUSE));
  fs::remove(Endpoint(dir));
  EXPECT_EQ(Listen(*acceptor, sink, Endpoint(dir)), AW_OK);
  EXPECT_TRUE(IsServed(Endpoint(dir)));
}

TEST(IPCAcceptor, PathLongerThanASocketAddressWorks) {
  const TempDir dir;
  const std::string deep = dir.GetPath() + "/" + std::string(200, 'd');
  fs::create_directory(deep);
  ASSERT_EQ(::chmod(deep.c_str(), 0700), 0);
  {
    Server server(deep + "/1_2");
    EXPECT_TRUE(fs::exists(deep + "/1_2"));
    EXPECT_EQ(ResultAt(deep + "/1_2"), static_cast<AWResult>(EADDRINUSE));
    const auto connector = MakeConnector();
    IndicationSink sink;
    const CAWIPCAddr local(deep + "/3_4");
    connector->AsyncConnect(&sink, CAWIPCAddr(deep + "/1_2"), 0, &local);
    const auto transport = server.Accept();
    CAWIPCAddr address;
    transport->GetOption(keelbase::AW_OPT_PEER_ADDRESS, &address);
    EXPECT_EQ(address.GetPath(), deep + "/3_4");
    EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  }
  EXPECT_FALSE(fs::exists(deep + "/1_2"));
}

TEST(IPCAcceptor, DirectoryMayGoWhileItListens) {
  const TempDir dir;
  const std::string below = dir.GetPath() + "/ipc";
  fs::create_directory(below);
  ASSERT_EQ(::chmod(below.c_str(), 0700), 0);
  Server server(below + "/1_2");
  PlainSocket client = PlainSocket::Stream();
  const auto transport = server.AcceptFrom(client);
  fs::remove_all(below);
  TransportSink events;
  transport->OpenWithSink(&events);
  client.Send("goes on");
  EXPECT_TRUE(Await([&] { return events.received == "goes on"; }));
  EXPECT_EQ(server.GetAcceptor()->StopListen(), AW_OK);
  EXPECT_EQ(Listen(*server.GetAcceptor(), server.sink, below + "/1_2"),
            static_cast<AWResult>(ENOENT));
}

TEST(IPCAcceptor, AForkedChildThatExitsLeavesItListening) {
  const TempDir dir;
  for (const bool stops : {false, true}) {
    Server server(Endpoint(dir));
    EXPECT_TRUE(ExitInChild([&] {
      if (stops) server.GetAcceptor()->StopListen();
      server.GetAcceptor() = nullptr;
    }));
    PlainSocket client = PlainSocket::Stream();
    EXPECT_EQ(client.Connect(Endpoint(dir)), 0);
    EXPECT_TRUE(Await([&] { return server.sink.count == 1; }));
  }
}

// --- another process holds the directory ---

class DirectoryLock {
 public:
  explicit DirectoryLock(const std::string& path)
      : directory_(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    EXPECT_EQ(::flock(directory_.Get(), LOCK_EX | LOCK_NB), 0);
  }

 private:
  FileDescriptor directory_;
};

TEST(IPCAcceptor, StartWaitsForTheDirectory) {
  const TempDir dir;
  auto lock = std::make_unique<DirectoryLock>(dir.GetPath());
  IndicationSink sink;
  const auto acceptor = MakeAcceptor();
  EXPECT_EQ(Listen(*acceptor, sink, Endpoint(dir)), AW_OK);
  EXPECT_FALSE(fs::exists(Endpoint(dir)));
  lock.reset();
  EXPECT_TRUE(Await([&] { return IsServed(Endpoint(dir)); }));
  EXPECT_TRUE(Await([&] { return sink.count != 0; }));
  EXPECT_EQ(sink.got[0].reason, 0);
}

TEST(IPCAcceptor, FailureAfterTheWaitIsIndicated) {
  const TempDir dir;
  auto lock = std::make_unique<DirectoryLock>(dir.GetPath());
  IndicationSink sink;
  const auto acceptor = MakeAcceptor();
  EXPECT_EQ(Listen(*acceptor, sink, Endpoint(dir)), AW_OK);
  std::ofstream(Endpoint(dir)) << "in the way";
  lock.reset();
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  EXPECT_EQ(sink.got[0].reason, EADDRINUSE);
  EXPECT_EQ(sink.got[0].id, acceptor.Get());
  fs::remove(Endpoint(dir));
  EXPECT_EQ(Listen(*acceptor, sink, Endpoint(dir)), AW_OK);  // it had stopped
}

TEST(IPCAcceptor, OwnerWithoutMemoryForTheFailureDoesNoHarm) {
  const TempDir dir;
  auto lock = std::make_unique<DirectoryLock>(dir.GetPath());
  IndicationSink sink;
  std::atomic<bool> told{false};
  sink.onIndication = [&](IAWIPCTransport*) {
    told = true;
    throw std::bad_alloc();
  };
  const auto acceptor = MakeAcceptor();
  EXPECT_EQ(Listen(*acceptor, sink, Endpoint(dir)), AW_OK);
  std::ofstream(Endpoint(dir)) << "in the way";
  lock.reset();
  EXPECT_TRUE(Await([&] { return told.load(); }));
  fs::remove(Endpoint(dir));
  sink.onIndication = nullptr;
  EXPECT_EQ(Listen(*acceptor, sink, Endpoint(dir)), AW_OK);
}

TEST(IPCAcceptor, MayBeLetGoInTheIndicationOfAFailure) {
  const TempDir dir;
  auto lock = std::make_unique<DirectoryLock>(dir.GetPath());
  IndicationSink sink;
  auto acceptor = MakeAcceptor();
  sink.onIndication = [&](IAWIPCTransport*) { acceptor = nullptr; };
  EXPECT_EQ(Listen(*acceptor, sink, Endpoint(dir)), AW_OK);
  std::ofstream(Endpoint(dir)) << "in the way";
  lock.reset();
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
}

TEST(IPCAcceptor, WaitingEndsWithTheStop) {
  const TempDir dir;
  auto lock = std::make_unique<DirectoryLock>(dir.GetPath());
  IndicationSink sink;
  const auto acceptor = MakeAcceptor();
  EXPECT_EQ(Listen(*acceptor, sink, Endpoint(dir)), AW_OK);
  EXPECT_EQ(acceptor->StopListen(), AW_OK);
  lock.reset();
  HandClock clock;
  for (int i = 0; i < 10; ++i) clock.Advance(std::chrono::milliseconds(10));
  EXPECT_EQ(sink.count, 0);
  EXPECT_FALSE(fs::exists(Endpoint(dir)));
}

// --- accepting ---

CAWIPCAddr PeerOf(IAWIPCTransport& transport) {
  CAWIPCAddr address("was not set");
  EXPECT_EQ(transport.GetOption(keelbase::AW_OPT_PEER_ADDRESS, &address), AW_OK);
  return address;
}

TEST(IPCAcceptor, ConnectorsOwnEndpointIsThePeerAddress) {
  const TempDir dir;
  Server server(Endpoint(dir));
  const auto connector = MakeConnector();
  IndicationSink sink;
  const CAWIPCAddr local("/another/root/3_4");  // its name counts, in the acceptor's directory
  connector->AsyncConnect(&sink, CAWIPCAddr(Endpoint(dir)), 0, &local);
  const auto transport = server.Accept();
  EXPECT_EQ(PeerOf(*transport).GetPath(), dir.GetPath() + "/3_4");
  CAWIPCAddr own;
  EXPECT_EQ(transport->GetOption(keelbase::AW_OPT_LOCAL_ADDRESS, &own), AW_OK);
  EXPECT_EQ(own.GetPath(), Endpoint(dir));
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
}

TEST(IPCAcceptor, ManyConnectorsMayHaveOneName) {
  const TempDir dir;
  Server server(Endpoint(dir));
  const CAWIPCAddr local(dir.GetPath() + "/3_4");
  std::vector<CAWAutoPtr<IAWIPCConnector>> connectors;
  IndicationSink sink;
  for (int i = 0; i < 20; ++i) {
    connectors.push_back(MakeConnector());
    connectors.back()->AsyncConnect(&sink, CAWIPCAddr(Endpoint(dir)), 0, &local);
  }
  for (int i = 0; i < 20; ++i) EXPECT_EQ(PeerOf(*server.Accept()), local);
  EXPECT_TRUE(Await([&] { return sink.count == 20; }));
  for (const auto& indication : sink.got) EXPECT_EQ(indication.reason, 0);
}

TEST(IPCAcceptor, ClientsThatClaimNothingHaveAnEmptyAddress) {
  const TempDir dir;
  Server server(Endpoint(dir));
  PlainSocket unnamed = PlainSocket::Stream();
  EXPECT_EQ(PeerOf(*server.AcceptFrom(unnamed)).GetPath(), "");
  PlainSocket named = PlainSocket::Stream();
  ASSERT_EQ(named.Bind(dir.GetPath() + "/7_8"), 0);
  EXPECT_EQ(PeerOf(*server.AcceptFrom(named)).GetPath(), "");
  const auto connector = MakeConnector();
  IndicationSink sink;
  connector->AsyncConnect(&sink, CAWIPCAddr(Endpoint(dir)), 0, nullptr);
  EXPECT_EQ(PeerOf(*server.Accept()).GetPath(), "");
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
}

TEST(IPCAcceptor, GarbageAsANameIsNoAddress) {
  const TempDir dir;
  Server server(Endpoint(dir));
  std::mt19937 random(4711);
  for (int i = 0; i < 100; ++i) {
    std::string name(1, '\0');
    if (i % 2 == 0) name += "zarn-ipc/";
    const std::size_t size = random() % (100 - name.size());
    for (std::size_t k = 0; k < size; ++k) name += static_cast<char>(random());
    if (name.size() == 1) name += "x";
    PlainSocket client = PlainSocket::Stream();
    ASSERT_EQ(client.Bind(name), 0);
    const std::string address = PeerOf(*server.AcceptFrom(client)).GetPath();
    if (address.empty()) continue;
    EXPECT_EQ(address.find(dir.GetPath() + "/"), 0U);
    EXPECT_EQ(address.find('/', dir.GetPath().size() + 1), std::string::npos);
  }
}

TEST(IPCAcceptor, MayBeStoppedAndLetGoInsideItsIndication) {
  const TempDir dir;
  for (const bool letGo : {false, true}) {
    IndicationSink sink;
    auto acceptor = MakeAcceptor();
    sink.onIndication = [&](IAWIPCTransport*) {
      if (letGo)
        acceptor = nullptr;
      else
        acceptor->StopListen();
    };
    ASSERT_EQ(Listen(*acceptor, sink, Endpoint(dir)), AW_OK);
    PlainSocket one = PlainSocket::Stream();
    PlainSocket two = PlainSocket::Stream();
    ASSERT_EQ(one.Connect(Endpoint(dir)), 0);
    ASSERT_EQ(two.Connect(Endpoint(dir)), 0);
    EXPECT_TRUE(Await([&] { return sink.count != 0; }));
    Turn();
    EXPECT_EQ(sink.count, 1);
    EXPECT_FALSE(fs::exists(Endpoint(dir)));
  }
}

TEST(IPCAcceptor, MayListenElsewhereInsideItsIndication) {
  const TempDir dir;
  IndicationSink sink;
  const auto acceptor = MakeAcceptor();
  sink.onIndication = [&](IAWIPCTransport*) {
    acceptor->StopListen();
    EXPECT_EQ(Listen(*acceptor, sink, dir.GetPath() + "/5_6"), AW_OK);
  };
  ASSERT_EQ(Listen(*acceptor, sink, Endpoint(dir)), AW_OK);
  PlainSocket one = PlainSocket::Stream();
  ASSERT_EQ(one.Connect(Endpoint(dir)), 0);
  EXPECT_TRUE(Await([&] { return sink.count == 1; }));
  PlainSocket two = PlainSocket::Stream();
  ASSERT_EQ(two.Connect(dir.GetPath() + "/5_6"), 0);
  EXPECT_TRUE(Await([&] { return sink.count == 2; }));
}

TEST(IPCAcceptor, ConnectionThatNobodyTookIsClosed) {
  const TempDir dir;
  Server server(Endpoint(dir));
  server.sink.keep = false;
  PlainSocket client = PlainSocket::Stream();
  ASSERT_EQ(client.Connect(Endpoint(dir)), 0);
  EXPECT_TRUE(Await([&] {
    client.Receive();
    return client.ended;
  }));
}

// --- lack of descriptors ---

TEST(IPCAcceptor, LackOfDescriptorsIsAnErrorOfTheStart) {
  const TempDir dir;
  {
    const DescriptorShortage shortage;
    EXPECT_EQ(ResultAt(Endpoint(dir)), static_cast<AWResult>(EMFILE));
  }
  Server server(Endpoint(dir));
  EXPECT_TRUE(IsServed(Endpoint(dir)));
}

TEST(IPCAcceptor, LackOfDescriptorsPausesAcceptingWithoutABusyLoop) {
  using keelbase::CAWThreadManager;
  auto* network = CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_NETWORK);
  const TempDir dir;
  Server server(Endpoint(dir));
  PlainSocket client = PlainSocket::Stream();
  double used = 0;
  {
    const DescriptorShortage shortage;
    ASSERT_EQ(client.Connect(Endpoint(dir)), 0);
    keelbase::internal::Timer end(network->GetLoop());
    end.Start(std::chrono::milliseconds(600), 1, [&] { network->Stop(); });
    used = zarn::test::ProcessorSeconds();
    EXPECT_EQ(network->Run(), AW_OK);
    used = zarn::test::ProcessorSeconds() - used;
  }
  EXPECT_EQ(server.sink.count, 0);
  EXPECT_LT(used, 0.2);
  EXPECT_NE(server.Accept(), nullptr);
}

// --- races ---

// A racer: for each message from its parent it listens at the endpoint, and answers whether it won.
// It has won when somebody connects to it, and lost when it is told so.
void RunRacer() {
  const int channel = ChildTest::ParentChannel();
  for (char command; ::recv(channel, &command, 1, 0) == 1;) {
    IndicationSink sink;
    auto acceptor = MakeAcceptor();
    char answer = 'L';
    if (Listen(*acceptor, sink, ChildTest::Argument()) == AW_OK) {
      EXPECT_TRUE(Await([&] { return sink.count != 0; }));
      answer = !sink.got.empty() && sink.got[0].reason == 0 ? 'W' : 'L';
    }
    ::send(channel, &answer, 1, 0);
    ::recv(channel, &command, 1, 0);
    acceptor = nullptr;
    ::send(channel, "", 1, 0);
  }
  std::exit(0);
}

char Answer(const ChildTest& racer) {
  pollfd ready{racer.GetChannel(), POLLIN, 0};
  char answer = '?';
  if (::poll(&ready, 1, 20000) == 1) ::recv(racer.GetChannel(), &answer, 1, 0);
  return answer;
}

TEST(IPCAcceptor, OneOfTwoProcessesThatRaceForAnEndpointWins) {
  if (ChildTest::Role() == "racer") RunRacer();
  const TempDir dir;
  ChildTest one("racer", Endpoint(dir));
  ChildTest two("racer", Endpoint(dir));
  const int rounds = testsupport::ProofCount(1000);
  int wonByOne = 0;
  for (int round = 0; round < rounds; ++round) {
    if (round % 2 == 0) {  // every second time over what a dead process has left
      PlainSocket dead = PlainSocket::Stream();
      ASSERT_EQ(dead.Bind(Endpoint(dir)), 0);
    }
    ASSERT_EQ(::send(one.GetChannel(), "", 1, 0), 1);
    ASSERT_EQ(::send(two.GetChannel(), "", 1, 0), 1);
    PlainSocket client = PlainSocket::Stream();
    ASSERT_TRUE(Await([&] { return client.Connect(Endpoint(dir)) == 0; }));
    std::string answers = {Answer(one), Answer(two)};
    if (answers == "WL") ++wonByOne;
    EXPECT_TRUE(answers == "WL" || answers == "LW") << answers << " in round " << round;
    if (::testing::Test::HasFailure()) return;
    EXPECT_TRUE(IsServed(Endpoint(dir)));
    for (const ChildTest* racer : {&one, &two}) {
      ASSERT_EQ(::send(racer->GetChannel(), "", 1, 0), 1);
      ASSERT_NE(Answer(*racer), '?');
    }
    EXPECT_FALSE(fs::exists(Endpoint(dir)));
  }
  std::printf("races: %d, won by the first process: %d\n", rounds, wonByOne);
}

}  // namespace
}  // namespace fipc
