// CSSLPTCPSessionBase.cpp - see CSSLPTCPSessionBase.h.
#include "zarn/utils/CSSLPTCPSessionBase.h"

#include <new>

#include "StreamMetrics.h"
#include "StreamSteps.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWInetAddr;
using keelbase::CAWMessageBlock;

CSSLPTCPSessionBase::CSSLPTCPSessionBase() = default;

// Not by BeginDestruction: a closed session may still have a connect under way, which must be
// cancelled.
CSSLPTCPSessionBase::~CSSLPTCPSessionBase() {
  metrics_.Leave();
  if (!closed_ && (connector_ || transport_))
    thread_.Check("CSSLPTCPSessionBase::~CSSLPTCPSessionBase");
  StreamSteps::DropConnector(*this);
  StreamSteps::EndConnection(*this, 0);
}

// --- connecting ---

AWResult CSSLPTCPSessionBase::Connect(const CAWInetAddr& peer, CAWInetAddr* local) {
  thread_.Claim("CSSLPTCPSessionBase::Connect");
  metrics_.JoinConnecting(*this, peer);
  generation_.Raise();
  StreamSteps::DropConnector(*this);
  StreamSteps::DropTransport(*this, 0);
  auto* manager = sslptcp::IAWSSLPTCPManager::Instance();
  if (const AWResult made = manager->CreateConnector(connector_); made != AW_OK) return made;
  if (!connector_) return AW_ERROR_FAILURE;
  // What is wrong with a text comes back as the reason of the connect.
  if (!privateKey_.empty()) connector_->SetPrivateKey(privateKey_);
  if (!certificate_.empty()) connector_->SetCertificate(certificate_);
  closed_ = false;
  const AWResult started = connector_->AsyncConnect(this, peer, nullptr, local);
  if (started == AW_OK) connectIssued_ = true;
  return started;
}

AWResult CSSLPTCPSessionBase::PrivateKey(const keelbase::CAWString& text) try {
  privateKey_ = text;
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult CSSLPTCPSessionBase::Certificate(const keelbase::CAWString& text) try {
  certificate_ = text;
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

void CSSLPTCPSessionBase::OnSSLConnected(long reason, sslutils::IAWSSLTransport* transport) {
  StreamSteps::Connected(*this, reason, transport);
}

AWResult CSSLPTCPSessionBase::SetTransportHandle(
    keelbase::CAWAutoPtr<sslutils::IAWSSLTransport>& transport) {
  return StreamSteps::Attach(*this, transport, "CSSLPTCPSessionBase::SetTransportHandle");
}

// --- ending ---

// The connector of a connect that was issued is kept.
AWResult CSSLPTCPSessionBase::Close(long reason) {
  thread_.Check("CSSLPTCPSessionBase::Close");
  StreamSteps::EndConnection(*this, reason);
  if (!connectIssued_) StreamSteps::DropConnector(*this);
  closed_ = true;
  return AW_OK;
}

void CSSLPTCPSessionBase::OnSSLDisconnect(long reason, sslutils::IAWSSLTransport*) {
  StreamSteps::LoseConnection(*this, reason);
}

// --- receiving ---

void CSSLPTCPSessionBase::OnSSLDataReceive(CAWMessageBlock& data, sslutils::IAWSSLTransport*) {
  StreamSteps::ReceiveAndLeave(*this, data);
}

AWResult CSSLPTCPSessionBase::OnReceiveDirect(CAWMessageBlock& data) {
  thread_.Check("CSSLPTCPSessionBase::OnReceiveDirect");
  return StreamSteps::ReceiveDirect(*this, data, "CSSLPTCPSessionBase::OnReceiveDirect");
}

void CSSLPTCPSessionBase::SetReceiveLimit(std::size_t bytes) {
  StreamSteps::SetReceiveLimit(*this, bytes);
}

void CSSLPTCPSessionBase::StopReading() { StreamSteps::StopReading(*this); }

void CSSLPTCPSessionBase::StopAtMalformedFrame() { StreamSteps::StopAtMalformedFrame(*this); }

// --- sending ---

AWResult CSSLPTCPSessionBase::SendMessage(CAWMessageBlock& data) {
  thread_.Check("CSSLPTCPSessionBase::SendMessage");
  if (!transport_) return AW_ERROR_NOT_INITIALIZED;
  return StreamSteps::Send(*this, data, nullptr, [this] { Close(AW_ERROR_FAILURE); });
}

AWResult CSSLPTCPSessionBase::SendMessage(const char* data, std::size_t len) {
  CAWMessageBlock block(data, len, CAWMessageBlock::borrow);
  return SendMessage(block);
}

void CSSLPTCPSessionBase::OnSSLDataSend(sslutils::IAWSSLTransport*) {
  StreamSteps::SendWaiting(*this);
}

}  // namespace zarn::utils
