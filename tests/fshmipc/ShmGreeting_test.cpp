// ShmGreeting_test.cpp - what is said before memory is shared, by peers of every kind.
#include "ShmGreeting.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "DescriptorShortage.h"
#include "RawPeer.h"

namespace fshmipc {
namespace {

using zarn::test::OpenDescriptors;

struct Sockets {
  Sockets() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    near.Reset(ends[0]);
    far.Reset(ends[1]);
  }
  FileDescriptor near;
  FileDescriptor far;
};

const CAWShmIPCAddr kOwn(3, 4);

// The bytes of a right welcome, greeting and answer.
std::string WelcomeBytes() {
  Sockets sockets;
  EXPECT_EQ(SendWelcome(sockets.near.Get()), 0);
  std::string bytes(100, '\0');
  bytes.resize(static_cast<std::size_t>(::recv(sockets.far.Get(), bytes.data(), bytes.size(), 0)));
  return bytes;
}
std::string GreetingBytes() {
  Sockets sockets;
  EXPECT_EQ(SendGreeting(sockets.near.Get(), kOwn, 65536, sockets.far.Get()), 0);
  std::string bytes(100, '\0');
  bytes.resize(static_cast<std::size_t>(::recv(sockets.far.Get(), bytes.data(), bytes.size(), 0)));
  return bytes;
}
std::string AnswerBytes(int result) {
  Sockets sockets;
  EXPECT_EQ(SendAnswer(sockets.near.Get(), result), 0);
  std::string bytes(100, '\0');
  bytes.resize(static_cast<std::size_t>(::recv(sockets.far.Get(), bytes.data(), bytes.size(), 0)));
  return bytes;
}

template <class Value>
std::string With(std::string bytes, std::size_t at, Value value) {
  std::memcpy(bytes.data() + at, &value, sizeof value);
  return bytes;
}

// What a receiver makes of it; no descriptor may be left over.
int ResultOf(const std::string& bytes, std::size_t descriptors) {
  Sockets sockets;
  const std::vector<int> passed(descriptors, sockets.near.Get());
  EXPECT_TRUE(SendWithDescriptors(sockets.far.Get(), bytes.data(), bytes.size(), passed));
  const std::size_t before = OpenDescriptors();
  int result = -1;
  {
    Greeting greeting;
    FileDescriptor memory;
    result = ReceiveGreeting(sockets.near.Get(), greeting, memory);
    EXPECT_LE(OpenDescriptors(), before + 1);
  }
  EXPECT_EQ(OpenDescriptors(), before);
  return result;
}

// As above, for what bears no descriptor.
int ResultOf(int (&receive)(int), const std::string& bytes, std::size_t descriptors = 0) {
  Sockets sockets;
  const std::vector<int> passed(descriptors, sockets.far.Get());
  const std::size_t before = OpenDescriptors();
  EXPECT_TRUE(SendWithDescriptors(sockets.far.Get(), bytes.data(), bytes.size(), passed));
  const int result = receive(sockets.near.Get());
  EXPECT_EQ(OpenDescriptors(), before);
  return result;
}
int ResultOfWelcome(const std::string& bytes) { return ResultOf(ReceiveWelcome, bytes); }
int ResultOfAnswer(const std::string& bytes) { return ResultOf(ReceiveAnswer, bytes); }

TEST(ShmGreeting, ArrivesWithItsDescriptor) {
  Sockets sockets;
  const FileDescriptor memory(::memfd_create("test", MFD_CLOEXEC));
  ASSERT_EQ(::write(memory.Get(), "content", 7), 7);
  ASSERT_EQ(SendGreeting(sockets.far.Get(), kOwn, 131072, memory.Get()), 0);
  Greeting greeting;
  FileDescriptor received;
  ASSERT_EQ(ReceiveGreeting(sockets.near.Get(), greeting, received), 0);
  EXPECT_EQ(greeting.localFirst, 3);
  EXPECT_EQ(greeting.localSecond, 4);
  EXPECT_EQ(greeting.ringSize, 131072U);
  char content[7];
  EXPECT_EQ(::pread(received.Get(), content, 7, 0), 7);
  EXPECT_EQ(std::string(content, 7), "content");
  EXPECT_NE(::fcntl(received.Get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST(ShmGreeting, NothingYetIsToldFromTheEnd) {
  Sockets sockets;
  Greeting greeting;
  FileDescriptor memory;
  EXPECT_EQ(ReceiveGreeting(sockets.near.Get(), greeting, memory), EAGAIN);
  EXPECT_EQ(ReceiveWelcome(sockets.near.Get()), EAGAIN);
  EXPECT_EQ(ReceiveAnswer(sockets.near.Get()), EAGAIN);
  sockets.far.Reset();
  EXPECT_EQ(ReceiveGreeting(sockets.near.Get(), greeting, memory), ECONNRESET);
  EXPECT_EQ(ReceiveWelcome(sockets.near.Get()), ECONNRESET);
  EXPECT_EQ(ReceiveAnswer(sockets.near.Get()), ECONNRESET);
}

TEST(ShmGreeting, SendingToNobodyIsAnErrorWithoutASignal) {
  Sockets sockets;
  sockets.far.Reset();
  EXPECT_EQ(SendGreeting(sockets.near.Get(), kOwn, 65536, sockets.near.Get()), EPIPE);
  EXPECT_EQ(SendWelcome(sockets.near.Get()), EPIPE);
  EXPECT_EQ(SendAnswer(sockets.near.Get(), 0), EPIPE);
  EXPECT_EQ(SendGreeting(-1, kOwn, 65536, 0), EBADF);
}

TEST(ShmGreeting, LayoutStartsWithMagicAndVersionForEver) {
  for (const std::string& bytes : {WelcomeBytes(), GreetingBytes(), AnswerBytes(0)})
    EXPECT_EQ(bytes.substr(0, 6), std::string("ZSHM\2\0", 6));
  EXPECT_EQ(WelcomeBytes().size(), 8U);
  EXPECT_EQ(GreetingBytes().size(), 16U);
  EXPECT_EQ(AnswerBytes(0).size(), 12U);
}

TEST(ShmGreeting, OtherVersionIsRefusedAsSuchWhateverElseItSays) {
  for (const int number : {0, 1, 3, 255, 65535}) {
    const auto version = static_cast<std::uint16_t>(number);
    const std::string other = With(GreetingBytes(), 4, version);
    EXPECT_EQ(ResultOf(other, 1), EPROTONOSUPPORT);
    EXPECT_EQ(ResultOf(other, 0), EPROTONOSUPPORT);
    EXPECT_EQ(ResultOf(other, 3), EPROTONOSUPPORT);
    EXPECT_EQ(ResultOf(other.substr(0, 6), 1), EPROTONOSUPPORT);
    EXPECT_EQ(ResultOf(other + "and more", 1), EPROTONOSUPPORT);
    const std::string answer = With(AnswerBytes(0), 4, version);
    for (int (*receive)(int) : {ReceiveWelcome, ReceiveAnswer}) {
      EXPECT_EQ(ResultOf(*receive, answer), EPROTONOSUPPORT);
      EXPECT_EQ(ResultOf(*receive, answer.substr(0, 6)), EPROTONOSUPPORT);
      EXPECT_EQ(ResultOf(*receive, answer + "and more"), EPROTONOSUPPORT);
    }
  }
}

TEST(ShmGreeting, GarbageAndShortOnesAreRefused) {
  const std::string right = GreetingBytes();
  for (std::size_t length = 1; length < right.size(); ++length)
    EXPECT_EQ(ResultOf(right.substr(0, length), 1), EPROTO) << length;
  EXPECT_EQ(ResultOf("GET / HTTP/1.1\r\n", 0), EPROTO);
  EXPECT_EQ(ResultOf(std::string(16, '\0'), 1), EPROTO);
  EXPECT_EQ(ResultOf(std::string(16, '\xff'), 1), EPROTO);
  EXPECT_EQ(ResultOf(With(right, 0, '?'), 1), EPROTO);
  std::mt19937 random(1);
  for (int i = 0; i < 200; ++i) {
    std::string bytes(1 + random() % 40, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    EXPECT_EQ(ResultOf(bytes, random() % 12), EPROTO);
  }
}

TEST(ShmGreeting, ExactlyOneDescriptorComesWithIt) {
  EXPECT_EQ(ResultOf(GreetingBytes(), 1), 0);
  for (const std::size_t count : {0, 2, 3, 8, 9, 10, 60})
    EXPECT_EQ(ResultOf(GreetingBytes(), count), EPROTO) << count;
}

TEST(ShmGreeting, WhatFollowsIsLeftInTheSocket) {
  Sockets sockets;
  ASSERT_EQ(SendGreeting(sockets.far.Get(), kOwn, 65536, sockets.far.Get()), 0);
  ASSERT_EQ(::send(sockets.far.Get(), "w", 1, 0), 1);
  Greeting greeting;
  FileDescriptor memory;
  EXPECT_EQ(ReceiveGreeting(sockets.near.Get(), greeting, memory), 0);
  char byte = '?';
  EXPECT_EQ(::recv(sockets.near.Get(), &byte, 1, 0), 1);
  EXPECT_EQ(byte, 'w');
}

TEST(ShmGreeting, WelcomesThatMakeNoSenseAreRefused) {
  const std::string right = WelcomeBytes();
  EXPECT_EQ(ResultOfWelcome(right), 0);
  for (std::size_t length = 1; length < right.size(); ++length)
    EXPECT_EQ(ResultOfWelcome(right.substr(0, length)), EPROTO) << length;
  EXPECT_EQ(ResultOfWelcome(With(right, 0, '?')), EPROTO);
  EXPECT_EQ(ResultOfWelcome("HTTP/1.1 200 OK\r\n"), EPROTO);
}

TEST(ShmGreeting, AnswerTellsTheReason) {
  for (const int reason : {0, ENOMEM, EPROTO, EPROTONOSUPPORT, 4095})
    EXPECT_EQ(ResultOfAnswer(AnswerBytes(reason)), reason);
}

TEST(ShmGreeting, AnswersThatMakeNoSenseAreRefused) {
  const std::string right = AnswerBytes(0);
  for (std::size_t length = 1; length < right.size(); ++length)
    EXPECT_EQ(ResultOfAnswer(right.substr(0, length)), EPROTO) << length;
  for (const std::uint32_t result : {4096U, 10001U, 0x80000000U, ~0U})
    EXPECT_EQ(ResultOfAnswer(With(right, 8, result)), EPROTO) << result;
  EXPECT_EQ(ResultOfAnswer("HTTP/1.1 200 OK\r\n"), EPROTO);
}

TEST(ShmGreeting, AnswerIsNeverTakenForNoneYet) {
  EXPECT_NE(ResultOfAnswer(AnswerBytes(EAGAIN)), EAGAIN);
}

TEST(ShmGreeting, DescriptorsThatComeWithAWelcomeOrAnAnswerAreClosed) {
  EXPECT_EQ(ResultOf(ReceiveWelcome, WelcomeBytes(), 20), 0);
  EXPECT_EQ(ResultOf(ReceiveAnswer, AnswerBytes(0), 20), 0);
}

}  // namespace
}  // namespace fshmipc
