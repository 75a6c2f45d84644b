// CZARNTCPTransport.cpp - see CZARNTCPTransport.h.
#include "zarn/utils/CZARNTCPTransport.h"

#include "StreamMetrics.h"
#include "StreamSteps.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;

CZARNTCPTransport::CZARNTCPTransport() = default;

CZARNTCPTransport::~CZARNTCPTransport() {
  StreamSteps::BeginDestruction(*this, "CZARNTCPTransport::~CZARNTCPTransport");
  StreamSteps::EndConnection(*this, 0);
}

AWResult CZARNTCPTransport::SetTransportHandle(
    keelbase::CAWAutoPtr<wface::IAWTransport>& transport) {
  return StreamSteps::Attach(*this, transport, "CZARNTCPTransport::SetTransportHandle");
}

// --- ending ---

AWResult CZARNTCPTransport::Disconnect(long reason) {
  thread_.Check("CZARNTCPTransport::Disconnect");
  StreamSteps::EndConnection(*this, reason);
  closed_ = true;
  return AW_OK;
}

void CZARNTCPTransport::OnDisconnect(long reason, wface::IAWTransport*) {
  closed_ = true;
  counters_.lastDisconnectReason = reason;
  OnPeerDisconnect(reason);
}

// --- receiving ---

void CZARNTCPTransport::OnReceive(CAWMessageBlock& data, wface::IAWTransport*,
                                  wface::CAWTransportParameter*) {
  StreamSteps::ReceiveBlocks(*this, data);
}

AWResult CZARNTCPTransport::OnReceiveDirect(CAWMessageBlock& data) {
  thread_.Check("CZARNTCPTransport::OnReceiveDirect");
  return StreamSteps::ReceiveDirectBlock(*this, data);
}

void CZARNTCPTransport::SetReceiveLimit(std::size_t bytes) {
  StreamSteps::SetReceiveLimit(*this, bytes);
}

// --- sending ---

AWResult CZARNTCPTransport::SendMsg(CAWMessageBlock& data,
                                    wface::CAWTransportParameter* parameter) {
  thread_.Check("CZARNTCPTransport::SendMsg");
  if (!transport_) return AW_ERROR_FAILURE;
  return StreamSteps::Send(*this, data, parameter, [this] { Disconnect(AW_ERROR_FAILURE); });
}

void CZARNTCPTransport::OnSend(wface::IAWTransport*, wface::CAWTransportParameter*) {
  StreamSteps::SendWaiting(*this);
}

}  // namespace zarn::utils
