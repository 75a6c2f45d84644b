// CZARNTCPTransport.cpp - see CZARNTCPTransport.h.
#include "zarn/utils/CZARNTCPTransport.h"

#include "BlockLoop.h"
#include "StreamMetrics.h"
#include "StreamSteps.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;
using End = ReceivePass::End;

CZARNTCPTransport::CZARNTCPTransport() = default;

CZARNTCPTransport::~CZARNTCPTransport() {
  metrics_.Leave();
  if (transport_) thread_.Check("CZARNTCPTransport::~CZARNTCPTransport");
  EndConnection(0);
}

AWResult CZARNTCPTransport::SetTransportHandle(
    keelbase::CAWAutoPtr<wface::IAWTransport>& transport) {
  if (!transport) return AW_ERROR_FAILURE;
  thread_.Claim("CZARNTCPTransport::SetTransportHandle");
  metrics_.JoinAttached(*this);
  generation_.Raise();
  DropTransport(transport_, 0);
  transport_ = transport;
  closed_ = false;
  readGate_.Reset();
  if (transport_->OpenWithSink(this) != AW_OK) return AW_ERROR_FAILURE;
  ReadAddresses(*transport_, peerAddr_, localAddr_);
  ++counters_.connects;
  return AW_OK;
}

// --- ending ---

AWResult CZARNTCPTransport::Disconnect(long reason) {
  thread_.Check("CZARNTCPTransport::Disconnect");
  EndConnection(reason);
  closed_ = true;
  return AW_OK;
}

void CZARNTCPTransport::OnDisconnect(long reason, wface::IAWTransport*) {
  closed_ = true;
  counters_.lastDisconnectReason = reason;
  OnPeerDisconnect(reason);
}

// Nothing that SendMsg accepted is lost: the transport goes on with it.
void CZARNTCPTransport::EndConnection(long reason) {
  generation_.Raise();
  if (transport_) sendQueue_.LeaveTo(*transport_);
  DropTransport(transport_, reason);
  received_.Clear();
  sendQueue_.Clear();
}

// Always the last thing that is done: the subclass may delete the stream.
void CZARNTCPTransport::CloseAndReport(long reason) {
  closed_ = true;
  EndConnection(0);
  counters_.lastDisconnectReason = reason;
  OnPeerDisconnect(reason);
}

// --- receiving ---

void CZARNTCPTransport::OnReceive(CAWMessageBlock& data, wface::IAWTransport*,
                                  wface::CAWTransportParameter*) {
  const ReceivePass pass =
      OfferBlocksKeepingRest(*this, generation_, closed_, counters_, received_, data);
  if (pass.end == End::kDestroyed || pass.end == End::kReplaced) return;
  if (pass.end == End::kNoMemory) return CloseAndReport(AW_ERROR_FAILURE);
  if (pass.end != End::kNeedMore) return CloseAndReport(0);
  readGate_.Apply(transport_.Get(), received_.GetLength());
}

AWResult CZARNTCPTransport::OnReceiveDirect(CAWMessageBlock& data) {
  thread_.Check("CZARNTCPTransport::OnReceiveDirect");
  const End end = OfferSameBlock(*this, data, generation_, closed_, counters_);
  if (end == End::kNeedMore) return AW_OK;
  if (end == End::kClosed) CloseAndReport(0);
  return AW_ERROR_FAILURE;
}

void CZARNTCPTransport::SetReceiveLimit(std::size_t bytes) {
  readGate_.SetLimit(bytes);
  readGate_.Apply(transport_.Get(), received_.GetLength());
}

// --- sending ---

AWResult CZARNTCPTransport::SendMsg(CAWMessageBlock& data,
                                    wface::CAWTransportParameter* parameter) {
  thread_.Check("CZARNTCPTransport::SendMsg");
  if (!transport_) return AW_ERROR_FAILURE;
  return SendAndAdvance(
      data, sendQueue_, counters_,
      [&](CAWMessageBlock& block) { return transport_->SendData(block, parameter); },
      [this] { Disconnect(AW_ERROR_FAILURE); });
}

void CZARNTCPTransport::OnSend(wface::IAWTransport*, wface::CAWTransportParameter*) {
  if (!transport_ || sendQueue_.IsEmpty()) return;
  sendQueue_.Offer([this](CAWMessageBlock& block) { return transport_->SendData(block, nullptr); });
}

}  // namespace zarn::utils
