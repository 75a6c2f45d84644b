// LocalLink.h - links between processes of a machine: what local IPC and shared memory do alike.
//
// `Over` says over what:
//   kScheme                               of urls
//   Client                                a client channel with GetTransportQueue()
//   Server                                an accepted channel
//   Transport, TransportParameter         what it is made from, and what its events bring
//   Listener(accepted, failed)            with Start(Pair) and Stop()
//   DescribePeer(server)                  what the peer claims to be called, any bytes
//   Prepare()                             before anything else, a result code
//   Explain(reason)                       more reasons than all know; empty for others
#pragma once

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <unordered_map>

#include "EndpointFiles.h"
#include "Link.h"
#include "Output.h"
#include "Root.h"
#include "SameFile.h"
#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWTimer.h"
#include "keelbase/CAWTransport.h"

namespace zarn::tool {

// Says what is wrong, else nothing.
template <class Over>
std::string PrepareLink() {
  if (std::string problem = CheckRoot(); !problem.empty()) return problem;
  if (Over::Prepare() == keelbase::AW_OK) return {};
  return "the system directory of the install root cannot be found";
}

// The channel, with its events passed on.
template <class Over>
class LocalClientChannel final : public Over::Client {
  using Base = typename Over::Client;

 public:
  explicit LocalClientChannel(ClientSink& sink) : sink_(sink) {}

  void CloseForGood() {
    closing_ = true;  // Close does not end attempts that are going on
    this->Close(0);
  }
  std::size_t GetWaiting() const { return this->GetSendQueueLength() + this->GetTransportQueue(); }

  int OnConnected(long reason) override {
    const int result = Base::OnConnected(reason);
    sink_.OnUp();
    return result;
  }
  void OnPeerDisconnect(long reason) override {
    if (closing_) return;
    Base::OnPeerDisconnect(reason);
    sink_.OnDown(reason);
  }
  void OnConnectFailure(long reason) override {
    if (!closing_) sink_.OnDown(reason);
  }
  void OnTimer(keelbase::CAWTimerWrapperID* timer) override {
    if (!closing_) Base::OnTimer(timer);
  }
  void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                     std::size_t size) override {
    sink_.OnMessage({type, tag, std::string_view(data, size)});
  }
  void OnSend(typename Over::Transport* transport,
              typename Over::TransportParameter* parameter) override {
    Base::OnSend(transport, parameter);
    sink_.OnRoom();
  }

 private:
  ClientSink& sink_;
  bool closing_ = false;
};

template <class Over>
class LocalClient final : public ClientLink {
 public:
  LocalClient(Pair peer, Pair own, ClientSink& sink) : peer_(peer), own_(own), channel_(sink) {}

  std::string Start() override {
    if (std::string problem = PrepareLink<Over>(); !problem.empty()) return problem;
    path_ = GetEndpointDirectory(Over::kScheme) + "/" + ToText(peer_);
    const keelbase::AWResult result =
        channel_.Init(own_.first, own_.second, peer_.first, peer_.second);
    return result == keelbase::AW_OK ? std::string() : Explain(static_cast<long>(result));
  }
  keelbase::AWResult Send(const Message& message) override {
    return channel_.SendZARNMessage(message.type, message.tag, message.data.data(),
                                    message.data.size());
  }
  std::size_t GetQueueLength() override { return channel_.GetWaiting(); }
  void Close() override { channel_.CloseForGood(); }

  std::string Explain(long reason) const override {
    if (reason == 0) return "the peer closed the connection";
    const std::string shown = Escape(path_);
    if (reason == ENOENT) return fmt::format("nobody listens there, '{}' does not exist", shown);
    if (reason == ECONNREFUSED && !IsSocketFile(path_))
      return fmt::format("'{}' is in the way: it is not an endpoint file", shown);
    if (reason == ECONNREFUSED)
      return fmt::format("nobody listens there any more, '{}' is stale", shown);
    std::string text = keelbase::DescribeResult(reason);
    if (reason == EACCES) return fmt::format("'{}' belongs to another user: {}", shown, text);
    if (reason == ENOTDIR) return fmt::format("'{}': {}", shown, text);
    const std::string more = Over::Explain(reason);
    return more.empty() ? text : more;
  }

 private:
  Pair peer_;
  Pair own_;
  std::string path_;
  LocalClientChannel<Over> channel_;
};

template <class Over>
class LocalServer;

template <class Over>
class LocalPeerChannel final : public Over::Server, public ServerPeer {
 public:
  LocalPeerChannel(typename Over::Transport* transport, std::uint64_t number,
                   LocalServer<Over>& server)
      : Over::Server(transport), transport_(transport), server_(server) {
    transport->GetOption(keelbase::AW_OPT_PEER_CREDENTIALS, &credentials_);
    const std::string claim = Escape(Over::DescribePeer(*this));
    name_ = fmt::format("{}#{}", claim.empty() ? "-" : claim, number);
  }

  const std::string& GetName() const override { return name_; }
  keelbase::CAWPeerCredentials GetCredentials() const override { return credentials_; }
  std::uint64_t GetMalformed() const override { return this->GetCounters().malformedFrames; }
  std::uint64_t GetMessages() const override { return this->GetCounters().messagesReceived; }
  std::uint64_t GetBytes() const override { return this->GetCounters().bytesReceived; }
  std::size_t GetQueueLength() const override { return this->GetSendQueueLength(); }
  keelbase::AWResult Send(const Message& message) override {
    return this->SendZARNMessage(message.type, message.tag, message.data.data(),
                                 message.data.size());
  }
  void Drop() override {
    std::uint32_t none = 0;
    transport_->SetOption(keelbase::AW_OPT_LINGER, &none);
    this->Close(0);
  }

  void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                     std::size_t size) override {
    server_.Received(*this, {type, tag, std::string_view(data, size)});
  }
  void OnPeerDisconnect(long reason) override {
    transport_ = nullptr;
    server_.Gone(*this, reason);
  }
  void OnClose() override { OnPeerDisconnect(0); }  // dropped inside OnZARNMessage

 private:
  keelbase::CAWAutoPtr<typename Over::Transport> transport_;
  LocalServer<Over>& server_;
  keelbase::CAWPeerCredentials credentials_;
  std::string name_;
};

template <class Over>
class LocalServer final : public ServerLink {
 public:
  using Peer = LocalPeerChannel<Over>;

  LocalServer(Pair own, ServerSink& sink)
      : own_(own),
        sink_(sink),
        listener_([this](typename Over::Transport* transport) { Accepted(transport); },
                  [this](long reason) { sink_.OnListenFailed(reason); }) {}
  ~LocalServer() override { Stop(); }

  std::string Start() override {
    if (std::string problem = PrepareLink<Over>(); !problem.empty()) return problem;
    path_ = GetEndpointDirectory(Over::kScheme) + "/" + ToText(own_);
    const keelbase::AWResult result = listener_.Start(own_);
    if (result != keelbase::AW_OK) return Explain(static_cast<long>(result));
    ::lstat(path_.c_str(), &file_);
    return {};
  }

  void Stop() override {
    listener_.Stop();
    for (const auto& peer : peers_) peer.second->Close(0);
    peers_.clear();
  }

  // The file of a listener that had to wait for the directory is found here.
  std::string Check() override {
    struct stat now {};
    if (::lstat(path_.c_str(), &now) != 0 || !S_ISSOCK(now.st_mode))
      return fmt::format("'{}' has been removed: no new client can come", Escape(path_));
    if (!IsSameFile(now, file_) && FindOwner(path_) == ::getpid()) file_ = now;
    if (IsSameFile(now, file_)) return {};
    return fmt::format("'{}' has been taken over by {}: no new client can come", Escape(path_),
                       DescribeOwner(path_));
  }

  std::string Explain(long reason) const override {
    const std::string directory = Escape(GetEndpointDirectory(Over::kScheme));
    const std::string shown = Escape(path_);
    if (reason == EADDRINUSE && !IsSocketFile(path_))
      return fmt::format("'{}' is in the way: it is not an endpoint file", shown);
    if (reason == EADDRINUSE)
      return fmt::format("'{}' is in use by {}", shown, DescribeOwner(path_));
    if (reason == EPERM)
      return fmt::format("'{}' can be written to by others: make it private with 'chmod 700 {}'",
                         directory, directory);
    if (reason == EWOULDBLOCK)
      return fmt::format("another process keeps the directory '{}' locked", directory);
    return fmt::format("'{}': {}", shown, keelbase::DescribeResult(reason));
  }

  void Received(Peer& peer, const Message& message) { sink_.OnMessage(peer, message); }
  void Gone(Peer& peer, long reason) {  // deletes it
    sink_.OnPeerGone(peer, reason);
    peers_.erase(&peer);
  }

 private:
  void Accepted(typename Over::Transport* transport) {
    auto peer = std::make_unique<Peer>(transport, ++accepted_, *this);
    Peer& added = *peer;
    peers_.emplace(&added, std::move(peer));
    sink_.OnPeer(added);
  }

  Pair own_;
  ServerSink& sink_;
  std::string path_;
  struct stat file_ {};  // what was made there
  typename Over::Listener listener_;
  std::unordered_map<Peer*, std::unique_ptr<Peer>> peers_;
  std::uint64_t accepted_ = 0;
};

template <class Over>
constexpr Scheme MakeLocalScheme(std::string_view form) {
  return {Over::kScheme, form,
          [](std::string_view address) { return ParsePair(address).has_value(); },
          [](const Endpoint& peer, Pair own, ClientSink& sink) -> std::unique_ptr<ClientLink> {
            return std::make_unique<LocalClient<Over>>(*ParsePair(peer.address), own, sink);
          },
          [](const Endpoint& own, ServerSink& sink) -> std::unique_ptr<ServerLink> {
            return std::make_unique<LocalServer<Over>>(*ParsePair(own.address), sink);
          }};
}

}  // namespace zarn::tool
