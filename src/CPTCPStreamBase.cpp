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
  metrics_.Leave();
  if (transport_) thread_.Check("CPTCPStreamBase::~CPTCPStreamBase");
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
  const std::size_t length = data.GetChainedLength();
  const bool isCounted = &data == sendQueue_.GetBlock();  // as the messages that wait in it
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
  StreamSteps::NoteQueueLength(*this);
  if (!isCounted) StreamSteps::CountSent(*this, length);
  return AW_OK;
}

// `data` may be the queue itself. Then it grows by its own bytes, and advancing over the message,
// which is always done, advances over all that waits.
AWResult CPTCPStreamBase::SendBehindOthers(CAWMessageBlock& data,
                                           CAWPseudoTCPTransportParameter* parameter) {
  const bool isQueue = &data == sendQueue_.GetBlock();
  const bool isAdded = sendQueue_.Append(data) == AW_OK;
  if (!isAdded && !isQueue) return AW_ERROR_FAILURE;
  const AWResult result = sendQueue_.Offer(
      [&](CAWMessageBlock& block) { return transport_->SendData(block, parameter); });
  if (result != AW_OK && result != AW_ERROR_PARTIAL_DATA) return result;
  if (!isAdded) return AW_OK;  // offered once for want of memory; the rest waits on
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
