// PeerCheck_test.cpp - who may be at the other end.
#include "keelbase/internal/PeerCheck.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "RealIpc.h"

namespace fipc {
namespace {

using keelbase::internal::CheckPeer;
using keelbase::internal::FileDescriptor;
using namespace zarn::test;

TEST(PeerCheck, OwnUserIsLetIn) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const FileDescriptor one(ends[0]);
  const FileDescriptor two(ends[1]);
  keelbase::CAWPeerCredentials who;
  EXPECT_EQ(CheckPeer(one.Get(), false, who), 0);
  EXPECT_EQ(who.processId, ::getpid());
  EXPECT_EQ(who.userId, ::geteuid());
}

TEST(PeerCheck, WhatIsNoSocketIsAnError) {
  keelbase::CAWPeerCredentials who;
  const FileDescriptor file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(CheckPeer(file.Get(), true, who), ENOTSOCK);
}

// Connects as another user; the socket is opened to everybody for that, as nobody should do.
pid_t ConnectAsNobody(const TempDir& dir, const std::string& path) {
  EXPECT_EQ(::chmod(dir.GetPath().c_str(), 0711), 0);
  EXPECT_EQ(::chmod(path.c_str(), 0666), 0);
  sockaddr_un address;
  const socklen_t size = MakeAddress(path, address);
  const pid_t child = ::fork();
  if (child != 0) return child;
  const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(2);
  if (::connect(socket, reinterpret_cast<sockaddr*>(&address), size) != 0) ::_exit(3);
  char byte;
  ::_exit(::recv(socket, &byte, 1, 0) == 1 ? 0 : 1);
}

TEST(PeerCheck, OtherUsersAreLetInOnlyWhenAnybodyMay) {
  if (::geteuid() != 0) return;  // only root can become somebody else
  for (const bool anybody : {false, true}) {
    const TempDir dir;
    const std::string path = dir.GetPath() + "/1_2";
    CAWAutoPtr<IAWIPCAcceptor> acceptor = MakeAcceptor();
    bool option = anybody;
    EXPECT_EQ(acceptor->SetOption(AW_OPT_ALLOW_ANY_USER, &option), AW_OK);
    IndicationSink sink;
    ASSERT_EQ(acceptor->StartListen(&sink, CAWIPCAddr(path)), AW_OK);
    const pid_t child = ConnectAsNobody(dir, path);
    sink.onIndication = [](IAWIPCTransport* transport) {
      CAWMessageBlock block("x", 1, CAWMessageBlock::borrow);
      EXPECT_EQ(transport->SendData(block, nullptr), AW_OK);
    };
    int status = -1;
    EXPECT_TRUE(Await([&] { return ::waitpid(child, &status, WNOHANG) == child; }));
    EXPECT_EQ(WEXITSTATUS(status), anybody ? 0 : 1);
    EXPECT_EQ(sink.count, anybody ? 1 : 0);
  }
}

}  // namespace
}  // namespace fipc
