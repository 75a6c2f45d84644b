// emulate_path.cpp - runs programs at one end of a network path of which delay, loss, reordering,
// duplicates and rate are given.
//
// Each end is a network namespace with a TUN device; packets that leave by one device are handed to
// the other one here, late, twice or never. All protocols of the system see the same path.
// Namespaces and devices have no names: they are gone with the last process that uses them,
// whatever ended it.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <queue>
#include <random>
#include <string>
#include <vector>

namespace {

using Nanoseconds = std::int64_t;

constexpr const char* kNearAddress = "10.77.0.1";  // where the programs run
constexpr const char* kFarAddress = "10.77.0.2";
constexpr int kMtu = 1500;
constexpr int kDeviceQueue = 20000;  // packets: what is lost is lost here, not in the device
constexpr Nanoseconds kNever = INT64_MAX;

[[noreturn]] void Fail(const std::string& what) {
  std::fprintf(stderr, "emulate_path: %s\n", what.c_str());
  std::exit(1);
}

[[noreturn]] void FailErrno(const std::string& what) { Fail(what + ": " + std::strerror(errno)); }

Nanoseconds Now() {
  return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// --- what is asked for ---

struct Config {
  double delayMs = 0;    // one way
  double loss = 0;       // per cent of the packets, each way; the other parts as well
  double reorder = 0;    // come 1 to 5 ms late
  double duplicate = 0;  // come twice
  double rateMbit = 0;   // 0: no bound
  double queueKb = 256;  // that wait at a bound rate; what finds no room is lost
  std::uint64_t seed = 1;
  unsigned limitSeconds = 120;  // then all is ended
  bool verbose = false;
  std::vector<std::vector<char*>> commands;
};

[[noreturn]] void Usage() {
  std::fprintf(
      stderr,
      "usage: emulate_path [--delay MS] [--loss %%] [--reorder %%] [--duplicate %%]\n"
      "       [--rate MBIT [--queue KB]] [--seed N] [--limit SECONDS] [--verbose]\n"
      "       -- COMMAND [ARGUMENT...] [-- COMMAND [ARGUMENT...]]...\n"
      "Each way. The commands run at once at %s; ZARN_BENCH_ADDRESS is the address of the\n"
      "other end, and ZARN_BENCH_NETNS the number of a descriptor of its namespace.\n",
      kNearAddress);
  std::exit(2);
}

void ParseCommands(char** at, Config& config) {
  for (; *at != nullptr; ++at) {
    if (std::strcmp(*at, "--") == 0) {
      config.commands.emplace_back();
    } else {
      config.commands.back().push_back(*at);
    }
  }
  for (std::vector<char*>& command : config.commands) {
    if (command.empty()) Usage();
    command.push_back(nullptr);
  }
}

Config Parse(char** at) {
  Config config;
  const std::map<std::string, double*> numbers = {
      {"--delay", &config.delayMs},   {"--loss", &config.loss},
      {"--reorder", &config.reorder}, {"--duplicate", &config.duplicate},
      {"--rate", &config.rateMbit},   {"--queue", &config.queueKb},
  };
  for (++at; *at != nullptr && std::strcmp(*at, "--") != 0; ++at) {
    const std::string name = *at;
    if (name == "--verbose") {
      config.verbose = true;
      continue;
    }
    if (*++at == nullptr) Usage();
    if (const auto number = numbers.find(name); number != numbers.end()) {
      *number->second = std::strtod(*at, nullptr);
    } else if (name == "--seed") {
      config.seed = std::strtoull(*at, nullptr, 10);
    } else if (name == "--limit") {
      config.limitSeconds = static_cast<unsigned>(std::strtoul(*at, nullptr, 10));
    } else {
      Usage();
    }
  }
  if (*at == nullptr) Usage();
  ParseCommands(at, config);
  return config;
}

// --- the two ends ---

struct End {
  int netns = -1;
  int device = -1;
};

void WriteTo(const char* path, const std::string& text) {
  std::ofstream file(path);
  if (!(file << text << std::flush)) Fail(std::string("cannot write ") + path);
}

// Who is not root is, within a user namespace, where the system lets anybody have one.
void BecomeRoot() {
  const std::string user = std::to_string(::geteuid()), group = std::to_string(::getegid());
  if (user == "0") return;
  if (::unshare(CLONE_NEWUSER) != 0)
    Fail("an emulated path needs network namespaces: run it as root");
  WriteTo("/proc/self/setgroups", "deny");
  WriteTo("/proc/self/uid_map", "0 " + user + " 1");
  WriteTo("/proc/self/gid_map", "0 " + group + " 1");
}

class Interface {
 public:
  explicit Interface(const char* name) : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    if (socket_ < 0) FailErrno("socket");
    std::strncpy(request_.ifr_name, name, IFNAMSIZ - 1);
  }
  ~Interface() { ::close(socket_); }
  Interface(const Interface&) = delete;
  Interface& operator=(const Interface&) = delete;

  void SetAddress(unsigned long code, const char* text) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    ::inet_pton(AF_INET, text, &address.sin_addr);
    std::memcpy(&request_.ifr_addr, &address, sizeof address);
    Do(code, text);
  }
  void SetMtu(int mtu) {
    request_.ifr_mtu = mtu;
    Do(SIOCSIFMTU, "MTU");
  }
  void SetQueue(int packets) {
    request_.ifr_qlen = packets;
    Do(SIOCSIFTXQLEN, "queue");
  }
  void SetUp() {
    request_.ifr_flags = IFF_UP | IFF_RUNNING;
    Do(SIOCSIFFLAGS, "up");
  }

 private:
  void Do(unsigned long code, const char* what) {
    if (::ioctl(socket_, code, &request_) != 0) FailErrno(std::string("network device: ") + what);
  }

  int socket_;
  ifreq request_{};
};

// The calling process is left in the end's namespace.
End MakeEnd(const char* own, const char* other) {
  constexpr const char* kDevice = "/dev/net/tun";
  constexpr const char* kName = "path";
  if (::unshare(CLONE_NEWNET) != 0)
    Fail("an emulated path needs network namespaces: run it as root");
  End end;
  end.netns = ::open("/proc/self/ns/net", O_RDONLY);
  end.device = ::open(kDevice, O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (end.netns < 0) FailErrno("network namespace");
  if (end.device < 0) FailErrno(std::string("an emulated path needs ") + kDevice);
  ifreq request{};
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  std::strncpy(request.ifr_name, kName, IFNAMSIZ - 1);
  if (::ioctl(end.device, TUNSETIFF, &request) != 0) FailErrno("TUN device");
  Interface("lo").SetUp();
  Interface device(kName);
  device.SetMtu(kMtu);
  device.SetQueue(kDeviceQueue);
  device.SetAddress(SIOCSIFADDR, own);
  device.SetAddress(SIOCSIFDSTADDR, other);
  device.SetUp();
  return end;
}

// --- one way of the path ---

struct Counts {
  std::uint64_t in = 0, lost = 0, noRoom = 0, late = 0, twice = 0;
};

class Line {
 public:
  Line(const Config& config, std::uint64_t seed, int out)
      : config_(config), random_(seed), out_(out) {}

  void Take(const char* data, std::size_t size, Nanoseconds now) {
    ++counts_.in;
    if (Happens(config_.loss)) {
      ++counts_.lost;
      return;
    }
    Nanoseconds at = now;
    if (config_.rateMbit > 0 && !Queue(size, at)) {
      ++counts_.noRoom;
      return;
    }
    Add(data, size, at);
    if (!Happens(config_.duplicate)) return;
    ++counts_.twice;
    Add(data, size, at);
  }

  // Hands over what has arrived by now. When the next one will, or kNever.
  Nanoseconds Deliver(Nanoseconds now) {
    while (!packets_.empty() && packets_.top()->due <= now) {
      Packet* const packet = packets_.top();
      packets_.pop();
      // What the other end has no room for is lost, as on any network.
      [[maybe_unused]] const ssize_t written = ::write(out_, packet->data.data(), packet->size);
      free_.push_back(packet);
    }
    return packets_.empty() ? kNever : packets_.top()->due;
  }

  const Counts& GetCounts() const { return counts_; }

 private:
  struct Packet {
    Nanoseconds due = 0;
    std::uint64_t number = 0;  // of equal times the first goes first
    std::size_t size = 0;
    std::array<char, kMtu> data;
  };
  struct Later {
    bool operator()(const Packet* a, const Packet* b) const {
      return a->due != b->due ? a->due > b->due : a->number > b->number;
    }
  };

  bool Happens(double percent) { return percent > 0 && part_(random_) * 100 < percent; }

  // Moves `at` to when the packet has passed the narrow place. False when the queue there is full.
  bool Queue(std::size_t size, Nanoseconds& at) {
    constexpr std::size_t kFraming = 38;  // of Ethernet
    const double nanosecondsPerByte = 8e3 / config_.rateMbit;
    freeAt_ = std::max(freeAt_, at);
    if (static_cast<double>(freeAt_ - at) > config_.queueKb * 1024 * nanosecondsPerByte)
      return false;
    freeAt_ += static_cast<Nanoseconds>(static_cast<double>(size + kFraming) * nanosecondsPerByte);
    at = freeAt_;
    return true;
  }

  void Add(const char* data, std::size_t size, Nanoseconds at) {
    if (free_.empty()) {
      all_.push_back(std::make_unique<Packet>());
      free_.push_back(all_.back().get());
    }
    Packet* const packet = free_.back();
    free_.pop_back();
    packet->size = std::min(size, packet->data.size());
    std::memcpy(packet->data.data(), data, packet->size);
    packet->number = ++number_;
    packet->due = at + static_cast<Nanoseconds>(config_.delayMs * 1e6);
    if (Happens(config_.reorder)) {
      ++counts_.late;
      packet->due += static_cast<Nanoseconds>(1e6 + 4e6 * part_(random_));
    }
    packets_.push(packet);
  }

  const Config& config_;
  std::mt19937_64 random_;
  std::uniform_real_distribution<double> part_{0, 1};
  const int out_;
  std::priority_queue<Packet*, std::vector<Packet*>, Later> packets_;
  std::vector<std::unique_ptr<Packet>> all_;
  std::vector<Packet*> free_;
  std::uint64_t number_ = 0;
  Nanoseconds freeAt_ = 0;
  Counts counts_;
};

// --- the programs ---

class Programs {
 public:
  // The signals that this process waits for are blocked.
  Programs(const Config& config, const End& near, const sigset_t& blocked) {
    for (const std::vector<char*>& command : config.commands)
      pids_.push_back(Start(command, near, blocked));
  }

  bool AreRunning() const { return !pids_.empty(); }
  int Status() const { return status_; }

  void Collect() {
    std::erase_if(pids_, [this](pid_t pid) {
      int status = 0;
      if (::waitpid(pid, &status, WNOHANG) == 0) return false;
      if (status_ == 0 && status != 0) status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 1;
      return true;
    });
  }
  void Kill() {
    for (const pid_t pid : pids_) ::kill(pid, SIGTERM);
  }

 private:
  static pid_t Start(const std::vector<char*>& command, const End& near, const sigset_t& blocked) {
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid < 0) FailErrno("fork");
    if (pid > 0) return pid;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) std::_Exit(1);
    if (::setns(near.netns, CLONE_NEWNET) != 0) FailErrno("network namespace");
    ::sigprocmask(SIG_UNBLOCK, &blocked, nullptr);
    ::execvp(command[0], command.data());
    FailErrno(command[0]);
  }

  std::vector<pid_t> pids_;
  int status_ = 0;
};

// --- all together ---

void ReadDevice(int device, Line& line) {
  std::array<char, 2048> packet;
  for (int reads = 0; reads < 64; ++reads) {
    const ssize_t size = ::read(device, packet.data(), packet.size());
    if (size <= 0) return;
    constexpr int kVersion4 = 4;  // the system itself says things by IPv6
    if (packet[0] >> 4 == kVersion4)
      line.Take(packet.data(), static_cast<std::size_t>(size), Now());
  }
}

// False when a signal asks to end.
bool OnSignal(int signals, Programs& programs) {
  signalfd_siginfo info{};
  if (::read(signals, &info, sizeof info) != sizeof info) return true;
  programs.Collect();
  return info.ssi_signo == SIGCHLD;
}

int Emulate(const std::array<End, 2>& ends, std::array<Line, 2>& lines, int signals,
            Programs& programs) {
  while (programs.AreRunning()) {
    const Nanoseconds now = Now();
    Nanoseconds next = now + Nanoseconds{100} * 1000000;
    for (Line& line : lines) next = std::min(next, line.Deliver(now));
    std::array<pollfd, 3> polled = {
        {{ends[0].device, POLLIN, 0}, {ends[1].device, POLLIN, 0}, {signals, POLLIN, 0}}};
    const timespec wait{0, static_cast<long>(std::max<Nanoseconds>(next - Now(), 0))};
    if (::ppoll(polled.data(), polled.size(), &wait, nullptr) <= 0) continue;
    for (std::size_t end = 0; end < ends.size(); ++end)
      if (polled[end].revents != 0) ReadDevice(ends[end].device, lines[end]);
    if (polled[2].revents != 0 && !OnSignal(signals, programs)) {
      programs.Kill();
      return 1;
    }
  }
  return programs.Status();
}

void Print(const char* way, const Counts& counts) {
  std::fprintf(
      stderr, "%s: %llu packets, %llu lost, %llu without room, %llu late, %llu twice\n", way,
      static_cast<unsigned long long>(counts.in), static_cast<unsigned long long>(counts.lost),
      static_cast<unsigned long long>(counts.noRoom), static_cast<unsigned long long>(counts.late),
      static_cast<unsigned long long>(counts.twice));
}

}  // namespace

int main(int, char** argv) {
  const Config config = Parse(argv);
  BecomeRoot();
  const End near = MakeEnd(kNearAddress, kFarAddress);
  const End far = MakeEnd(kFarAddress, kNearAddress);
  ::setenv("ZARN_BENCH_ADDRESS", kFarAddress, 1);
  ::setenv("ZARN_BENCH_NETNS", std::to_string(far.netns).c_str(), 1);
  ::alarm(config.limitSeconds);
  ::prctl(PR_SET_TIMERSLACK, 1000);
  sigset_t awaited;
  ::sigemptyset(&awaited);
  for (const int one : {SIGCHLD, SIGINT, SIGTERM, SIGHUP}) ::sigaddset(&awaited, one);
  ::sigprocmask(SIG_BLOCK, &awaited, nullptr);
  const int signals = ::signalfd(-1, &awaited, SFD_CLOEXEC | SFD_NONBLOCK);
  if (signals < 0) FailErrno("signalfd");
  Programs programs(config, near, awaited);
  std::array<Line, 2> lines = {Line(config, config.seed, far.device),
                               Line(config, ~config.seed, near.device)};
  const int status = Emulate({near, far}, lines, signals, programs);
  if (config.verbose) {
    Print("there", lines[0].GetCounts());
    Print("back", lines[1].GetCounts());
  }
  return status;
}
