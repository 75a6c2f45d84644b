// CZARNShmIPCStreamBase.cpp - see CZARNShmIPCStreamBase.h.
#include "zarn/utils/CZARNShmIPCStreamBase.h"

#include <algorithm>
#include <new>
#include <utility>

#include "ReceiveLoop.h"
#include "StreamMetrics.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;
using End = ReceivePass::End;

CZARNShmIPCStreamBase::CZARNShmIPCStreamBase() = default;

CZARNShmIPCStreamBase::~CZARNShmIPCStreamBase() {
  metrics_.Leave();
  if (connector_ || transport_) thread_.Check("CZARNShmIPCStreamBase::~CZARNShmIPCStreamBase");
  DropConnector();
  EndConnection(0);
}

// --- connecting ---

AWResult CZARNShmIPCStreamBase::Connect(const fshmipc::CAWShmIPCAddr& peer,
                                        fshmipc::CAWShmIPCAddr* local) {
  thread_.Claim("CZARNShmIPCStreamBase::Connect");
  metrics_.JoinConnecting(*this, peer);
  closed_ = false;
  DropConnector();
  EndConnection(0);
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
      OnConnected(0);
      return;
    }
    EndConnection(0);
  }
  ++counters_.connectFailures;
  NoteEnd(reason);
  OnConnectFailure(reason);
}

AWResult CZARNShmIPCStreamBase::SetTransportHandle(
    keelbase::CAWAutoPtr<fshmipc::IAWShmIPCTransport>& transport) {
  if (!transport) return AW_ERROR_FAILURE;
  thread_.Claim("CZARNShmIPCStreamBase::SetTransportHandle");
  metrics_.JoinAttached(*this);
  generation_.Raise();
  DropTransport(0);
  transport_ = transport;
  closed_ = false;
  readGate_.Reset();
  if (transport_->OpenWithSink(this) != AW_OK) return AW_ERROR_FAILURE;
  peerAddr_ = transport_->GetPeerAddr();
  localAddr_ = transport_->GetLocalAddr();
  transportAttached_ = true;
  ++counters_.connects;
  return AW_OK;
}

// --- ending ---

AWResult CZARNShmIPCStreamBase::Close(long reason) {
  thread_.Check("CZARNShmIPCStreamBase::Close");
  EndConnection(reason);
  DropConnector();
  closed_ = true;
  return AW_OK;
}

// The buffers are kept: the subclass may still want to know what did not go out.
void CZARNShmIPCStreamBase::OnDisconnect(long reason, fshmipc::IAWShmIPCTransport*) {
  generation_.Raise();
  transport_ = nullptr;
  transportAttached_ = false;
  NoteEnd(reason);
  OnPeerDisconnect(reason);
}

void CZARNShmIPCStreamBase::DropConnector() {
  const auto connector = std::move(connector_);
  if (connector) connector->CancelConnect();
}

void CZARNShmIPCStreamBase::DropTransport(long reason) {
  const auto transport = std::move(transport_);
  if (transport) transport->Disconnect(reason);
}

// Nothing that SendMsg accepted is lost: the transport goes on with it.
void CZARNShmIPCStreamBase::EndConnection(long reason) {
  generation_.Raise();
  if (transport_) sendQueue_.LeaveTo(*transport_);
  DropTransport(reason);
  sendQueue_.Clear();
  received_.Clear();
}

void CZARNShmIPCStreamBase::NoteEnd(long reason) {
  closed_ = true;
  counters_.lastDisconnectReason = reason;
}

// --- receiving ---

void CZARNShmIPCStreamBase::OnReceive(CAWMessageBlock& data, fshmipc::IAWShmIPCTransport*,
                                      fshmipc::CAWShmIPCTransportParameter*) {
  const End end = OfferReceived(*this, received_, data, generation_, closed_, counters_).end;
  switch (end) {
    case End::kDestroyed:
    case End::kReplaced:
      return;
    case End::kNeedMore:
      return readGate_.Apply(transport_.Get(), received_.GetLength());
    case End::kTooLong:
      if (!closed_) return readGate_.Apply(transport_.Get(), received_.GetLength());
      [[fallthrough]];  // the handler has closed as well
    case End::kClosed:
      EndConnection(0);
      return OnClose();
    case End::kNoMemory:
      EndConnection(0);
      NoteEnd(AW_ERROR_FAILURE);
      return OnPeerDisconnect(AW_ERROR_FAILURE);
  }
}

void CZARNShmIPCStreamBase::SetReceiveLimit(std::size_t bytes) {
  readGate_.SetLimit(bytes);
  readGate_.Apply(transport_.Get(), received_.GetLength());
}

void CZARNShmIPCStreamBase::StopReading() {
  readGate_.Stop();
  readGate_.Apply(transport_.Get(), received_.GetLength());
}

void CZARNShmIPCStreamBase::StopAtMalformedFrame() {
  if (!readGate_.IsStopped()) ++counters_.malformedFrames;
  StopReading();
}

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
  counters_.sendQueueHighMark = std::max(counters_.sendQueueHighMark, sendQueue_.GetLength());
  if (result != AW_OK && result != AW_ERROR_PARTIAL_DATA) return AW_ERROR_FAILURE;
  ++counters_.messagesSent;
  counters_.bytesSent += length;
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
  if (!transport_ || sendQueue_.IsEmpty()) return;
  sendQueue_.Offer([this](CAWMessageBlock& block) { return transport_->SendData(block, nullptr); });
}

}  // namespace zarn::utils
