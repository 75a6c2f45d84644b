// echo_server.cpp - listens at an endpoint and sends every message back.
//
//   ZARN_ROOT=/opt/zarn echo_server 1 2        listens at 1_2 until SIGINT or SIGTERM
#include <keelbase/CAWThreadManager.h>
#include <zarn/utils/CZARNLibServerChannel.h>
#include <zarn/utils/CZARNMetrics.h>
#include <zarn/utils/zarnutils.h>

#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <unordered_map>

namespace {

using zarn::utils::CZARNLibServerChannel;

// All clients. Accepts on the thread that calls Listen, which must serve the loop.
class EchoServer : public fipc::IAWIPCAcceptorConnectorSink {
 public:
  keelbase::AWResult Listen(std::uint16_t first, std::uint16_t second) {
    keelbase::CAWIPCAddr endpoint;
    // The second number comes first in the file's name.
    if (const auto result = zarn::utils::ZARNCreateIPCAddr(second, first, endpoint); result != 0)
      return result;
    if (const auto result = zarn::utils::CreateIPCServer(acceptor_); result != 0) return result;
    return acceptor_->StartListen(this, endpoint);
  }

  void OnIPCConnectIndication(long reason, fipc::IAWIPCTransport* transport,
                              fipc::IAWIPCAcceptorConnectorId*) override {
    if (reason != 0) return;
    auto client = std::make_unique<Client>(*this, transport);
    const Client* key = client.get();
    clients_.emplace(key, std::move(client));
    std::printf("a client has come, %zu now\n", clients_.size());
    std::fflush(stdout);
  }

 private:
  // One connection. It removes itself when the peer has gone.
  class Client : public CZARNLibServerChannel {
   public:
    Client(EchoServer& server, fipc::IAWIPCTransport* transport)
        : CZARNLibServerChannel(transport), server_(server) {}

    void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                       std::size_t size) override {
      SendZARNMessage(type, tag, data, size);
      // A client that asks and never reads the answers would fill our memory.
      if (GetSendQueueLength() > kMaxQueuedBytes) Close(0);
    }

    // The last thing that the channel does, so it may go.
    void OnPeerDisconnect(long) override { server_.clients_.erase(this); }

   private:
    static constexpr std::size_t kMaxQueuedBytes = 64 * 1024 * 1024;
    EchoServer& server_;
  };

  keelbase::CAWAutoPtr<fipc::IAWIPCAcceptor> acceptor_;
  std::unordered_map<const Client*, std::unique_ptr<Client>> clients_;
};

// Ends the program if `text` is no number of an endpoint.
std::uint16_t Number(const char* text) {
  std::uint16_t number = 0;
  const char* const end = text + std::strlen(text);
  const auto [last, error] = std::from_chars(text, end, number);
  if (error == std::errc() && last == end) return number;
  std::fprintf(stderr, "echo_server: '%s' is not a number from 0 to 65535\n", text);
  std::exit(2);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: echo_server FIRST SECOND\n");
    return 2;
  }
  const std::uint16_t first = Number(argv[1]);
  const std::uint16_t second = Number(argv[2]);
  // Blocked before any other thread exists; one thread waits for them below.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  if (zarn::utils::ZARNLibInit() != 0) {
    std::fprintf(stderr,
                 "echo_server: ZARN_ROOT must name a directory that has a directory system\n");
    return 1;
  }
  auto* threads = keelbase::CAWThreadManager::Instance();
  if (threads->AdoptCurrentThread(keelbase::CAWThreadManager::TT_NETWORK) != 0) return 1;
  keelbase::CAWThread* network = threads->GetThread(keelbase::CAWThreadManager::TT_NETWORK);

  zarn::utils::ZARNEnableMetrics();  // zarn stat shows what the server does

  EchoServer server;
  if (const auto result = server.Listen(first, second); result != 0) {
    std::fprintf(stderr, "echo_server: cannot listen at %u_%u: %s\n", unsigned{first},
                 unsigned{second}, keelbase::DescribeResult(result).c_str());
    return 1;
  }
  std::printf("listening at %u_%u\n", unsigned{first}, unsigned{second});
  std::fflush(stdout);

  std::thread([stop_signals, network] {
    int signal = 0;
    sigwait(&stop_signals, &signal);
    network->Stop();
  }).detach();
  network->Run();
  std::printf("stopped\n");
  return 0;
}
