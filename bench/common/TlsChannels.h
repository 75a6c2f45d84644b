// TlsChannels.h - the TLS sessions of zarnutils with the frame of the channels, for ChannelBench.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>

#include "ChannelBench.h"
#include "FramedSession.h"
#include "TcpPort.h"
#include "TlsSide.h"
#include "sslutils/CAWSSLManager.h"

namespace bench {

inline std::string TlsDirectory() { return std::getenv("ZARN_ROOT"); }

// SessionClass is a session of zarnutils; MakeAcceptor(out) makes the acceptor that goes with it.
template <class SessionClass,
          keelbase::AWResult (*MakeAcceptor)(keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor>&)>
struct OverTls {
  using Session = FramedSession<SessionClass>;
  using Transport = sslutils::IAWSSLTransport;
  using TransportParameter = sslutils::CAWSSLTransportParameter;

  class ClientChannel : public Session {
   public:
    // The endpoint is that of the run.
    keelbase::AWResult Init(std::uint16_t, std::uint16_t, std::uint16_t, std::uint16_t) {
      static const keelbase::CAWInetAddr server = [] {
        sslutils::IAWSSLManager::Instance()->SetTrustedCertificates(
            TlsFiles(TlsDirectory()).authority);
        return keelbase::CAWInetAddr(GetAddress().c_str(), ReadPort(TlsDirectory()));
      }();
      return this->Connect(server, nullptr);
    }
    virtual void OnSend(Transport* transport, TransportParameter*) {
      Session::OnSSLDataSend(transport);
    }
    void OnSSLDataSend(Transport* transport) override { OnSend(transport, nullptr); }
  };

  class ServerChannel : public Session {
   public:
    explicit ServerChannel(Transport* transport) {
      keelbase::CAWAutoPtr<Transport> held(transport);
      Check(this->SetTransportHandle(held), "transport");
    }
  };

  class Listener final : public sslutils::IAWSSLConnectionSink {
   public:
    explicit Listener(std::function<void(Transport*)> accepted) : accepted_(std::move(accepted)) {
      const TlsFiles files(TlsDirectory());
      files.Make();
      Check(MakeAcceptor(acceptor_), "acceptor");
      Check(acceptor_->SetPrivateKey(files.key), "key");
      Check(acceptor_->SetCertificate(files.certificate), "certificate");
      Check(acceptor_->StartListen(this, keelbase::CAWInetAddr(GetAddress().c_str(), 0), 128),
            "listen");
      WritePort(TlsDirectory(), acceptor_->GetLocalAddr().GetPort());
    }
    void OnSSLConnected(long reason, Transport* transport) override {
      Check(static_cast<keelbase::AWResult>(reason), "accept");
      accepted_(transport);
    }

   private:
    std::function<void(Transport*)> accepted_;
    keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor> acceptor_;
  };
};

}  // namespace bench
