// Bench.h - what all the programs share: command line, the two processes, messages, and measuring.
//
// Each program measures one way to pass messages. It starts itself a second time: the child listens
// and receives or echoes, the parent connects and sends. Both count and check every message.
//
// Within emulate_path the child listens at the other end of that path, as the environment says:
// ZARN_BENCH_ADDRESS, ZARN_BENCH_NETNS.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Counters.h"

namespace bench {

struct Options {
  std::string mode;         // "oneway" or "pingpong"
  std::size_t size = 64;    // of a message, without any header
  double seconds = 1.0;     // measured; a fifth of it comes before, unmeasured
  unsigned spinUs = 0;      // how long a side that has nothing to do looks again before it sleeps
  unsigned clients = 1;     // connections
  unsigned active = 1;      // of these, those that send
  bool tcp = false;         // for the peers that have the choice: TCP instead of a Unix socket
  std::string congestion;   // congestion control of TCP, as the system calls it; empty: its default
  unsigned pauseMs = 0;     // before each round trip
  double idleSeconds = 0;   // all connections do nothing for so long before anything is sent
  bool resume = false;      // connections go on with what earlier ones have agreed on
  bool count = false;       // allocations and system calls too
  bool read = false;        // the receiver compares each byte; otherwise it looks at the beginning
  unsigned snapshotMs = 0;  // how often a thread of each side takes its metrics; 0: never
  std::string dir;          // of this run, for sockets
};

[[noreturn]] void Fail(const std::string& what);       // prints it and exits
[[noreturn]] void FailErrno(const std::string& what);  // with the meaning of errno

double Now();            // seconds, steady
double GetCpuSeconds();  // of this process

// The address of the receiving side.
std::string GetAddress();

// What one process saw between Begin and End. Only the first call of each counts: with many
// connections each says so.
struct Measured {
  double seconds = 0;
  double cpuSeconds = 0;
  std::uint64_t messages = 0;
  Counts counts;
  double connectSeconds = 0;    // until everything was connected, and idle if that was asked for
  std::uint64_t idleBytes = 0;  // private memory that each connection added
  double idleCpu = 0;           // processor seconds of a second in which nothing is sent
};

class Meter {
 public:
  void Begin(std::uint64_t messages);
  void End(std::uint64_t messages);
  Measured measured;

 private:
  double cpuAtBegin_ = 0;
  Counts countsAtBegin_;
  double begin_ = 0;
};

// Processor time of a span, for each second of it.
class CpuWatch {
 public:
  double Read() const { return (GetCpuSeconds() - cpu_) / (Now() - begin_); }

 private:
  double begin_ = Now();
  double cpu_ = GetCpuSeconds();
};

std::uint64_t GetPrivateBytes();  // of this process

// --- the other process ---

// A socket between parent and child, apart from what is measured.
class Control {
 public:
  explicit Control(int fd) : fd_(fd) {}
  void SendReady() const;  // child: listening
  void WaitReady() const;
  void SendReport(const Measured& measured) const;
  Measured WaitReport() const;
  void WaitDone() const;       // until there is a report, which is left to WaitReport
  void WaitForParent() const;  // child: until the parent has all that it wants, or is gone

 private:
  int fd_;
};

// --- messages: sequence number, kind, and filling up to the size ---

enum class Kind : std::uint8_t { kPlain, kBegin, kLast };
inline constexpr std::size_t kMinMessage = 9;

struct Stamp {
  std::uint64_t sequence = 0;
  Kind kind = Kind::kPlain;
};
void PutStamp(char* message, Stamp stamp);
Stamp GetStamp(const char* message);

// Over all connections of a sender: decides when measuring begins and ends. Both are told in
// messages, so that both sides measure the same ones.
class Sending {
 public:
  explicit Sending(const Options& options) : seconds_(options.seconds) {}

  // Call it when everything is connected. Measuring begins after a fifth of the time that it will
  // take.
  void Start();
  void SetIdleCpu(double part) { meter_.measured.idleCpu = part; }

  // Looks at the clock, `messages` after the last look: what the next message is to tell.
  Kind Look(std::uint64_t messages);

  const Measured& GetMeasured() const { return meter_.measured; }

 private:
  Meter meter_;
  double seconds_;
  double createdAt_ = Now();
  double beginAt_ = 0;
  std::uint64_t messages_ = 0;
  bool begun_ = false;
};

// What one connection sends.
class Outgoing {
 public:
  Outgoing(const Options& options, Sending& sending);

  // Writes the next message. False when the last one has been sent before.
  bool Next() {
    if (last_) return false;
    Stamp stamp{sequence_++, Kind::kPlain};
    if (--untilLook_ == 0) stamp.kind = Look();
    PutStamp(message_.data(), stamp);
    return true;
  }
  const std::vector<char>& Message() const { return message_; }

 private:
  Kind Look();

  Sending& sending_;
  std::vector<char> message_;
  std::uint64_t sequence_ = 0;
  std::uint64_t stride_;  // looking at the clock for each message costs more than some of them do
  std::uint64_t untilLook_;
  bool last_ = false;
};

// Counts over all connections of a receiver.
struct Tally {
  Meter meter;
  std::uint64_t messages = 0;
};

// What one connection receives. A message that is not the next one ends the program.
class Incoming {
 public:
  Incoming(const Options& options, Tally& tally);

  // False for the last one.
  bool Take(const char* message, std::size_t length) {
    const Stamp stamp = length == size_ ? GetStamp(message) : Stamp{};
    if (length != size_ || stamp.sequence != sequence_) FailOrder(length, stamp.sequence);
    if (!expected_.empty()) Compare(message);
    ++sequence_;
    ++tally_.messages;
    return stamp.kind == Kind::kPlain || Mark(stamp.kind);
  }

 private:
  [[noreturn]] void FailOrder(std::size_t length, std::uint64_t sequence) const;
  void Compare(const char* message) const;
  bool Mark(Kind kind);

  std::size_t size_;
  std::vector<char> expected_;  // what follows the stamp, where that is looked at
  std::uint64_t sequence_ = 0;
  Tally& tally_;
};

// The side that asks: sends Message() after Next() and hands the answer to Take().
class RoundTrips {
 public:
  explicit RoundTrips(const Options& options);

  bool Next();  // false when the last one has been answered
  // For those whose connection needs no thread of ours meanwhile; others wait PauseMs() themselves.
  void Pause() const;
  unsigned PauseMs() const { return pauseMs_; }
  const std::vector<char>& Message() const { return outgoing_.Message(); }
  void Take(const char* answer, std::size_t length);

  double Percentile(double part);  // microseconds
  const Measured& GetMeasured() const { return sending_.GetMeasured(); }

 private:
  Sending sending_;
  Outgoing outgoing_;
  Tally tally_;
  Incoming incoming_;
  double sentAt_ = 0;
  std::vector<float> times_;
  unsigned pauseMs_;
  bool measuring_ = false;
  bool ended_ = false;
};

// --- programs ---

// The four things that a program can do; each returns when its part is over. One that does not go
// one way has null for the first two.
struct Peer {
  const char* name;
  void (*receive)(const Options& options, const Control& control, Tally& tally);
  void (*send)(const Options& options, const Control& control, Sending& sending);
  // Answers each message with the same bytes, until one of Kind::kLast is answered.
  void (*echo)(const Options& options, const Control& control);
  void (*ask)(const Options& options, const Control& control, RoundTrips& trips);
};

// usage: PROGRAM oneway|pingpong [--size BYTES] [--seconds S] [--spin MICROSECONDS] [--clients N]
//                                [--active N] [--tcp] [--congestion NAME] [--resume] [--count]
//                                [--pause MILLISECONDS] [--idle SECONDS]
// Prints one JSON object.
int Main(int argc, char** argv, const Peer& peer);

}  // namespace bench
