// bench_ring.cpp - what two processors can do with shared memory: a bare ring each way, messages
// read in place, both sides trusting each other.
//
// With --spin a side that has nothing to do looks again, a microsecond of pause and then yielding
// between looks; without, it sleeps on an eventfd that the other side writes to when it sees a
// flag.
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>

#include "common/Bench.h"
#include "keelbase/internal/Processor.h"

namespace {

using namespace bench;

constexpr std::size_t kSize = 2 * 1024 * 1024;      // as the rings of zarnutils have
constexpr std::size_t kStep = 8;                    // messages begin at multiples
constexpr std::size_t kFlushSize = 16384;           // the reader's flag is looked at so often
constexpr std::uint64_t kSkip = ~std::uint64_t{0};  // in place of a length: go on at the beginning

struct RingControl {
  alignas(128) std::atomic<std::uint64_t> head;
  alignas(128) std::atomic<std::uint64_t> tail;
  alignas(128) std::atomic<std::uint32_t> readerSleeps;
  alignas(128) std::atomic<std::uint32_t> writerSleeps;
};

struct Ring {
  RingControl control;
  alignas(128) char bytes[kSize];
};

struct Shared {
  Ring ring[2];  // of the sender, of the answers
};

// Descriptors: the memory, then for each ring one to wake its reader and one to wake its writer.
using Descriptors = std::array<int, 5>;

std::uint64_t LengthOf(std::size_t size) { return (size + kStep + kStep - 1) / kStep * kStep; }

// Waits for `ready`, by spinning for a while or by sleeping after `flag` was set.
class Waiter {
 public:
  Waiter(unsigned spinUs, std::atomic<std::uint32_t>& flag, int event)
      : spin_(spinUs * 1e-6), flag_(flag), event_(event) {}

  template <class Ready>
  void WaitFor(Ready ready) {
    for (double start = 0; !ready();) {
      if (spin_ == 0) {
        Sleep(ready);
        continue;
      }
      const double now = Now();
      if (start == 0) start = now;
      if (now - start < 1e-6)
        keelbase::internal::Pause();
      else if (now - start < spin_)
        ::sched_yield();
      else
        Sleep(ready);
    }
  }

  void Wake() {
    if (flag_.load(std::memory_order_seq_cst) == 0 || flag_.exchange(0) == 0) return;
    const std::uint64_t one = 1;
    if (::write(event_, &one, sizeof one) != sizeof one) FailErrno("eventfd");
  }

 private:
  template <class Ready>
  void Sleep(Ready ready) {
    flag_.store(1, std::memory_order_seq_cst);
    if (ready() && flag_.exchange(0) != 0) return;
    std::uint64_t count;
    if (::read(event_, &count, sizeof count) != sizeof count) FailErrno("eventfd");
  }

  double spin_;
  std::atomic<std::uint32_t>& flag_;
  int event_;
};

class Writer {
 public:
  Writer(Ring& ring, unsigned spinUs, int wakeReader, int wakeWriter)
      : ring_(ring),
        reader_(spinUs, ring.control.readerSleeps, wakeReader),
        room_(spinUs, ring.control.writerSleeps, wakeWriter) {}

  void Add(const char* message, std::size_t size) {
    const std::uint64_t length = LengthOf(size);
    const std::uint64_t untilEnd = kSize - head_ % kSize;
    if (untilEnd < length) {
      WaitForRoom(untilEnd);
      std::memcpy(ring_.bytes + head_ % kSize, &kSkip, kStep);
      head_ += untilEnd;
    }
    WaitForRoom(length);
    const std::uint64_t size64 = size;
    std::memcpy(ring_.bytes + head_ % kSize, &size64, kStep);
    std::memcpy(ring_.bytes + head_ % kSize + kStep, message, size);
    head_ += length;
    ring_.control.head.store(head_, std::memory_order_release);
    if (head_ - flushed_ >= kFlushSize) Flush();
  }

  void Flush() {
    flushed_ = head_;
    ring_.control.head.store(head_, std::memory_order_seq_cst);
    reader_.Wake();
  }

 private:
  void WaitForRoom(std::uint64_t length) {
    if (kSize - (head_ - tail_) >= length) return;
    Flush();
    room_.WaitFor([&] {
      tail_ = ring_.control.tail.load(std::memory_order_seq_cst);
      return kSize - (head_ - tail_) >= length;
    });
  }

  Ring& ring_;
  Waiter reader_;
  Waiter room_;
  std::uint64_t head_ = 0;
  std::uint64_t tail_ = 0;
  std::uint64_t flushed_ = 0;
};

class Reader {
 public:
  Reader(Ring& ring, unsigned spinUs, int wakeReader, int wakeWriter)
      : ring_(ring),
        input_(spinUs, ring.control.readerSleeps, wakeReader),
        writer_(spinUs, ring.control.writerSleeps, wakeWriter) {}

  // Waits, then calls take(message, size) for all that is there, as long as it returns true. False
  // when it did not.
  template <class Take>
  bool Read(Take take) {
    std::uint64_t head = 0;
    input_.WaitFor(
        [&] { return (head = ring_.control.head.load(std::memory_order_seq_cst)) != tail_; });
    bool go = true;
    while (go && tail_ != head) {
      std::uint64_t size;
      std::memcpy(&size, ring_.bytes + tail_ % kSize, kStep);
      if (size == kSkip) {
        tail_ += kSize - tail_ % kSize;
        continue;
      }
      go = take(ring_.bytes + tail_ % kSize + kStep, static_cast<std::size_t>(size));
      tail_ += LengthOf(size);
      if (tail_ - shown_ >= kSize / 8) Show();
    }
    Show();
    return go;
  }

 private:
  void Show() {
    shown_ = tail_;
    ring_.control.tail.store(tail_, std::memory_order_seq_cst);
    writer_.Wake();
  }

  Ring& ring_;
  Waiter input_;
  Waiter writer_;
  std::uint64_t tail_ = 0;
  std::uint64_t shown_ = 0;
};

// --- the memory, passed over a socket ---

sockaddr_un MakeAddress(const Options& options) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = options.dir + "/ring";
  if (path.size() >= sizeof address.sun_path) Fail("path too long: " + path);
  path.copy(address.sun_path, path.size());
  return address;
}

struct Passing {
  iovec piece{};
  char byte = 0;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(Descriptors))] = {};
  msghdr header{};
  Passing() {
    piece = {&byte, 1};
    header.msg_iov = &piece;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
  }
};

Descriptors MakeDescriptors() {
  Descriptors made{};
  made[0] = ::memfd_create("ring", 0);
  if (made[0] < 0 || ::ftruncate(made[0], sizeof(Shared)) != 0) FailErrno("memory");
  for (std::size_t i = 1; i < made.size(); ++i) made[i] = ::eventfd(0, 0);
  return made;
}

Descriptors Accept(const Options& options, const Control& control) {
  const sockaddr_un address = MakeAddress(options);
  const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener, 1) != 0)
    FailErrno("listen");
  control.SendReady();
  const int fd = ::accept(listener, nullptr, nullptr);
  const Descriptors made = MakeDescriptors();
  Passing passing;
  cmsghdr* part = CMSG_FIRSTHDR(&passing.header);
  part->cmsg_level = SOL_SOCKET;
  part->cmsg_type = SCM_RIGHTS;
  part->cmsg_len = CMSG_LEN(sizeof made);
  std::memcpy(CMSG_DATA(part), made.data(), sizeof made);
  if (::sendmsg(fd, &passing.header, 0) != 1) FailErrno("sendmsg");
  return made;
}

Descriptors Connect(const Options& options) {
  const sockaddr_un address = MakeAddress(options);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    FailErrno("connect");
  Passing passing;
  if (::recvmsg(fd, &passing.header, 0) != 1) FailErrno("recvmsg");
  Descriptors got{};
  std::memcpy(got.data(), CMSG_DATA(CMSG_FIRSTHDR(&passing.header)), sizeof got);
  return got;
}

Shared& Map(const Descriptors& descriptors) {
  void* memory = ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE,
                        descriptors[0], 0);
  if (memory == MAP_FAILED) FailErrno("mmap");
  return *static_cast<Shared*>(memory);
}

void Receive(const Options& options, const Control& control, Tally& tally) {
  const Descriptors fds = Accept(options, control);
  Reader reader(Map(fds).ring[0], options.spinUs, fds[1], fds[2]);
  Incoming incoming(options, tally);
  while (
      reader.Read([&](const char* data, std::size_t size) { return incoming.Take(data, size); })) {
  }
  control.SendReport(tally.meter.measured);
  control.WaitForParent();
}

void Send(const Options& options, const Control& control, Sending& sending) {
  const Descriptors fds = Connect(options);
  Writer writer(Map(fds).ring[0], options.spinUs, fds[1], fds[2]);
  sending.Start();
  Outgoing outgoing(options, sending);
  while (outgoing.Next()) writer.Add(outgoing.Message().data(), options.size);
  writer.Flush();
  control.WaitDone();
}

void Echo(const Options& options, const Control& control) {
  const Descriptors fds = Accept(options, control);
  Shared& shared = Map(fds);
  Reader reader(shared.ring[0], options.spinUs, fds[1], fds[2]);
  Writer writer(shared.ring[1], options.spinUs, fds[3], fds[4]);
  const auto answer = [&](const char* data, std::size_t size) {
    writer.Add(data, size);
    writer.Flush();
    return GetStamp(data).kind != Kind::kLast;
  };
  while (reader.Read(answer)) {
  }
  control.WaitForParent();
}

void Ask(const Options& options, const Control&, RoundTrips& trips) {
  const Descriptors fds = Connect(options);
  Shared& shared = Map(fds);
  Writer writer(shared.ring[0], options.spinUs, fds[1], fds[2]);
  Reader reader(shared.ring[1], options.spinUs, fds[3], fds[4]);
  while (trips.Next()) {
    writer.Add(trips.Message().data(), options.size);
    writer.Flush();
    reader.Read([&](const char* data, std::size_t size) {
      trips.Take(data, size);
      return false;
    });
  }
}

}  // namespace

int main(int argc, char** argv) { return Main(argc, argv, {"ring", Receive, Send, Echo, Ask}); }
