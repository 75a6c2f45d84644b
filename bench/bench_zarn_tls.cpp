// bench_zarn_tls.cpp - the TLS session of zarnutils with the frame of the channels.
#include "common/ChannelBench.h"
#include "common/FramedSession.h"
#include "common/TcpPort.h"
#include "common/TlsSide.h"
#include "sslutils/CAWSSLManager.h"
#include "zarn/utils/CZARNSSLTCPSessionBase.h"

namespace {

using keelbase::CAWInetAddr;

std::string GetDirectory() { return std::getenv("ZARN_ROOT"); }

struct OverTls {
  using Session = bench::FramedSession<zarn::utils::CZARNSSLTCPSessionBase>;
  using Transport = sslutils::IAWSSLTransport;
  using TransportParameter = sslutils::CAWSSLTransportParameter;

  class ClientChannel : public Session {
   public:
    // The endpoint is that of the run.
    keelbase::AWResult Init(std::uint16_t, std::uint16_t, std::uint16_t, std::uint16_t) {
      static const CAWInetAddr server = [] {
        sslutils::IAWSSLManager::Instance()->SetTrustedCertificates(
            bench::TlsFiles(GetDirectory()).authority);
        return CAWInetAddr("127.0.0.1", bench::ReadPort(GetDirectory()));
      }();
      return Connect(server, nullptr);
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
      bench::Check(SetTransportHandle(held), "transport");
    }
  };

  class Listener final : public sslutils::IAWSSLConnectionSink {
   public:
    explicit Listener(std::function<void(Transport*)> accepted) : accepted_(std::move(accepted)) {
      const bench::TlsFiles files(GetDirectory());
      files.Make();
      bench::Check(sslutils::IAWSSLManager::Instance()->CreateSSLAcceptor(acceptor_), "acceptor");
      bench::Check(acceptor_->SetPrivateKey(files.key), "key");
      bench::Check(acceptor_->SetCertificate(files.certificate), "certificate");
      bench::Check(acceptor_->StartListen(this, CAWInetAddr("127.0.0.1", 0), 128), "listen");
      bench::WritePort(GetDirectory(), acceptor_->GetLocalAddr().GetPort());
    }
    void OnSSLConnected(long reason, Transport* transport) override {
      bench::Check(static_cast<keelbase::AWResult>(reason), "accept");
      accepted_(transport);
    }

   private:
    std::function<void(Transport*)> accepted_;
    keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor> acceptor_;
  };
};

}  // namespace

int main(int argc, char** argv) { return bench::ChannelBench<OverTls>::Run(argc, argv); }
