// CZARNIPCStreamBase.cpp - see CZARNIPCStreamBase.h.
#include "zarn/utils/CZARNIPCStreamBase.h"

#include "ReceiveLoop.h"
#include "StreamMetrics.h"
#include "StreamSteps.h"
#include "keelbase/CAWTransport.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;
using End = ReceivePass::End;

CZARNIPCStreamBase::CZARNIPCStreamBase() = default;

CZARNIPCStreamBase::~CZARNIPCStreamBase() {
  metrics_.Leave();
  if (connector_ || transport_) thread_.Check("CZARNIPCStreamBase::~CZARNIPCStreamBase");
  DropConnector(connector_);
  EndConnection(0);
}

// --- connecting ---

AWResult CZARNIPCStreamBase::Connect(const keelbase::CAWIPCAddr& peer,
                                     keelbase::CAWIPCAddr* local) {
  thread_.Claim("CZARNIPCStreamBase::Connect");
  metrics_.JoinConnecting(*this, peer);
  generation_.Raise();
  DropConnector(connector_);
  DropTransport(transport_, 0);
  const AWResult made = fipc::CAWIPCManager::Instance()->CreateConnector(1, connector_);
  if (made != AW_OK) return made;
  closed_ = false;
  connectIssued_ = true;
  return connector_->AsyncConnect(this, peer, 0, local);
}

void CZARNIPCStreamBase::OnIPCConnectIndication(long reason, fipc::IAWIPCTransport* transport,
                                                fipc::IAWIPCAcceptorConnectorId*) {
  if (reason != 0) {
    ++counters_.connectFailures;
    return Report(reason);
  }
  keelbase::CAWAutoPtr<fipc::IAWIPCTransport> connected(transport);
  const AWResult attached = SetTransportHandle(connected);
  if (attached != AW_OK) return CloseAndReport(attached);
  closed_ = false;
  OnConnected(0);
}

AWResult CZARNIPCStreamBase::SetTransportHandle(
    keelbase::CAWAutoPtr<fipc::IAWIPCTransport>& transport) {
  if (!transport) return AW_ERROR_FAILURE;
  thread_.Claim("CZARNIPCStreamBase::SetTransportHandle");
  metrics_.JoinAttached(*this);
  generation_.Raise();
  DropTransport(transport_, 0);
  transport_ = transport;
  closed_ = false;
  readGate_.Reset();
  if (transport_->OpenWithSink(this) != AW_OK) return AW_ERROR_FAILURE;
  transport_->GetOption(keelbase::AW_OPT_PEER_ADDRESS, &peerAddr_);
  transport_->GetOption(keelbase::AW_OPT_LOCAL_ADDRESS, &localAddr_);
  transportAttached_ = true;
  ++counters_.connects;
  return AW_OK;
}

// --- ending ---

AWResult CZARNIPCStreamBase::Close(long reason) {
  thread_.Check("CZARNIPCStreamBase::Close");
  EndConnection(reason);
  DropConnector(connector_);
  closed_ = true;
  return AW_OK;
}

void CZARNIPCStreamBase::OnDisconnect(long reason, fipc::IAWIPCTransport*) {
  transport_ = nullptr;
  transportAttached_ = false;
  closed_ = true;
  Close(0);
  Report(reason);
}

// Nothing that SendMsg accepted is lost: the transport goes on with it.
void CZARNIPCStreamBase::EndConnection(long reason) {
  generation_.Raise();
  if (transport_) sendQueue_.LeaveTo(*transport_);
  DropTransport(transport_, reason);
  sendQueue_.Clear();
  received_.Clear();
}

void CZARNIPCStreamBase::CloseAndReport(long reason) {
  EndConnection(0);
  Report(reason);
}

// Always the last thing that is done: the subclass may delete the stream.
void CZARNIPCStreamBase::Report(long reason) {
  closed_ = true;
  counters_.lastDisconnectReason = reason;
  OnPeerDisconnect(reason);
}

// --- receiving ---

void CZARNIPCStreamBase::OnReceive(CAWMessageBlock& data, fipc::IAWIPCTransport* transport,
                                   fipc::CAWIPCTransportParameter*) {
  if (transport != transport_.Get()) return;
  const End end = OfferReceived(*this, received_, data, generation_, closed_, counters_).end;
  if (end == End::kDestroyed || end == End::kReplaced) return;
  if (end != End::kNeedMore) {
    DropConnector(connector_);
    return CloseAndReport(end == End::kNoMemory ? AW_ERROR_FAILURE : 0);
  }
  readGate_.Apply(transport_.Get(), received_.GetLength());
}

AWResult CZARNIPCStreamBase::OnReceiveDirect(CAWMessageBlock& data) {
  thread_.Check("CZARNIPCStreamBase::OnReceiveDirect");
  const End end = OfferDirect(*this, data, generation_, closed_, counters_,
                              "CAWTCPSessionBase::OnReceiveDirect");
  if (end == End::kNeedMore) return AW_OK;
  if (end == End::kClosed) CloseAndReport(0);
  return AW_ERROR_FAILURE;
}

void CZARNIPCStreamBase::SetReceiveLimit(std::size_t bytes) {
  readGate_.SetLimit(bytes);
  readGate_.Apply(transport_.Get(), received_.GetLength());
}

void CZARNIPCStreamBase::StopReading() {
  readGate_.Stop();
  readGate_.Apply(transport_.Get(), received_.GetLength());
}

void CZARNIPCStreamBase::StopAtMalformedFrame() {
  if (!readGate_.IsStopped()) ++counters_.malformedFrames;
  StopReading();
}

// --- sending ---

AWResult CZARNIPCStreamBase::SendMsg(CAWMessageBlock& data) {
  thread_.Check("CZARNIPCStreamBase::SendMsg");
  if (!transport_) return AW_ERROR_NOT_INITIALIZED;
  return SendAndAdvance(
      data, sendQueue_, counters_,
      [this](CAWMessageBlock& block) { return transport_->SendData(block, nullptr); },
      [this] { Close(AW_ERROR_FAILURE); });
}

AWResult CZARNIPCStreamBase::SendMsg(const char* data, std::size_t len) {
  CAWMessageBlock block(data, len, CAWMessageBlock::borrow);
  return SendMsg(block);
}

void CZARNIPCStreamBase::OnSend(fipc::IAWIPCTransport*, fipc::CAWIPCTransportParameter*) {
  if (!transport_ || sendQueue_.IsEmpty()) return;
  sendQueue_.Offer([this](CAWMessageBlock& block) { return transport_->SendData(block, nullptr); });
}

}  // namespace zarn::utils
