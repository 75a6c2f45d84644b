// TlsAcceptor.h - listens by a transport of the platform, and shakes hands with who comes.
#pragma once

#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>

#include "keelbase/internal/LoopObject.h"
#include "keelbase/internal/TellOwner.h"
#include "keelbase/internal/TryMake.h"
#include "sslutils/CAWSSLManager.h"
#include "sslutils/internal/ByteTransport.h"
#include "sslutils/internal/HandshakeLimit.h"
#include "sslutils/internal/HandshakePlaces.h"
#include "sslutils/internal/SSLTransport.h"
#include "sslutils/internal/TlsServer.h"
#include "sslutils/internal/TlsStream.h"

namespace sslutils::internal {

// `Below` names the interfaces of the library that listens.
template <class Below>
class TlsAcceptor final : public keelbase::internal::LoopObject<IAWSSLAcceptor>,
                          private Below::ConnectSink {
  using Transport = typename Below::Transport;
  using Places = HandshakePlaces<keelbase::CAWAutoPtr<TlsStream>>;

 public:
  TlsAcceptor(keelbase::internal::EventLoop& loop,
              keelbase::CAWAutoPtr<typename Below::Acceptor> below)
      : LoopObject(loop), below_(std::move(below)) {}
  ~TlsAcceptor() override { Stop(); }

  keelbase::AWResult SetPrivateKey(const keelbase::CAWString& text) override {
    return server_.SetPrivateKey(text);
  }
  keelbase::AWResult SetCertificate(const keelbase::CAWString& text) override {
    return server_.SetCertificate(text);
  }
  keelbase::AWResult SetClientAuthorities(const keelbase::CAWString& authorities,
                                          bool required) override {
    return server_.SetClientAuthorities(authorities, required);
  }

  keelbase::AWResult StartListen(IAWSSLConnectionSink* sink, const keelbase::CAWInetAddr& addr,
                                 int backlog) override {
    if (sink == nullptr) return keelbase::AW_ERROR_FAILURE;
    keelbase::AWResult result = keelbase::AW_ERROR_FAILURE;
    GetLoop().Call([&] {
      if (sink_ != nullptr) return;
      shaking_.SetLimit(static_cast<std::size_t>(std::max(backlog, kMinPlaces)), MostPlaces());
      try {
        result = server_.Prepare();
        if (result == keelbase::AW_OK) result = below_->StartListen(this, addr, backlog);
      } catch (const std::bad_alloc&) {
        result = keelbase::AW_ERROR_FAILURE;
      }
      if (result == keelbase::AW_OK) sink_ = sink;
    });
    return result;
  }
  keelbase::AWResult StopListen() override {
    GetLoop().Call([this] { Stop(); });
    return keelbase::AW_OK;
  }
  keelbase::CAWInetAddr GetLocalAddr() override {
    keelbase::CAWInetAddr address;
    GetLoop().Call([&] {
      if (sink_ != nullptr) address = below_->GetLocalAddr();
    });
    return address;
  }

 private:
  void Stop() {
    sink_ = nullptr;
    below_->StopListen();
    while (shaking_.Begin() != shaking_.End()) shaking_.GiveUp(shaking_.Begin())->Disconnect();
  }

  void OnConnectIndication(long /*reason*/, Transport* transport,
                           typename Below::Id* /*id*/) override {
    const auto alive = this->Hold();
    if (transport == nullptr || !alive) return;
    try {
      ShakeHands(transport);
    } catch (const std::bad_alloc&) {
      // This one connection is closed; the next may find memory again.
    }
  }

  void ShakeHands(Transport* transport) {
    using Bytes =
        TransportBytes<Transport, typename Below::TransportSink, typename Below::Parameter>;
    SslPtr ssl = server_.MakeSsl();
    if (ssl == nullptr) return;
    keelbase::CAWAutoPtr<TlsStream> stream(
        new TlsStream(GetLoop(), std::make_unique<Bytes>(transport), std::move(ssl)));
    keelbase::CAWInetAddr peer;
    transport->GetOption(keelbase::AW_OPT_PEER_ADDRESS, &peer);
    const auto place = shaking_.Take(peer, stream);
    try {
      stream->Start(
          kHandshakeLimit, [this, place](long reason) { OnEstablished(place, reason); },
          [this, place] { shaking_.GiveUp(place); });
    } catch (const std::bad_alloc&) {
      return shaking_.GiveUp(place)->Disconnect();
    }
    const auto surplus = shaking_.FindSurplus(place);
    if (surplus == shaking_.End()) return;
    const auto oldest = shaking_.GiveUp(surplus);
    const bool told = oldest->IsRefused();
    oldest->Disconnect();
    if (!told) Tell(ECONNABORTED, nullptr);
  }

  // One that is refused keeps its place until it is closed, as long as it has a descriptor.
  void OnEstablished(typename Places::Place place, long reason) {
    const auto alive = this->Hold();
    if (!alive) return;
    if (reason != 0) return Tell(reason, nullptr);
    const auto stream = shaking_.GiveUp(place);
    keelbase::CAWAutoPtr<IAWSSLTransport> transport;
    reason = keelbase::internal::TryMake<SSLTransport>(transport, GetLoop(), stream);
    Tell(reason, transport.Get());
  }

  void Tell(long reason, IAWSSLTransport* transport) {
    keelbase::internal::TellOwner([&] { sink_->OnSSLConnected(reason, transport); });
  }

  static constexpr int kMinPlaces = 256;  // bursts of honest clients fit in

  // Without a descriptor for the newcomer nobody would end the oldest.
  static std::size_t MostPlaces() {
    rlimit descriptors{};
    ::getrlimit(RLIMIT_NOFILE, &descriptors);
    return descriptors.rlim_cur / 2;
  }

  const keelbase::CAWAutoPtr<typename Below::Acceptor> below_;
  IAWSSLConnectionSink* sink_ = nullptr;  // null: not listening
  TlsServer server_;
  Places shaking_;
};

}  // namespace sslutils::internal
