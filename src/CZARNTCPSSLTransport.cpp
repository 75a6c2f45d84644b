// CZARNTCPSSLTransport.cpp - see CZARNTCPSSLTransport.h.
#include "zarn/utils/CZARNTCPSSLTransport.h"

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
  StreamSteps::BeginDestruction(*this, "CZARNTCPSSLTransport::~CZARNTCPSSLTransport");
  StreamSteps::EndConnection(*this, 0);
}

AWResult CZARNTCPSSLTransport::SetSSLTransportHandle(
    keelbase::CAWAutoPtr<sslutils::IAWSSLTransport>& transport) {
  return StreamSteps::Attach(*this, transport, "CZARNTCPSSLTransport::SetSSLTransportHandle");
}

// --- ending ---

AWResult CZARNTCPSSLTransport::Disconnect(long /*reason*/) {
  thread_.Check("CZARNTCPSSLTransport::Disconnect");
  StreamSteps::EndConnection(*this, 0);
  closed_ = true;
  return AW_OK;
}

// Also the last step when this side ends the connection. The stream is not marked closed here.
void CZARNTCPSSLTransport::OnSSLDisconnect(long reason, sslutils::IAWSSLTransport*) {
  StreamSteps::EndConnection(*this, 0);
  counters_.lastDisconnectReason = reason;
  OnPeerDisconnect(reason);
}

// A subclass that overrides OnSSLDisconnect hears of it there.
void CZARNTCPSSLTransport::TearDown(sslutils::IAWSSLTransport* transport) {
  closed_ = true;
  if (transport_) sendQueue_.LeaveTo(*transport_);
  received_.Clear();
  sendQueue_.Clear();
  OnSSLDisconnect(AW_ERROR_FAILURE, transport);
}

// --- receiving ---

// An answer that is too long is overlooked when it was given for bytes that were held back.
void CZARNTCPSSLTransport::OnSSLDataReceive(CAWMessageBlock& data,
                                            sslutils::IAWSSLTransport* transport) {
  const std::size_t length = data.GetChainedLength();
  counters_.bytesReceived += length;
  const bool held = received_.GetLength() != 0;
  const ReceiveParts parts = StreamSteps::PartsOf(*this);
  ReceivePass pass;
  if (held) {
    pass = OfferHeldBlocks(*this, parts, data);
    if (pass.end != End::kNoMemory) data.AdvanceChainedReadPtr(length);
  } else {
    pass = OfferBlocks(*this, parts, data, [] { return AW_OK; });
    const bool incomplete = pass.end == End::kNeedMore && data.GetChainedLength() != 0;
    if (incomplete && received_.Append(data) != AW_OK) pass.end = End::kNoMemory;
  }
  if (pass.end == End::kDestroyed || pass.end == End::kReplaced) return;
  const bool goOn = pass.end == End::kNeedMore || (held && pass.end == End::kTooLong);
  if (!goOn) return TearDown(transport);
  StreamSteps::ApplyReadGate(*this);
}

AWResult CZARNTCPSSLTransport::OnReceiveDirect(CAWMessageBlock& data) {
  thread_.Check("CZARNTCPSSLTransport::OnReceiveDirect");
  return StreamSteps::ReceiveDirectBlock(*this, data);
}

void CZARNTCPSSLTransport::SetReceiveLimit(std::size_t bytes) {
  StreamSteps::SetReceiveLimit(*this, bytes);
}

// --- sending ---

AWResult CZARNTCPSSLTransport::SendSSLMessage(CAWMessageBlock& data) {
  thread_.Check("CZARNTCPSSLTransport::SendSSLMessage");
  if (!transport_) return AW_ERROR_FAILURE;
  const std::size_t length = data.GetChainedLength();
  const bool waited = !sendQueue_.IsEmpty();
  if (waited && sendQueue_.Append(data) != AW_OK) return AW_ERROR_FAILURE;
  sslutils::CAWSSLTransportParameter parameter;
  const auto offer = [this](CAWMessageBlock& block) {
    return transport_->SendData(block, nullptr);
  };
  const AWResult result = waited ? sendQueue_.Offer(offer) : transport_->SendData(data, &parameter);
  if (result != AW_OK && result != AW_ERROR_PARTIAL_DATA) return AW_ERROR_FAILURE;
  if (!waited && result == AW_ERROR_PARTIAL_DATA && sendQueue_.Append(data) != AW_OK) {
    Disconnect(0);  // whatever came next would be taken for the rest of this message
    return AW_ERROR_FAILURE;
  }
  StreamSteps::NoteQueueLength(*this);
  StreamSteps::CountSent(*this, length);
  return AW_OK;
}

void CZARNTCPSSLTransport::OnSSLDataSend(sslutils::IAWSSLTransport*) {
  StreamSteps::SendWaiting(*this);
}

}  // namespace zarn::utils
