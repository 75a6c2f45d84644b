// TlsConnector.h - connects by a transport of the platform, and shakes hands.
#pragma once

#include <atomic>
#include <cerrno>
#include <memory>
#include <new>
#include <utility>

#include "keelbase/internal/LoopObject.h"
#include "keelbase/internal/TellOwner.h"
#include "keelbase/internal/TryMake.h"
#include "sslutils/CAWSSLManager.h"
#include "sslutils/internal/ByteTransport.h"
#include "sslutils/internal/HandshakeLimit.h"
#include "sslutils/internal/SSLTransport.h"
#include "sslutils/internal/TlsClient.h"
#include "sslutils/internal/TlsStream.h"

namespace sslutils::internal {

// All of a connector with the interface `Interface` but its AsyncConnect, which calls Start.
// `Below` names the interfaces of the library that connects.
template <class Interface, class Below>
class TlsConnector : public keelbase::internal::LoopObject<Interface>, private Below::ConnectSink {
  using Transport = typename Below::Transport;

 public:
  TlsConnector(keelbase::internal::EventLoop& loop,
               keelbase::CAWAutoPtr<typename Below::Connector> below)
      : keelbase::internal::LoopObject<Interface>(loop), below_(std::move(below)), failure_(loop) {}

  keelbase::AWResult SetPrivateKey(const keelbase::CAWString& text) final {
    return settings_.identity.SetPrivateKey(text);
  }
  keelbase::AWResult SetCertificate(const keelbase::CAWString& text) final {
    return settings_.identity.SetCertificate(text);
  }
  keelbase::AWResult SetVerifyMode(int mode) final {
    if (mode < AW_SSL_VERIFY_FULL || mode > AW_SSL_VERIFY_NONE) return keelbase::AW_ERROR_FAILURE;
    mode_ = mode;
    return keelbase::AW_OK;
  }
  keelbase::AWResult Cancel(long /*reason*/) final {
    this->GetLoop().Call([this] { Stop(); });
    return keelbase::AW_OK;
  }

 protected:
  ~TlsConnector() override { Stop(); }

  // `verify`: as SetVerifyMode says, else nothing is checked.
  keelbase::AWResult Start(IAWSSLConnectionSink* sink, const keelbase::CAWInetAddr& peer,
                           bool verify, const char* serverName,
                           const keelbase::CAWInetAddr* local) {
    if (sink == nullptr || sink_ != nullptr) return keelbase::AW_ERROR_FAILURE;
    try {
      settings_.mode = static_cast<CAWSSLVerifyMode>(verify ? mode_ : AW_SSL_VERIFY_NONE);
      settings_.serverName = serverName != nullptr ? serverName : "";
      settings_.peer = peer;
      keelbase::AWResult result = MakeClientSsl(settings_, ssl_);
      sink_ = sink;
      if (result == keelbase::AW_OK) result = below_->AsyncConnect(this, peer, nullptr, local);
      if (result != keelbase::AW_OK)
        failure_.Start(std::chrono::microseconds(0), 1,
                       [this, result] { Indicate(static_cast<long>(result), nullptr); });
    } catch (const std::bad_alloc&) {
      sink_ = nullptr;
      return keelbase::AW_ERROR_FAILURE;
    }
    return keelbase::AW_OK;
  }

 private:
  void Stop() {
    failure_.Cancel();
    below_->CancelConnect();
    sink_ = nullptr;
    if (const auto stream = std::move(stream_)) stream->Disconnect();
    ssl_ = nullptr;
  }

  void OnConnectIndication(long reason, Transport* transport, typename Below::Id* /*id*/) final {
    const auto alive = this->Hold();
    if (!alive) return;
    if (reason != 0) return Indicate(reason, nullptr);
    try {
      ShakeHands(transport);
    } catch (const std::bad_alloc&) {
      Indicate(ENOMEM, nullptr);
    }
  }

  void ShakeHands(Transport* transport) {
    using Bytes =
        TransportBytes<Transport, typename Below::TransportSink, typename Below::Parameter>;
    stream_ = new TlsStream(this->GetLoop(), std::make_unique<Bytes>(transport), std::move(ssl_));
    stream_->Start(kHandshakeLimit, [this](long reason) { OnEstablished(reason); });
  }

  void OnEstablished(long reason) {
    const auto alive = this->Hold();
    if (!alive) return;
    const auto stream = std::move(stream_);
    keelbase::CAWAutoPtr<IAWSSLTransport> transport;
    if (reason == 0)
      reason = keelbase::internal::TryMake<SSLTransport>(transport, this->GetLoop(), stream);
    Indicate(reason, transport.Get());
  }

  void Indicate(long reason, IAWSSLTransport* transport) {
    const auto alive = this->Hold();
    if (!alive) return;
    stream_ = nullptr;
    ssl_ = nullptr;
    keelbase::internal::TellOwner([sink = sink_.exchange(nullptr), reason, transport] {
      sink->OnSSLConnected(reason, transport);
    });
  }

  const keelbase::CAWAutoPtr<typename Below::Connector> below_;
  // Null: no connect under way. Set and asked by the user's thread, taken by the loop's.
  std::atomic<IAWSSLConnectionSink*> sink_{nullptr};
  int mode_ = AW_SSL_VERIFY_FULL;
  TlsClientSettings settings_;
  SslPtr ssl_;
  keelbase::CAWAutoPtr<TlsStream> stream_;
  keelbase::internal::Timer failure_;  // a connect that cannot even be tried
};

}  // namespace sslutils::internal
