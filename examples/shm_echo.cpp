// shm_echo.cpp - the two ends of a message channel over shared memory, in one program.
//
//   ZARN_ROOT=/opt/zarn shm_echo serve 1 2        sends back what comes to 1_2
//   ZARN_ROOT=/opt/zarn shm_echo ask 1 2 COUNT    so many round trips, one after the other
//
// `serve` goes on until its input ends. The same code as over local IPC but for the names of the
// classes. The library's own network thread runs the loop here; everything about channels happens
// on it, hence Call.
#include <keelbase/CAWThreadManager.h>
#include <zarn/utils/CShmZARNLibClientChannel.h>
#include <zarn/utils/CShmZARNLibServerChannel.h>
#include <zarn/utils/zarnutils.h>

#include <charconv>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <unordered_map>
#include <utility>

namespace {

class EchoServer : public fshmipc::IAWShmIPCAcceptorConnectorSink {
 public:
  keelbase::AWResult Listen(const fshmipc::CAWShmIPCAddr& endpoint) {
    if (const auto result = zarn::utils::CreateShmIPCServer(acceptor_); result != 0) return result;
    return acceptor_->StartListen(this, endpoint);
  }

  void OnShmIPCConnectIndication(long reason, fshmipc::IAWShmIPCTransport* transport,
                                 fshmipc::IAWShmIPCAcceptorConnectorId*) override {
    if (reason != 0) return;
    auto client = std::make_unique<Client>(*this, transport);
    const Client* const key = client.get();
    clients_.emplace(key, std::move(client));
  }

 private:
  // One connection. It removes itself when the peer has gone, or when it has closed itself.
  class Client : public zarn::utils::CShmZARNLibServerChannel {
   public:
    Client(EchoServer& server, fshmipc::IAWShmIPCTransport* transport)
        : CShmZARNLibServerChannel(transport), server_(server) {}

    void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                       std::size_t size) override {
      SendZARNMessage(type, tag, data, size);
      if (GetSendQueueLength() > kMaxWaiting) Close(0);  // it asks, but does not read
    }
    // Each is the last thing that the channel does, so it may go.
    void OnPeerDisconnect(long) override { server_.clients_.erase(this); }
    void OnClose() override { server_.clients_.erase(this); }

   private:
    static constexpr std::size_t kMaxWaiting = std::size_t{16} << 20;

    EchoServer& server_;
  };

  keelbase::CAWAutoPtr<fshmipc::IAWShmIPCAcceptor> acceptor_;
  std::unordered_map<const Client*, std::unique_ptr<Client>> clients_;
};

class Asker : public zarn::utils::CShmZARNLibClientChannel {
 public:
  explicit Asker(int count) : left_(static_cast<std::uint32_t>(count)) {}

  int OnConnected(long reason) override {
    CShmZARNLibClientChannel::OnConnected(reason);  // keeps the state and the timer
    Ask();
    return 1;
  }
  // About once a second while the peer is away.
  void OnConnectFailure(long reason) override {
    std::printf("not connected: %s\n", keelbase::DescribeResult(reason).c_str());
    std::fflush(stdout);
  }
  void OnZARNMessage(std::uint16_t, std::uint32_t, const char*, std::size_t) override {
    if (--left_ == 0)
      done_.set_value();
    else
      Ask();
  }
  void WaitForAll() { done_.get_future().wait(); }

 private:
  void Ask() { SendZARNMessage(1, left_, "hello", 5); }
  std::uint32_t left_;
  std::promise<void> done_;
};

int Serve(keelbase::CAWThread& network, const fshmipc::CAWShmIPCAddr& endpoint) {
  auto server = std::make_unique<EchoServer>();
  const auto result = network.Call([&] { return server->Listen(endpoint); });
  if (result != 0) {
    std::fprintf(stderr, "shm_echo: cannot listen: %s\n", keelbase::DescribeResult(result).c_str());
    return 1;
  }
  std::printf("listening\n");
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  network.Call([&] { server.reset(); });  // where it lives
  return 0;
}

int Ask(keelbase::CAWThread& network, const fshmipc::CAWShmIPCAddr& endpoint, int count) {
  auto asker = std::make_unique<Asker>(count);
  const auto start = std::chrono::steady_clock::now();
  const auto result =
      network.Call([&] { return asker->Init(3, 4, endpoint.GetFirst(), endpoint.GetSecond()); });
  if (result == 0) asker->WaitForAll();
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  network.Call([&] { asker.reset(); });  // where it lives
  if (result != 0) {
    std::fprintf(stderr, "shm_echo: %s\n", keelbase::DescribeResult(result).c_str());
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
  std::fprintf(stderr, "shm_echo: '%s' is not a number from %d to %d\n", text, least, most);
  std::exit(2);
}

std::uint16_t EndpointNumber(const char* text) {
  return static_cast<std::uint16_t>(Number(text, 0, 65535));
}

}  // namespace

int main(int argc, char** argv) {
  const bool serve = argc == 4 && std::strcmp(argv[1], "serve") == 0;
  const bool ask = argc == 5 && std::strcmp(argv[1], "ask") == 0;
  if (!serve && !ask) {
    std::fprintf(stderr, "usage: shm_echo serve FIRST SECOND | shm_echo ask FIRST SECOND COUNT\n");
    return 2;
  }
  const fshmipc::CAWShmIPCAddr endpoint(EndpointNumber(argv[2]), EndpointNumber(argv[3]));
  const int count = ask ? Number(argv[4], 1, INT_MAX) : 0;
  if (zarn::utils::ZARNLibInit() != 0) {
    std::fprintf(stderr, "shm_echo: ZARN_ROOT must name a directory that has a directory system\n");
    return 1;
  }
  keelbase::CAWThread* network =
      keelbase::CAWThreadManager::Instance()->GetThread(keelbase::CAWThreadManager::TT_NETWORK);
  if (network == nullptr) {
    std::fprintf(stderr, "shm_echo: the network thread cannot be started\n");
    return 1;
  }
  return serve ? Serve(*network, endpoint) : Ask(*network, endpoint, count);
}
