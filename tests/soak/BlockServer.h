// BlockServer.h - servers over TCP and TLS that are made of the streams which deliver block by
// block, where the links of the program zarn are made of sessions.
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

#include "FrameCodec.h"
#include "HostPort.h"
#include "Link.h"
#include "Program.h"
#include "keelbase/CAWMessageBlock.h"
#include "sslutils/CAWSSLManager.h"
#include "wface/CAWConnectionManager.h"
#include "zarn/utils/CZARNTCPSSLTransport.h"
#include "zarn/utils/CZARNTCPTransport.h"

namespace soak {

using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWInetAddr;
using keelbase::CAWMessageBlock;

struct TcpBlocks {
  using Transport = wface::IAWTransport;
  using Stream = zarn::utils::CZARNTCPTransport;

  static AWResult Take(Stream& stream, CAWAutoPtr<Transport>& transport) {
    return stream.SetTransportHandle(transport);
  }
  static AWResult Send(Stream& stream, CAWMessageBlock& frame) {
    return stream.SendMsg(frame, nullptr);
  }

  class Listener : private wface::IAWAcceptorConnectorSink {
   public:
    AWResult Listen(const CAWInetAddr& address, const zarn::tool::Security& /*security*/) {
      wface::CAWConnectionManager::Instance()->CreateAcceptor(1, acceptor_);
      return acceptor_->StartListen(this, address, 0);
    }
    void StopListening() { acceptor_ = nullptr; }

   protected:
    virtual void OnAccepted(Transport* transport) = 0;

   private:
    void OnConnectIndication(long reason, Transport* transport,
                             wface::IAWAcceptorConnectorId* /*id*/) override {
      if (reason == 0) OnAccepted(transport);
    }
    CAWAutoPtr<wface::IAWAcceptor> acceptor_;
  };
};

struct TlsBlocks {
  using Transport = sslutils::IAWSSLTransport;
  using Stream = zarn::utils::CZARNTCPSSLTransport;

  static AWResult Take(Stream& stream, CAWAutoPtr<Transport>& transport) {
    return stream.SetSSLTransportHandle(transport);
  }
  static AWResult Send(Stream& stream, CAWMessageBlock& frame) {
    return stream.SendSSLMessage(frame);
  }

  class Listener : private sslutils::IAWSSLConnectionSink {
   public:
    AWResult Listen(const CAWInetAddr& address, const zarn::tool::Security& security) {
      sslutils::IAWSSLManager::Instance()->CreateSSLAcceptor(acceptor_);
      acceptor_->SetPrivateKey(security.key);
      acceptor_->SetCertificate(security.certificate);
      return acceptor_->StartListen(this, address, 0);
    }
    void StopListening() { acceptor_ = nullptr; }

   protected:
    virtual void OnAccepted(Transport* transport) = 0;

   private:
    void OnSSLConnected(long reason, Transport* transport) override {
      if (reason == 0) OnAccepted(transport);
    }
    CAWAutoPtr<sslutils::IAWSSLAcceptor> acceptor_;
  };
};

template <class Over>
class BlockServer;

template <class Over>
class BlockPeer final : public Over::Stream, public zarn::tool::ServerPeer {
 public:
  explicit BlockPeer(BlockServer<Over>& server) : server_(server) {}

  // All whole frames at once: these streams may offer the last of several a second time.
  std::uint16_t HandleMessage(CAWMessageBlock& data) override {
    const std::string bytes = data.FlattenChained();
    const std::size_t length = std::min(bytes.size(), zarn::utils::kMaxFrameSize);
    std::size_t done = 0;
    while (true) {
      const auto frame = zarn::utils::DecodeFrame(bytes.data() + done, length - done);
      if (frame.result == zarn::utils::FrameResult::kMalformed)
        e2e::Event("wrong").With("pdulen", frame.pdulen).With("datasize", frame.datasize);
      if (frame.result != zarn::utils::FrameResult::kFrame) return static_cast<std::uint16_t>(done);
      done += frame.pdulen;
      server_.Received(*this, {frame.type, frame.tag, {frame.payload, frame.datasize}});
    }
  }
  void OnPeerDisconnect(long reason) override { server_.Gone(*this, reason); }

  AWResult Send(const zarn::tool::Message& message) override {
    const auto header =
        zarn::utils::EncodeFrameHeader(message.type, message.tag, message.data.size());
    CAWMessageBlock frame(header.data(), header.size(), CAWMessageBlock::borrow);
    CAWMessageBlock payload(message.data.data(), message.data.size(), CAWMessageBlock::borrow);
    const CAWMessageBlock::LinkForCall link(frame, payload);
    return Over::Send(*this, frame);
  }
  void Drop() override { this->Disconnect(0); }

  const std::string& GetName() const override { return name_; }
  std::uint64_t GetMalformed() const override { return this->GetCounters().malformedFrames; }
  std::uint64_t GetMessages() const override { return this->GetCounters().messagesReceived; }
  std::uint64_t GetBytes() const override { return this->GetCounters().bytesReceived; }
  std::size_t GetQueueLength() const override { return this->GetSendQueueLength(); }

 private:
  BlockServer<Over>& server_;
  const std::string name_;
};

template <class Over>
class BlockServer final : public zarn::tool::ServerLink, private Over::Listener {
 public:
  using Peer = BlockPeer<Over>;

  BlockServer(const zarn::tool::Endpoint& endpoint, zarn::tool::ServerSink& sink)
      : endpoint_(endpoint), sink_(sink) {}

  std::string Start() override {
    const auto place = zarn::tool::ParseHostPort(endpoint_.address);
    const CAWInetAddr address(place->host.c_str(), place->port);
    const AWResult result = this->Listen(address, endpoint_.security);
    return result == keelbase::AW_OK ? std::string() : Explain(static_cast<long>(result));
  }
  void Stop() override {
    this->StopListening();
    peers_.clear();
  }
  std::string Check() override { return {}; }
  std::string Explain(long reason) const override { return zarn::tool::DescribeReason(reason); }

  void Received(Peer& peer, const zarn::tool::Message& message) { sink_.OnMessage(peer, message); }
  void Gone(Peer& peer, long reason) {  // deletes it
    sink_.OnPeerGone(peer, reason);
    peers_.erase(&peer);
  }

 private:
  void OnAccepted(typename Over::Transport* transport) override {
    CAWAutoPtr<typename Over::Transport> held(transport);
    auto peer = std::make_unique<Peer>(*this);
    if (Over::Take(*peer, held) != keelbase::AW_OK) return;
    Peer& added = *peer;
    peers_.emplace(&added, std::move(peer));
    sink_.OnPeer(added);
  }

  const zarn::tool::Endpoint endpoint_;
  zarn::tool::ServerSink& sink_;
  std::unordered_map<Peer*, std::unique_ptr<Peer>> peers_;
};

}  // namespace soak
