// tcp_peer.cpp - one side of TCP:
//   tcp_peer serve ADDRESS SILENCE                   sends back what comes
//   tcp_peer connect ADDRESS PORT COUNT SILENCE      so many sessions at once
// SILENCE is how many milliseconds a connection may show no life.
//
// Events: listening {port} or failed {reason}; accepted {clients}, for each client; connected and
// answered, when all sessions are and have what they sent; ended {reason}.
// Commands of both: send BYTES (by each connection, as much in all; in pieces of 1 KiB, and no
// more once the transport answers that it has enough), which answers sent {waiting}: the most
// bytes that one transport has taken and the system has not; stop (no session reads any more).
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <list>
#include <string>

#include "Program.h"
#include "wface/CAWConnectionManager.h"
#include "zarn/utils/CZARNTCPSessionBase.h"
#include "zarn/utils/CZARNTCPTransport.h"

namespace {

using e2e::Event;
using keelbase::CAWInetAddr;
using keelbase::CAWMessageBlock;
using Held = keelbase::CAWAutoPtr<wface::IAWTransport>;

// Sends until there is enough or the transport has; how many bytes wait in it then.
std::uint64_t Fill(wface::IAWTransport& transport, std::size_t bytes) {
  const std::string piece(1024, 'x');
  for (std::size_t sent = 0; sent < bytes; sent += piece.size()) {
    CAWMessageBlock block(piece.data(), std::min(piece.size(), bytes - sent),
                          CAWMessageBlock::borrow);
    if (transport.SendData(block, nullptr) != keelbase::AW_OK) break;
  }
  keelbase::CAWTransportCounters counters;
  transport.GetOption(keelbase::AW_OPT_COUNTERS, &counters);
  return counters.queuedBytes;
}

template <class Connections>
void FillAll(Connections& connections, const e2e::Words& words) {
  std::uint64_t most = 0;
  for (auto& connection : connections)
    most = std::max(most, Fill(*connection.transport, std::stoul(words.at(1))));
  Event("sent").With("waiting", most);
}

class Client final : public zarn::utils::CZARNTCPTransport {
 public:
  explicit Client(wface::IAWTransport* accepted) : transport(accepted) {
    SetTransportHandle(transport);
  }

  std::uint16_t HandleMessage(CAWMessageBlock& data) override {
    const auto length =
        static_cast<std::uint16_t>(std::min<std::size_t>(data.GetChainedLength(), 65535));
    const std::string bytes = data.FlattenChained();
    CAWMessageBlock answer(bytes.data(), length, CAWMessageBlock::borrow);
    SendMsg(answer, nullptr);
    return length;
  }
  void OnPeerDisconnect(long reason) override { Event("ended").With("reason", reason); }

  Held transport;
};

class Server final : public wface::IAWAcceptorConnectorSink {
 public:
  Server(const char* address, std::uint32_t silence) : address_(address, 0), silence_(silence) {}

  void Start() {
    wface::CAWConnectionManager::Instance()->CreateAcceptor(1, acceptor_);
    const auto result = acceptor_->StartListen(this, address_, 0);
    if (result != keelbase::AW_OK) {
      Event("failed").With("reason", result);
    } else {
      Event("listening").With("port", acceptor_->GetLocalAddr().GetPort());
    }
  }
  void Command(const e2e::Words& words) {
    if (words[0] == "send") FillAll(clients_, words);
  }
  void Finish() {
    clients_.clear();
    acceptor_ = nullptr;
  }

 private:
  void OnConnectIndication(long reason, wface::IAWTransport* transport,
                           wface::IAWAcceptorConnectorId*) override {
    if (reason != 0) return;
    transport->SetOption(wface::AW_OPT_SILENCE_LIMIT, &silence_);
    clients_.emplace_back(transport);
    Event("accepted").With("clients", clients_.size());
  }

  const CAWInetAddr address_;
  std::uint32_t silence_;
  keelbase::CAWAutoPtr<wface::IAWAcceptor> acceptor_;
  std::list<Client> clients_;  // those that have ended too
};

class Sessions;

class Session final : public zarn::utils::CZARNTCPSessionBase {
 public:
  explicit Session(Sessions& all) : all_(all) {}

  keelbase::AWResult SetTransportHandle(Held& connected) override {
    transport = connected;
    return CZARNTCPSessionBase::SetTransportHandle(connected);
  }
  std::size_t HandleMessage(const char*, std::size_t length) override;
  int OnConnected(long) override;
  void OnPeerDisconnect(long reason) override { Event("ended").With("reason", reason); }
  void OnRcvBufferOverFlow(std::uint32_t) override {}
  void Stop() { StopReading(); }

  Held transport;

 private:
  Sessions& all_;
};

class Sessions {
 public:
  Sessions(const CAWInetAddr& peer, std::size_t count, std::uint32_t silence)
      : peer_(peer), count_(count), silence_(silence) {}

  void Start() {
    while (sessions_.size() < count_) sessions_.emplace_back(*this).Connect(peer_, nullptr);
  }
  void Command(const e2e::Words& words) {
    if (words[0] == "stop")
      for (Session& session : sessions_) session.Stop();
    if (words[0] != "send") return;
    answersDue_ = std::stoul(words.at(1)) * count_;
    FillAll(sessions_, words);
  }
  void Finish() { sessions_.clear(); }

  void Connected(wface::IAWTransport& transport) {
    transport.SetOption(wface::AW_OPT_SILENCE_LIMIT, &silence_);
    if (++connected_ == count_) Event("connected");
  }
  void Received(std::size_t length) {
    answersDue_ -= length;
    if (answersDue_ == 0) Event("answered");
  }

 private:
  const CAWInetAddr peer_;
  const std::size_t count_;
  std::uint32_t silence_;
  std::list<Session> sessions_;
  std::size_t connected_ = 0;
  std::size_t answersDue_ = 0;
};

std::size_t Session::HandleMessage(const char*, std::size_t length) {
  all_.Received(length);
  return length;
}

int Session::OnConnected(long) {
  all_.Connected(*transport);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (argc == 4 && mode == "serve") {
    Server server(argv[2], static_cast<std::uint32_t>(std::atoi(argv[3])));
    return e2e::Serve(server, false);
  }
  if (argc == 6 && mode == "connect") {
    const CAWInetAddr peer(argv[2], static_cast<std::uint16_t>(std::atoi(argv[3])));
    Sessions sessions(peer, std::stoul(argv[4]), static_cast<std::uint32_t>(std::atoi(argv[5])));
    return e2e::Serve(sessions, false);
  }
  return 2;
}
