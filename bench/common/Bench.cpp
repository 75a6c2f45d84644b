// Bench.cpp - see Bench.h.
#include "Bench.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <thread>
#include <type_traits>

#include "Frame.h"

namespace bench {

constexpr char kFiller = 'x';  // behind the stamp

void Fail(const std::string& what) {
  std::fprintf(stderr, "bench: %s\n", what.c_str());
  std::_Exit(1);
}

void FailErrno(const std::string& what) { Fail(what + ": " + std::strerror(errno)); }

// --- measuring ---

double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double GetCpuSeconds() {
  rusage used{};
  ::getrusage(RUSAGE_SELF, &used);
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
  };
  return seconds(used.ru_utime) + seconds(used.ru_stime);
}

std::string GetAddress() {
  const char* const address = std::getenv("ZARN_BENCH_ADDRESS");
  return address == nullptr ? "127.0.0.1" : address;
}

void Meter::Begin(std::uint64_t messages) {
  if (begin_ != 0) return;
  measured.messages = messages;
  cpuAtBegin_ = GetCpuSeconds();
  countsAtBegin_ = GetCounts();
  begin_ = Now();
}

void Meter::End(std::uint64_t messages) {
  if (measured.seconds != 0) return;
  measured.seconds = Now() - begin_;
  const Counts counts = GetCounts();
  measured.counts.allocations = counts.allocations - countsAtBegin_.allocations;
  measured.counts.systemCalls = counts.systemCalls - countsAtBegin_.systemCalls;
  measured.cpuSeconds = GetCpuSeconds() - cpuAtBegin_;
  measured.messages = messages - measured.messages;
}

std::uint64_t GetPrivateBytes() {
  std::ifstream file("/proc/self/smaps_rollup");
  std::uint64_t kib = 0;
  for (std::string line; std::getline(file, line);) {
    unsigned long value = 0;
    if (std::sscanf(line.c_str(), "Private_Clean: %lu", &value) == 1 ||
        std::sscanf(line.c_str(), "Private_Dirty: %lu", &value) == 1)
      kib += value;
  }
  if (kib == 0) Fail("no private memory in /proc/self/smaps_rollup");
  return kib * 1024;
}

// --- the other process ---

namespace {

void WriteAll(int fd, const void* data, std::size_t size) {
  if (::write(fd, data, size) != static_cast<ssize_t>(size)) FailErrno("the other process");
}

void ReadAll(int fd, void* data, std::size_t size) {
  for (auto* at = static_cast<char*>(data); size != 0;) {
    const ssize_t count = ::read(fd, at, size);
    if (count == 0) Fail("the other process has ended early");
    if (count < 0) FailErrno("the other process");
    at += count;
    size -= static_cast<std::size_t>(count);
  }
}

}  // namespace

void Control::SendReady() const { WriteAll(fd_, "r", 1); }

void Control::WaitReady() const {
  char ready;
  ReadAll(fd_, &ready, 1);
}

void Control::SendReport(const Measured& measured) const {
  WriteAll(fd_, &measured, sizeof measured);
}

Measured Control::WaitReport() const {
  Measured measured;
  ReadAll(fd_, &measured, sizeof measured);
  return measured;
}

void Control::WaitDone() const {
  char first;
  if (::recv(fd_, &first, 1, MSG_PEEK) != 1) Fail("the other process has ended early");
}

void Control::WaitForParent() const {
  char end;
  while (::read(fd_, &end, 1) > 0) {
  }
}

// --- messages ---

void PutStamp(char* message, Stamp stamp) {
  std::memcpy(message, &stamp.sequence, sizeof stamp.sequence);
  message[sizeof stamp.sequence] = static_cast<char>(stamp.kind);
}

Stamp GetStamp(const char* message) {
  Stamp stamp;
  std::memcpy(&stamp.sequence, message, sizeof stamp.sequence);
  stamp.kind = static_cast<Kind>(message[sizeof stamp.sequence]);
  return stamp;
}

void Sending::Start() {
  const double now = Now();
  meter_.measured.connectSeconds = now - createdAt_;
  beginAt_ = now + seconds_ / 5;
}

Kind Sending::Look(std::uint64_t messages) {
  messages_ += messages;
  const double now = Now();
  if (now < beginAt_) return Kind::kPlain;
  if (!begun_) {
    begun_ = true;
    meter_.Begin(messages_);
    return Kind::kBegin;
  }
  if (now < beginAt_ + seconds_) return Kind::kPlain;
  meter_.End(messages_);
  return Kind::kLast;
}

Outgoing::Outgoing(const Options& options, Sending& sending)
    : sending_(sending),
      message_(options.size, kFiller),
      stride_(options.mode == "pingpong" ? 1
                                         : std::max<std::uint64_t>(1, kBatchSize / options.size)),
      untilLook_(stride_) {}

Kind Outgoing::Look() {
  untilLook_ = stride_;
  const Kind kind = sending_.Look(stride_);
  last_ = kind == Kind::kLast;
  return kind;
}

Incoming::Incoming(const Options& options, Tally& tally)
    : size_(options.size),
      expected_(options.read ? options.size - kMinMessage : 0, kFiller),
      tally_(tally) {}

void Incoming::FailOrder(std::size_t length, std::uint64_t sequence) const {
  Fail("expected message " + std::to_string(sequence_) + " of " + std::to_string(size_) +
       " bytes, got " + std::to_string(sequence) + " of " + std::to_string(length));
}

void Incoming::Compare(const char* message) const {
  if (std::memcmp(message + kMinMessage, expected_.data(), expected_.size()) != 0)
    Fail("message " + std::to_string(sequence_) + " came changed");
}

bool Incoming::Mark(Kind kind) {
  if (kind == Kind::kBegin) {
    tally_.meter.Begin(tally_.messages);
    return true;
  }
  tally_.meter.End(tally_.messages);
  return false;
}

// --- round trips ---

RoundTrips::RoundTrips(const Options& options)
    : sending_(options),
      outgoing_(options, sending_),
      incoming_(options, tally_),
      pauseMs_(options.pauseMs) {
  times_.reserve(static_cast<std::size_t>(options.seconds * 4e6));
  sending_.Start();
}

bool RoundTrips::Next() {
  if (!outgoing_.Next()) return false;
  sentAt_ = Now();
  return true;
}

void RoundTrips::Pause() const {
  if (pauseMs_ != 0) std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs_));
}

void RoundTrips::Take(const char* answer, std::size_t length) {
  const Kind kind = length < kMinMessage ? Kind::kPlain : GetStamp(answer).kind;
  incoming_.Take(answer, length);
  const double now = Now();
  measuring_ |= kind == Kind::kBegin;
  if (measuring_ && times_.size() < times_.capacity())
    times_.push_back(static_cast<float>((now - sentAt_) * 1e6));
}

double RoundTrips::Percentile(double part) {
  if (times_.empty()) Fail("no round trip was measured");
  const auto at = static_cast<std::ptrdiff_t>(part * static_cast<double>(times_.size() - 1));
  std::nth_element(times_.begin(), times_.begin() + at, times_.end());
  return static_cast<double>(times_[static_cast<std::size_t>(at)]);
}

// --- programs ---

namespace {

[[noreturn]] void Usage(const char* program) {
  std::fprintf(
      stderr,
      "usage: %s oneway|pingpong [--size BYTES] [--seconds S] [--spin MICROSECONDS]\n"
      "       [--clients N] [--active N] [--tcp] [--congestion NAME] [--resume] [--count]\n"
      "       [--read] [--snapshots MILLISECONDS] [--pause MILLISECONDS] [--idle SECONDS]\n",
      program);
  std::exit(2);
}

struct Arguments {
  Options options;
  int childFd = -1;  // of the control socket; -1 in the parent
};

using Setters = std::map<std::string, std::function<void(const char*)>>;

Setters MakeSetters(Arguments& arguments) {
  Options& options = arguments.options;
  const auto number = [](auto& to) {
    return [&to](const char* text) {
      to = static_cast<std::remove_reference_t<decltype(to)>>(std::strtoul(text, nullptr, 10));
    };
  };
  const auto seconds = [](double& to) {
    return [&to](const char* text) { to = std::strtod(text, nullptr); };
  };
  const auto string = [](std::string& to) { return [&to](const char* text) { to = text; }; };
  return {{"--active", number(options.active)},   {"--child", number(arguments.childFd)},
          {"--clients", number(options.clients)}, {"--congestion", string(options.congestion)},
          {"--dir", string(options.dir)},         {"--idle", seconds(options.idleSeconds)},
          {"--pause", number(options.pauseMs)},   {"--seconds", seconds(options.seconds)},
          {"--size", number(options.size)},       {"--snapshots", number(options.snapshotMs)},
          {"--spin", number(options.spinUs)}};
}

Arguments Parse(int argc, char** argv) {
  if (argc < 2) Usage(argv[0]);
  Arguments arguments;
  Options& options = arguments.options;
  options.mode = argv[1];
  const std::map<std::string, bool*> flags = {{"--count", &options.count},
                                              {"--read", &options.read},
                                              {"--resume", &options.resume},
                                              {"--tcp", &options.tcp}};
  const Setters setters = MakeSetters(arguments);
  for (int i = 2; i < argc; ++i) {
    if (const auto flag = flags.find(argv[i]); flag != flags.end()) {
      *flag->second = true;
      continue;
    }
    const auto setter = setters.find(argv[i]);
    if (setter == setters.end() || ++i == argc) Usage(argv[0]);
    setter->second(argv[i]);
  }
  const bool modeKnown = options.mode == "oneway" || options.mode == "pingpong";
  if (!modeKnown || options.size < kMinMessage || options.size > kBatchSize - kHeaderSize ||
      options.active < 1 || options.active > options.clients)
    Usage(argv[0]);
  return arguments;
}

// Both ends of an emulated path are on this machine, each in a network namespace.
void EnterFarEnd() {
  const char* const netns = std::getenv("ZARN_BENCH_NETNS");
  if (netns != nullptr && ::setns(std::atoi(netns), CLONE_NEWNET) != 0) FailErrno("namespace");
}

int RunChild(const Options& options, const Control& control, const Peer& peer) {
  EnterFarEnd();
  Tally tally;
  if (options.mode == "oneway") {
    peer.receive(options, control, tally);
  } else {
    peer.echo(options, control);
  }
  return 0;
}

class ChildProcess {
 public:
  ChildProcess(char** argv, const Options& options) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) FailErrno("socketpair");
    fd_ = ends[0];
    pid_ = ::fork();
    if (pid_ < 0) FailErrno("fork");
    if (pid_ == 0) Exec(argv, options, ends[1]);
    ::close(ends[1]);
  }

  int Fd() const { return fd_; }

  void Join() {
    ::close(fd_);
    int status = 0;
    if (::waitpid(pid_, &status, 0) != pid_ || status != 0) Fail("the other process has failed");
  }

 private:
  [[noreturn]] static void Exec(char** argv, const Options& options, int fd) {
    ::fcntl(fd, F_SETFD, 0);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::vector<char*> all;
    for (; *argv != nullptr; ++argv) all.push_back(*argv);
    std::string extra[] = {"--dir", options.dir, "--child", std::to_string(fd)};
    for (std::string& text : extra) all.push_back(text.data());
    all.push_back(nullptr);
    ::execv("/proc/self/exe", all.data());
    FailErrno("exec");
  }

  int fd_;
  pid_t pid_;
};

void PrintSide(const char* name, const Measured& side, bool count) {
  std::printf(", \"%s\": {\"messages\": %llu, \"cpu_seconds\": %.4f", name,
              static_cast<unsigned long long>(side.messages), side.cpuSeconds);
  if (count)
    std::printf(", \"allocations\": %llu, \"system_calls\": %llu",
                static_cast<unsigned long long>(side.counts.allocations),
                static_cast<unsigned long long>(side.counts.systemCalls));
  std::printf("}");
}

int RunParent(const Options& options, const Control& control, const Peer& peer,
              ChildProcess& child) {
  control.WaitReady();
  std::printf("{\"peer\": \"%s\", \"mode\": \"%s\", \"size\": %zu, \"spin_us\": %u", peer.name,
              options.mode.c_str(), options.size, options.spinUs);
  if (options.mode == "oneway") {
    Sending sending(options);
    peer.send(options, control, sending);
    const Measured received = control.WaitReport();
    const double rate = static_cast<double>(received.messages) / received.seconds;
    std::printf(", \"clients\": %u, \"active\": %u, \"rate\": %.1f, \"mb_per_s\": %.3f",
                options.clients, options.active, rate,
                rate * static_cast<double>(options.size) / 1e6);
    if (options.idleSeconds > 0)
      std::printf(", \"idle_cpu_ms_per_s\": {\"sender\": %.2f, \"receiver\": %.2f}",
                  sending.GetMeasured().idleCpu * 1e3, received.idleCpu * 1e3);
    if (received.idleBytes != 0)
      std::printf(", \"bytes_per_connection\": %llu, \"connect_seconds\": %.3f",
                  static_cast<unsigned long long>(received.idleBytes),
                  sending.GetMeasured().connectSeconds - options.idleSeconds);
    PrintSide("sender", sending.GetMeasured(), options.count);
    PrintSide("receiver", received, options.count);
  } else {
    RoundTrips trips(options);
    peer.ask(options, control, trips);
    const Measured& measured = trips.GetMeasured();
    std::printf(", \"p50_us\": %.3f, \"p90_us\": %.3f, \"p99_us\": %.3f, \"p99_9_us\": %.3f",
                trips.Percentile(0.5), trips.Percentile(0.9), trips.Percentile(0.99),
                trips.Percentile(0.999));
    std::printf(", \"rate\": %.1f", static_cast<double>(measured.messages) / measured.seconds);
    PrintSide("asker", measured, options.count);
  }
  std::printf("}\n");
  std::fflush(stdout);
  child.Join();
  return 0;
}

}  // namespace

int Main(int argc, char** argv, const Peer& peer) {
  auto [options, childFd] = Parse(argc, argv);
  if (options.mode == "oneway" && peer.send == nullptr) Usage(argv[0]);
  // Whatever hangs ends: by the signal, and the other process by the end of the control socket.
  ::alarm(static_cast<unsigned>(options.seconds * 3 + options.idleSeconds) + 30);
  if (options.count) StartCounting();
  if (childFd >= 0) return RunChild(options, Control(childFd), peer);

  std::string dir = (std::filesystem::temp_directory_path() / "zarnbenchXXXXXX").string();
  if (::mkdtemp(dir.data()) == nullptr) FailErrno("temporary directory");
  options.dir = dir;
  ChildProcess child(argv, options);
  const int result = RunParent(options, Control(child.Fd()), peer, child);
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
  return result;
}

}  // namespace bench
