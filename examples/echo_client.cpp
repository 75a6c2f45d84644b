// echo_client.cpp - connects to an endpoint, sends a line and prints what comes back.
//
//   ZARN_ROOT=/opt/zarn echo_client 3 4 1 2 "hello"     we are 3_4, the peer listens at 1_2
//
// Start it before the server, or kill the server and start it again: it connects as soon as it can.
#include <keelbase/CAWThreadManager.h>
#include <zarn/utils/CZARNLibClientChannel.h>
#include <zarn/utils/zarnutils.h>

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

class EchoClient : public zarn::utils::CZARNLibClientChannel {
 public:
  EchoClient(keelbase::CAWThread& thread, std::string text)
      : thread_(thread), text_(std::move(text)) {}

  // The class's own version first: it keeps the state and the timer.
  int OnConnected(long reason) override {
    CZARNLibClientChannel::OnConnected(reason);
    std::printf("connected\n");
    if (const auto result = SendZARNMessage(kText, 1, text_.data(), text_.size()); result != 0) {
      std::fprintf(stderr, "echo_client: cannot send %zu bytes: %s\n", text_.size(),
                   keelbase::DescribeResult(result).c_str());
      hasFailed_ = true;
      thread_.Stop();
    }
    return 1;
  }

  // Also called for each attempt that fails, so about once a second while the peer is away.
  void OnPeerDisconnect(long reason) override {
    CZARNLibClientChannel::OnPeerDisconnect(reason);
    const std::string why = reason == 0 ? "the peer has closed" : keelbase::DescribeResult(reason);
    std::printf("not connected: %s\n", why.c_str());
    std::fflush(stdout);
  }

  void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                     std::size_t size) override {
    std::printf("type %u tag %u: %.*s\n", unsigned{type}, tag, static_cast<int>(size), data);
    thread_.Stop();
  }

  bool HasFailed() const { return hasFailed_; }

 private:
  static constexpr std::uint16_t kText = 1;
  keelbase::CAWThread& thread_;
  std::string text_;
  bool hasFailed_ = false;
};

// Ends the program if `text` is no number of an endpoint.
std::uint16_t Number(const char* text) {
  std::uint16_t number = 0;
  const char* const end = text + std::strlen(text);
  const auto [last, error] = std::from_chars(text, end, number);
  if (error == std::errc() && last == end) return number;
  std::fprintf(stderr, "echo_client: '%s' is not a number from 0 to 65535\n", text);
  std::exit(2);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) {
    std::fprintf(stderr, "usage: echo_client OWN_FIRST OWN_SECOND PEER_FIRST PEER_SECOND TEXT\n");
    return 2;
  }
  const std::uint16_t ownFirst = Number(argv[1]);
  const std::uint16_t ownSecond = Number(argv[2]);
  const std::uint16_t peerFirst = Number(argv[3]);
  const std::uint16_t peerSecond = Number(argv[4]);
  if (zarn::utils::ZARNLibInit() != 0) {
    std::fprintf(stderr,
                 "echo_client: ZARN_ROOT must name a directory that has a directory system\n");
    return 1;
  }
  // A small process can run its network loop on main.
  auto* threads = keelbase::CAWThreadManager::Instance();
  if (threads->AdoptCurrentThread(keelbase::CAWThreadManager::TT_NETWORK) != 0) return 1;
  keelbase::CAWThread* network = threads->GetThread(keelbase::CAWThreadManager::TT_NETWORK);

  EchoClient client(*network, argv[5]);
  if (const auto result = client.Init(ownFirst, ownSecond, peerFirst, peerSecond); result != 0) {
    std::fprintf(stderr, "echo_client: %s\n", keelbase::DescribeResult(result).c_str());
    return 1;
  }
  network->Run();
  client.Close(0);
  return client.HasFailed() ? 1 : 0;
}
