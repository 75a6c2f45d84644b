// tls_peer.cpp - one side of TLS on 127.0.0.1:
//   tls_peer serve KEY CERTIFICATE [CLIENT_AUTHORITIES]     sends back what comes
//   tls_peer connect PORT AUTHORITIES [KEY CERTIFICATE]
// AUTHORITIES "-" means none.
//
// Events: listening {port} or listen_failed {reason}; accepted, refused {reason}; connected;
// received {bytes} (all so far); ended {reason}.
// Commands: send COUNT (so many bytes 'x'); close.
#include <cstdlib>
#include <list>
#include <memory>
#include <string>

#include "Program.h"
#include "sslutils/CAWSSLManager.h"
#include "zarn/utils/CZARNSSLTCPSessionBase.h"
#include "zarn/utils/CZARNTCPSSLTransport.h"

namespace {

using e2e::Event;
using keelbase::CAWInetAddr;

class Echo final : public zarn::utils::CZARNTCPSSLTransport {
 public:
  std::uint16_t HandleMessage(keelbase::CAWMessageBlock& data) override {
    const auto length = static_cast<std::uint16_t>(data.GetChainedLength());
    SendSSLMessage(data);
    return length;
  }
  void OnPeerDisconnect(long reason) override { Event("ended").With("reason", reason); }
};

class Server final : public sslutils::IAWSSLConnectionSink {
 public:
  Server(std::string key, std::string certificate, std::string authorities)
      : key_(std::move(key)),
        certificate_(std::move(certificate)),
        authorities_(std::move(authorities)) {}

  void Start() {
    sslutils::IAWSSLManager::Instance()->CreateSSLAcceptor(acceptor_);
    acceptor_->SetPrivateKey(key_);
    acceptor_->SetCertificate(certificate_);
    if (authorities_ != "-") acceptor_->SetClientAuthorities(authorities_, true);
    const auto result = acceptor_->StartListen(this, CAWInetAddr("127.0.0.1", 0), 64);
    if (result != keelbase::AW_OK) {
      Event("listen_failed").With("reason", result);
    } else {
      Event("listening").With("port", acceptor_->GetLocalAddr().GetPort());
    }
  }
  void Command(const e2e::Words& words) {
    if (words[0] == "close") echoes_.clear();
  }
  void Finish() {
    echoes_.clear();
    acceptor_ = nullptr;
  }

 private:
  void OnSSLConnected(long reason, sslutils::IAWSSLTransport* transport) override {
    if (reason != 0) {
      Event("refused").With("reason", reason);
      return;
    }
    const Event told("accepted");
    keelbase::CAWAutoPtr<sslutils::IAWSSLTransport> accepted(transport);
    echoes_.emplace_back().SetSSLTransportHandle(accepted);
  }

  const std::string key_;
  const std::string certificate_;
  const std::string authorities_;
  keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor> acceptor_;
  std::list<Echo> echoes_;
};

class Client final : public zarn::utils::CZARNSSLTCPSessionBase {
 public:
  Client(std::uint16_t port, const char* authorities) : port_(port) {
    if (std::string_view(authorities) != "-")
      sslutils::IAWSSLManager::Instance()->SetTrustedCertificates(authorities);
  }

  void Start() { Connect(CAWInetAddr("127.0.0.1", port_), nullptr); }
  void Command(const e2e::Words& words) {
    if (words[0] == "close") Close(0);
    if (words[0] != "send") return;
    const std::string bytes(static_cast<std::size_t>(std::atol(words.at(1).c_str())), 'x');
    SendMsg(bytes.data(), bytes.size());
  }
  void Finish() { Close(0); }

  std::size_t HandleMessage(const char*, std::size_t length) override {
    received_ += length;
    Event("received").With("bytes", received_);
    return length;
  }
  int OnConnected(long) override {
    const Event told("connected");
    return 0;
  }
  void OnPeerDisconnect(long reason) override { Event("ended").With("reason", reason); }
  void OnRcvBufferOverFlow(std::uint32_t) override {}

 private:
  const std::uint16_t port_;
  std::size_t received_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  const e2e::Words words(argv + 1, argv + argc);
  if ((argc == 4 || argc == 5) && words[0] == "serve") {
    Server server(words[1], words[2], argc == 5 ? words[3] : "-");
    return e2e::Serve(server, false);
  }
  if ((argc == 4 || argc == 6) && words[0] == "connect") {
    Client client(static_cast<std::uint16_t>(std::atoi(argv[2])), argv[3]);
    if (argc == 6) {
      client.PrivateKey(words[3]);
      client.Certificate(words[4]);
    }
    return e2e::Serve(client, false);
  }
  return 2;
}
