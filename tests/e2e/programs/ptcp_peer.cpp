// ptcp_peer.cpp - connects over pseudo-TCP and sends whatever bytes it is told to:
//   ptcp_peer ADDRESS PORT
//
// Events: connected or failed {reason}; received {bytes} (all so far); ended {reason}.
// Command: send HEX.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "Program.h"
#include "ptcp/CAWPseudoTCPManager.h"
#include "zarn/utils/CPTCPStreamBase.h"

namespace {

using e2e::Event;
using keelbase::CAWMessageBlock;

std::string FromHex(const std::string& text) {
  std::string bytes;
  for (std::size_t at = 0; at + 1 < text.size(); at += 2)
    bytes.push_back(static_cast<char>(std::stoi(text.substr(at, 2), nullptr, 16)));
  return bytes;
}

class Client final : public zarn::utils::CPTCPStreamBase,
                     private ptcp::IAWPseudoTCPAcceptorConnectorSink {
 public:
  explicit Client(const keelbase::CAWInetAddr& peer) : peer_(peer) {}

  void Start() {
    ptcp::CAWPseudoTCPManager::Instance()->CreateConnector(connector_);
    connector_->AsyncConnect(this, peer_, nullptr, nullptr);
  }
  void Command(const e2e::Words& words) {
    if (words[0] != "send") return;
    const std::string bytes = FromHex(words.at(1));
    CAWMessageBlock block(bytes.data(), bytes.size(), CAWMessageBlock::borrow);
    SendMessage(block, nullptr);
  }
  void Finish() {
    connector_ = nullptr;
    Disconnect(0);
  }

 private:
  void OnConnectIndication(long reason, ptcp::IAWPseudoTCPTransport* transport,
                           ptcp::IAWPseudoTCPAcceptorConnectorId* /*id*/) override {
    Event(reason == 0 ? "connected" : "failed").With("reason", reason);
    keelbase::CAWAutoPtr<ptcp::IAWPseudoTCPTransport> connected(transport);
    if (reason == 0) SetTransportHandle(connected);
  }
  std::uint16_t HandleMessage(CAWMessageBlock& data) override {
    const auto length = static_cast<std::uint16_t>(data.GetChainedLength());
    received_ += length;
    Event("received").With("bytes", received_);
    return length;
  }
  void OnPeerDisconnect(long reason) override { Event("ended").With("reason", reason); }

  const keelbase::CAWInetAddr peer_;
  keelbase::CAWAutoPtr<ptcp::IAWPseudoTCPConnector> connector_;
  std::size_t received_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  Client client({argv[1], static_cast<std::uint16_t>(std::atoi(argv[2]))});
  return e2e::Serve(client, false);
}
