// CSSLPTCPSessionBase.cpp - see CSSLPTCPSessionBase.h.
#include "zarn/utils/CSSLPTCPSessionBase.h"

#include <new>
#include <utility>

#include "ReceiveLoop.h"
#include "StreamMetrics.h"
#include "StreamSteps.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWInetAddr;
using keelbase::CAWMessageBlock;
using End = ReceivePass::End;

CSSLPTCPSessionBase::CSSLPTCPSessionBase() = default;

CSSLPTCPSessionBase::~CSSLPTCPSessionBase() {
  metrics_.Leave();
  if (connector_ || transport_) thread_.Check("CSSLPTCPSessionBase::~CSSLPTCPSessionBase");
  DropConnector();
  EndConnection(0);
}

// --- connecting ---

AWResult CSSLPTCPSessionBase::Connect(const CAWInetAddr& peer, CAWInetAddr* local) {
  thread_.Claim("CSSLPTCPSessionBase::Connect");
  metrics_.JoinConnecting(*this, peer);
  generation_.Raise();
  DropConnector();
  DropTransport(transport_, 0);
  auto* manager = sslptcp::IAWSSLPTCPManager::Instance();
  if (const AWResult made = manager->CreateConnector(connector_); made != AW_OK) return made;
  if (!connector_) return AW_ERROR_FAILURE;
  // What is wrong with a text comes back as the reason of the connect.
  if (!privateKey_.empty()) connector_->SetPrivateKey(privateKey_);
  if (!certificate_.empty()) connector_->SetCertificate(certificate_);
  closed_ = false;
  const AWResult started = connector_->AsyncConnect(this, peer, nullptr, local);
  if (started == AW_OK) connectIssued_ = true;
  return started;
}

AWResult CSSLPTCPSessionBase::PrivateKey(const keelbase::CAWString& text) try {
  privateKey_ = text;
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult CSSLPTCPSessionBase::Certificate(const keelbase::CAWString& text) try {
  certificate_ = text;
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

void CSSLPTCPSessionBase::OnSSLConnected(long reason, sslutils::IAWSSLTransport* transport) {
  if (reason != 0) {
    ++counters_.connectFailures;
    return Report(reason);
  }
  keelbase::CAWAutoPtr<sslutils::IAWSSLTransport> connected(transport);
  const AWResult attached = SetTransportHandle(connected);
  if (attached != AW_OK) return CloseAndReport(attached);
  closed_ = false;
  OnConnected(0);
}

AWResult CSSLPTCPSessionBase::SetTransportHandle(
    keelbase::CAWAutoPtr<sslutils::IAWSSLTransport>& transport) {
  if (!transport) return AW_ERROR_FAILURE;
  thread_.Claim("CSSLPTCPSessionBase::SetTransportHandle");
  metrics_.JoinAttached(*this);
  generation_.Raise();
  DropTransport(transport_, 0);
  transport_ = transport;
  closed_ = false;
  readGate_.Reset();
  if (transport_->OpenWithSink(this) != AW_OK) return AW_ERROR_FAILURE;
  ReadAddresses(*transport_, peerAddr_, localAddr_);
  transportAttached_ = true;
  ++counters_.connects;
  return AW_OK;
}

// --- ending ---

// The connector of a connect that was issued is kept.
AWResult CSSLPTCPSessionBase::Close(long reason) {
  thread_.Check("CSSLPTCPSessionBase::Close");
  EndConnection(reason);
  if (!connectIssued_) DropConnector();
  closed_ = true;
  return AW_OK;
}

// The buffers are kept: the subclass may still want to know what did not go out.
void CSSLPTCPSessionBase::OnSSLDisconnect(long reason, sslutils::IAWSSLTransport*) {
  generation_.Raise();
  transport_ = nullptr;
  transportAttached_ = false;
  Report(reason);
}

void CSSLPTCPSessionBase::DropConnector() {
  const auto connector = std::move(connector_);
  if (connector) connector->Cancel(0);
}

// Nothing that SendMessage accepted is lost: the transport goes on with it.
void CSSLPTCPSessionBase::EndConnection(long reason) {
  generation_.Raise();
  if (transport_) sendQueue_.LeaveTo(*transport_);
  DropTransport(transport_, reason);
  sendQueue_.Clear();
  received_.Clear();
}

void CSSLPTCPSessionBase::CloseAndReport(long reason) {
  EndConnection(0);
  Report(reason);
}

// Always the last thing that is done: the subclass may delete the session.
void CSSLPTCPSessionBase::Report(long reason) {
  closed_ = true;
  counters_.lastDisconnectReason = reason;
  OnPeerDisconnect(reason);
}

// --- receiving ---

void CSSLPTCPSessionBase::OnSSLDataReceive(CAWMessageBlock& data, sslutils::IAWSSLTransport*) {
  const End end = OfferDuplicate(*this, received_, data, generation_, closed_, counters_).end;
  if (end == End::kDestroyed || end == End::kReplaced) return;
  if (end == End::kNoMemory) return CloseAndReport(AW_ERROR_FAILURE);
  if (end != End::kNeedMore && closed_) return CloseAndReport(0);
  readGate_.Apply(transport_.Get(), received_.GetLength());
}

AWResult CSSLPTCPSessionBase::OnReceiveDirect(CAWMessageBlock& data) {
  thread_.Check("CSSLPTCPSessionBase::OnReceiveDirect");
  const End end = OfferDirect(*this, data, generation_, closed_, counters_,
                              "CSSLPTCPSessionBase::OnReceiveDirect");
  if (end == End::kNeedMore) return AW_OK;
  if (end == End::kClosed) CloseAndReport(0);
  return AW_ERROR_FAILURE;
}

void CSSLPTCPSessionBase::SetReceiveLimit(std::size_t bytes) {
  readGate_.SetLimit(bytes);
  readGate_.Apply(transport_.Get(), received_.GetLength());
}

void CSSLPTCPSessionBase::StopReading() {
  readGate_.Stop();
  readGate_.Apply(transport_.Get(), received_.GetLength());
}

void CSSLPTCPSessionBase::StopAtMalformedFrame() {
  if (!readGate_.IsStopped()) ++counters_.malformedFrames;
  StopReading();
}

// --- sending ---

AWResult CSSLPTCPSessionBase::SendMessage(CAWMessageBlock& data) {
  thread_.Check("CSSLPTCPSessionBase::SendMessage");
  if (!transport_) return AW_ERROR_NOT_INITIALIZED;
  return SendAndAdvance(
      data, sendQueue_, counters_,
      [this](CAWMessageBlock& block) { return transport_->SendData(block, nullptr); },
      [this] { Close(AW_ERROR_FAILURE); });
}

AWResult CSSLPTCPSessionBase::SendMessage(const char* data, std::size_t len) {
  CAWMessageBlock block(data, len, CAWMessageBlock::borrow);
  return SendMessage(block);
}

void CSSLPTCPSessionBase::OnSSLDataSend(sslutils::IAWSSLTransport*) {
  if (!transport_ || sendQueue_.IsEmpty()) return;
  sendQueue_.Offer([this](CAWMessageBlock& block) { return transport_->SendData(block, nullptr); });
}

}  // namespace zarn::utils
