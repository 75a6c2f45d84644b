// bench_zarn_tls_connect.cpp - connections with the TLS session of zarnutils: each round trip has
// one of its own, with a handshake in full, or with --resume one that goes on with an earlier
// session.
#include <list>

#include "common/ChannelBench.h"
#include "common/TcpPort.h"
#include "common/TlsSide.h"
#include "sslutils/CAWSSLManager.h"
#include "zarn/utils/CZARNSSLTCPSessionBase.h"

namespace {

using namespace bench;
using keelbase::CAWAutoPtr;
using keelbase::CAWInetAddr;
using sslutils::IAWSSLManager;
using sslutils::IAWSSLTransport;

class Session : public zarn::utils::CZARNSSLTCPSessionBase {
 public:
  int OnConnected(long) override { return 0; }
  void OnRcvBufferOverFlow(std::uint32_t) override {}
};

class Server final : public sslutils::IAWSSLConnectionSink {
 public:
  Server(const Options& options, CAWThread& loop) : size_(options.size), loop_(loop) {
    const TlsFiles files(options.dir);
    files.Make();
    Check(IAWSSLManager::Instance()->CreateSSLAcceptor(acceptor_), "acceptor");
    Check(acceptor_->SetPrivateKey(files.key), "key");
    Check(acceptor_->SetCertificate(files.certificate), "certificate");
    Check(acceptor_->StartListen(this, CAWInetAddr("127.0.0.1", 0), 128), "listen");
    WritePort(options.dir, acceptor_->GetLocalAddr().GetPort());
  }

 private:
  class Accepted final : public Session {
   public:
    explicit Accepted(Server& server) : server_(server) {}
    std::list<Accepted>::iterator self;

    std::size_t HandleMessage(const char* data, std::size_t len) override {
      if (len < server_.size_) return 0;
      Check(SendMsg(data, server_.size_), "send");
      if (GetStamp(data).kind == Kind::kLast) server_.loop_.Stop();
      return server_.size_;
    }
    void OnPeerDisconnect(long) override { server_.sessions_.erase(self); }

   private:
    Server& server_;
  };

  void OnSSLConnected(long reason, IAWSSLTransport* transport) override {
    Check(static_cast<keelbase::AWResult>(reason), "accept");
    CAWAutoPtr<IAWSSLTransport> accepted(transport);
    sessions_.emplace_front(*this);
    sessions_.front().self = sessions_.begin();
    Check(sessions_.front().SetTransportHandle(accepted), "transport");
  }

  const std::size_t size_;
  CAWThread& loop_;
  CAWAutoPtr<sslutils::IAWSSLAcceptor> acceptor_;
  std::list<Accepted> sessions_;
};

class Client final : public Session {
 public:
  Client(const Options& options, RoundTrips& trips, CAWThread& loop)
      : options_(options), trips_(trips), loop_(loop) {
    const TlsFiles files(options.dir);
    Check(IAWSSLManager::Instance()->SetTrustedCertificates(files.authority), "authority");
    server_ = CAWInetAddr("127.0.0.1", ReadPort(options.dir));
  }

  // A session goes on for its own name only.
  void Ask() {
    if (!trips_.Next()) return loop_.Stop();
    const std::string name = options_.resume
                                 ? "server.bench.example"
                                 : "server" + std::to_string(connections_) + ".bench.example";
    ++connections_;
    Check(IAWSSLManager::Instance()->CreateSSLConnector(connector_), "connector");
    Check(connector_->AsyncConnect(this, server_, 1, name.c_str(), nullptr), "connect");
  }

 private:
  keelbase::AWResult SetTransportHandle(CAWAutoPtr<IAWSSLTransport>& transport) override {
    sslutils::CAWSSLInfo info;
    if (connections_ <= 2) transport->GetOption(sslutils::AW_OPT_SSL_INFO, &info);
    if (connections_ == 2 && info.resumed != options_.resume)
      Fail("not the handshake that was asked for");
    return CZARNSSLTCPSessionBase::SetTransportHandle(transport);
  }
  int OnConnected(long) override {
    Check(SendMsg(trips_.Message().data(), options_.size), "send");
    return 0;
  }
  std::size_t HandleMessage(const char* data, std::size_t len) override {
    if (len < options_.size) return 0;
    trips_.Take(data, options_.size);
    answered_ = true;
    Close(0);
    return options_.size;
  }
  void OnPeerDisconnect(long reason) override {
    if (!std::exchange(answered_, false))
      Fail("connection: " + sslutils::DescribeSSLResult(reason));
    Ask();
  }

  const Options& options_;
  RoundTrips& trips_;
  CAWThread& loop_;
  CAWInetAddr server_;
  CAWAutoPtr<sslutils::IAWSSLConnector> connector_;
  std::uint64_t connections_ = 0;
  bool answered_ = false;
};

void Echo(const Options& options, const Control& control) {
  CAWThread& loop = StartLoop(options);
  const Server server(options, loop);
  control.SendReady();
  loop.Run();
  control.WaitForParent();
}

void Ask(const Options& options, const Control&, RoundTrips& trips) {
  CAWThread& loop = StartLoop(options);
  Client client(options, trips, loop);
  client.Ask();
  loop.Run();
}

}  // namespace

int main(int argc, char** argv) { return Main(argc, argv, {"zarn", nullptr, nullptr, Echo, Ask}); }
