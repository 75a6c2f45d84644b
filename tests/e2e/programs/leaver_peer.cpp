// leaver_peer.cpp - sends, closes and ends at once, the moment it has a connection:
//   leaver_peer client|server main|network return|exit COUNT SIZE
//
// "main" runs the loop on the main thread, "network" on the network thread. "return" ends by
// returning from main(), "exit" by exit() inside the callback. A client is 3_4, the server is
// always 1_2. Events: listening; left {failed}, once all has been sent and closed.
#include <cstdlib>
#include <future>
#include <memory>
#include <string>

#include "Program.h"
#include "zarn/utils/CZARNLibClientChannel.h"
#include "zarn/utils/CZARNLibServerChannel.h"

namespace {

using e2e::Event;

struct Plan {
  std::string role;
  bool on_main;
  bool exits;
  int count;
  std::size_t size;
};

class Leaver {
 public:
  explicit Leaver(const Plan& plan) : plan_(plan) {}

  template <class Channel>
  void Leave(Channel& channel) {
    const std::string payload(plan_.size, 'x');
    int failed = 0;
    for (int i = 0; i < plan_.count; ++i)
      failed += channel.SendZARNMessage(5, static_cast<std::uint32_t>(i), payload.data(),
                                        payload.size()) != keelbase::AW_OK;
    channel.Close(0);
    Event("left").With("failed", failed);
    if (plan_.exits) std::exit(0);
    left_.set_value();
    if (plan_.on_main) keelbase::CAWThreadManager::Instance()->GetThread(Type())->Stop();
  }

  int Type() const {
    return plan_.on_main ? keelbase::CAWThreadManager::TT_MAIN
                         : keelbase::CAWThreadManager::TT_NETWORK;
  }
  void Wait() { left_.get_future().wait(); }

 private:
  Plan plan_;
  std::promise<void> left_;
};

class Client final : public zarn::utils::CZARNLibClientChannel {
 public:
  explicit Client(Leaver& leaver) : leaver_(leaver) {}
  void Start() { Init(3, 4, 1, 2); }
  int OnConnected(long reason) override {
    CZARNLibClientChannel::OnConnected(reason);
    leaver_.Leave(*this);
    return 1;
  }
  void OnZARNMessage(std::uint16_t, std::uint32_t, const char*, std::size_t) override {}

 private:
  Leaver& leaver_;
};

class Channel final : public zarn::utils::CZARNLibServerChannel {
 public:
  using CZARNLibServerChannel::CZARNLibServerChannel;
  void OnZARNMessage(std::uint16_t, std::uint32_t, const char*, std::size_t) override {}
};

class Server final : public fipc::IAWIPCAcceptorConnectorSink {
 public:
  explicit Server(Leaver& leaver) : leaver_(leaver) {}
  void Start() {
    keelbase::CAWIPCAddr address;
    zarn::utils::ZARNCreateIPCAddr(2, 1, address);
    zarn::utils::CreateIPCServer(acceptor_);
    if (acceptor_->StartListen(this, address) == keelbase::AW_OK) Event("listening");
  }
  void OnIPCConnectIndication(long reason, fipc::IAWIPCTransport* transport,
                              fipc::IAWIPCAcceptorConnectorId* /*id*/) override {
    if (reason != 0 || channel_ != nullptr) return;
    channel_ = std::make_unique<Channel>(transport);
    leaver_.Leave(*channel_);
  }

 private:
  Leaver& leaver_;
  keelbase::CAWAutoPtr<fipc::IAWIPCAcceptor> acceptor_;
  std::unique_ptr<Channel> channel_;
};

template <class Party>
int Run(const Plan& plan) {
  Leaver leaver(plan);
  auto* manager = keelbase::CAWThreadManager::Instance();
  if (plan.on_main) manager->AdoptCurrentThread(leaver.Type());
  keelbase::CAWThread* thread = manager->GetThread(leaver.Type());
  auto party = std::make_unique<Party>(leaver);
  thread->Call([&] { party->Start(); });
  if (plan.on_main) thread->Run();
  leaver.Wait();
  thread->Call([&] { party.reset(); });
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 6) return 2;
  const Plan plan{argv[1], std::string(argv[2]) == "main", std::string(argv[3]) == "exit",
                  std::stoi(argv[4]), std::stoul(argv[5])};
  return plan.role == "client" ? Run<Client>(plan) : Run<Server>(plan);
}
