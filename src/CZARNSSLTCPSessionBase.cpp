// CZARNSSLTCPSessionBase.cpp - see CZARNSSLTCPSessionBase.h.
#include "zarn/utils/CZARNSSLTCPSessionBase.h"

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

namespace {

constexpr int kVerify = 1;

}  // namespace

CZARNSSLTCPSessionBase::CZARNSSLTCPSessionBase() = default;

CZARNSSLTCPSessionBase::~CZARNSSLTCPSessionBase() {
  metrics_.Leave();
  if (connector_ || transport_) thread_.Check("CZARNSSLTCPSessionBase::~CZARNSSLTCPSessionBase");
  EndConnection(0);
  connector_ = nullptr;  // letting go of it cancels
}

// --- connecting ---

AWResult CZARNSSLTCPSessionBase::Connect(const CAWInetAddr& peer, CAWInetAddr* local) {
  thread_.Claim("CZARNSSLTCPSessionBase::Connect");
  metrics_.JoinConnecting(*this, peer);
  generation_.Raise();
  DropConnector();
  DropTransport(transport_, 0);
  auto* manager = sslutils::IAWSSLManager::Instance();
  if (const AWResult made = manager->CreateSSLConnector(connector_); made != AW_OK) return made;
  if (!connector_) return AW_ERROR_FAILURE;
  // What is wrong with a text comes back as the reason of the connect.
  if (!privateKey_.empty()) connector_->SetPrivateKey(privateKey_);
  if (!certificate_.empty()) connector_->SetCertificate(certificate_);
  closed_ = false;
  connectIssued_ = true;
  return connector_->AsyncConnect(this, peer, kVerify, nullptr, local);
}

AWResult CZARNSSLTCPSessionBase::PrivateKey(const keelbase::CAWString& text) try {
  privateKey_ = text;
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult CZARNSSLTCPSessionBase::Certificate(const keelbase::CAWString& text) try {
  certificate_ = text;
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

void CZARNSSLTCPSessionBase::OnSSLConnected(long reason, sslutils::IAWSSLTransport* transport) {
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

AWResult CZARNSSLTCPSessionBase::SetTransportHandle(
    keelbase::CAWAutoPtr<sslutils::IAWSSLTransport>& transport) {
  if (!transport) return AW_ERROR_FAILURE;
  thread_.Claim("CZARNSSLTCPSessionBase::SetTransportHandle");
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

AWResult CZARNSSLTCPSessionBase::Close(long reason) {
  thread_.Check("CZARNSSLTCPSessionBase::Close");
  EndConnection(reason);
  DropConnector();
  closed_ = true;
  return AW_OK;
}

// The buffers are kept: the subclass may still want to know what did not go out.
void CZARNSSLTCPSessionBase::OnSSLDisconnect(long reason, sslutils::IAWSSLTransport*) {
  generation_.Raise();
  transport_ = nullptr;
  transportAttached_ = false;
  Report(reason);
}

void CZARNSSLTCPSessionBase::DropConnector() {
  const auto connector = std::move(connector_);
  if (connector) connector->Cancel(0);
}

// Nothing that SendMsg accepted is lost: the transport goes on with it.
void CZARNSSLTCPSessionBase::EndConnection(long reason) {
  generation_.Raise();
  if (transport_) sendQueue_.LeaveTo(*transport_);
  DropTransport(transport_, reason);
  sendQueue_.Clear();
  received_.Clear();
}

void CZARNSSLTCPSessionBase::CloseAndReport(long reason) {
  EndConnection(0);
  Report(reason);
}

// Always the last thing that is done: the subclass may delete the session.
void CZARNSSLTCPSessionBase::Report(long reason) {
  closed_ = true;
  counters_.lastDisconnectReason = reason;
  OnPeerDisconnect(reason);
}

// --- receiving ---

void CZARNSSLTCPSessionBase::OnSSLDataReceive(CAWMessageBlock& data, sslutils::IAWSSLTransport*) {
  const End end = OfferDuplicate(*this, received_, data, generation_, closed_, counters_).end;
  if (end == End::kDestroyed || end == End::kReplaced) return;
  if (end == End::kNoMemory) return CloseAndReport(AW_ERROR_FAILURE);
  if (end != End::kNeedMore && closed_) return CloseAndReport(0);
  readGate_.Apply(transport_.Get(), received_.GetLength());
}

AWResult CZARNSSLTCPSessionBase::OnReceiveDirect(CAWMessageBlock& data) {
  thread_.Check("CZARNSSLTCPSessionBase::OnReceiveDirect");
  const End end = OfferDirect(*this, data, generation_, closed_, counters_,
                              "CZARNSSLTCPSessionBase::OnReceiveDirect");
  if (end == End::kNeedMore) return AW_OK;
  if (end == End::kClosed) CloseAndReport(0);
  return AW_ERROR_FAILURE;
}

void CZARNSSLTCPSessionBase::SetReceiveLimit(std::size_t bytes) {
  readGate_.SetLimit(bytes);
  readGate_.Apply(transport_.Get(), received_.GetLength());
}

void CZARNSSLTCPSessionBase::StopReading() {
  readGate_.Stop();
  readGate_.Apply(transport_.Get(), received_.GetLength());
}

void CZARNSSLTCPSessionBase::StopAtMalformedFrame() {
  if (!readGate_.IsStopped()) ++counters_.malformedFrames;
  StopReading();
}

// --- sending ---

AWResult CZARNSSLTCPSessionBase::SendMsg(CAWMessageBlock& data) {
  thread_.Check("CZARNSSLTCPSessionBase::SendMsg");
  if (!transport_) return AW_ERROR_NOT_INITIALIZED;
  return SendAndAdvance(
      data, sendQueue_, counters_,
      [this](CAWMessageBlock& block) { return transport_->SendData(block, nullptr); },
      [this] { Close(AW_ERROR_FAILURE); });
}

AWResult CZARNSSLTCPSessionBase::SendMsg(const char* data, std::size_t len) {
  CAWMessageBlock block(data, len, CAWMessageBlock::borrow);
  return SendMsg(block);
}

void CZARNSSLTCPSessionBase::OnSSLDataSend(sslutils::IAWSSLTransport*) {
  if (!transport_ || sendQueue_.IsEmpty()) return;
  sendQueue_.Offer([this](CAWMessageBlock& block) { return transport_->SendData(block, nullptr); });
}

}  // namespace zarn::utils
