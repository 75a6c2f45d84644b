// CPTCPStreamBase.cpp - see CPTCPStreamBase.h.
#include "zarn/utils/CPTCPStreamBase.h"

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
using ptcp::CAWPseudoTCPTransportParameter;
using ptcp::IAWPseudoTCPTransport;
using End = ReceivePass::End;

CPTCPStreamBase::CPTCPStreamBase() = default;

CPTCPStreamBase::~CPTCPStreamBase() {
  metrics_.Leave();
  if (transport_) thread_.Check("CPTCPStreamBase::~CPTCPStreamBase");
  EndConnection();
}

AWResult CPTCPStreamBase::SetTransportHandle(
    keelbase::CAWAutoPtr<IAWPseudoTCPTransport>& transport) {
  if (!transport) return AW_ERROR_FAILURE;
  thread_.Claim("CPTCPStreamBase::SetTransportHandle");
  metrics_.JoinAttached(*this);
  generation_.Raise();
  DropTransport(transport_, 0);
  transport_ = transport;
  readGate_.Reset();
  if (transport_->OpenWithSink(this) != AW_OK) return AW_ERROR_FAILURE;
  closed_ = false;
  ReadAddresses(*transport_, peerAddr_, localAddr_);
  ++counters_.connects;
  return AW_OK;
}

// --- ending ---

AWResult CPTCPStreamBase::Disconnect(long reason) {
  thread_.Check("CPTCPStreamBase::Disconnect");
  generation_.Raise();
  DropTransport(transport_, reason);
  closed_ = true;
  return AW_OK;
}

// The stream is not marked closed.
void CPTCPStreamBase::OnDisconnect(long reason, IAWPseudoTCPTransport*) {
  counters_.lastDisconnectReason = reason;
  OnPeerDisconnect(reason);
}

// Nothing that SendMessage accepted is lost: the transport goes on with it.
void CPTCPStreamBase::EndConnection() {
  generation_.Raise();
  if (transport_) sendQueue_.LeaveTo(*transport_);
  DropTransport(transport_, 0);
  received_.Clear();
  sendQueue_.Clear();
}

// Always the last thing that is done: the subclass may delete the stream.
void CPTCPStreamBase::CloseAndReport(long reason) {
  closed_ = true;
  EndConnection();
  counters_.lastDisconnectReason = reason;
  OnPeerDisconnect(reason);
}

// --- receiving ---

void CPTCPStreamBase::OnReceive(CAWMessageBlock& data, IAWPseudoTCPTransport*,
                                CAWPseudoTCPTransportParameter*) {
  const ReceivePass pass =
      OfferBlocksKeepingRest(*this, generation_, closed_, counters_, received_, data);
  if (pass.end == End::kDestroyed || pass.end == End::kReplaced) return;
  if (pass.end == End::kNoMemory) return CloseAndReport(AW_ERROR_FAILURE);
  if (pass.end != End::kNeedMore) return CloseAndReport(0);
  readGate_.Apply(transport_.Get(), received_.GetLength());
}

void CPTCPStreamBase::SetReceiveLimit(std::size_t bytes) {
  readGate_.SetLimit(bytes);
  readGate_.Apply(transport_.Get(), received_.GetLength());
}

// --- sending ---

AWResult CPTCPStreamBase::SendMessage(CAWMessageBlock& data,
                                      CAWPseudoTCPTransportParameter* parameter) {
  thread_.Check("CPTCPStreamBase::SendMessage");
  if (!transport_) return AW_ERROR_FAILURE;
  const std::size_t length = data.GetChainedLength();
  AWResult result = AW_OK;
  if (!sendQueue_.IsEmpty()) {
    result = SendBehindOthers(data, parameter);
  } else {
    result = transport_->SendData(data, parameter);
    if (result == AW_ERROR_PARTIAL_DATA) {
      if (sendQueue_.Append(data) != AW_OK) {
        Disconnect(AW_ERROR_FAILURE);  // what came next would be taken for the rest of this message
        return AW_ERROR_FAILURE;
      }
      data.AdvanceChainedReadPtr(data.GetChainedLength());
      result = AW_OK;
    }
  }
  if (result != AW_OK) return result;
  counters_.sendQueueHighMark = std::max(counters_.sendQueueHighMark, sendQueue_.GetLength());
  ++counters_.messagesSent;
  counters_.bytesSent += length;
  return AW_OK;
}

// `data` may be the queue itself. Then it grows by its own bytes, and advancing over the message,
// which is always done, advances over all that waits.
AWResult CPTCPStreamBase::SendBehindOthers(CAWMessageBlock& data,
                                           CAWPseudoTCPTransportParameter* parameter) {
  const bool isQueue = &data == sendQueue_.GetBlock();
  if (sendQueue_.Append(data) != AW_OK) return AW_ERROR_FAILURE;
  const AWResult result = sendQueue_.Offer(
      [&](CAWMessageBlock& block) { return transport_->SendData(block, parameter); });
  if (result != AW_OK && result != AW_ERROR_PARTIAL_DATA) return result;
  if (isQueue) {
    sendQueue_.Clear();
  } else {
    data.AdvanceChainedReadPtr(data.GetChainedLength());
  }
  return AW_OK;
}

// What waits is offered twice; see the class comment.
void CPTCPStreamBase::OnSend(IAWPseudoTCPTransport*, CAWPseudoTCPTransportParameter*) {
  if (!sendQueue_.IsEmpty()) SendMessage(*sendQueue_.GetBlock(), nullptr);
}

}  // namespace zarn::utils
