// CPTCPStreamBase.cpp - see CPTCPStreamBase.h.
#include "zarn/utils/CPTCPStreamBase.h"

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

CPTCPStreamBase::CPTCPStreamBase() = default;

CPTCPStreamBase::~CPTCPStreamBase() {
  StreamSteps::BeginDestruction(*this, "CPTCPStreamBase::~CPTCPStreamBase");
  StreamSteps::EndConnection(*this, 0);
}

AWResult CPTCPStreamBase::SetTransportHandle(
    keelbase::CAWAutoPtr<IAWPseudoTCPTransport>& transport) {
  const bool wasClosed = closed_;
  const AWResult attached =
      StreamSteps::Attach(*this, transport, "CPTCPStreamBase::SetTransportHandle");
  if (attached != AW_OK) closed_ = wasClosed;
  return attached;
}

// --- ending ---

AWResult CPTCPStreamBase::Disconnect(long reason) {
  thread_.Check("CPTCPStreamBase::Disconnect");
  generation_.Raise();
  StreamSteps::DropTransport(*this, reason);
  closed_ = true;
  return AW_OK;
}

// The stream is not marked closed.
void CPTCPStreamBase::OnDisconnect(long reason, IAWPseudoTCPTransport*) {
  counters_.lastDisconnectReason = reason;
  OnPeerDisconnect(reason);
}

// --- receiving ---

void CPTCPStreamBase::OnReceive(CAWMessageBlock& data, IAWPseudoTCPTransport*,
                                CAWPseudoTCPTransportParameter*) {
  StreamSteps::ReceiveBlocks(*this, data);
}

void CPTCPStreamBase::SetReceiveLimit(std::size_t bytes) {
  StreamSteps::SetReceiveLimit(*this, bytes);
}

// --- sending ---

AWResult CPTCPStreamBase::SendMessage(CAWMessageBlock& data,
                                      CAWPseudoTCPTransportParameter* parameter) {
  thread_.Check("CPTCPStreamBase::SendMessage");
  if (!transport_) return AW_ERROR_FAILURE;
  if (&data == sendQueue_.GetBlock()) return SendQueueTwice(parameter);
  const std::size_t length = data.GetChainedLength();
  const AWResult result =
      sendQueue_.IsEmpty() ? SendAtOnce(data, parameter) : SendBehindOthers(data, parameter);
  if (result != AW_OK) return result;
  StreamSteps::NoteQueueLength(*this);
  StreamSteps::CountSent(*this, length);
  return AW_OK;
}

AWResult CPTCPStreamBase::SendAtOnce(CAWMessageBlock& data,
                                     CAWPseudoTCPTransportParameter* parameter) {
  const AWResult result = transport_->SendData(data, parameter);
  if (result != AW_ERROR_PARTIAL_DATA) return result;
  if (sendQueue_.Append(data) != AW_OK) {
    Disconnect(AW_ERROR_FAILURE);  // what came next would be taken for the rest of this message
    return AW_ERROR_FAILURE;
  }
  data.AdvanceChainedReadPtr(data.GetChainedLength());
  return AW_OK;
}

AWResult CPTCPStreamBase::SendBehindOthers(CAWMessageBlock& data,
                                           CAWPseudoTCPTransportParameter* parameter) {
  if (sendQueue_.Append(data) != AW_OK) return AW_ERROR_FAILURE;
  const AWResult result = OfferQueue(parameter);
  if (result == AW_OK) data.AdvanceChainedReadPtr(data.GetChainedLength());
  return result;
}

// The message is the queue itself: it goes behind itself, and what is not taken then is dropped.
AWResult CPTCPStreamBase::SendQueueTwice(CAWPseudoTCPTransportParameter* parameter) {
  const bool isDoubled = sendQueue_.Append(*sendQueue_.GetBlock()) == AW_OK;
  const AWResult result = OfferQueue(parameter);
  if (result != AW_OK) return result;
  if (isDoubled) sendQueue_.Clear();  // else, for want of memory, it was offered once and is kept
  StreamSteps::NoteQueueLength(*this);
  return AW_OK;
}

// 0 also when only a part was taken.
AWResult CPTCPStreamBase::OfferQueue(CAWPseudoTCPTransportParameter* parameter) {
  const AWResult result = sendQueue_.Offer(
      [&](CAWMessageBlock& block) { return transport_->SendData(block, parameter); });
  return result == AW_ERROR_PARTIAL_DATA ? AW_OK : result;
}

// What waits is offered twice; see the class comment.
void CPTCPStreamBase::OnSend(IAWPseudoTCPTransport*, CAWPseudoTCPTransportParameter*) {
  if (!sendQueue_.IsEmpty()) SendMessage(*sendQueue_.GetBlock(), nullptr);
}

}  // namespace zarn::utils
