// CZARNShmIPCStreamBase.cpp - see CZARNShmIPCStreamBase.h.
#include "zarn/utils/CZARNShmIPCStreamBase.h"

#include <new>

#include "StreamMetrics.h"
#include "StreamSteps.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;
using End = ReceivePass::End;

CZARNShmIPCStreamBase::CZARNShmIPCStreamBase() = default;

CZARNShmIPCStreamBase::~CZARNShmIPCStreamBase() {
  StreamSteps::BeginDestruction(*this, "CZARNShmIPCStreamBase::~CZARNShmIPCStreamBase");
  StreamSteps::DropConnector(*this);
  StreamSteps::EndConnection(*this, 0);
}

// --- connecting ---

AWResult CZARNShmIPCStreamBase::Connect(const fshmipc::CAWShmIPCAddr& peer,
                                        fshmipc::CAWShmIPCAddr* local) {
  thread_.Claim("CZARNShmIPCStreamBase::Connect");
  metrics_.JoinConnecting(*this, peer);
  closed_ = false;
  StreamSteps::DropConnector(*this);
  StreamSteps::EndConnection(*this, 0);
  if (fshmipc::CAWShmIPCManager::Instance()->CreateConnector(connector_) != AW_OK || !connector_)
    return AW_ERROR_FAILURE;
  connectIssued_ = true;
  return connector_->AsyncConnect(this, peer, 0, local);
}

void CZARNShmIPCStreamBase::OnShmIPCConnectIndication(long reason,
                                                      fshmipc::IAWShmIPCTransport* transport,
                                                      fshmipc::IAWShmIPCAcceptorConnectorId*) {
  if (reason == 0) {
    keelbase::CAWAutoPtr<fshmipc::IAWShmIPCTransport> connected(transport);
    reason = static_cast<long>(SetTransportHandle(connected));
    if (reason == 0) {
      closed_ = false;
      return StreamSteps::TellConnected(*this);
    }
    StreamSteps::EndConnection(*this, 0);
  }
  ++counters_.connectFailures;
  StreamSteps::NoteEnd(*this, reason);
  OnConnectFailure(reason);
}

AWResult CZARNShmIPCStreamBase::SetTransportHandle(
    keelbase::CAWAutoPtr<fshmipc::IAWShmIPCTransport>& transport) {
  return StreamSteps::Attach(*this, transport, "CZARNShmIPCStreamBase::SetTransportHandle");
}

// --- ending ---

AWResult CZARNShmIPCStreamBase::Close(long reason) {
  thread_.Check("CZARNShmIPCStreamBase::Close");
  StreamSteps::EndConnection(*this, reason);
  StreamSteps::DropConnector(*this);
  closed_ = true;
  return AW_OK;
}

void CZARNShmIPCStreamBase::OnDisconnect(long reason, fshmipc::IAWShmIPCTransport*) {
  StreamSteps::LoseConnection(*this, reason);
}

// --- receiving ---

void CZARNShmIPCStreamBase::OnReceive(CAWMessageBlock& data, fshmipc::IAWShmIPCTransport*,
                                      fshmipc::CAWShmIPCTransportParameter*) {
  if (StreamSteps::IsPastStop(*this)) return;
  const End end = OfferAndAdvance(*this, StreamSteps::PartsOf(*this), data).end;
  switch (end) {
    case End::kDestroyed:
    case End::kReplaced:
      return;
    case End::kNeedMore:
      return StreamSteps::ApplyReadGate(*this);
    case End::kTooLong:
      if (!closed_) return StreamSteps::ApplyReadGate(*this);
      [[fallthrough]];  // the handler has closed as well
    case End::kClosed:
      StreamSteps::EndConnection(*this, 0);
      return OnClose();
    case End::kNoMemory:
      return StreamSteps::CloseAndReport(*this, AW_ERROR_FAILURE);
  }
}

void CZARNShmIPCStreamBase::SetReceiveLimit(std::size_t bytes) {
  StreamSteps::SetReceiveLimit(*this, bytes);
}

void CZARNShmIPCStreamBase::StopReading() { StreamSteps::StopReading(*this); }

void CZARNShmIPCStreamBase::StopAtMalformedFrame() { StreamSteps::StopAtMalformedFrame(*this); }

// --- sending ---

AWResult CZARNShmIPCStreamBase::SendMsg(CAWMessageBlock& data) try {
  thread_.Check("CZARNShmIPCStreamBase::SendMsg");
  if (!transport_) return AW_ERROR_FAILURE;
  const CAWMessageBlock::KeepUnread keep(data);
  const std::size_t length = data.GetChainedLength();
  const auto offer = [this](CAWMessageBlock& block) {
    return transport_->SendData(block, nullptr);
  };
  const bool waits = !sendQueue_.IsEmpty();
  if (waits && sendQueue_.Append(data) != AW_OK) return AW_ERROR_FAILURE;
  const AWResult result = waits ? sendQueue_.Offer(offer) : offer(data);
  // Whatever the answer, what was not taken is queued.
  if (!waits && sendQueue_.Append(data) != AW_OK) {
    // What came next would be taken for the rest of this message.
    if (data.GetChainedLength() != length) Close(AW_ERROR_FAILURE);
    return AW_ERROR_FAILURE;
  }
  StreamSteps::NoteQueueLength(*this);
  if (result != AW_OK && result != AW_ERROR_PARTIAL_DATA) return AW_ERROR_FAILURE;
  StreamSteps::CountSent(*this, length);
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult CZARNShmIPCStreamBase::SendMsg(const char* data, std::size_t len) {
  CAWMessageBlock block(data, len, CAWMessageBlock::borrow);
  return SendMsg(block);
}

void CZARNShmIPCStreamBase::OnSend(fshmipc::IAWShmIPCTransport*,
                                   fshmipc::CAWShmIPCTransportParameter*) {
  StreamSteps::SendWaiting(*this);
}

}  // namespace zarn::utils
