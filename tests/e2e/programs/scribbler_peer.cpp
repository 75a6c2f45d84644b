// scribbler_peer.cpp - a hostile peer over shared memory that knows no library:
//   scribbler_peer connect|accept 1_2
//
// Connects to the endpoint again and again, or listens there, and then writes values of every kind
// over all that is shared: positions, flags and bytes, as fast as it can, for up to 50 ms, before
// it goes without a word. Events: ready; stats {rounds}. Command: stats.
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>

#include "Program.h"

namespace {

using e2e::Event;

constexpr std::size_t kRing = 64 * 1024;
constexpr std::size_t kControl = 4096;

struct Welcome {
  char magic[4] = {'Z', 'S', 'H', 'M'};
  std::uint16_t version = 2;
  std::uint16_t reserved = 0;
};
struct Greeting {
  char magic[4] = {'Z', 'S', 'H', 'M'};
  std::uint16_t version = 2;
  std::uint16_t first = 3;
  std::uint16_t second = 4;
  std::uint16_t reserved = 0;
  std::uint32_t ring = kRing;
};
struct Answer {
  char magic[4] = {'Z', 'S', 'H', 'M'};
  std::uint16_t version = 2;
  std::uint16_t reserved = 0;
  std::uint32_t result = 0;
};

// One connection of ours: the memory and the socket.
class Victim {
 public:
  Victim(int socket, int memory) : socket_(socket), memory_(memory) {
    struct stat status {};
    if (::fstat(memory, &status) != 0) return;
    size_ = static_cast<std::size_t>(status.st_size);
    void* mapped = ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0);
    if (mapped != MAP_FAILED) bytes_ = static_cast<char*>(mapped);
  }
  ~Victim() {
    if (bytes_ != nullptr) ::munmap(bytes_, size_);
    ::close(socket_);
    ::close(memory_);
  }
  Victim(const Victim&) = delete;
  Victim& operator=(const Victim&) = delete;

  void ScribbleFor(std::chrono::microseconds time, std::mt19937_64& random) {
    if (bytes_ == nullptr) return;
    const auto end = std::chrono::steady_clock::now() + time;
    const auto kind = random() % 4;
    const auto mask = (std::uint64_t{1} << random() % 12) - 1;  // how seldom it wakes
    for (std::uint64_t i = 0; std::chrono::steady_clock::now() < end; ++i) {
      switch (kind) {
        case 0:
          Put(random() % (kControl / 8), random());
          break;
        case 1:
          MovePosition(random);
          break;
        case 2:
          Put(random() % (size_ / 8), random());
          break;
        default:
          random() % 2 == 0 ? MovePosition(random) : ReadAll();
          PutFrame(random);
      }
      if ((random() & mask) == 0) ::send(socket_, "ww", 1 + i % 2, MSG_NOSIGNAL | MSG_DONTWAIT);
    }
  }

 private:
  std::atomic_ref<std::uint64_t> Word(std::size_t index) {
    return std::atomic_ref<std::uint64_t>(reinterpret_cast<std::uint64_t*>(bytes_)[index]);
  }
  void Put(std::size_t index, std::uint64_t value) {
    Word(index).store(value, std::memory_order_relaxed);
  }

  // Steps that might be right: most keep the connection alive.
  void MovePosition(std::mt19937_64& random) {
    static constexpr std::size_t kPositions[] = {0, 16, 64, 80};
    const std::size_t index = kPositions[random() % 4];
    const std::uint64_t step = random() % 50 == 0 ? random() : random() % 4096;
    Put(index, Word(index).load(std::memory_order_relaxed) + step);
    Put(kFlags[random() % 4], random() % 3);
  }
  // As one who reads all that comes.
  void ReadAll() {
    Put(16, Word(0).load());
    Put(80, Word(64).load());
  }
  // The head of a message, somewhere.
  void PutFrame(std::mt19937_64& random) {
    const std::size_t at = kControl + random() % (2 * kRing - 16);
    const std::uint16_t size = static_cast<std::uint16_t>(random() % 500);
    const std::array<std::uint8_t, 12> head = {0,
                                               7,
                                               static_cast<std::uint8_t>((size + 12) >> 8),
                                               static_cast<std::uint8_t>(size + 12),
                                               0,
                                               0,
                                               0,
                                               1,
                                               0,
                                               0,
                                               static_cast<std::uint8_t>(size >> 8),
                                               static_cast<std::uint8_t>(size)};
    if (at + head.size() <= size_) std::memcpy(bytes_ + at, head.data(), head.size());
  }

  static constexpr std::size_t kFlags[] = {32, 48, 96, 112};

  int socket_;
  int memory_;
  char* bytes_ = nullptr;
  std::size_t size_ = 0;
};

class Scribbler {
 public:
  explicit Scribbler(const char* endpoint) {
    const char* root = std::getenv("ZARN_ROOT");
    const std::string path =
        std::string(root != nullptr ? root : "") + "/system/zarn/shmipc/" + endpoint;
    address_.sun_family = AF_UNIX;
    std::memcpy(address_.sun_path, path.data(),
                std::min(path.size(), sizeof address_.sun_path - 1));
  }

  bool Listen() {
    listening_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    return ::bind(listening_, Address(), sizeof address_) == 0 && ::listen(listening_, 100) == 0;
  }

  void RunConnecting() {
    while (!over) {
      const int memory = MakeMemory();
      const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      Welcome welcome;
      Answer answer;
      const bool connected =
          ::connect(socket, Address(), sizeof address_) == 0 &&
          ::recv(socket, &welcome, sizeof welcome, 0) == sizeof welcome && Greet(socket, memory) &&
          ::recv(socket, &answer, sizeof answer, 0) == sizeof answer && answer.result == 0;
      Victim victim(socket, memory);
      if (connected) Scribble(victim);
    }
  }

  void RunAccepting() {
    while (!over) {
      pollfd ready{listening_, POLLIN, 0};
      if (::poll(&ready, 1, 50) != 1) continue;
      const int socket = ::accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC);
      const Welcome welcome;
      const bool welcomed = ::send(socket, &welcome, sizeof welcome, MSG_NOSIGNAL) > 0;
      const int memory = welcomed ? TakeMemory(socket) : -1;
      Victim victim(socket, memory);
      const Answer answer;
      if (random_() % 8 == 0) Scribble(victim);  // before it is answered, too
      if (memory >= 0 && ::send(socket, &answer, sizeof answer, MSG_NOSIGNAL) > 0) Scribble(victim);
    }
  }

  std::atomic<bool> over{false};
  std::atomic<std::uint64_t> rounds{0};

 private:
  const sockaddr* Address() const { return reinterpret_cast<const sockaddr*>(&address_); }

  static int MakeMemory() {
    const int memory = ::memfd_create("scribbler", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    constexpr off_t kSize = kControl + 2 * kRing;
    if (::ftruncate(memory, kSize) != 0 || ::fallocate(memory, 0, 0, kSize) != 0) std::exit(4);
    ::fcntl(memory, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
    return memory;
  }

  static bool Greet(int socket, int memory) {
    Greeting greeting;
    iovec piece{&greeting, sizeof greeting};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr header{};
    header.msg_iov = &piece;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    cmsghdr* part = CMSG_FIRSTHDR(&header);
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = SCM_RIGHTS;
    part->cmsg_len = CMSG_LEN(sizeof memory);
    std::memcpy(CMSG_DATA(part), &memory, sizeof memory);
    return ::sendmsg(socket, &header, MSG_NOSIGNAL) == sizeof greeting;
  }

  static int TakeMemory(int socket) {
    Greeting greeting;
    iovec piece{&greeting, sizeof greeting};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr header{};
    header.msg_iov = &piece;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    if (::recvmsg(socket, &header, MSG_CMSG_CLOEXEC) <= 0) return -1;
    const cmsghdr* part = CMSG_FIRSTHDR(&header);
    int memory = -1;
    if (part != nullptr) std::memcpy(&memory, CMSG_DATA(part), sizeof memory);
    return memory;
  }

  void Scribble(Victim& victim) {
    victim.ScribbleFor(std::chrono::microseconds(random_() % 50000), random_);
    ++rounds;
  }

  sockaddr_un address_{};
  int listening_ = -1;
  std::mt19937_64 random_{std::random_device{}()};
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  Scribbler scribbler(argv[2]);
  const bool accepts = std::string(argv[1]) == "accept";
  if (accepts && !scribbler.Listen()) return 3;
  Event("ready").With("accepts", accepts);
  std::thread work([&] { accepts ? scribbler.RunAccepting() : scribbler.RunConnecting(); });
  e2e::ReadCommands([&](const e2e::Words& words) {
    if (words[0] == "stats") Event("stats").With("rounds", scribbler.rounds.load());
  });
  scribbler.over = true;
  work.join();
  return 0;
}
