// tcp_echo.cpp - the two ends of a TCP connection, in one program.
//
//   tcp_echo serve ADDRESS PORT           sends back each line that comes, until its input ends
//   tcp_echo ask ADDRESS PORT COUNT       so many round trips, one after the other
//
// `serve` shows CZARNTCPTransport, which takes over accepted connections and is given blocks; `ask`
// shows CZARNTCPSessionBase, which connects and is given bytes. Port 0 is a free one. No ZARN_ROOT
// is needed. The library's own network thread runs the loop here; everything about connections
// happens on it, hence Call.
#include <keelbase/CAWThreadManager.h>
#include <wface/CAWConnectionManager.h>
#include <zarn/utils/CZARNTCPSessionBase.h>
#include <zarn/utils/CZARNTCPTransport.h>

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

using keelbase::CAWMessageBlock;

class EchoServer : public wface::IAWAcceptorConnectorSink {
 public:
  keelbase::AWResult Listen(const keelbase::CAWInetAddr& address) {
    auto* manager = wface::CAWConnectionManager::Instance();
    if (const auto made = manager->CreateAcceptor(wface::AW_KIND_TCP, acceptor_); made != 0)
      return made;
    return acceptor_->StartListen(this, address, 0);
  }
  std::uint16_t GetPort() { return acceptor_->GetLocalAddr().GetPort(); }

  void OnConnectIndication(long reason, wface::IAWTransport* transport,
                           wface::IAWAcceptorConnectorId*) override {
    if (reason != 0) return;
    keelbase::CAWAutoPtr<wface::IAWTransport> accepted(transport);
    auto client = std::make_unique<Client>(*this);
    if (client->SetTransportHandle(accepted) != 0) return;
    Client* const key = client.get();
    clients_.emplace(key, std::move(client));
  }

 private:
  // One accepted connection. Takes all whole lines that there are at a time, as far as a count of
  // 16 bits goes.
  class Client : public zarn::utils::CZARNTCPTransport {
   public:
    explicit Client(EchoServer& server) : server_(server) {}

    std::uint16_t HandleMessage(CAWMessageBlock& data) override {
      const std::string bytes = data.FlattenChained();
      const std::size_t end = bytes.rfind('\n', kMaxTaken - 1);
      if (end == std::string::npos) {
        if (bytes.size() >= kMaxTaken) Disconnect(0);  // no line may be as long
        return 0;
      }
      CAWMessageBlock answer(bytes.data(), end + 1, CAWMessageBlock::borrow);
      SendMsg(answer, nullptr);
      if (GetSendQueueLength() > kMaxWaiting) Disconnect(0);  // it asks, but does not read
      return static_cast<std::uint16_t>(end + 1);
    }
    // Deletes the client, which the stream allows in this place.
    void OnPeerDisconnect(long) override { server_.clients_.erase(this); }

   private:
    static constexpr std::size_t kMaxTaken = 65535;
    static constexpr std::size_t kMaxWaiting = std::size_t{16} << 20;

    EchoServer& server_;
  };

  keelbase::CAWAutoPtr<wface::IAWAcceptor> acceptor_;
  std::unordered_map<Client*, std::unique_ptr<Client>> clients_;
};

// Frames are lines.
class Asker : public zarn::utils::CZARNTCPSessionBase {
 public:
  explicit Asker(int count) : left_(count) {}

  std::size_t HandleMessage(const char* data, std::size_t len) override {
    const void* end = std::memchr(data, '\n', len);
    if (end == nullptr) return 0;
    if (--left_ == 0)
      Close(0);  // OnPeerDisconnect(0) follows, since this is inside HandleMessage
    else
      Ask();
    return static_cast<std::size_t>(static_cast<const char*>(end) - data) + 1;
  }
  int OnConnected(long) override {
    Ask();
    return 0;
  }
  void OnPeerDisconnect(long reason) override { done_.set_value(reason); }
  void OnRcvBufferOverFlow(std::uint32_t) override {}

  long WaitForEnd() { return done_.get_future().get(); }  // its reason
  int GetLeft() const { return left_; }

 private:
  void Ask() { SendMsg("hello\n", 6); }

  int left_;
  std::promise<long> done_;
};

int Serve(keelbase::CAWThread& network, const keelbase::CAWInetAddr& address) {
  auto server = std::make_unique<EchoServer>();
  const auto result = network.Call([&] { return server->Listen(address); });
  if (result != 0) {
    std::fprintf(stderr, "tcp_echo: cannot listen: %s\n", keelbase::DescribeResult(result).c_str());
    return 1;
  }
  std::printf("listening at port %u\n", network.Call([&] { return server->GetPort(); }));
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  network.Call([&] { server.reset(); });  // where it lives
  return 0;
}

int Ask(keelbase::CAWThread& network, const keelbase::CAWInetAddr& peer, int count) {
  auto asker = std::make_unique<Asker>(count);
  const auto start = std::chrono::steady_clock::now();
  const auto result = network.Call([&] { return asker->Connect(peer, nullptr); });
  const long reason = result == 0 ? asker->WaitForEnd() : static_cast<long>(result);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  const int left = asker->GetLeft();
  network.Call([&] { asker.reset(); });  // where it lives
  if (left != 0) {
    const std::string why = reason == 0 ? "the peer has closed" : keelbase::DescribeResult(reason);
    std::fprintf(stderr, "tcp_echo: %d answers are missing: %s\n", left, why.c_str());
    return 1;
  }
  std::printf("%d answers in %.3f s\n", count, took.count());
  return 0;
}

// Ends the program if `text` is no number, or one that is not from `least` to `most`.
int Number(const char* text, int least, int most) {
  int number = 0;
  const char* const end = text + std::strlen(text);
  const auto [last, error] = std::from_chars(text, end, number);
  if (error == std::errc() && last == end && number >= least && number <= most) return number;
  std::fprintf(stderr, "tcp_echo: '%s' is not a number from %d to %d\n", text, least, most);
  std::exit(2);
}

std::uint16_t Port(const char* text) { return static_cast<std::uint16_t>(Number(text, 0, 65535)); }

}  // namespace

int main(int argc, char** argv) {
  const bool serve = argc == 4 && std::strcmp(argv[1], "serve") == 0;
  const bool ask = argc == 5 && std::strcmp(argv[1], "ask") == 0;
  if (!serve && !ask) {
    std::fprintf(stderr,
                 "usage: tcp_echo serve ADDRESS PORT\n"
                 "       tcp_echo ask ADDRESS PORT COUNT\n");
    return 2;
  }
  const std::uint16_t port = Port(argv[3]);
  const int count = ask ? Number(argv[4], 1, INT_MAX) : 0;
  keelbase::CAWInetAddr address;
  if (address.Set(argv[2], port) != 0) {
    std::fprintf(stderr, "tcp_echo: '%s' is no IPv4 address and no name of one\n", argv[2]);
    return 1;
  }
  keelbase::CAWThread* network =
      keelbase::CAWThreadManager::Instance()->GetThread(keelbase::CAWThreadManager::TT_NETWORK);
  if (network == nullptr) {
    std::fprintf(stderr, "tcp_echo: the network thread cannot be started\n");
    return 1;
  }
  return serve ? Serve(*network, address) : Ask(*network, address, count);
}
