// ShmGreeting.h - what the two sides say to each other before they share memory.
//
// The connector sends a greeting with the descriptor of the memory file, the acceptor answers with
// a result. After that nothing but single bytes goes over the socket: each wakes the other side.
#pragma once

#include <cstdint>

#include "fshmipc/CAWShmIPCAddr.h"
#include "keelbase/internal/FileDescriptor.h"

namespace fshmipc {

using keelbase::internal::FileDescriptor;

// Of the greeting and of everything in the shared memory; whoever has another one is refused.
inline constexpr std::uint16_t kLayoutVersion = 1;

// The first two fields stay for ever, so that any two versions can tell each other apart.
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

// All answer 0 or an errno value; EAGAIN: nothing has come yet.

int SendGreeting(int socket, const CAWShmIPCAddr& local, std::uint32_t ringSize, int memory);

// EPROTONOSUPPORT: another version. EPROTO: no greeting, or not one descriptor with it; what came
// along is closed. EMFILE: no descriptor was free for the one that came.
int ReceiveGreeting(int socket, Greeting& greeting, FileDescriptor& memory);

int SendAnswer(int socket, int result);

// What the acceptor has answered, if that is no success.
int ReceiveAnswer(int socket);

}  // namespace fshmipc
