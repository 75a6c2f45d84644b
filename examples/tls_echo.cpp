// tls_echo.cpp - the two ends of a TLS connection, in one program.
//
//   tls_echo serve PORT KEY CERTIFICATE [CLIENT_AUTHORITIES]
//   tls_echo ask ADDRESS PORT AUTHORITIES COUNT [KEY CERTIFICATE]
//
// `serve` sends back each line that comes, until its input ends; with CLIENT_AUTHORITIES only to
// clients that have a certificate of theirs. `ask` makes so many round trips, one after the other,
// with a server whose certificate is for ADDRESS and comes from AUTHORITIES. All files are PEM.
// docs/tls.md tells how to make them. No ZARN_ROOT is needed.
#include <keelbase/CAWThreadManager.h>
#include <sslutils/CAWSSLManager.h>
#include <zarn/utils/CZARNSSLTCPSessionBase.h>

#include <charconv>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

namespace {

// Says what is wrong with a file, if anything is: the listen or the connect only says why it fails.
void Tell(const char* file, keelbase::AWResult result) {
  if (result != 0)
    std::fprintf(stderr, "tls_echo: '%s': %s\n", file,
                 sslutils::DescribeSSLResult(static_cast<long>(result)).c_str());
}

// Frames are lines.
class Lines : public zarn::utils::CZARNSSLTCPSessionBase {
 public:
  std::size_t HandleMessage(const char* data, std::size_t len) override {
    const void* end = std::memchr(data, '\n', len);
    if (end == nullptr) {
      if (len >= kMaxLine) Close(0);  // no line may be as long
      return 0;
    }
    const auto length = static_cast<std::size_t>(static_cast<const char*>(end) - data) + 1;
    OnLine(data, length);
    return length;
  }
  int OnConnected(long) override { return 0; }
  void OnRcvBufferOverFlow(std::uint32_t) override {}

 private:
  static constexpr std::size_t kMaxLine = 65535;

  virtual void OnLine(const char* data, std::size_t length) = 0;
};

class EchoServer : public sslutils::IAWSSLConnectionSink {
 public:
  keelbase::AWResult Listen(std::uint16_t port, const char* key, const char* certificate,
                            const char* clientAuthorities) {
    sslutils::IAWSSLManager::Instance()->CreateSSLAcceptor(acceptor_);
    if (!acceptor_) return keelbase::AW_ERROR_FAILURE;
    Tell(key, acceptor_->SetPrivateKey(key));
    Tell(certificate, acceptor_->SetCertificate(certificate));
    if (clientAuthorities != nullptr)
      Tell(clientAuthorities, acceptor_->SetClientAuthorities(clientAuthorities, true));
    return acceptor_->StartListen(this, keelbase::CAWInetAddr("0.0.0.0", port), 64);
  }
  std::uint16_t GetPort() { return acceptor_->GetLocalAddr().GetPort(); }

  void OnSSLConnected(long reason, sslutils::IAWSSLTransport* transport) override {
    if (reason != 0) {
      std::fprintf(stderr, "refused: %s\n", sslutils::DescribeSSLResult(reason).c_str());
      return;
    }
    sslutils::CAWSSLInfo info;
    transport->GetOption(sslutils::AW_OPT_SSL_INFO, &info);
    std::printf("%s, client '%s'\n", info.protocol.c_str(), info.peerSubject.c_str());
    keelbase::CAWAutoPtr<sslutils::IAWSSLTransport> accepted(transport);
    auto client = std::make_unique<Client>(*this);
    if (client->SetTransportHandle(accepted) != 0) return;
    Client* const key = client.get();
    clients_.emplace(key, std::move(client));
  }

 private:
  class Client : public Lines {
   public:
    explicit Client(EchoServer& server) : server_(server) {}

    void OnLine(const char* data, std::size_t length) override {
      SendMsg(data, length);
      if (GetSendQueueLength() > kMaxWaiting) Close(0);  // it asks, but does not read
    }
    // Deletes the client, which the session allows in this place.
    void OnPeerDisconnect(long) override { server_.clients_.erase(this); }

   private:
    static constexpr std::size_t kMaxWaiting = std::size_t{16} << 20;

    EchoServer& server_;
  };

  keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor> acceptor_;
  std::unordered_map<Client*, std::unique_ptr<Client>> clients_;
};

class Asker : public Lines {
 public:
  explicit Asker(int count) : left_(count) {}

  int OnConnected(long) override {
    Ask();
    return 0;
  }
  void OnPeerDisconnect(long reason) override { done_.set_value(reason); }
  long WaitForEnd() { return done_.get_future().get(); }  // 0: the peer or this side has closed
  int GetLeft() const { return left_; }

 private:
  void OnLine(const char*, std::size_t) override {
    if (--left_ == 0)
      Close(0);  // OnPeerDisconnect(0) follows, since this is inside HandleMessage
    else
      Ask();
  }
  void Ask() { SendMsg("hello\n", 6); }

  int left_;
  std::promise<long> done_;
};

// Ends the program if `text` is no number, or one that is not from `least` to `most`.
int Number(const char* text, int least, int most) {
  int number = 0;
  const char* const end = text + std::strlen(text);
  const auto [last, error] = std::from_chars(text, end, number);
  if (error == std::errc() && last == end && number >= least && number <= most) return number;
  std::fprintf(stderr, "tls_echo: '%s' is not a number from %d to %d\n", text, least, most);
  std::exit(2);
}

std::uint16_t Port(const char* text) { return static_cast<std::uint16_t>(Number(text, 0, 65535)); }

int Serve(keelbase::CAWThread& network, int argc, char** argv) {
  auto server = std::make_unique<EchoServer>();
  const std::uint16_t port = Port(argv[2]);
  const auto result = network.Call(
      [&] { return server->Listen(port, argv[3], argv[4], argc == 6 ? argv[5] : nullptr); });
  if (result != 0) {
    std::fprintf(stderr, "tls_echo: cannot listen: %s\n",
                 sslutils::DescribeSSLResult(static_cast<long>(result)).c_str());
    return 1;
  }
  std::printf("listening at port %u\n", network.Call([&] { return server->GetPort(); }));
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  network.Call([&] { server.reset(); });  // where it lives
  return 0;
}

int Ask(keelbase::CAWThread& network, int argc, char** argv) {
  const keelbase::CAWInetAddr peer(argv[2], Port(argv[3]));
  const int count = Number(argv[5], 1, INT_MAX);
  const auto trusted = sslutils::IAWSSLManager::Instance()->SetTrustedCertificates(argv[4]);
  Tell(argv[4], trusted);
  if (trusted != 0) return 1;
  auto asker = std::make_unique<Asker>(count);
  if (argc == 8) {
    Tell(argv[6], asker->PrivateKey(argv[6]));
    Tell(argv[7], asker->Certificate(argv[7]));
  }
  const auto start = std::chrono::steady_clock::now();
  const auto result = network.Call([&] { return asker->Connect(peer, nullptr); });
  const long reason = result == 0 ? asker->WaitForEnd() : static_cast<long>(result);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  const int left = asker->GetLeft();
  network.Call([&] { asker.reset(); });  // where it lives
  if (left != 0) {
    const std::string why =
        reason == 0 ? "the peer has closed" : sslutils::DescribeSSLResult(reason).c_str();
    std::fprintf(stderr, "tls_echo: %d answers are missing: %s\n", left, why.c_str());
    return 1;
  }
  std::printf("%d answers in %.3f s\n", count, took.count());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const bool serve = (argc == 5 || argc == 6) && std::strcmp(argv[1], "serve") == 0;
  const bool ask = (argc == 6 || argc == 8) && std::strcmp(argv[1], "ask") == 0;
  if (!serve && !ask) {
    std::fprintf(stderr,
                 "usage: tls_echo serve PORT KEY CERTIFICATE [CLIENT_AUTHORITIES]\n"
                 "       tls_echo ask ADDRESS PORT AUTHORITIES COUNT [KEY CERTIFICATE]\n");
    return 2;
  }
  keelbase::CAWThread* network =
      keelbase::CAWThreadManager::Instance()->GetThread(keelbase::CAWThreadManager::TT_NETWORK);
  if (network == nullptr) {
    std::fprintf(stderr, "tls_echo: the network thread cannot be started\n");
    return 1;
  }
  return serve ? Serve(*network, argc, argv) : Ask(*network, argc, argv);
}
