// ShmGreeting.h - what the two sides say to each other before they share memory.
//
// The acceptor speaks first: its welcome proves that somebody serves the connection. Only then the
// connector makes the memory and sends a greeting with the descriptor of its file: what is sent to
// a listener that does not accept stays allocated until that takes it or goes. The acceptor answers
// with a result. After that nothing but single bytes goes over the socket: each wakes the other.
#pragma once

#include <cstdint>

#include "fshmipc/CAWShmIPCAddr.h"
#include "keelbase/internal/FileDescriptor.h"

namespace fshmipc {

using keelbase::internal::FileDescriptor;

// Of these messages, their order and everything in the shared memory; whoever has another one is
// refused.
inline constexpr std::uint16_t kLayoutVersion = 2;

// The first two fields of each message stay for ever, so that any two versions can tell each other
// apart.
struct Welcome {
  std::uint32_t magic;
  std::uint16_t version;
  std::uint16_t reserved;  // 0
};
static_assert(sizeof(Welcome) == 8);

struct Greeting {
  std::uint32_t magic;
  std::uint16_t version;
  std::uint16_t localFirst;  // the connector's own address
  std::uint16_t localSecond;
  std::uint16_t reserved;  // 0
  std::uint32_t ringSize;
};
static_assert(sizeof(Greeting) == 16);

struct GreetingAnswer {
  std::uint32_t magic;
  std::uint16_t version;
  std::uint16_t reserved;  // 0
  std::uint32_t result;    // 0, or an errno value: why not
};
static_assert(sizeof(GreetingAnswer) == 12);

// All answer 0 or an errno value; EAGAIN: nothing has come yet. EPROTONOSUPPORT: another version
// has come. EPROTO: something else, or not all of it at once.

int SendWelcome(int socket);
int ReceiveWelcome(int socket);

int SendGreeting(int socket, const CAWShmIPCAddr& local, std::uint32_t ringSize, int memory);

// EPROTO also where not one descriptor came with it; what came along is closed. EMFILE: no
// descriptor was free for the one that came.
int ReceiveGreeting(int socket, Greeting& greeting, FileDescriptor& memory);

int SendAnswer(int socket, int result);

// What the acceptor has answered, if that is no success.
int ReceiveAnswer(int socket);

}  // namespace fshmipc
