// PtcpAcceptor_fuzz.cpp - packets of strangers at an acceptor: it must not stop, keep no more
// half-open connections than it may, and send an address that has not proved itself at most three
// times what came from there.
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "FuzzInput.h"
#include "PtcpAcceptor.h"
#include "SealedPackets.h"
#include "SimulatedPath.h"
#include "keelbase/CAWThreadManager.h"

namespace {

using namespace ptcp;
using namespace ptcp::test;

constexpr std::size_t kMaxHalfOpen = 4;

void Check(bool condition) {
  if (!condition) std::abort();
}

struct Nobody final : IAWPseudoTCPAcceptorConnectorSink {
  void OnConnectIndication(long, IAWPseudoTCPTransport*,
                           IAWPseudoTCPAcceptorConnectorId*) override {}
};

// The address that all packets claim to be from; what comes back is counted.
class Stranger {
 public:
  Stranger() {
    const keelbase::CAWInetAddr loopback("127.0.0.1", 0);
    Check(socket_.Open(&loopback, nullptr) == 0);
  }
  Path From() const { return {socket_.GetLocalAddr(), {}}; }
  std::vector<Datagram> Read() {
    std::vector<Datagram> all;
    static std::array<char, 65536> room;
    UdpSocket::Received one;
    while (socket_.Read(room, one) == 0) {
      for (Bytes rest = one.data; !rest.empty();) {
        const std::size_t length =
            one.segment == 0 ? rest.size() : std::min(one.segment, rest.size());
        all.emplace_back(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(length));
        rest = rest.subspan(length);
      }
    }
    return all;
  }

 private:
  UdpSocket socket_;
};

keelbase::CAWThread& Network() {
  using keelbase::CAWThreadManager;
  static keelbase::CAWThread& thread = [&]() -> keelbase::CAWThread& {
    auto* manager = CAWThreadManager::Instance();
    Check(manager->AdoptCurrentThread(CAWThreadManager::TT_NETWORK) == keelbase::AW_OK);
    return *manager->GetThread(CAWThreadManager::TT_NETWORK);
  }();
  return thread;
}

void Turn() {
  for (int turns = 0; turns < 10 && Network().TEST_RunReady(); ++turns) {
  }
}

// The first packet of a client, and how to make more with a right tag.
struct Client {
  explicit Client(std::uint8_t seed) : random(seed), host(random), connection(host) {
    host.output = [this](Bytes datagram) { first.assign(datagram.begin(), datagram.end()); };
    Check(connection.Connect(Now()));
    connection.Flush(Now());
  }
  Generator random;
  SimulatedHost host;
  PtcpConnection connection;
  Datagram first;
};

Datagram MakeDatagram(zarn::test::FuzzInput& input, const std::vector<Datagram>& answers,
                      bool& again) {
  const std::uint8_t how = input.Byte();
  Client client(input.Byte());
  Datagram datagram = client.first;
  const std::string text = input.Text();
  Datagram content(text.begin(), text.end());
  switch (how % 5) {
    case 0:
      return content;
    case 1:
      for (std::size_t i = 0; i + 1 < content.size(); i += 2)
        datagram[content[i] % datagram.size()] ^= content[i + 1];
      return datagram;
    case 2: {
      const InitialHeader initial = *ReadInitial(datagram);
      return SealLong(LongType::initial, initial.destination, initial.source, how, content,
                      client.connection.TEST_Handshake().TEST_InitialSendKey());
    }
    case 3:
      again = true;  // as it was asked to
      if (!answers.empty()) client.connection.Receive(answers.back(), Now());
      client.connection.Flush(Now());
      return client.first;
    default:
      return datagram;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Network();
  static Nobody nobody;
  Stranger stranger;
  keelbase::CAWAutoPtr<PtcpAcceptor> acceptor(new PtcpAcceptor(Network().GetLoop()));
  Check(acceptor->StartListen(&nobody, keelbase::CAWInetAddr("127.0.0.1", 0),
                              static_cast<int>(kMaxHalfOpen)) == keelbase::AW_OK);
  zarn::test::FuzzInput input(data, size);
  std::size_t in = 0;
  std::size_t out = 0;
  std::size_t mayBeProved = 0;
  std::vector<Datagram> answers;
  for (int packets = 0; packets < 20 && !input.IsEmpty(); ++packets) {
    bool again = false;
    const Datagram datagram = MakeDatagram(input, answers, again);
    mayBeProved += again ? 1 : 0;
    in += datagram.size();
    acceptor->TEST_OnStranger(stranger.From(), datagram);
    Turn();
    for (Datagram& answer : stranger.Read()) {
      out += answer.size();
      answers.push_back(std::move(answer));
    }
    Check(mayBeProved != 0 || out <= 3 * in);
    Check(acceptor->TEST_HalfOpen() <= kMaxHalfOpen + std::min(mayBeProved, kMaxHalfOpen));
  }
  acceptor->StopListen();
  acceptor = nullptr;
  Turn();
  return 0;
}
