// client_peer.cpp - one client: client_peer 3_4 1_2 echo|count|load|flood [main] [shm]
// [spin=MICROSECONDS]
//
// Events: init_failed {result}; connected {retries}; disconnected {reason}; failed {reason} for an
// attempt that did not get through; not_sent, wrong; stats {...}.
// Commands: stats; quiet and load (stops and goes on with the load); no-descriptors, descriptors;
// send COUNT SIZE (event sent {failed}).
#include <memory>

#include "Descriptors.h"
#include "Family.h"
#include "Program.h"
#include "Traffic.h"

namespace {

using e2e::Event;

template <class Family>
class Client final : public Family::ClientChannel {
  using Base = typename Family::ClientChannel;

 public:
  Client(const char* own, const char* peer, const char* mode)
      : own_(own), peer_(peer), mode_(e2e::ParseMode(mode)) {}

  void Start() {
    const keelbase::AWResult result =
        this->Init(own_.first, own_.second, peer_.first, peer_.second);
    if (result != keelbase::AW_OK) Event("init_failed").With("result", result);
    if (e2e::IsLoad(mode_)) Load();
  }

  void Command(const e2e::Words& words) {
    if (words[0] == "stats") PrintStats();
    if (words[0] == "quiet") loadTimer_.Cancel();
    if (words[0] == "load") Load();
    if (words[0] == "no-descriptors") Event(words[0]).With("done", e2e::ForbidNewDescriptors());
    if (words[0] == "descriptors") Event(words[0]).With("done", e2e::GiveDescriptorsBack());
    if (words[0] == "send") Send(std::stoi(words.at(1)), std::stoul(words.at(2)));
  }

  int OnConnected(long reason) override {
    const std::uint32_t retries = this->GetRetryCount();
    Base::OnConnected(reason);
    traffic_.Restart();
    Event("connected").With("retries", retries);
    return 1;
  }

  void OnPeerDisconnect(long reason) override {
    const bool was_connected = this->IsConnected();
    Base::OnPeerDisconnect(reason);
    Event(was_connected ? "disconnected" : "failed").With("reason", reason);
  }

  // Over shared memory; over local IPC it is told as above.
  void OnConnectFailure(long reason) override {
    Base::OnConnectFailure(reason);
    Event("failed").With("reason", reason);
  }

  void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                     std::size_t size) override {
    traffic_.Received(*this, type, tag, data, size);
  }

  void OnTimer(keelbase::CAWTimerWrapperID* timer) override {
    if (timer == &loadTimer_)
      traffic_.SendMore(*this, random_);
    else
      Base::OnTimer(timer);
  }

 private:
  void Load() { loadTimer_.Schedule(this, std::chrono::milliseconds(1)); }

  void PrintStats() {
    Event("stats")
        .With("connected", this->IsConnected())
        .With("retries", this->GetRetryCount())
        .With("received", counts_.received)
        .With("received_bytes", counts_.receivedBytes)
        .With("sent", counts_.sent)
        .With("wrong", counts_.wrong)
        .With("queued", this->GetSendQueueLength())
        .With("malformed", this->GetCounters().malformedFrames);
  }

  void Send(int count, std::size_t size) {
    const std::string payload(size, 'p');
    int failed = 0;
    for (int i = 0; i < count; ++i)
      failed += this->SendZARNMessage(1, static_cast<std::uint32_t>(i), payload.data(), size) !=
                keelbase::AW_OK;
    Event("sent").With("failed", failed);
  }

  e2e::Endpoint own_;
  e2e::Endpoint peer_;
  e2e::Mode mode_;
  e2e::Counts counts_;
  e2e::Traffic traffic_{mode_, counts_};
  keelbase::CAWTimerWrapperID loadTimer_;
  std::minstd_rand random_{std::random_device{}()};
};

// The channel is destroyed on its own thread.
template <class Family>
struct Program {
  std::unique_ptr<Client<Family>> client;
  void Start() { client->Start(); }
  void Command(const e2e::Words& words) { client->Command(words); }
  void Finish() { client.reset(); }
};

template <class Family>
int Run(char** argv, const e2e::Options& options) {
  if (Family::Prepare() != keelbase::AW_OK) return 3;
  Program<Family> program{std::make_unique<Client<Family>>(argv[1], argv[2], argv[3])};
  return e2e::Serve(program, options.adoptMain, options.spin);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4 || !e2e::GiveDescriptorsBack()) return 2;
  const e2e::Options options(4, argc, argv);
  return options.shm ? Run<e2e::SharedMemory>(argv, options) : Run<e2e::LocalIpc>(argv, options);
}
