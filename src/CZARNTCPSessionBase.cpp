// CZARNTCPSessionBase.cpp - see CZARNTCPSessionBase.h.
#include "zarn/utils/CZARNTCPSessionBase.h"

#include "StreamMetrics.h"
#include "StreamSteps.h"
#include "keelbase/CAWTimeValue.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWInetAddr;
using keelbase::CAWMessageBlock;

namespace {

constexpr keelbase::CAWTimeValue kConnectTimeout(3, 0);

}  // namespace

CZARNTCPSessionBase::CZARNTCPSessionBase() = default;

CZARNTCPSessionBase::~CZARNTCPSessionBase() {
  StreamSteps::BeginDestruction(*this, "CZARNTCPSessionBase::~CZARNTCPSessionBase");
  StreamSteps::EndConnection(*this, 0);
  connector_ = nullptr;  // letting go of it cancels
}

// --- connecting ---

AWResult CZARNTCPSessionBase::Connect(const CAWInetAddr& peer, CAWInetAddr* local) {
  thread_.Claim("CZARNTCPSessionBase::Connect");
  metrics_.JoinConnecting(*this, peer);
  generation_.Raise();
  StreamSteps::DropConnector(*this);
  StreamSteps::DropTransport(*this, 0);
  auto* manager = wface::CAWConnectionManager::Instance();
  if (const AWResult made = manager->CreateConnector(wface::AW_KIND_TCP, connector_); made != AW_OK)
    return made;
  closed_ = false;
  connectIssued_ = true;
  return connector_->AsyncConnect(this, peer, &kConnectTimeout, local);
}

void CZARNTCPSessionBase::OnConnectIndication(long reason, wface::IAWTransport* transport,
                                              wface::IAWAcceptorConnectorId*) {
  StreamSteps::Connected(*this, reason, transport);
}

AWResult CZARNTCPSessionBase::SetTransportHandle(
    keelbase::CAWAutoPtr<wface::IAWTransport>& transport) {
  return StreamSteps::Attach(*this, transport, "CZARNTCPSessionBase::SetTransportHandle");
}

// --- ending ---

AWResult CZARNTCPSessionBase::Close(long reason) {
  thread_.Check("CZARNTCPSessionBase::Close");
  StreamSteps::EndConnection(*this, reason);
  StreamSteps::DropConnector(*this);
  closed_ = true;
  return AW_OK;
}

void CZARNTCPSessionBase::OnDisconnect(long reason, wface::IAWTransport*) {
  StreamSteps::LoseConnection(*this, reason);
}

// --- receiving ---

void CZARNTCPSessionBase::OnReceive(CAWMessageBlock& data, wface::IAWTransport*,
                                    wface::CAWTransportParameter*) {
  StreamSteps::ReceiveAndLeave(*this, data);
}

AWResult CZARNTCPSessionBase::OnReceiveDirect(CAWMessageBlock& data) {
  thread_.Check("CZARNTCPSessionBase::OnReceiveDirect");
  return StreamSteps::ReceiveDirect(*this, data, "CZARNTCPSessionBase::OnReceiveDirect");
}

void CZARNTCPSessionBase::SetReceiveLimit(std::size_t bytes) {
  StreamSteps::SetReceiveLimit(*this, bytes);
}

void CZARNTCPSessionBase::StopReading() { StreamSteps::StopReading(*this); }

void CZARNTCPSessionBase::StopAtMalformedFrame() { StreamSteps::StopAtMalformedFrame(*this); }

// --- sending ---

AWResult CZARNTCPSessionBase::SendMsg(CAWMessageBlock& data) {
  thread_.Check("CZARNTCPSessionBase::SendMsg");
  if (!transport_) return AW_ERROR_NOT_INITIALIZED;
  return StreamSteps::Send(*this, data, nullptr, [this] { Close(AW_ERROR_FAILURE); });
}

AWResult CZARNTCPSessionBase::SendMsg(const char* data, std::size_t len) {
  CAWMessageBlock block(data, len, CAWMessageBlock::borrow);
  return SendMsg(block);
}

void CZARNTCPSessionBase::OnSend(wface::IAWTransport*, wface::CAWTransportParameter*) {
  StreamSteps::SendWaiting(*this);
}

}  // namespace zarn::utils
