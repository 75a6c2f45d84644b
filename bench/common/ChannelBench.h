// ChannelBench.h - the channels of zarnutils, from SendZARNMessage to OnZARNMessage, as their users
// have them: channel classes, one loop, which runs on the main thread.
#pragma once

#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "Bench.h"
#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWThread.h"
#include "keelbase/CAWThreadManager.h"
#include "keelbase/CAWTimeValue.h"
#include "keelbase/CAWTimer.h"
#include "zarn/utils/CZARNMetrics.h"
#include "zarn/utils/zarnutils.h"

namespace bench {

using keelbase::CAWThread;
using keelbase::CAWThreadManager;

inline constexpr std::uint16_t kHello = 1;  // answered, not counted
inline constexpr std::uint16_t kData = 2;

inline void Check(keelbase::AWResult result, const char* what) {
  if (result != keelbase::AW_OK) Fail(std::string("zarn: ") + what + ": " + std::to_string(result));
}

// The processor and the memory stand for users; how many descriptors they may open does not matter
// here.
inline void AllowDescriptors() {
  rlimit descriptors{};
  ::getrlimit(RLIMIT_NOFILE, &descriptors);
  descriptors.rlim_cur = descriptors.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &descriptors);
}

// The thread ends with the process.
inline void StartSnapshots(std::chrono::milliseconds interval) {
  Check(zarn::utils::ZARNEnableMetrics(), "metrics");
  std::thread([interval] {
    for (;;) {
      std::this_thread::sleep_for(interval);
      zarn::utils::ZARNTakeMetrics();
    }
  }).detach();
}

inline CAWThread& StartLoop(const Options& options) {
  AllowDescriptors();
  std::filesystem::create_directory(options.dir + "/system");
  ::setenv("ZARN_ROOT", options.dir.c_str(), 1);
  Check(zarn::utils::ZARNLibInit(), "install root");
  auto* manager = CAWThreadManager::Instance();
  Check(manager->AdoptCurrentThread(CAWThreadManager::TT_NETWORK), "main thread");
  CAWThread* loop = manager->GetThread(CAWThreadManager::TT_NETWORK);
  loop->SetSpin(options.spinUs);
  if (options.snapshotMs != 0) StartSnapshots(std::chrono::milliseconds(options.snapshotMs));
  return *loop;
}

// Calls `function` once, on the loop, after a time.
class Later final : private keelbase::CAWTimerWrapperIDSink {
 public:
  explicit Later(std::function<void()> function) : function_(std::move(function)) {}
  void Start(double seconds) {
    Check(timer_.Schedule(this, std::chrono::duration<double>(seconds), 1), "timer");
  }

 private:
  void OnTimer(keelbase::CAWTimerWrapperID*) override { function_(); }

  std::function<void()> function_;
  keelbase::CAWTimerWrapperID timer_;
};

// Over says over which transport: its ClientChannel, ServerChannel, Transport and
// TransportParameter, and a Listener(accepted) at endpoint 1_2.
template <class Over>
class ChannelBench {
  using ClientChannel = typename Over::ClientChannel;
  using ServerChannel = typename Over::ServerChannel;
  using Transport = typename Over::Transport;
  using TransportParameter = typename Over::TransportParameter;

 public:
  static int Run(int argc, char** argv) {
    return Main(argc, argv, {"zarn", Receive, Send, Echo, Ask});
  }

 private:
  // --- server: the endpoint 1_2 ---

  class Server {
   public:
    using Make = std::function<std::unique_ptr<ServerChannel>(Transport*)>;

    explicit Server(Make make)
        : listener_([this, make = std::move(make)](Transport* transport) {
            channels_.push_back(make(transport));
          }) {}

   private:
    typename Over::Listener listener_;
    std::vector<std::unique_ptr<ServerChannel>> channels_;
  };

  // What the connections of the receiving process have in common.
  class Reception {
   public:
    Reception(const Options& options, Tally& tally, std::function<void()> done)
        : options_(options), tally_(tally), done_(std::move(done)), active_(options.active) {}

    // Memory is compared between one connection that has been used and all of them. One hello more
    // tells that an idle time is over.
    void CountHello() {
      ++hellos_;
      if (idle_) tally_.meter.measured.idleCpu = idle_->Read();
      idle_.reset();
      if (options_.clients == 1) return;
      if (hellos_ == 1) bytesWithOne_ = GetPrivateBytes();
      if (hellos_ == options_.clients) {
        tally_.meter.measured.idleBytes = (GetPrivateBytes() - bytesWithOne_) / (hellos_ - 1);
        if (options_.idleSeconds > 0) idle_.emplace();
      }
    }

    void CountLast() {
      if (--active_ == 0) done_();
    }

   private:
    const Options& options_;
    Tally& tally_;
    std::function<void()> done_;
    unsigned active_;
    unsigned hellos_ = 0;
    std::uint64_t bytesWithOne_ = 0;
    std::optional<CpuWatch> idle_;
  };

  class ReceivingChannel : public ServerChannel {
   public:
    ReceivingChannel(Transport* transport, Reception& reception, Incoming incoming)
        : ServerChannel(transport), reception_(reception), incoming_(incoming) {}

    void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                       std::size_t size) override {
      if (type == kHello) {
        reception_.CountHello();
        Check(this->SendZARNMessage(kHello, tag, data, size), "send");
      } else if (!incoming_.Take(data, size)) {
        reception_.CountLast();
      }
    }

   private:
    Reception& reception_;
    Incoming incoming_;
  };

  static void Receive(const Options& options, const Control& control, Tally& tally) {
    CAWThread& loop = StartLoop(options);
    std::optional<Server> server;
    // In a turn of the loop, which writes what the ends of connections still have to say.
    const auto finish = [&] {
      control.SendReport(tally.meter.measured);
      server.reset();
      loop.Stop();
    };
    Reception reception(options, tally, [&] { loop.Post(finish); });
    server.emplace([&](Transport* transport) {
      return std::make_unique<ReceivingChannel>(transport, reception, Incoming(options, tally));
    });
    control.SendReady();
    loop.Run();
    control.WaitForParent();
  }

  class EchoChannel : public ServerChannel {
   public:
    EchoChannel(Transport* transport, CAWThread& loop) : ServerChannel(transport), loop_(loop) {}

    void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                       std::size_t size) override {
      Check(this->SendZARNMessage(type, tag, data, size), "send");
      if (GetStamp(data).kind == Kind::kLast) loop_.Stop();
    }

   private:
    CAWThread& loop_;
  };

  static void Echo(const Options& options, const Control& control) {
    CAWThread& loop = StartLoop(options);
    const Server server(
        [&](Transport* transport) { return std::make_unique<EchoChannel>(transport, loop); });
    control.SendReady();
    loop.Run();
    control.WaitForParent();
  }

  // --- clients ---

  class SendingChannel : public ClientChannel {
   public:
    explicit SendingChannel(std::function<void()> greeted, CAWThread& loop)
        : greeted_(std::move(greeted)), loop_(loop) {}

    int OnConnected(long reason) override {
      ClientChannel::OnConnected(reason);
      Greet();
      return 1;
    }

    void Greet() { Check(this->SendZARNMessage(kHello, 0, "hello", 5), "send"); }

    void OnZARNMessage(std::uint16_t, std::uint32_t, const char*, std::size_t) override {
      greeted_();
    }

    void Start(const Options& options, Sending& sending) {
      outgoing_.emplace(options, sending);
      Fill();
    }

    void OnSend(Transport* transport, TransportParameter* parameter) override {
      ClientChannel::OnSend(transport, parameter);
      if (outgoing_) Fill();
    }

    // The receiver closes when it has everything.
    void OnPeerDisconnect(long reason) override {
      ClientChannel::OnPeerDisconnect(reason);
      loop_.Stop();
    }

   private:
    void Fill() {
      while (this->GetSendQueueLength() == 0 && outgoing_->Next()) {
        const std::vector<char>& message = outgoing_->Message();
        Check(this->SendZARNMessage(kData, 0, message.data(), message.size()), "send");
      }
    }

    std::function<void()> greeted_;
    CAWThread& loop_;
    std::optional<Outgoing> outgoing_;
  };

  // Connects one client after the other; when all are there, and have been idle if that is asked
  // for, those that are active start to send.
  class Clients {
   public:
    Clients(const Options& options, Sending& sending, CAWThread& loop)
        : options_(options), sending_(sending), loop_(loop) {
      channels_.reserve(options.clients);
      AddOne();
    }

   private:
    void AddOne() {
      const auto number = static_cast<std::uint16_t>(channels_.size());
      channels_.push_back(std::make_unique<SendingChannel>([this] { GoOn(); }, loop_));
      Check(channels_.back()->Init(3, number, 1, 2), "connect");
    }

    void GoOn() {
      if (channels_.size() < options_.clients) return AddOne();
      if (options_.idleSeconds > 0 && !std::exchange(wasIdle_, true)) return BeIdle();
      sending_.Start();
      for (unsigned i = 0; i < options_.active; ++i) channels_[i]->Start(options_, sending_);
    }

    void BeIdle() {
      idle_.emplace();
      idleEnd_.Start(options_.idleSeconds);
    }

    const Options& options_;
    Sending& sending_;
    CAWThread& loop_;
    std::vector<std::unique_ptr<SendingChannel>> channels_;
    bool wasIdle_ = false;
    std::optional<CpuWatch> idle_;
    Later idleEnd_{[this] {
      sending_.SetIdleCpu(idle_->Read());
      channels_.front()->Greet();
    }};
  };

  static void Send(const Options& options, const Control&, Sending& sending) {
    CAWThread& loop = StartLoop(options);
    const Clients clients(options, sending, loop);
    loop.Run();
  }

  class AskingChannel : public ClientChannel {
   public:
    AskingChannel(RoundTrips& trips, CAWThread& loop) : trips_(trips), loop_(loop) {}

    int OnConnected(long reason) override {
      ClientChannel::OnConnected(reason);
      AskLater();
      return 1;
    }

    void OnZARNMessage(std::uint16_t, std::uint32_t, const char* data, std::size_t size) override {
      trips_.Take(data, size);
      AskLater();
    }

   private:
    void AskLater() {
      if (trips_.PauseMs() == 0) return Ask();
      pause_.Start(trips_.PauseMs() * 1e-3);
    }

    void Ask() {
      if (!trips_.Next()) return loop_.Stop();
      const std::vector<char>& message = trips_.Message();
      Check(this->SendZARNMessage(kData, 0, message.data(), message.size()), "send");
    }

    RoundTrips& trips_;
    CAWThread& loop_;
    Later pause_{[this] { Ask(); }};
  };

  static void Ask(const Options& options, const Control&, RoundTrips& trips) {
    CAWThread& loop = StartLoop(options);
    AskingChannel channel(trips, loop);
    Check(channel.Init(3, 4, 1, 2), "connect");
    loop.Run();
  }
};

}  // namespace bench
