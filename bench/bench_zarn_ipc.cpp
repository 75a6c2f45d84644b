// bench_zarn_ipc.cpp - zarnutils over local IPC, from SendZARNMessage to OnZARNMessage, as its
// users have it: channel classes, one loop, which runs on the main thread.
#include <sys/resource.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "common/Bench.h"
#include "fipc/CAWIPCManager.h"
#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWThread.h"
#include "keelbase/CAWThreadManager.h"
#include "zarn/utils/CZARNLibClientChannel.h"
#include "zarn/utils/CZARNLibServerChannel.h"
#include "zarn/utils/zarnutils.h"

namespace {

using namespace bench;
using keelbase::CAWThread;
using keelbase::CAWThreadManager;
using zarn::utils::CZARNLibClientChannel;
using zarn::utils::CZARNLibServerChannel;

constexpr std::uint16_t kHello = 1;  // answered, not counted
constexpr std::uint16_t kData = 2;

void Check(keelbase::AWResult result, const char* what) {
  if (result != keelbase::AW_OK) Fail(std::string("zarn: ") + what + ": " + std::to_string(result));
}

// The processor and the memory stand for users; how many descriptors they may open does not matter
// here.
void AllowDescriptors() {
  rlimit descriptors{};
  ::getrlimit(RLIMIT_NOFILE, &descriptors);
  descriptors.rlim_cur = descriptors.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &descriptors);
}

CAWThread& StartLoop(const Options& options) {
  AllowDescriptors();
  std::filesystem::create_directory(options.dir + "/system");
  ::setenv("ZARN_ROOT", options.dir.c_str(), 1);
  Check(zarn::utils::ZARNLibInit(), "install root");
  auto* manager = CAWThreadManager::Instance();
  Check(manager->AdoptCurrentThread(CAWThreadManager::TT_NETWORK), "main thread");
  CAWThread* loop = manager->GetThread(CAWThreadManager::TT_NETWORK);
  loop->SetSpin(options.spinUs);
  return *loop;
}

// --- server: the endpoint 1_2 ---

class Server : public fipc::IAWIPCAcceptorConnectorSink {
 public:
  using Make = std::function<std::unique_ptr<CZARNLibServerChannel>(fipc::IAWIPCTransport*)>;

  explicit Server(Make make) : make_(std::move(make)) {
    Check(zarn::utils::CreateIPCServer(acceptor_), "acceptor");
    keelbase::CAWIPCAddr address;
    Check(zarn::utils::ZARNCreateIPCAddr(2, 1, address), "address");
    Check(acceptor_->StartListen(this, address), "listen");
  }

  void OnIPCConnectIndication(long reason, fipc::IAWIPCTransport* transport,
                              fipc::IAWIPCAcceptorConnectorId*) override {
    Check(static_cast<keelbase::AWResult>(reason), "accept");
    channels_.push_back(make_(transport));
  }

 private:
  Make make_;
  keelbase::CAWAutoPtr<fipc::IAWIPCAcceptor> acceptor_;
  std::vector<std::unique_ptr<CZARNLibServerChannel>> channels_;
};

// What the connections of the receiving process have in common.
class Reception {
 public:
  Reception(const Options& options, Tally& tally, CAWThread& loop)
      : options_(options), tally_(tally), loop_(loop), active_(options.active) {}

  // Memory is compared between one connection that has been used and all of them.
  void CountHello() {
    ++hellos_;
    if (options_.clients == 1) return;
    if (hellos_ == 1) bytesWithOne_ = GetPrivateBytes();
    if (hellos_ == options_.clients)
      tally_.meter.measured.idleBytes = (GetPrivateBytes() - bytesWithOne_) / (hellos_ - 1);
  }

  void CountLast() {
    if (--active_ == 0) loop_.Stop();
  }

 private:
  const Options& options_;
  Tally& tally_;
  CAWThread& loop_;
  unsigned active_;
  unsigned hellos_ = 0;
  std::uint64_t bytesWithOne_ = 0;
};

class ReceivingChannel : public CZARNLibServerChannel {
 public:
  ReceivingChannel(fipc::IAWIPCTransport* transport, Reception& reception, Incoming incoming)
      : CZARNLibServerChannel(transport), reception_(reception), incoming_(incoming) {}

  void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                     std::size_t size) override {
    if (type == kHello) {
      reception_.CountHello();
      Check(SendZARNMessage(kHello, tag, data, size), "send");
    } else if (!incoming_.Take(data, size)) {
      reception_.CountLast();
    }
  }

 private:
  Reception& reception_;
  Incoming incoming_;
};

void Receive(const Options& options, const Control& control, Tally& tally) {
  CAWThread& loop = StartLoop(options);
  Reception reception(options, tally, loop);
  {
    const Server server([&](fipc::IAWIPCTransport* transport) {
      return std::make_unique<ReceivingChannel>(transport, reception, Incoming(options, tally));
    });
    control.SendReady();
    loop.Run();
    control.SendReport(tally.meter.measured);
  }
  control.WaitForParent();
}

class EchoChannel : public CZARNLibServerChannel {
 public:
  EchoChannel(fipc::IAWIPCTransport* transport, CAWThread& loop)
      : CZARNLibServerChannel(transport), loop_(loop) {}

  void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                     std::size_t size) override {
    Check(SendZARNMessage(type, tag, data, size), "send");
    if (GetStamp(data).kind == Kind::kLast) loop_.Stop();
  }

 private:
  CAWThread& loop_;
};

void Echo(const Options& options, const Control& control) {
  CAWThread& loop = StartLoop(options);
  const Server server([&](fipc::IAWIPCTransport* transport) {
    return std::make_unique<EchoChannel>(transport, loop);
  });
  control.SendReady();
  loop.Run();
  control.WaitForParent();
}

// --- clients ---

class SendingChannel : public CZARNLibClientChannel {
 public:
  explicit SendingChannel(std::function<void()> greeted, CAWThread& loop)
      : greeted_(std::move(greeted)), loop_(loop) {}

  int OnConnected(long reason) override {
    CZARNLibClientChannel::OnConnected(reason);
    Check(SendZARNMessage(kHello, 0, "hello", 5), "send");
    return 1;
  }

  void OnZARNMessage(std::uint16_t, std::uint32_t, const char*, std::size_t) override {
    greeted_();
  }

  void Start(const Options& options, Sending& sending) {
    outgoing_.emplace(options, sending);
    Fill();
  }

  void OnSend(fipc::IAWIPCTransport* transport,
              fipc::CAWIPCTransportParameter* parameter) override {
    CZARNLibClientChannel::OnSend(transport, parameter);
    if (outgoing_) Fill();
  }

  // The receiver closes when it has everything.
  void OnPeerDisconnect(long reason) override {
    CZARNLibClientChannel::OnPeerDisconnect(reason);
    loop_.Stop();
  }

 private:
  void Fill() {
    while (GetSendQueueLength() == 0 && outgoing_->Next()) {
      const std::vector<char>& message = outgoing_->Message();
      Check(SendZARNMessage(kData, 0, message.data(), message.size()), "send");
    }
  }

  std::function<void()> greeted_;
  CAWThread& loop_;
  std::optional<Outgoing> outgoing_;
};

// Connects one client after the other; when all are there, those that are active start to send.
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
    sending_.Start();
    for (unsigned i = 0; i < options_.active; ++i) channels_[i]->Start(options_, sending_);
  }

  const Options& options_;
  Sending& sending_;
  CAWThread& loop_;
  std::vector<std::unique_ptr<SendingChannel>> channels_;
};

void Send(const Options& options, const Control&, Sending& sending) {
  CAWThread& loop = StartLoop(options);
  const Clients clients(options, sending, loop);
  loop.Run();
}

class AskingChannel : public CZARNLibClientChannel {
 public:
  AskingChannel(RoundTrips& trips, CAWThread& loop) : trips_(trips), loop_(loop) {}

  int OnConnected(long reason) override {
    CZARNLibClientChannel::OnConnected(reason);
    Ask();
    return 1;
  }

  void OnZARNMessage(std::uint16_t, std::uint32_t, const char* data, std::size_t size) override {
    trips_.Take(data, size);
    Ask();
  }

 private:
  void Ask() {
    if (!trips_.Next()) return loop_.Stop();
    const std::vector<char>& message = trips_.Message();
    Check(SendZARNMessage(kData, 0, message.data(), message.size()), "send");
  }

  RoundTrips& trips_;
  CAWThread& loop_;
};

void Ask(const Options& options, const Control&, RoundTrips& trips) {
  CAWThread& loop = StartLoop(options);
  AskingChannel channel(trips, loop);
  Check(channel.Init(3, 4, 1, 2), "connect");
  loop.Run();
}

}  // namespace

int main(int argc, char** argv) { return Main(argc, argv, {"zarn", Receive, Send, Echo, Ask}); }
