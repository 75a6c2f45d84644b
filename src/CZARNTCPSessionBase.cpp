// CZARNTCPSessionBase.cpp - see CZARNTCPSessionBase.h.
#include "zarn/utils/CZARNTCPSessionBase.h"

#include "ReceiveLoop.h"
#include "StreamMetrics.h"
#include "StreamSteps.h"
#include "keelbase/CAWTimeValue.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWInetAddr;
using keelbase::CAWMessageBlock;
using End = ReceivePass::End;

namespace {

constexpr int kPlainTcp = 1;
constexpr keelbase::CAWTimeValue kConnectTimeout(3, 0);

}  // namespace

CZARNTCPSessionBase::CZARNTCPSessionBase() = default;

CZARNTCPSessionBase::~CZARNTCPSessionBase() {
  metrics_.Leave();
  if (connector_ || transport_) thread_.Check("CZARNTCPSessionBase::~CZARNTCPSessionBase");
  EndConnection(0);
  connector_ = nullptr;  // letting go of it cancels
}

// --- connecting ---

AWResult CZARNTCPSessionBase::Connect(const CAWInetAddr& peer, CAWInetAddr* local) {
  thread_.Claim("CZARNTCPSessionBase::Connect");
  metrics_.JoinConnecting(*this, peer);
  generation_.Raise();
  DropConnector(connector_);
  DropTransport(transport_, 0);
  auto* manager = wface::CAWConnectionManager::Instance();
  if (const AWResult made = manager->CreateConnector(kPlainTcp, connector_); made != AW_OK)
    return made;
  closed_ = false;
  connectIssued_ = true;
  return connector_->AsyncConnect(this, peer, &kConnectTimeout, local);
}

void CZARNTCPSessionBase::OnConnectIndication(long reason, wface::IAWTransport* transport,
                                              wface::IAWAcceptorConnectorId*) {
  if (reason != 0) {
    ++counters_.connectFailures;
    return Report(reason);
  }
  keelbase::CAWAutoPtr<wface::IAWTransport> connected(transport);
  const AWResult attached = SetTransportHandle(connected);
  if (attached != AW_OK) return CloseAndReport(attached);
  closed_ = false;
  OnConnected(0);
}

AWResult CZARNTCPSessionBase::SetTransportHandle(
    keelbase::CAWAutoPtr<wface::IAWTransport>& transport) {
  if (!transport) return AW_ERROR_FAILURE;
  thread_.Claim("CZARNTCPSessionBase::SetTransportHandle");
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

AWResult CZARNTCPSessionBase::Close(long reason) {
  thread_.Check("CZARNTCPSessionBase::Close");
  EndConnection(reason);
  DropConnector(connector_);
  closed_ = true;
  return AW_OK;
}

// The buffers are kept: the subclass may still want to know what did not go out.
void CZARNTCPSessionBase::OnDisconnect(long reason, wface::IAWTransport*) {
  generation_.Raise();
  transport_ = nullptr;
  transportAttached_ = false;
  Report(reason);
}

// Nothing that SendMsg accepted is lost: the transport goes on with it.
void CZARNTCPSessionBase::EndConnection(long reason) {
  generation_.Raise();
  if (transport_) sendQueue_.LeaveTo(*transport_);
  DropTransport(transport_, reason);
  sendQueue_.Clear();
  received_.Clear();
}

void CZARNTCPSessionBase::CloseAndReport(long reason) {
  EndConnection(0);
  Report(reason);
}

// Always the last thing that is done: the subclass may delete the session.
void CZARNTCPSessionBase::Report(long reason) {
  closed_ = true;
  counters_.lastDisconnectReason = reason;
  OnPeerDisconnect(reason);
}

// --- receiving ---

void CZARNTCPSessionBase::OnReceive(CAWMessageBlock& data, wface::IAWTransport*,
                                    wface::CAWTransportParameter*) {
  const End end = OfferDuplicate(*this, received_, data, generation_, closed_, counters_).end;
  if (end == End::kDestroyed || end == End::kReplaced) return;
  if (end == End::kNoMemory) return CloseAndReport(AW_ERROR_FAILURE);
  if (end != End::kNeedMore && closed_) return CloseAndReport(0);
  readGate_.Apply(transport_.Get(), received_.GetLength());
}

AWResult CZARNTCPSessionBase::OnReceiveDirect(CAWMessageBlock& data) {
  thread_.Check("CZARNTCPSessionBase::OnReceiveDirect");
  const End end = OfferDirect(*this, data, generation_, closed_, counters_,
                              "CZARNTCPSessionBase::OnReceiveDirect");
  if (end == End::kNeedMore) return AW_OK;
  if (end == End::kClosed) CloseAndReport(0);
  return AW_ERROR_FAILURE;
}

void CZARNTCPSessionBase::SetReceiveLimit(std::size_t bytes) {
  readGate_.SetLimit(bytes);
  readGate_.Apply(transport_.Get(), received_.GetLength());
}

void CZARNTCPSessionBase::StopReading() {
  readGate_.Stop();
  readGate_.Apply(transport_.Get(), received_.GetLength());
}

void CZARNTCPSessionBase::StopAtMalformedFrame() {
  if (!readGate_.IsStopped()) ++counters_.malformedFrames;
  StopReading();
}

// --- sending ---

AWResult CZARNTCPSessionBase::SendMsg(CAWMessageBlock& data) {
  thread_.Check("CZARNTCPSessionBase::SendMsg");
  if (!transport_) return AW_ERROR_NOT_INITIALIZED;
  return SendAndAdvance(
      data, sendQueue_, counters_,
      [this](CAWMessageBlock& block) { return transport_->SendData(block, nullptr); },
      [this] { Close(AW_ERROR_FAILURE); });
}

AWResult CZARNTCPSessionBase::SendMsg(const char* data, std::size_t len) {
  CAWMessageBlock block(data, len, CAWMessageBlock::borrow);
  return SendMsg(block);
}

void CZARNTCPSessionBase::OnSend(wface::IAWTransport*, wface::CAWTransportParameter*) {
  if (!transport_ || sendQueue_.IsEmpty()) return;
  sendQueue_.Offer([this](CAWMessageBlock& block) { return transport_->SendData(block, nullptr); });
}

}  // namespace zarn::utils
