// exchange_peer.cpp - one side of a checked exchange over any transport:
//   exchange_peer serve URL [KEY CERTIFICATE]     sends back what comes
//   exchange_peer connect URL [AUTHORITIES]       the server is asked for as "localhost"
// The urls are those of the program zarn. The client sends numbered messages and checks that the
// same come back, in order; after a lost connection it begins again. When it is told to end, it
// sends a few more and closes.
//
// Events: ready or start_failed; server: peer, refused {reason}, gone {reason, whole: the last
// messages of the client were all there}, not_sent {reason}, listen_failed {reason}; client: up,
// down {reason}, done; both: wrong {detail}. Commands: stats; stop (closes; the client sends its
// last messages before), answered by stop.
#include <map>
#include <memory>
#include <string>

#include "Link.h"
#include "Program.h"
#include "Traffic.h"
#include "keelbase/CAWTimer.h"

namespace {

using e2e::Event;
using zarn::tool::Endpoint;
using zarn::tool::Message;

constexpr std::uint64_t kAnswered = 40;  // messages that come back
constexpr std::uint64_t kLast = 5;       // and that are only sent, before the client closes

// Checks one direction of a connection.
class Sequence {
 public:
  void Take(const Message& message) {
    if (!e2e::NumberedMessage::IsWhole(next_, message.type, message.tag, message.data.data(),
                                       message.data.size()))
      Event("wrong").With("detail", next_);
    ++next_;
  }
  std::uint64_t GetCount() const { return next_; }

 private:
  std::uint64_t next_ = 0;
};

class Server final : private zarn::tool::ServerSink {
 public:
  explicit Server(Endpoint endpoint) : endpoint_(std::move(endpoint)) {}

  void Start() {
    link_ = endpoint_.scheme->makeServer(endpoint_, *this);
    const std::string problem = link_->Start();
    const Event told(problem.empty() ? "ready" : "start_failed");
    if (!problem.empty()) std::cerr << problem << '\n';
  }
  void Command(const e2e::Words& words) {
    if (words[0] == "stop") Finish();
    const Event told(words[0]);
  }
  void Finish() {
    if (link_ != nullptr) link_->Stop();
  }

 private:
  void OnPeer(zarn::tool::ServerPeer& peer) override {
    sequences_[&peer] = {};
    const Event told("peer");
  }
  void OnPeerRefused(long reason) override { Event("refused").With("reason", reason); }
  void OnPeerGone(zarn::tool::ServerPeer& peer, long reason) override {
    const bool whole = sequences_[&peer].GetCount() == kAnswered + kLast;
    sequences_.erase(&peer);
    Event("gone").With("reason", reason).With("whole", static_cast<int>(whole));
  }
  void OnMessage(zarn::tool::ServerPeer& peer, const Message& message) override {
    Sequence& sequence = sequences_[&peer];
    sequence.Take(message);
    if (sequence.GetCount() > kAnswered) return;
    const keelbase::AWResult result = peer.Send(message);
    if (result == keelbase::AW_OK) return;
    Event("not_sent").With("reason", result);
    peer.Drop();
  }
  void OnListenFailed(long reason) override { Event("listen_failed").With("reason", reason); }

  const Endpoint endpoint_;
  std::unique_ptr<zarn::tool::ServerLink> link_;
  std::map<zarn::tool::ServerPeer*, Sequence> sequences_;
};

class Client final : private zarn::tool::ClientSink {
 public:
  explicit Client(Endpoint endpoint) : endpoint_(std::move(endpoint)) {}

  void Start() {
    link_ = endpoint_.scheme->makeClient(endpoint_, {3, 4}, *this);
    const std::string problem = link_->Start();
    const Event told(problem.empty() ? "ready" : "start_failed");
    if (!problem.empty()) std::cerr << problem << '\n';
  }
  void Command(const e2e::Words& words) {
    if (words[0] == "stop") Finish();
    const Event told(words[0]);
  }
  void Finish() {
    if (link_ == nullptr) return;
    if (received_.GetCount() == kAnswered) SendUpTo(kAnswered + kLast);
    link_->Close();
    link_.reset();
  }

  // What SendBy calls.
  keelbase::AWResult SendZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                                     std::size_t size) {
    return link_->Send({type, tag, std::string_view(data, size)});
  }

 private:
  void OnUp() override {
    sent_ = 0;
    received_ = {};
    { const Event told("up"); }
    SendUpTo(kAnswered / 2);
  }
  void OnDown(long reason) override { Event("down").With("reason", reason); }
  void OnMessage(const Message& message) override {
    received_.Take(message);
    if (sent_ < kAnswered) SendUpTo(sent_ + 1);
    if (received_.GetCount() == kAnswered) const Event told("done");
  }
  void OnRoom() override {}

  void SendUpTo(std::uint64_t count) {
    for (; sent_ < count; ++sent_)
      if (e2e::NumberedMessage(sent_, random_).SendBy(*this) != keelbase::AW_OK) return;
  }

  const Endpoint endpoint_;
  std::unique_ptr<zarn::tool::ClientLink> link_;
  std::uint64_t sent_ = 0;
  Sequence received_;
  std::minstd_rand random_{11};  // some of these are long
};

}  // namespace

int main(int argc, char** argv) {
  Endpoint endpoint;
  const std::string mode = argc > 2 ? argv[1] : "";
  if (mode.empty() || !zarn::tool::ParseEndpoint(argv[2], endpoint).empty()) return 2;
  if (mode == "serve") {
    if (argc == 5) endpoint.security.key = argv[3];
    if (argc == 5) endpoint.security.certificate = argv[4];
    Server server(endpoint);
    return e2e::Serve(server, false);
  }
  if (argc == 4) endpoint.security.authorities = argv[3];
  endpoint.security.serverName = "localhost";
  Client client(endpoint);
  return e2e::Serve(client, false);
}
