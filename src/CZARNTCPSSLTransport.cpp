// CZARNTCPSSLTransport.cpp - see CZARNTCPSSLTransport.h.
#include "zarn/utils/CZARNTCPSSLTransport.h"

#include <algorithm>

#include "BlockLoop.h"
#include "StreamMetrics.h"
#include "StreamSteps.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;
using End = ReceivePass::End;

CZARNTCPSSLTransport::CZARNTCPSSLTransport() = default;

CZARNTCPSSLTransport::~CZARNTCPSSLTransport() {
  metrics_.Leave();
  if (transport_) thread_.Check("CZARNTCPSSLTransport::~CZARNTCPSSLTransport");
  EndConnection();
}

AWResult CZARNTCPSSLTransport::SetSSLTransportHandle(
    keelbase::CAWAutoPtr<sslutils::IAWSSLTransport>& transport) {
  if (!transport) return AW_ERROR_FAILURE;
  thread_.Claim("CZARNTCPSSLTransport::SetSSLTransportHandle");
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

AWResult CZARNTCPSSLTransport::Disconnect(long /*reason*/) {
  thread_.Check("CZARNTCPSSLTransport::Disconnect");
  EndConnection();
  closed_ = true;
  return AW_OK;
}

// Also the last step when this side ends the connection. The stream is not marked closed here.
void CZARNTCPSSLTransport::OnSSLDisconnect(long reason, sslutils::IAWSSLTransport*) {
  EndConnection();
  Report(reason);
}

// Nothing that SendSSLMessage accepted is lost: the transport goes on with it.
void CZARNTCPSSLTransport::EndConnection() {
  generation_.Raise();
  if (transport_) sendQueue_.LeaveTo(*transport_);
  received_.Clear();
  sendQueue_.Clear();
  DropTransport(transport_, 0);
}

// A subclass that overrides OnSSLDisconnect hears of it there.
void CZARNTCPSSLTransport::TearDown(sslutils::IAWSSLTransport* transport) {
  closed_ = true;
  if (transport_) sendQueue_.LeaveTo(*transport_);
  received_.Clear();
  sendQueue_.Clear();
  OnSSLDisconnect(AW_ERROR_FAILURE, transport);
}

// Always the last thing that is done: the subclass may delete the stream.
void CZARNTCPSSLTransport::Report(long reason) {
  counters_.lastDisconnectReason = reason;
  OnPeerDisconnect(reason);
}

// --- receiving ---

// An answer that is too long is overlooked when it was given for bytes that were held back.
void CZARNTCPSSLTransport::OnSSLDataReceive(CAWMessageBlock& data,
                                            sslutils::IAWSSLTransport* transport) {
  const std::size_t length = data.GetChainedLength();
  counters_.bytesReceived += length;
  const bool held = received_.GetLength() != 0;
  ReceivePass pass;
  if (held) {
    pass = OfferHeldBlocks(*this, generation_, closed_, counters_, received_, data);
    if (pass.end != End::kNoMemory) data.AdvanceChainedReadPtr(length);
  } else {
    pass = OfferBlocks(*this, generation_, closed_, counters_, data, [] { return AW_OK; });
    const bool incomplete = pass.end == End::kNeedMore && data.GetChainedLength() != 0;
    if (incomplete && received_.Append(data) != AW_OK) pass.end = End::kNoMemory;
  }
  if (pass.end == End::kDestroyed || pass.end == End::kReplaced) return;
  const bool goOn = pass.end == End::kNeedMore || (held && pass.end == End::kTooLong);
  if (!goOn) return TearDown(transport);
  readGate_.Apply(transport_.Get(), received_.GetLength());
}

AWResult CZARNTCPSSLTransport::OnReceiveDirect(CAWMessageBlock& data) {
  thread_.Check("CZARNTCPSSLTransport::OnReceiveDirect");
  const End end = OfferSameBlock(*this, data, generation_, closed_, counters_);
  if (end == End::kNeedMore) return AW_OK;
  if (end == End::kClosed) {
    closed_ = true;
    EndConnection();
    Report(0);
  }
  return AW_ERROR_FAILURE;
}

void CZARNTCPSSLTransport::SetReceiveLimit(std::size_t bytes) {
  readGate_.SetLimit(bytes);
  readGate_.Apply(transport_.Get(), received_.GetLength());
}

// --- sending ---

AWResult CZARNTCPSSLTransport::SendSSLMessage(CAWMessageBlock& data) {
  thread_.Check("CZARNTCPSSLTransport::SendSSLMessage");
  if (!transport_) return AW_ERROR_FAILURE;
  const std::size_t length = data.GetChainedLength();
  const bool waited = !sendQueue_.IsEmpty();
  if (waited && sendQueue_.Append(data) != AW_OK) return AW_ERROR_FAILURE;
  sslutils::CAWSSLTransportParameter parameter;
  const AWResult result = waited ? sendQueue_.Offer([this](CAWMessageBlock& block) {
    return transport_->SendData(block, nullptr);
  })
                                 : transport_->SendData(data, &parameter);
  if (result != AW_OK && result != AW_ERROR_PARTIAL_DATA) return AW_ERROR_FAILURE;
  if (!waited && result == AW_ERROR_PARTIAL_DATA && sendQueue_.Append(data) != AW_OK) {
    Disconnect(0);  // whatever came next would be taken for the rest of this message
    return AW_ERROR_FAILURE;
  }
  counters_.sendQueueHighMark = std::max(counters_.sendQueueHighMark, sendQueue_.GetLength());
  ++counters_.messagesSent;
  counters_.bytesSent += length;
  return AW_OK;
}

void CZARNTCPSSLTransport::OnSSLDataSend(sslutils::IAWSSLTransport*) {
  if (!transport_ || sendQueue_.IsEmpty()) return;
  sendQueue_.Offer([this](CAWMessageBlock& block) { return transport_->SendData(block, nullptr); });
}

}  // namespace zarn::utils
