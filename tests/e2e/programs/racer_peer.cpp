// racer_peer.cpp - listens at an endpoint at a given moment: racer_peer 1_2
//
// Commands: listen TIME (seconds of the steady clock); stop.
// Events: listen {result} when StartListen has answered; listen_failed {reason} when it fails
// later; accepted; stop, when it has let go of the endpoint.
#include "Program.h"
#include "fipc/CAWIPCManager.h"

namespace {

using e2e::Event;

class Racer final : public fipc::IAWIPCAcceptorConnectorSink {
 public:
  explicit Racer(const char* endpoint) : endpoint_(endpoint) {}

  void Start() {
    zarn::utils::ZARNCreateIPCAddr(endpoint_.second, endpoint_.first, address_);
    Event("ready");
  }

  void Command(const e2e::Words& words) {
    if (words[0] == "listen") {
      zarn::utils::CreateIPCServer(acceptor_);
      WaitUntil(std::stod(words.at(1)));
      Event("listen").With("result", acceptor_->StartListen(this, address_));
    }
    if (words[0] == "stop") {
      acceptor_ = nullptr;
      Event("stop");
    }
  }

  void Finish() { acceptor_ = nullptr; }

  void OnIPCConnectIndication(long reason, fipc::IAWIPCTransport* /*transport*/,
                              fipc::IAWIPCAcceptorConnectorId* /*id*/) override {
    if (reason == 0)
      Event("accepted");
    else
      Event("listen_failed").With("reason", reason);
  }

 private:
  // Awake, so that both racers start within microseconds.
  static void WaitUntil(double seconds) {
    const std::chrono::duration<double> time(seconds);
    while (std::chrono::steady_clock::now().time_since_epoch() < time) {
    }
  }

  e2e::Endpoint endpoint_;
  keelbase::CAWIPCAddr address_;
  keelbase::CAWAutoPtr<fipc::IAWIPCAcceptor> acceptor_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  Racer racer(argv[1]);
  return e2e::Serve(racer, false);
}
