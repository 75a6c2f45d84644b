// server_peer.cpp - accepts clients: server_peer 1_2 echo|count|load|flood [main] [shm]
// [spin=MICROSECONDS] [bound=BYTES]
//
// Events: listening or listen_failed {reason}; accepted and disconnected {reason, clients}; dropped
// (more than BYTES waited for a client that does not read); not_sent, wrong; stats {...}.
// Commands: stats; quiet and load (stops and goes on with the load); no-descriptors, descriptors;
// send COUNT SIZE (to each client; event sent {failed}).
#include <cstdlib>
#include <list>
#include <memory>

#include "Descriptors.h"
#include "Family.h"
#include "Program.h"
#include "Traffic.h"
#include "keelbase/CAWTimer.h"

namespace {

using e2e::Event;

template <class Family>
class Server;

template <class Family>
class Channel final : public Family::ServerChannel {
 public:
  Channel(Server<Family>& server, typename Family::Transport* transport);

  void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                     std::size_t size) override;
  void OnPeerDisconnect(long reason) override;

  e2e::Traffic& GetTraffic() { return traffic_; }
  void SetPlace(typename std::list<std::unique_ptr<Channel>>::iterator place) { place_ = place; }

 private:
  Server<Family>& server_;
  e2e::Traffic traffic_;
  typename std::list<std::unique_ptr<Channel>>::iterator place_;
};

template <class Family>
class Server final : public Family::Listener, public keelbase::CAWTimerWrapperIDSink {
 public:
  using Channels = std::list<std::unique_ptr<Channel<Family>>>;

  Server(const char* endpoint, const char* mode, std::size_t bound)
      : endpoint_(endpoint), mode_(e2e::ParseMode(mode)), bound_(bound) {}

  void Start() {
    const keelbase::AWResult result = this->Listen(endpoint_);
    if (result == keelbase::AW_OK)
      Event("listening");
    else
      Event("listen_failed").With("reason", result);
    if (e2e::IsLoad(mode_)) timer_.Schedule(this, std::chrono::milliseconds(1));
  }

  void Command(const e2e::Words& words) {
    if (words[0] == "stats") PrintStats();
    if (words[0] == "quiet") timer_.Cancel();
    if (words[0] == "load") timer_.Schedule(this, std::chrono::milliseconds(1));
    if (words[0] == "no-descriptors") Event(words[0]).With("done", e2e::ForbidNewDescriptors());
    if (words[0] == "descriptors") Event(words[0]).With("done", e2e::GiveDescriptorsBack());
    if (words[0] == "send") Send(std::stoi(words.at(1)), std::stoul(words.at(2)));
  }

  void Finish() {
    timer_.Cancel();
    channels_.clear();
    this->StopListening();
  }

  void OnIndication(long reason, typename Family::Transport* transport) override {
    if (reason != 0) {
      Event("listen_failed").With("reason", reason);
      return;
    }
    channels_.push_back(std::make_unique<Channel<Family>>(*this, transport));
    channels_.back()->SetPlace(std::prev(channels_.end()));
    Event("accepted").With("clients", channels_.size());
  }

  void OnTimer(keelbase::CAWTimerWrapperID* /*timer*/) override {
    for (const auto& channel : channels_) channel->GetTraffic().SendMore(*channel, random_);
  }

  // Destroys the channel.
  void Drop(typename Channels::iterator place, long reason) {
    malformed_ += (*place)->GetCounters().malformedFrames;
    channels_.erase(place);
    Event("disconnected").With("reason", reason).With("clients", channels_.size());
  }

  e2e::Mode GetMode() const { return mode_; }
  e2e::Counts& GetCounts() { return counts_; }
  std::size_t GetBound() const { return bound_; }

 private:
  void PrintStats() {
    std::size_t queued = 0;
    std::uint64_t malformed = malformed_;
    for (const auto& channel : channels_) {
      queued += channel->GetSendQueueLength();
      malformed += channel->GetCounters().malformedFrames;
    }
    Event("stats")
        .With("clients", channels_.size())
        .With("received", counts_.received)
        .With("received_bytes", counts_.receivedBytes)
        .With("sent", counts_.sent)
        .With("wrong", counts_.wrong)
        .With("queued", queued)
        .With("malformed", malformed);
  }

  void Send(int count, std::size_t size) {
    const std::string payload(size, 'p');
    int failed = 0;
    for (const auto& channel : channels_) {
      for (int i = 0; i < count; ++i)
        failed += channel->SendZARNMessage(1, static_cast<std::uint32_t>(i), payload.data(),
                                           size) != keelbase::AW_OK;
    }
    Event("sent").With("failed", failed);
  }

  e2e::Endpoint endpoint_;
  e2e::Mode mode_;
  std::size_t bound_;
  e2e::Counts counts_;
  std::uint64_t malformed_ = 0;  // by clients that are gone
  Channels channels_;
  keelbase::CAWTimerWrapperID timer_;
  std::minstd_rand random_{std::random_device{}()};
};

template <class Family>
Channel<Family>::Channel(Server<Family>& server, typename Family::Transport* transport)
    : Family::ServerChannel(transport),
      server_(server),
      traffic_(server.GetMode(), server.GetCounts()) {}

template <class Family>
void Channel<Family>::OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                                    std::size_t size) {
  traffic_.Received(*this, type, tag, data, size);
  if (server_.GetBound() != 0 && this->GetSendQueueLength() > server_.GetBound()) {
    Event("dropped").With("queued", this->GetSendQueueLength());
    this->Close(0);
  }
}

template <class Family>
void Channel<Family>::OnPeerDisconnect(long reason) {
  server_.Drop(place_, reason);
}

template <class Family>
int Run(char** argv, const e2e::Options& options) {
  if (Family::Prepare() != keelbase::AW_OK) return 3;
  Server<Family> server(argv[1], argv[2], options.bound);
  return e2e::Serve(server, options.adoptMain, options.spin);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || !e2e::GiveDescriptorsBack()) return 2;
  const e2e::Options options(3, argc, argv);
  return options.shm ? Run<e2e::SharedMemory>(argv, options) : Run<e2e::LocalIpc>(argv, options);
}
