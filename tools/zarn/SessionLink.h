// SessionLink.h - links over sessions of the network, which carry the frame of the channels.
//
// `Over` says over what:
//   kScheme                                 of urls
//   Session                                 a session class
//   Transport, TransportParameter           what it is made from, and what its events bring
//   Listener(accepted, refused)             with Prepare(endpoint), Start(address) and Stop()
//   Prepare(session, endpoint)              before the session connects
//   GetSubject(transport), IsFinal(reason)  see Link.h
// Both Prepare say what is wrong, else nothing.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "FrameCodec.h"
#include "HostPort.h"
#include "Link.h"
#include "Loop.h"
#include "Output.h"
#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWTransport.h"
#include "ptcp/CAWPseudoTCPTransport.h"

namespace zarn::tool {

// What both ends do: the frame, and a bound on what an unreadable peer can pile up.
template <class Over>
class FramedSession : public Over::Session {
  using Base = typename Over::Session;

 public:
  FramedSession() { this->SetReceiveLimit(kReceiveLimit); }

  keelbase::AWResult SendFrame(const Message& message) {
    if (message.data.size() > utils::kMaxPayloadSize) return keelbase::AW_ERROR_FAILURE;
    const auto header = utils::EncodeFrameHeader(message.type, message.tag, message.data.size());
    keelbase::CAWMessageBlock frame(header.data(), header.size(), borrow_);
    keelbase::CAWMessageBlock payload(message.data.data(), message.data.size(), borrow_);
    const keelbase::CAWMessageBlock::LinkForCall link(frame, payload);
    return this->SendMsg(frame);
  }
  std::size_t GetWaiting() const {
    keelbase::CAWTransportCounters counters;
    if (transport_) transport_->GetOption(keelbase::AW_OPT_COUNTERS, &counters);
    return this->GetSendQueueLength() + counters.queuedBytes;
  }

  // A transport that sends from this process goes on after a Close for its linger time only.
  std::uint64_t GetUndelivered() const {
    std::uint64_t unacknowledged = 0;
    if (transport_) transport_->GetOption(ptcp::AW_OPT_UNACKNOWLEDGED, &unacknowledged);
    return std::max<std::uint64_t>(unacknowledged, GetWaiting());
  }

  std::size_t HandleMessage(const char* data, std::size_t len) override {
    const utils::Frame frame = utils::DecodeFrame(data, len);
    if (frame.result == utils::FrameResult::kMalformed) Refuse(frame);
    if (frame.result != utils::FrameResult::kFrame) return 0;
    OnFrame({frame.type, frame.tag, std::string_view(frame.payload, frame.datasize)});
    return frame.pdulen;
  }
  int OnConnected(long) override { return 0; }
  void OnRcvBufferOverFlow(std::uint32_t) override {}
  keelbase::AWResult SetTransportHandle(
      keelbase::CAWAutoPtr<typename Over::Transport>& transport) override {
    transport_ = transport;
    return Base::SetTransportHandle(transport);
  }
  keelbase::AWResult Close(long reason) override {
    transport_ = nullptr;
    return Base::Close(reason);
  }

 protected:
  virtual void OnFrame(const Message& message) = 0;
  typename Over::Transport* GetTransport() const { return transport_.Get(); }

 private:
  static constexpr std::size_t kReceiveLimit = 1024 * 1024;
  static constexpr keelbase::CAWMessageBlock::borrow_t borrow_{};

  // Ends the connection: over TCP the peer's end could stand behind bytes that nobody reads, and
  // would not be noticed. The owner hears OnPeerDisconnect(0).
  void Refuse(const utils::Frame& frame) {
    this->StopAtMalformedFrame();
    Complain("{}: malformed frame, pdulen={}, datasize={}: the connection is ended",
             ToText(*this->GetPeerAddr()), frame.pdulen, frame.datasize);
    this->Close(0);
  }

  keelbase::CAWAutoPtr<typename Over::Transport> transport_;
};

// A session that connects again a second after each loss and each failed attempt.
template <class Over>
class ReconnectingSession final : public FramedSession<Over> {
  using Base = FramedSession<Over>;

 public:
  explicit ReconnectingSession(ClientSink& sink) : sink_(sink), again_([this] { Try(); }) {}

  keelbase::AWResult Start(const keelbase::CAWInetAddr& peer) {
    peer_ = peer;
    return this->Connect(peer_, nullptr);
  }
  void CloseForGood() {
    closing_ = true;
    again_.Cancel();
    this->Close(0);
  }

  int OnConnected(long) override {
    sink_.OnUp();
    return 0;
  }
  // Closes, so that the rest of a frame that was cut does not reach the next connection.
  void OnPeerDisconnect(long reason) override {
    if (closing_) return;
    this->Close(0);
    again_.Once(1);
    sink_.OnDown(reason);
  }
  void OnSend(typename Over::Transport* transport,
              typename Over::TransportParameter* parameter) override {
    Base::OnSend(transport, parameter);
    sink_.OnRoom();
  }

 private:
  void OnFrame(const Message& message) override { sink_.OnMessage(message); }
  void Try() {
    if (!closing_ && this->Connect(peer_, nullptr) != keelbase::AW_OK) again_.Once(1);
  }

  ClientSink& sink_;
  keelbase::CAWInetAddr peer_;
  bool closing_ = false;
  Timer again_;
};

template <class Over>
class SessionClient final : public ClientLink {
 public:
  SessionClient(const Endpoint& peer, ClientSink& sink)
      : endpoint_(peer), peer_(*ParseHostPort(peer.address)), session_(sink) {}

  std::string Start() override {
    keelbase::CAWInetAddr address;
    if (std::string problem = Resolve(peer_, address); !problem.empty()) return problem;
    if (std::string problem = Over::Prepare(session_, endpoint_); !problem.empty()) return problem;
    const keelbase::AWResult result = session_.Start(address);
    return result == keelbase::AW_OK ? std::string() : Explain(static_cast<long>(result));
  }
  keelbase::AWResult Send(const Message& message) override { return session_.SendFrame(message); }
  std::size_t GetQueueLength() override { return session_.GetWaiting(); }
  std::uint64_t GetUndelivered() override { return session_.GetUndelivered(); }
  void Close() override { session_.CloseForGood(); }

  std::string Explain(long reason) const override {
    if (reason == 0) return "the peer closed the connection";
    if (reason == ECONNREFUSED) return "nobody listens there";
    if (reason == ETIMEDOUT) return "no answer from there";
    return DescribeReason(reason);
  }
  bool IsFinal(long reason) const override { return Over::IsFinal(reason); }

 private:
  const Endpoint endpoint_;
  const HostPort peer_;
  ReconnectingSession<Over> session_;
};

template <class Over>
class SessionServer;

template <class Over>
class AcceptedSession final : public FramedSession<Over>, public ServerPeer {
 public:
  AcceptedSession(std::uint64_t number, SessionServer<Over>& server)
      : number_(number), server_(server) {}

  const std::string& GetName() const override { return name_; }
  std::string GetSubject() const override { return Over::GetSubject(*this->GetTransport()); }
  std::uint64_t GetMalformed() const override { return this->GetCounters().malformedFrames; }
  std::uint64_t GetMessages() const override { return this->GetCounters().messagesReceived; }
  std::uint64_t GetBytes() const override { return this->GetCounters().bytesReceived; }
  std::size_t GetQueueLength() const override { return this->GetSendQueueLength(); }
  keelbase::AWResult Send(const Message& message) override { return this->SendFrame(message); }
  void Drop() override {
    std::uint32_t none = 0;
    if (auto* transport = this->GetTransport())
      transport->SetOption(keelbase::AW_OPT_LINGER, &none);
    this->Close(0);
  }

  keelbase::AWResult SetTransportHandle(
      keelbase::CAWAutoPtr<typename Over::Transport>& transport) override {
    const keelbase::AWResult result = FramedSession<Over>::SetTransportHandle(transport);
    name_ = fmt::format("{}#{}", ToText(*this->GetPeerAddr()), number_);
    return result;
  }
  void OnPeerDisconnect(long reason) override { server_.Gone(*this, reason); }

 private:
  void OnFrame(const Message& message) override { server_.Received(*this, message); }

  const std::uint64_t number_;
  SessionServer<Over>& server_;
  std::string name_;
};

template <class Over>
class SessionServer final : public ServerLink {
 public:
  using Peer = AcceptedSession<Over>;

  SessionServer(const Endpoint& own, ServerSink& sink)
      : endpoint_(own),
        own_(*ParseHostPort(own.address)),
        sink_(sink),
        listener_([this](auto* transport) { Accepted(transport); },
                  [this](long reason) { sink_.OnPeerRefused(reason); }) {}
  ~SessionServer() override { Stop(); }

  std::string Start() override {
    keelbase::CAWInetAddr address;
    if (std::string problem = Resolve(own_, address); !problem.empty()) return problem;
    if (std::string problem = listener_.Prepare(endpoint_); !problem.empty()) return problem;
    const keelbase::AWResult result = listener_.Start(address);
    return result == keelbase::AW_OK ? std::string() : Explain(static_cast<long>(result));
  }
  void Stop() override {
    listener_.Stop();
    for (const auto& peer : peers_) peer.second->Close(0);
    peers_.clear();
  }
  std::string Check() override { return {}; }
  std::string Explain(long reason) const override {
    if (reason == EADDRINUSE) return fmt::format("somebody listens at port {} already", own_.port);
    if (reason == EADDRNOTAVAIL)
      return fmt::format("'{}' is not an address of this machine", own_.host);
    if (reason == EACCES) return fmt::format("port {} is reserved", own_.port);
    return DescribeReason(reason);
  }

  void Received(Peer& peer, const Message& message) { sink_.OnMessage(peer, message); }
  void Gone(Peer& peer, long reason) {  // deletes it
    sink_.OnPeerGone(peer, reason);
    peers_.erase(&peer);
  }

 private:
  void Accepted(typename Over::Transport* transport) {
    keelbase::CAWAutoPtr<typename Over::Transport> held(transport);
    auto peer = std::make_unique<Peer>(++accepted_, *this);
    if (peer->SetTransportHandle(held) != keelbase::AW_OK) return;
    Peer& added = *peer;
    peers_.emplace(&added, std::move(peer));
    sink_.OnPeer(added);
  }

  const Endpoint endpoint_;
  const HostPort own_;
  ServerSink& sink_;
  typename Over::Listener listener_;
  std::unordered_map<Peer*, std::unique_ptr<Peer>> peers_;
  std::uint64_t accepted_ = 0;
};

// An `Over` without security: the library's own transport, as it is.
template <class Library>
struct OverPlain : Library {
  using typename Library::Session;
  using typename Library::Transport;

  static std::string Prepare(Session&, const Endpoint&) { return {}; }
  static std::string GetSubject(Transport&) { return {}; }
  static bool IsFinal(long /*reason*/) { return false; }

  class Listener final : private Library::ConnectSink {
   public:
    Listener(std::function<void(Transport*)> accepted, const std::function<void(long)>& /*refused*/)
        : accepted_(std::move(accepted)) {}

    static std::string Prepare(const Endpoint&) { return {}; }

    keelbase::AWResult Start(const keelbase::CAWInetAddr& address) {
      const keelbase::AWResult made = Library::MakeAcceptor(acceptor_);
      return made == keelbase::AW_OK ? acceptor_->StartListen(this, address, 0) : made;
    }
    void Stop() {
      if (acceptor_) acceptor_->StopListen();
      acceptor_ = nullptr;
    }

   private:
    void OnConnectIndication(long reason, Transport* transport,
                             typename Library::Id* /*id*/) override {
      if (reason == 0) accepted_(transport);
    }

    const std::function<void(Transport*)> accepted_;
    keelbase::CAWAutoPtr<typename Library::Acceptor> acceptor_;
  };
};

template <class Over>
constexpr Scheme MakeSessionScheme(std::string_view form, bool isSecured = false) {
  return {Over::kScheme,
          form,
          [](std::string_view address) { return ParseHostPort(address).has_value(); },
          [](const Endpoint& peer, Pair /*own*/, ClientSink& sink) -> std::unique_ptr<ClientLink> {
            return std::make_unique<SessionClient<Over>>(peer, sink);
          },
          [](const Endpoint& own, ServerSink& sink) -> std::unique_ptr<ServerLink> {
            return std::make_unique<SessionServer<Over>>(own, sink);
          },
          isSecured};
}

}  // namespace zarn::tool
