// bench_iceoryx.cpp - iceoryx: samples that are written and read in place. With --spin the receiver
// polls, without it sleeps on a WaitSet. Starts the daemon that it needs, iox-roudi, and ends it.
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/Bench.h"
#include "iceoryx_posh/popo/untyped_publisher.hpp"
#include "iceoryx_posh/popo/untyped_subscriber.hpp"
#include "iceoryx_posh/popo/wait_set.hpp"
#include "iceoryx_posh/runtime/posh_runtime.hpp"

namespace {

using namespace bench;
using iox::popo::ConsumerTooSlowPolicy;
using iox::popo::QueueFullPolicy;

constexpr std::uint64_t kDepth = 64;  // samples under way; the daemon has 200 of the longest

// Runs while the child process of this run does. Ended by SIGKILL, because with SIGTERM it would
// end us too; the next one clears away what it leaves.
class Daemon {
 public:
  Daemon() : pid_(::fork()) {
    if (pid_ < 0) FailErrno("fork");
    if (pid_ != 0) return;
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int null = ::open("/dev/null", O_RDWR);
    ::dup2(null, STDOUT_FILENO);
    ::dup2(null, STDERR_FILENO);
    ::execlp("iox-roudi", "iox-roudi", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ~Daemon() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

 private:
  pid_t pid_;
};

void Start(const char* role) {
  iox::log::LogManager::GetLogManager().SetDefaultLogLevel(iox::log::LogLevel::kOff,
                                                           iox::log::LogLevelOutput::kHideLogLevel);
  const std::string name = std::string("bench") + role + std::to_string(::getpid());
  iox::runtime::PoshRuntime::initRuntime(iox::RuntimeName_t(iox::cxx::TruncateToCapacity, name));
}

class Writer {
 public:
  explicit Writer(const char* which)
      : publisher_({"Bench", iox::capro::IdString_t(iox::cxx::TruncateToCapacity, which), "Bytes"},
                   {0U, iox::NodeName_t(""), true, ConsumerTooSlowPolicy::WAIT_FOR_CONSUMER}) {}

  void WaitForReader() {
    while (!publisher_.hasSubscribers()) ::usleep(1000);
  }
  void Send(const char* data, std::size_t size) {
    publisher_.loan(static_cast<std::uint32_t>(size))
        .and_then([&](void* sample) {
          std::memcpy(sample, data, size);
          publisher_.publish(sample);
        })
        .or_else([](auto&) { Fail("iceoryx: no sample"); });
  }

 private:
  iox::popo::UntypedPublisher publisher_;
};

class Reader {
 public:
  Reader(const char* which, const Options& options)
      : spin_(options.spinUs != 0),
        size_(options.size),
        subscriber_({"Bench", iox::capro::IdString_t(iox::cxx::TruncateToCapacity, which), "Bytes"},
                    {kDepth, 0U, iox::NodeName_t(""), true, QueueFullPolicy::BLOCK_PRODUCER}) {
    if (spin_) return;
    waitSet_ = std::make_unique<iox::popo::WaitSet<1>>();
    waitSet_->attachState(subscriber_, iox::popo::SubscriberState::HAS_DATA).or_else([](auto) {
      Fail("iceoryx: no wait set");
    });
  }

  // Until then what is sent does not reach it.
  void WaitForWriter() {
    while (subscriber_.getSubscriptionState() != iox::SubscribeState::SUBSCRIBED) ::usleep(1000);
  }

  // Waits, then calls take(message, size) for all that is there, as long as it returns true. False
  // when it did not.
  template <class Take>
  bool Read(Take take) {
    if (!spin_) waitSet_->wait();
    for (bool go = true, any = false;;) {
      const bool got = !subscriber_.take()
                            .and_then([&](const void* sample) {
                              go = take(static_cast<const char*>(sample), size_);
                              subscriber_.release(sample);
                            })
                            .has_error();
      any |= got;
      if (!go) return false;
      if (!got && (any || !spin_)) return true;
    }
  }

 private:
  bool spin_;
  std::size_t size_;
  iox::popo::UntypedSubscriber subscriber_;
  std::unique_ptr<iox::popo::WaitSet<1>> waitSet_;
};

void Receive(const Options& options, const Control& control, Tally& tally) {
  const Daemon daemon;
  Start("receiver");
  Reader reader("there", options);
  control.SendReady();
  Incoming incoming(options, tally);
  while (
      reader.Read([&](const char* data, std::size_t size) { return incoming.Take(data, size); })) {
  }
  control.SendReport(tally.meter.measured);
  control.WaitForParent();
}

void Send(const Options& options, const Control& control, Sending& sending) {
  Start("sender");
  Writer writer("there");
  writer.WaitForReader();
  sending.Start();
  Outgoing outgoing(options, sending);
  while (outgoing.Next()) writer.Send(outgoing.Message().data(), options.size);
  control.WaitDone();
}

void Echo(const Options& options, const Control& control) {
  const Daemon daemon;
  Start("echo");
  Reader reader("there", options);
  Writer writer("back");
  control.SendReady();
  const auto answer = [&](const char* data, std::size_t size) {
    writer.Send(data, size);
    return GetStamp(data).kind != Kind::kLast;
  };
  while (reader.Read(answer)) {
  }
  control.WaitForParent();
}

void Ask(const Options& options, const Control&, RoundTrips& trips) {
  Start("asker");
  Writer writer("there");
  Reader reader("back", options);
  writer.WaitForReader();
  reader.WaitForWriter();
  while (trips.Next()) {
    writer.Send(trips.Message().data(), options.size);
    bool more = true;
    while (more) {
      more = reader.Read([&](const char* data, std::size_t size) {
        trips.Take(data, size);
        return false;
      });
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int result = Main(argc, argv, {"iceoryx", Receive, Send, Echo, Ask});
  std::fflush(stdout);
  std::_Exit(result);  // its own end would look for the daemon, which is gone by then
}
