// IpcLink.cpp - see IpcLink.h.
#include "IpcLink.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <unordered_map>

#include "EndpointFiles.h"
#include "Output.h"
#include "Root.h"
#include "fipc/CAWIPCManager.h"
#include "keelbase/CAWTransport.h"
#include "zarn/utils/CZARNLibClientChannel.h"
#include "zarn/utils/CZARNLibServerChannel.h"
#include "zarn/utils/zarnutils.h"

namespace zarn::tool {

using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWIPCAddr;

namespace {

bool IsSocketFile(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode);
}

// --- client ---

// The channel, with its events passed on and its transport remembered for the counters.
class ClientChannel final : public utils::CZARNLibClientChannel {
 public:
  explicit ClientChannel(ClientSink& sink) : sink_(sink) {}

  void CloseForGood() {
    closing_ = true;  // inside OnZARNMessage a Close is otherwise followed by a reconnect
    transport_ = nullptr;
    Close(0);
  }

  std::size_t GetWaiting() const {
    keelbase::CAWTransportCounters counters;
    if (transport_) transport_->GetOption(keelbase::AW_OPT_COUNTERS, &counters);
    return GetSendQueueLength() + counters.queuedBytes;
  }

  void OnIPCConnectIndication(long reason, fipc::IAWIPCTransport* transport,
                              fipc::IAWIPCAcceptorConnectorId* id) override {
    transport_ = transport;
    CZARNLibClientChannel::OnIPCConnectIndication(reason, transport, id);
  }
  int OnConnected(long reason) override {
    const int result = CZARNLibClientChannel::OnConnected(reason);
    sink_.OnUp();
    return result;
  }
  void OnPeerDisconnect(long reason) override {
    transport_ = nullptr;
    if (closing_) return;
    CZARNLibClientChannel::OnPeerDisconnect(reason);
    sink_.OnDown(reason);
  }
  void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                     std::size_t size) override {
    sink_.OnMessage({type, tag, std::string_view(data, size)});
  }
  void OnSend(fipc::IAWIPCTransport* transport,
              fipc::CAWIPCTransportParameter* parameter) override {
    CZARNLibClientChannel::OnSend(transport, parameter);
    sink_.OnRoom();
  }

 private:
  ClientSink& sink_;
  CAWAutoPtr<fipc::IAWIPCTransport> transport_;
  bool closing_ = false;
};

class IpcClient final : public ClientLink {
 public:
  IpcClient(Pair peer, Pair own, ClientSink& sink) : peer_(peer), own_(own), channel_(sink) {}

  std::string Start() override {
    if (std::string problem = CheckRoot(); !problem.empty()) return problem;
    path_ = GetIpcDirectory() + "/" + ToText(peer_);
    const AWResult result = channel_.Init(own_.first, own_.second, peer_.first, peer_.second);
    return result == keelbase::AW_OK ? std::string() : Explain(static_cast<long>(result));
  }
  AWResult Send(const Message& message) override {
    return channel_.SendZARNMessage(message.type, message.tag, message.data.data(),
                                    message.data.size());
  }
  std::size_t GetQueueLength() override { return channel_.GetWaiting(); }
  void Close() override { channel_.CloseForGood(); }

  std::string Explain(long reason) const override {
    std::string text = keelbase::DescribeResult(reason);
    if (reason == 0) return "the peer closed the connection";
    if (reason == ENOENT) return fmt::format("nobody listens there, '{}' does not exist", path_);
    if (reason == ECONNREFUSED && !IsSocketFile(path_))
      return fmt::format("'{}' is in the way: it is not an endpoint file", path_);
    if (reason == ECONNREFUSED)
      return fmt::format("nobody listens there any more, '{}' is stale", path_);
    if (reason == EACCES) return fmt::format("'{}' belongs to another user: {}", path_, text);
    return text;
  }

 private:
  Pair peer_;
  Pair own_;
  std::string path_;
  ClientChannel channel_;
};

// --- server ---

class IpcServer;

class PeerChannel final : public utils::CZARNLibServerChannel, public ServerPeer {
 public:
  PeerChannel(fipc::IAWIPCTransport* transport, std::uint64_t number, IpcServer& server)
      : CZARNLibServerChannel(transport), transport_(transport), server_(server) {
    transport->GetOption(keelbase::AW_OPT_PEER_CREDENTIALS, &credentials_);
    const std::string& path = GetPeerAddr().GetPath();
    // The peer says itself what it is called, so the name may be any bytes.
    const std::string claim = Escape(path.substr(path.rfind('/') + 1));
    name_ = fmt::format("{}#{}", claim.empty() ? "-" : claim, number);
  }

  const std::string& GetName() const override { return name_; }
  std::int32_t GetProcess() const override { return credentials_.processId; }
  std::uint32_t GetUser() const override { return credentials_.userId; }
  std::uint64_t GetMalformed() const override { return GetCounters().malformedFrames; }
  std::uint64_t GetMessages() const override { return GetCounters().messagesReceived; }
  std::uint64_t GetBytes() const override { return GetCounters().bytesReceived; }
  std::size_t GetQueueLength() const override { return GetSendQueueLength(); }
  AWResult Send(const Message& message) override {
    return SendZARNMessage(message.type, message.tag, message.data.data(), message.data.size());
  }
  void Drop() override {
    std::uint32_t none = 0;
    transport_->SetOption(keelbase::AW_OPT_LINGER, &none);
    Close(0);
  }

  void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                     std::size_t size) override;
  void OnPeerDisconnect(long reason) override;

 private:
  CAWAutoPtr<fipc::IAWIPCTransport> transport_;
  IpcServer& server_;
  keelbase::CAWPeerCredentials credentials_;
  std::string name_;
};

class IpcServer final : public ServerLink, private fipc::IAWIPCAcceptorConnectorSink {
 public:
  IpcServer(Pair own, ServerSink& sink) : own_(own), sink_(sink) {}
  ~IpcServer() override { Stop(); }

  std::string Start() override {
    if (std::string problem = CheckRoot(); !problem.empty()) return problem;
    CAWIPCAddr address;
    AWResult result = utils::ZARNCreateIPCAddr(own_.second, own_.first, address);
    path_ = address.GetPath();
    if (result == keelbase::AW_OK) result = utils::CreateIPCServer(acceptor_);
    if (result == keelbase::AW_OK) result = acceptor_->StartListen(this, address);
    return result == keelbase::AW_OK ? std::string() : Explain(static_cast<long>(result));
  }

  void Stop() override {
    if (acceptor_) acceptor_->StopListen();
    acceptor_ = nullptr;
    for (const auto& peer : peers_) peer.second->Close(0);
    peers_.clear();
  }

  std::string Check() override {
    if (IsSocketFile(path_)) return {};
    return fmt::format("'{}' has been removed: no new client can come", path_);
  }

  std::string Explain(long reason) const override {
    std::string text = keelbase::DescribeResult(reason);
    if (reason == EADDRINUSE && !IsSocketFile(path_))
      return fmt::format("'{}' is in the way: it is not an endpoint file", path_);
    if (reason == EADDRINUSE)
      return fmt::format("'{}' is in use by {}", path_, DescribeOwner(path_));
    if (reason == EPERM)
      return fmt::format("'{}' can be written to by others: make it private with 'chmod 700 {}'",
                         GetIpcDirectory(), GetIpcDirectory());
    return fmt::format("'{}': {}", path_, text);
  }

  void Received(PeerChannel& peer, const Message& message) { sink_.OnMessage(peer, message); }
  void Gone(PeerChannel& peer, long reason) {  // deletes it
    sink_.OnPeerGone(peer, reason);
    peers_.erase(&peer);
  }

 private:
  void OnIPCConnectIndication(long reason, fipc::IAWIPCTransport* transport,
                              fipc::IAWIPCAcceptorConnectorId* /*id*/) override {
    if (reason != 0) return sink_.OnListenFailed(reason);
    auto peer = std::make_unique<PeerChannel>(transport, ++accepted_, *this);
    PeerChannel& added = *peer;
    peers_.emplace(&added, std::move(peer));
    sink_.OnPeer(added);
  }

  Pair own_;
  ServerSink& sink_;
  std::string path_;
  CAWAutoPtr<fipc::IAWIPCAcceptor> acceptor_;
  std::unordered_map<PeerChannel*, std::unique_ptr<PeerChannel>> peers_;
  std::uint64_t accepted_ = 0;
};

void PeerChannel::OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                                std::size_t size) {
  server_.Received(*this, {type, tag, std::string_view(data, size)});
}

void PeerChannel::OnPeerDisconnect(long reason) {
  transport_ = nullptr;
  server_.Gone(*this, reason);
}

// --- the scheme ---

bool IsIpcAddress(std::string_view address) { return ParsePair(address).has_value(); }

std::unique_ptr<ClientLink> MakeClient(const std::string& address, Pair own, ClientSink& sink) {
  return std::make_unique<IpcClient>(*ParsePair(address), own, sink);
}

std::unique_ptr<ServerLink> MakeServer(const std::string& address, ServerSink& sink) {
  return std::make_unique<IpcServer>(*ParsePair(address), sink);
}

}  // namespace

const Scheme kIpcScheme = {"ipc", "ipc://X_Y with numbers from 0 to 65535", IsIpcAddress,
                           MakeClient, MakeServer};

}  // namespace zarn::tool
