// PtcpSession.cpp - see PtcpSession.h.
#include "PtcpSession.h"

#include <algorithm>
#include <string>
#include <utility>

#include "keelbase/CAWTimeValue.h"

namespace zarn::tool {

using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;
using ptcp::CAWPseudoTCPTransportParameter;
using ptcp::IAWPseudoTCPTransport;

class PtcpSession::Stream final : public utils::CPTCPStreamBase {
 public:
  Stream(PtcpSession& owner, std::size_t receiveLimit) : owner_(owner) {
    SetReceiveLimit(receiveLimit);
  }

  void OnReceive(CAWMessageBlock& data, IAWPseudoTCPTransport* transport,
                 CAWPseudoTCPTransportParameter* parameter) override {
    owner_.counters_.bytesReceived += data.GetChainedLength();
    CPTCPStreamBase::OnReceive(data, transport, parameter);
  }
  // Sending nothing behind what waits offers that once.
  void OnSend(IAWPseudoTCPTransport* transport,
              CAWPseudoTCPTransportParameter* parameter) override {
    CAWMessageBlock nothing(nullptr, 0, CAWMessageBlock::borrow);
    if (GetSendQueueLength() != 0) SendMessage(nothing, nullptr);
    owner_.OnSend(transport, parameter);
  }
  std::uint16_t HandleMessage(CAWMessageBlock& data) override { return owner_.TakeFrames(data); }
  void OnPeerDisconnect(long reason) override { owner_.OnPeerDisconnect(reason); }
  using CPTCPStreamBase::CountFurtherMessages;

 private:
  PtcpSession& owner_;
};

PtcpSession::PtcpSession() = default;
PtcpSession::~PtcpSession() = default;

AWResult PtcpSession::Connect(const keelbase::CAWInetAddr& peer, keelbase::CAWInetAddr* local) {
  constexpr int kSeconds = 3;
  const keelbase::CAWTimeValue limit(kSeconds, 0);
  ++generation_;
  stream_ = nullptr;
  const AWResult made = ptcp::CAWPseudoTCPManager::Instance()->CreateConnector(connector_);
  return made == AW_OK ? connector_->AsyncConnect(this, peer, &limit, local) : made;
}

void PtcpSession::OnConnectIndication(long reason, IAWPseudoTCPTransport* transport,
                                      ptcp::IAWPseudoTCPAcceptorConnectorId* /*id*/) {
  if (reason != 0) return OnPeerDisconnect(reason);
  keelbase::CAWAutoPtr<IAWPseudoTCPTransport> connected(transport);
  const AWResult result = SetTransportHandle(connected);
  if (result != AW_OK) return OnPeerDisconnect(static_cast<long>(result));
  OnConnected(0);
}

AWResult PtcpSession::SetTransportHandle(keelbase::CAWAutoPtr<IAWPseudoTCPTransport>& transport) {
  ++generation_;
  stream_ = std::make_unique<Stream>(*this, receiveLimit_);
  std::uint32_t limit = kTransportQueue;
  transport->SetOption(ptcp::AW_OPT_SEND_QUEUE_LIMIT, &limit);
  const AWResult result = stream_->SetTransportHandle(transport);
  peer_ = *stream_->GetPeerAddr();
  ++counters_.connects;
  return result;
}

AWResult PtcpSession::Close(long /*reason*/) {
  ++generation_;
  connector_ = nullptr;
  stream_ = nullptr;
  return AW_OK;
}

AWResult PtcpSession::SendMsg(CAWMessageBlock& data) {
  if (stream_ == nullptr) return keelbase::AW_ERROR_NOT_INITIALIZED;
  return stream_->SendMessage(data, nullptr);
}

std::size_t PtcpSession::GetSendQueueLength() const {
  return stream_ == nullptr ? 0 : stream_->GetSendQueueLength();
}

void PtcpSession::OnSend(IAWPseudoTCPTransport* /*transport*/,
                         CAWPseudoTCPTransportParameter* /*parameter*/) {}

// The longest frame has as many bytes as one answer can tell, so what is offered ends there. A
// handler that closes the session is answered as those of other sessions are.
std::uint16_t PtcpSession::TakeFrames(const CAWMessageBlock& data) {
  constexpr std::size_t kMaxLength = 65535;
  const std::string joined = data.GetNext() == nullptr ? std::string() : data.FlattenChained();
  const char* const bytes = data.GetNext() == nullptr ? data.GetReadPtr() : joined.data();
  const std::size_t length = std::min(data.GetChainedLength(), kMaxLength);
  const std::uint64_t generation = generation_;
  std::size_t done = 0;
  std::uint64_t frames = 0;
  while (done < length) {
    const std::size_t taken = HandleMessage(bytes + done, length - done);
    if (taken != 0) ++counters_.messagesReceived;
    if (generation_ != generation) {
      OnPeerDisconnect(0);
      return 0;
    }
    if (taken == 0) break;
    ++frames;
    done += taken;
  }
  if (frames > 1) stream_->CountFurtherMessages(frames - 1);
  return static_cast<std::uint16_t>(done);
}

}  // namespace zarn::tool
