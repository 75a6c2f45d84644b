// CZARNIPCStreamBase.cpp - see CZARNIPCStreamBase.h.
#include "zarn/utils/CZARNIPCStreamBase.h"

#include "StreamMetrics.h"
#include "StreamSteps.h"
#include "StreamTrace.h"
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
  StreamSteps::BeginDestruction(*this, "CZARNIPCStreamBase::~CZARNIPCStreamBase");
  StreamSteps::DropConnector(*this);
  StreamSteps::EndConnection(*this, 0);
}

// --- connecting ---

AWResult CZARNIPCStreamBase::Connect(const keelbase::CAWIPCAddr& peer,
                                     keelbase::CAWIPCAddr* local) {
  thread_.Claim("CZARNIPCStreamBase::Connect");
  metrics_.JoinConnecting(*this, peer);
  generation_.Raise();
  StreamSteps::DropConnector(*this);
  StreamSteps::DropTransport(*this, 0);
  const AWResult made =
      fipc::CAWIPCManager::Instance()->CreateConnector(fipc::AW_KIND_UNIX, connector_);
  if (made != AW_OK) return made;
  closed_ = false;
  connectIssued_ = true;
  return connector_->AsyncConnect(this, peer, 0, local);
}

void CZARNIPCStreamBase::OnIPCConnectIndication(long reason, fipc::IAWIPCTransport* transport,
                                                fipc::IAWIPCAcceptorConnectorId*) {
  StreamSteps::Connected(*this, reason, transport);
}

AWResult CZARNIPCStreamBase::SetTransportHandle(
    keelbase::CAWAutoPtr<fipc::IAWIPCTransport>& transport) {
  return StreamSteps::Attach(*this, transport, "CZARNIPCStreamBase::SetTransportHandle");
}

// --- ending ---

AWResult CZARNIPCStreamBase::Close(long reason) {
  thread_.Check("CZARNIPCStreamBase::Close");
  StreamSteps::EndConnection(*this, reason);
  StreamSteps::DropConnector(*this);
  closed_ = true;
  return AW_OK;
}

void CZARNIPCStreamBase::OnDisconnect(long reason, fipc::IAWIPCTransport*) {
  transport_ = nullptr;
  transportAttached_ = false;
  closed_ = true;
  Close(0);
  StreamSteps::Report(*this, reason);
}

// --- receiving ---

void CZARNIPCStreamBase::OnReceive(CAWMessageBlock& data, fipc::IAWIPCTransport* transport,
                                   fipc::CAWIPCTransportParameter*) {
  if (transport != transport_.Get()) return;
  if (StreamSteps::IsPastStop(*this)) return;
  const End end = OfferAndAdvance(*this, StreamSteps::PartsOf(*this), data).end;
  if (end == End::kDestroyed || end == End::kReplaced) return;
  if (end != End::kNeedMore) {
    StreamSteps::DropConnector(*this);
    return StreamSteps::CloseAndReport(*this, end == End::kNoMemory ? AW_ERROR_FAILURE : 0);
  }
  StreamSteps::ApplyReadGate(*this);
}

AWResult CZARNIPCStreamBase::OnReceiveDirect(CAWMessageBlock& data) {
  thread_.Check("CZARNIPCStreamBase::OnReceiveDirect");
  return StreamSteps::ReceiveDirect(*this, data, kDirectTrace);
}

void CZARNIPCStreamBase::SetReceiveLimit(std::size_t bytes) {
  StreamSteps::SetReceiveLimit(*this, bytes);
}

void CZARNIPCStreamBase::StopReading() { StreamSteps::StopReading(*this); }

void CZARNIPCStreamBase::StopAtMalformedFrame() { StreamSteps::StopAtMalformedFrame(*this); }

// --- sending ---

AWResult CZARNIPCStreamBase::SendMsg(CAWMessageBlock& data) {
  thread_.Check("CZARNIPCStreamBase::SendMsg");
  if (!transport_) return AW_ERROR_NOT_INITIALIZED;
  return StreamSteps::Send(*this, data, nullptr, [this] { Close(AW_ERROR_FAILURE); });
}

AWResult CZARNIPCStreamBase::SendMsg(const char* data, std::size_t len) {
  CAWMessageBlock block(data, len, CAWMessageBlock::borrow);
  return SendMsg(block);
}

void CZARNIPCStreamBase::OnSend(fipc::IAWIPCTransport*, fipc::CAWIPCTransportParameter*) {
  StreamSteps::SendWaiting(*this);
}

}  // namespace zarn::utils
