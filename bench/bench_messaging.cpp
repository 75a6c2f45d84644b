// bench_messaging.cpp - messages from threads of a process to one delivery thread of the same
// process.
//
//   bench_messaging oneway|pingpong zarn|asio|tbb|deque [--senders N] [--seconds S] [--count]
//
// Messages are 64 bytes, and the receiver checks that each sender's come whole and in order. At
// most kWindow messages are under way. "pingpong" waits for each answer, so the delivery thread
// sleeps before the next question. Prints one JSON object.
#include <sched.h>
#include <tbb/concurrent_queue.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/Bench.h"
#include "common/Counters.h"
#include "zarn/utils/torv.h"

namespace {

using bench::Fail;

struct Message {
  std::uint64_t sequence;
  std::uint64_t sender;
  std::array<std::uint64_t, 6> filling;
};
static_assert(sizeof(Message) == 64);

constexpr std::uint64_t kEnd = ~std::uint64_t{0};  // as the sequence: the delivery thread is to end

// What a delivery thread does with a message.
using Handler = std::function<void(const Message&)>;

// --- contestants: each delivers to the handler on one thread, which sleeps when it has nothing ---

class Zarn final : public zarn::utils::ITORVSink {
 public:
  explicit Zarn(Handler handler) : handler_(std::move(handler)) {
    if (zarn::utils::TORVInit(this, nullptr) != 0) Fail("no receiver");
    zarn::utils::TORVRegisterTno(this, kTno, nullptr);
  }
  void Send(const Message& message) {
    keelbase::CAWMessageBlock block(reinterpret_cast<const char*>(&message), sizeof message,
                                    keelbase::CAWMessageBlock::borrow);
    if (zarn::utils::SendTORVMessage(block, 1, kTno) != 0) Fail("not sent");
  }
  void End() {}  // the clean-up chain does it

  void OnInit(void*) override {}
  void OnMessage(keelbase::CAWMessageBlock& block, const unsigned short&, void*) override {
    if (block.GetLength() != sizeof(Message)) Fail("a message of another length");
    Message message;
    std::memcpy(&message, block.GetReadPtr(), sizeof message);
    handler_(message);
  }
  void OnUnInit() override {}

 private:
  static constexpr unsigned short kTno = 7;
  Handler handler_;
};

class Asio {
 public:
  explicit Asio(Handler handler)
      : handler_(std::move(handler)), thread_([this] { context_.run(); }) {}
  void Send(const Message& message) {
    boost::asio::post(context_, [this, message] { handler_(message); });
  }
  void End() {
    work_.reset();
    thread_.join();
  }

 private:
  Handler handler_;
  boost::asio::io_context context_;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_{
      context_.get_executor()};
  std::thread thread_;
};

class Tbb {
 public:
  explicit Tbb(Handler handler) : handler_(std::move(handler)), thread_([this] { Deliver(); }) {}
  void Send(const Message& message) { queue_.push(message); }
  void End() {
    Send(Message{kEnd, 0, {}});
    thread_.join();
  }

 private:
  void Deliver() {
    Message message;
    for (queue_.pop(message); message.sequence != kEnd; queue_.pop(message)) handler_(message);
  }

  Handler handler_;
  tbb::concurrent_bounded_queue<Message> queue_;
  std::thread thread_;
};

class Deque {
 public:
  explicit Deque(Handler handler) : handler_(std::move(handler)), thread_([this] { Deliver(); }) {}
  void Send(const Message& message) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      queue_.push_back(message);
    }
    ready_.notify_one();
  }
  void End() {
    Send(Message{kEnd, 0, {}});
    thread_.join();
  }

 private:
  void Deliver() {
    std::deque<Message> taken;
    for (;;) {
      {
        std::unique_lock<std::mutex> lock(mutex_);
        ready_.wait(lock, [this] { return !queue_.empty(); });
        taken.swap(queue_);
      }
      for (const Message& message : taken) {
        if (message.sequence == kEnd) return;
        handler_(message);
      }
      taken.clear();
    }
  }

  Handler handler_;
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<Message> queue_;
  std::thread thread_;
};

// --- one way ---

constexpr std::uint64_t kWindow = 4096;  // messages under way, shared evenly by the senders
constexpr std::uint64_t kStride = 64;    // so many messages between two looks at the shared numbers

struct Options {
  std::string mode;
  std::string peer;
  unsigned senders = 1;
  double seconds = 1.0;
  bool count = false;
};

struct alignas(64) Delivered {
  std::atomic<std::uint64_t> count{0};
  std::uint64_t next = 0;  // the delivery thread's own
};

class OneWay {
 public:
  explicit OneWay(const Options& options)
      : options_(options), window_(kWindow / options.senders), delivered_(options.senders) {}

  void Take(const Message& message) {
    Delivered& from = delivered_[message.sender];
    if (message.sequence != from.next || message.filling.back() != message.sequence)
      Fail("expected message " + std::to_string(from.next) + ", got " +
           std::to_string(message.sequence));
    if (++from.next % kStride == 0) from.count.store(from.next, std::memory_order_release);
  }

  template <class Peer>
  void Run() {
    static auto& peer = *new Peer([this](const Message& message) { Take(message); });
    std::vector<std::thread> senders;
    for (unsigned sender = 0; sender < options_.senders; ++sender)
      senders.emplace_back([this, sender] { Send(peer, sender); });
    Sleep(options_.seconds / 5);
    meter_.Begin(CountDelivered());
    Sleep(options_.seconds);
    meter_.End(CountDelivered());
    stop_ = true;
    for (std::thread& sender : senders) sender.join();
    peer.End();
    Print();
  }

 private:
  static void Sleep(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  }

  template <class Peer>
  void Send(Peer& peer, unsigned sender) {
    Message message{0, sender, {}};
    for (; !stop_.load(std::memory_order_relaxed); ++message.sequence) {
      if (message.sequence % kStride == 0) WaitForRoom(sender, message.sequence);
      message.filling.fill(message.sequence);
      peer.Send(message);
    }
    // All of the last stride, so that nothing is under way when the delivery thread ends.
    for (; message.sequence % kStride != 0; ++message.sequence) {
      message.filling.fill(message.sequence);
      peer.Send(message);
    }
    while (delivered_[sender].count.load(std::memory_order_acquire) != message.sequence)
      ::sched_yield();
  }

  void WaitForRoom(unsigned sender, std::uint64_t sent) const {
    while (sent - delivered_[sender].count.load(std::memory_order_acquire) > window_ - kStride)
      ::sched_yield();
  }

  std::uint64_t CountDelivered() const {
    std::uint64_t all = 0;
    for (const Delivered& from : delivered_) all += from.count.load(std::memory_order_acquire);
    return all;
  }

  void Print() const {
    const bench::Measured& measured = meter_.measured;
    const auto messages = static_cast<double>(measured.messages);
    std::printf(
        "{\"rate\": %.0f, \"ns\": %.1f, \"messages\": %llu, \"allocations\": %llu, "
        "\"system_calls\": %llu}\n",
        messages / measured.seconds, 1e9 * measured.seconds / messages,
        static_cast<unsigned long long>(measured.messages),
        static_cast<unsigned long long>(measured.counts.allocations),
        static_cast<unsigned long long>(measured.counts.systemCalls));
  }

  Options options_;
  std::uint64_t window_;  // of each sender
  std::vector<Delivered> delivered_;
  std::atomic<bool> stop_{false};
  bench::Meter meter_;
};

// --- round trips ---

class PingPong {
 public:
  explicit PingPong(const Options& options) : options_(options) {}

  template <class Peer>
  void Run() {
    static auto& peer = *new Peer([this](const Message& message) { Answer(message); });
    std::vector<double> times;
    const double begin = bench::Now() + options_.seconds / 5;
    const double end = begin + options_.seconds;
    Message message{0, 0, {}};
    for (double sent = bench::Now(); sent < end; ++message.sequence) {
      peer.Send(message);
      WaitForAnswer(message.sequence);
      const double now = bench::Now();
      if (sent >= begin) times.push_back((now - sent) * 1e6);
      sent = now;
    }
    peer.End();
    if (times.empty()) Fail("no round trip was measured");
    std::sort(times.begin(), times.end());
    std::printf(
        "{\"p50_us\": %.2f, \"p90_us\": %.2f, \"p99_us\": %.2f, \"p99_9_us\": %.2f, "
        "\"messages\": %zu}\n",
        times[times.size() / 2], times[times.size() * 9 / 10], times[times.size() * 99 / 100],
        times[times.size() * 999 / 1000], times.size());
  }

 private:
  void Answer(const Message& message) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      answered_ = message.sequence + 1;
    }
    ready_.notify_one();
  }

  void WaitForAnswer(std::uint64_t sequence) {
    std::unique_lock<std::mutex> lock(mutex_);
    ready_.wait(lock, [&] { return answered_ > sequence; });
  }

  Options options_;
  std::mutex mutex_;
  std::condition_variable ready_;
  std::uint64_t answered_ = 0;
};

template <class Test>
void RunAgainst(const Options& options) {
  static Test& test = *new Test(options);  // delivery threads may outlive main()
  if (options.peer == "zarn") return test.template Run<Zarn>();
  if (options.peer == "asio") return test.template Run<Asio>();
  if (options.peer == "tbb") return test.template Run<Tbb>();
  if (options.peer == "deque") return test.template Run<Deque>();
  Fail("no contestant '" + options.peer + "'");
}

[[noreturn]] void Usage() {
  std::fprintf(stderr,
               "usage: bench_messaging oneway|pingpong zarn|asio|tbb|deque [--senders N]\n"
               "       [--seconds S] [--count]\n");
  std::exit(2);
}

Options Parse(int argc, char** argv) {
  if (argc < 3) Usage();
  Options options;
  options.mode = argv[1];
  options.peer = argv[2];
  for (int i = 3; i < argc; ++i) {
    const std::string name = argv[i];
    if (name == "--count")
      options.count = true;
    else if (++i == argc)
      Usage();
    else if (name == "--senders")
      options.senders = static_cast<unsigned>(std::atoi(argv[i]));
    else if (name == "--seconds")
      options.seconds = std::strtod(argv[i], nullptr);
    else
      Usage();
  }
  if (options.senders < 1 || options.senders > kWindow / kStride || !(options.seconds > 0)) Usage();
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = Parse(argc, argv);
  if (options.count) bench::StartCounting();
  if (options.mode == "oneway")
    RunAgainst<OneWay>(options);
  else if (options.mode == "pingpong")
    RunAgainst<PingPong>(options);
  else
    Usage();
  return 0;
}
