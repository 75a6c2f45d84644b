// soak_peer.cpp - one process of the soak, over any of the six transports:
//   soak_peer serve|serve-blocks URL SEED INCARNATION PACE [KEY CERTIFICATE]
//   soak_peer connect URL SEED INCARNATION PACE CLIENT [AUTHORITY]
// serve-blocks makes a server over TCP or TLS of the streams that deliver block by block.
// Every ten milliseconds it sends up to twice PACE messages on each connection. A client connects
// again whenever its connection is lost.
//
// Events, times are seconds of the steady clock:
//   listening or listen_failed
//   flowing {client, generation}  on each connection, once messages have come and been found right
//   down {client, generation, reason}  the end of a connection
//   pulse {sent, received, bytes, connections}  every half second
//   wrong {...}                   a message that must not have come
// Commands: quiet (says nothing more); connections: a connection {client, generation, sent,
// received} for each one and then connections {count}.
#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>

#include "BlockServer.h"
#include "Conversation.h"
#include "Endpoint.h"
#include "Link.h"
#include "Loop.h"
#include "Program.h"
#include "Script.h"

namespace {

using e2e::Event;
using soak::Conversation;
using soak::Speaker;
using zarn::tool::Message;

constexpr std::uint64_t kFlowing = 10;  // messages after which a connection counts as such

struct Setup {
  zarn::tool::Endpoint endpoint;
  std::uint64_t seed = 0;
  std::uint32_t incarnation = 0;
  int pace = 0;
};

// What both sides do: speak at the pace, tell what they have done.
class Peer {
 public:
  explicit Peer(Setup setup) : setup_(std::move(setup)), random_(setup_.seed) {}
  virtual ~Peer() = default;

  virtual void Start() {
    sayTimer_.Every(0.01);
    pulseTimer_.Every(0.5);
  }
  void Command(const e2e::Words& words) {
    if (words[0] == "quiet") sayTimer_.Cancel();
    if (words[0] == "connections") Event("connections").With("count", TellConnections());
  }
  virtual void Finish() {
    sayTimer_.Cancel();
    pulseTimer_.Cancel();
  }

 protected:
  virtual void SayOnAll() = 0;
  virtual std::size_t TellConnections() const = 0;
  virtual std::size_t CountConnections() const = 0;

  // Mostly a few, seldom as many as the window lets through.
  int ChooseCount() {
    constexpr int kBurst = 1000;
    return random_() % 50 == 0
               ? kBurst
               : static_cast<int>(random_() % static_cast<unsigned>(setup_.pace * 2));
  }

  Conversation MakeConversation(Conversation::Send send) {
    return Conversation(setup_.seed, totals_, std::move(send));
  }

  Speaker MakeSpeaker(std::uint32_t client, bool isServer) {
    return {client, setup_.incarnation, ++connections_, isServer ? 1U : 0U};
  }

  static void TellIfFlowing(const Conversation& conversation, const Speaker& client) {
    if (conversation.GetReceived() != kFlowing) return;
    Event("flowing").With("client", client.client).With("generation", client.GetGeneration());
  }
  static void TellEnd(const Speaker& client, long reason) {
    Event("down")
        .With("client", client.client)
        .With("generation", client.GetGeneration())
        .With("reason", reason);
  }
  static void TellConnection(const Conversation& conversation, const Speaker& client) {
    Event("connection")
        .With("client", client.client)
        .With("generation", client.GetGeneration())
        .With("sent", conversation.GetSent())
        .With("received", conversation.GetReceived());
  }

  const Setup setup_;

 private:
  void Pulse() {
    Event("pulse")
        .With("sent", totals_.sent)
        .With("received", totals_.received)
        .With("bytes", totals_.receivedBytes)
        .With("connections", CountConnections());
  }

  std::minstd_rand random_;
  soak::Totals totals_;
  std::uint32_t connections_ = 0;
  zarn::tool::Timer sayTimer_{[this] { SayOnAll(); }};
  zarn::tool::Timer pulseTimer_{[this] { Pulse(); }};
};

class Client final : public Peer, private zarn::tool::ClientSink {
 public:
  Client(Setup setup, std::uint32_t number) : Peer(std::move(setup)), number_(number) {}

  void Start() override {
    const zarn::tool::Pair own{4, static_cast<std::uint16_t>(number_)};
    link_ = setup_.endpoint.scheme->makeClient(setup_.endpoint, own, *this);
    link_->Start();
    Peer::Start();
  }
  void Finish() override {
    Peer::Finish();
    link_->Close();
    link_.reset();
  }

 private:
  void OnUp() override {
    conversation_ = std::make_unique<Conversation>(
        MakeConversation([this](const Message& message) { return link_->Send(message); }));
    speaker_ = MakeSpeaker(number_, false);
    conversation_->Begin(speaker_);
  }
  void OnDown(long reason) override {
    if (!conversation_) return;  // a connect that has failed
    conversation_.reset();
    TellEnd(speaker_, reason);
  }
  void OnMessage(const Message& message) override {
    if (!conversation_->Take(message)) return;
    if (conversation_->GetReceived() == 1) CheckServer(conversation_->GetOther());
    TellIfFlowing(*conversation_, speaker_);
  }
  void OnRoom() override {}

  // An old server, or a connection of it that was here before, must not speak.
  void CheckServer(const Speaker& server) {
    if (server.client != number_ || server.isServer != 1)
      conversation_->Wrong("server_of", server.client);
    if (server.GetGeneration() <= lastServer_)
      conversation_->Wrong("server_generation", server.GetGeneration());
    lastServer_ = server.GetGeneration();
  }

  void SayOnAll() override {
    if (conversation_) conversation_->SayUpTo(ChooseCount());
  }
  std::size_t CountConnections() const override { return conversation_ ? 1 : 0; }
  std::size_t TellConnections() const override {
    if (conversation_) TellConnection(*conversation_, speaker_);
    return CountConnections();
  }

  const std::uint32_t number_;
  std::unique_ptr<zarn::tool::ClientLink> link_;
  std::unique_ptr<Conversation> conversation_;
  Speaker speaker_;
  std::uint64_t lastServer_ = 0;
};

class Server final : public Peer, private zarn::tool::ServerSink {
 public:
  Server(Setup setup, bool usesBlocks) : Peer(std::move(setup)), usesBlocks_(usesBlocks) {}

  void Start() override {
    link_ = MakeLink();
    const bool listens = link_->Start().empty();
    const Event told(listens ? "listening" : "listen_failed");
    Peer::Start();
  }
  void Finish() override {
    Peer::Finish();
    link_->Stop();
    link_.reset();
  }

 private:
  using Link = zarn::tool::ServerPeer;

  std::unique_ptr<zarn::tool::ServerLink> MakeLink() {
    const zarn::tool::Endpoint& endpoint = setup_.endpoint;
    zarn::tool::ServerSink& sink = *this;
    if (!usesBlocks_) return endpoint.scheme->makeServer(endpoint, sink);
    if (endpoint.scheme->isSecured)
      return std::make_unique<soak::BlockServer<soak::TlsBlocks>>(endpoint, sink);
    return std::make_unique<soak::BlockServer<soak::TcpBlocks>>(endpoint, sink);
  }

  void OnPeer(Link& peer) override {
    conversations_.emplace(
        &peer, MakeConversation([&peer](const Message& message) { return peer.Send(message); }));
  }
  void OnPeerRefused(long /*reason*/) override {}  // killed within its handshake
  void OnPeerGone(Link& peer, long reason) override {
    const auto gone = conversations_.extract(&peer);
    if (gone.mapped().GetReceived() == 0) return;  // nobody knows who it was
    TellEnd(gone.mapped().GetOther(), reason);
  }
  void OnMessage(Link& peer, const Message& message) override {
    Conversation& conversation = conversations_.at(&peer);
    if (!conversation.Take(message)) return;
    const Speaker& client = conversation.GetOther();
    if (conversation.GetReceived() == 1) {
      CheckClient(conversation, client);
      conversation.Begin(MakeSpeaker(client.client, true));
    }
    TellIfFlowing(conversation, client);
  }
  void OnListenFailed(long reason) override { Event("listen_failed").With("reason", reason); }

  void CheckClient(Conversation& conversation, const Speaker& client) {
    std::uint64_t& last = lastOf_[client.client];
    if (client.isServer != 0) conversation.Wrong("client", client.client);
    if (client.GetGeneration() <= last)
      conversation.Wrong("client_generation", client.GetGeneration());
    last = client.GetGeneration();
  }

  void SayOnAll() override {
    for (auto& entry : conversations_) entry.second.SayUpTo(ChooseCount());
  }
  std::size_t CountConnections() const override { return conversations_.size(); }
  std::size_t TellConnections() const override {
    for (const auto& entry : conversations_)
      if (entry.second.GetReceived() != 0) TellConnection(entry.second, entry.second.GetOther());
    return CountConnections();
  }

  const bool usesBlocks_;
  std::unique_ptr<zarn::tool::ServerLink> link_;
  std::unordered_map<Link*, Conversation> conversations_;
  std::map<std::uint32_t, std::uint64_t> lastOf_;  // generation of each client
};

int Run(const e2e::Words& words) {
  Setup setup;
  if (!ParseEndpoint(words.at(1), setup.endpoint).empty()) return 2;
  setup.seed = std::stoull(words.at(2));
  setup.incarnation = static_cast<std::uint32_t>(std::stoul(words.at(3)));
  setup.pace = std::stoi(words.at(4));
  zarn::tool::Security& security = setup.endpoint.security;
  std::unique_ptr<Peer> peer;
  if (words[0] != "connect") {
    if (words.size() > 5) security.key = words.at(5);
    if (words.size() > 5) security.certificate = words.at(6);
    peer = std::make_unique<Server>(std::move(setup), words[0] == "serve-blocks");
  } else {
    if (words.size() > 6) security.authorities = words.at(6);
    peer = std::make_unique<Client>(std::move(setup),
                                    static_cast<std::uint32_t>(std::stoul(words.at(5))));
  }
  return e2e::Serve(*peer, false);
}

}  // namespace

int main(int argc, char** argv) {
  const e2e::Words words(argv + 1, argv + argc);
  if (words.size() < 5 || (words[0] == "connect" && words.size() < 6)) return 2;
  return Run(words);
}
