// CZARNSSLTCPSessionBase.cpp - see CZARNSSLTCPSessionBase.h.
#include "zarn/utils/CZARNSSLTCPSessionBase.h"

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

namespace {

constexpr int kVerify = 1;

}  // namespace

CZARNSSLTCPSessionBase::CZARNSSLTCPSessionBase() = default;

CZARNSSLTCPSessionBase::~CZARNSSLTCPSessionBase() {
  StreamSteps::BeginDestruction(*this, "CZARNSSLTCPSessionBase::~CZARNSSLTCPSessionBase");
  StreamSteps::EndConnection(*this, 0);
  connector_ = nullptr;  // letting go of it cancels
}

// --- connecting ---

AWResult CZARNSSLTCPSessionBase::Connect(const CAWInetAddr& peer, CAWInetAddr* local) {
  thread_.Claim("CZARNSSLTCPSessionBase::Connect");
  metrics_.JoinConnecting(*this, peer);
  generation_.Raise();
  StreamSteps::DropConnector(*this);
  StreamSteps::DropTransport(*this, 0);
  auto* manager = sslutils::IAWSSLManager::Instance();
  if (const AWResult made = manager->CreateSSLConnector(connector_); made != AW_OK) return made;
  if (!connector_) return AW_ERROR_FAILURE;
  // What is wrong with a text comes back as the reason of the connect.
  if (!privateKey_.empty()) connector_->SetPrivateKey(privateKey_);
  if (!certificate_.empty()) connector_->SetCertificate(certificate_);
  closed_ = false;
  connectIssued_ = true;
  return connector_->AsyncConnect(this, peer, kVerify, nullptr, local);
}

AWResult CZARNSSLTCPSessionBase::PrivateKey(const keelbase::CAWString& text) try {
  privateKey_ = text;
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult CZARNSSLTCPSessionBase::Certificate(const keelbase::CAWString& text) try {
  certificate_ = text;
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

void CZARNSSLTCPSessionBase::OnSSLConnected(long reason, sslutils::IAWSSLTransport* transport) {
  StreamSteps::Connected(*this, reason, transport);
}

AWResult CZARNSSLTCPSessionBase::SetTransportHandle(
    keelbase::CAWAutoPtr<sslutils::IAWSSLTransport>& transport) {
  return StreamSteps::Attach(*this, transport, "CZARNSSLTCPSessionBase::SetTransportHandle");
}

// --- ending ---

AWResult CZARNSSLTCPSessionBase::Close(long reason) {
  thread_.Check("CZARNSSLTCPSessionBase::Close");
  StreamSteps::EndConnection(*this, reason);
  StreamSteps::DropConnector(*this);
  closed_ = true;
  return AW_OK;
}

void CZARNSSLTCPSessionBase::OnSSLDisconnect(long reason, sslutils::IAWSSLTransport*) {
  StreamSteps::LoseConnection(*this, reason);
}

// --- receiving ---

void CZARNSSLTCPSessionBase::OnSSLDataReceive(CAWMessageBlock& data, sslutils::IAWSSLTransport*) {
  StreamSteps::ReceiveAndLeave(*this, data);
}

AWResult CZARNSSLTCPSessionBase::OnReceiveDirect(CAWMessageBlock& data) {
  thread_.Check("CZARNSSLTCPSessionBase::OnReceiveDirect");
  return StreamSteps::ReceiveDirect(*this, data, "CZARNSSLTCPSessionBase::OnReceiveDirect");
}

void CZARNSSLTCPSessionBase::SetReceiveLimit(std::size_t bytes) {
  StreamSteps::SetReceiveLimit(*this, bytes);
}

void CZARNSSLTCPSessionBase::StopReading() { StreamSteps::StopReading(*this); }

void CZARNSSLTCPSessionBase::StopAtMalformedFrame() { StreamSteps::StopAtMalformedFrame(*this); }

// --- sending ---

AWResult CZARNSSLTCPSessionBase::SendMsg(CAWMessageBlock& data) {
  thread_.Check("CZARNSSLTCPSessionBase::SendMsg");
  if (!transport_) return AW_ERROR_NOT_INITIALIZED;
  return StreamSteps::Send(*this, data, nullptr, [this] { Close(AW_ERROR_FAILURE); });
}

AWResult CZARNSSLTCPSessionBase::SendMsg(const char* data, std::size_t len) {
  CAWMessageBlock block(data, len, CAWMessageBlock::borrow);
  return SendMsg(block);
}

void CZARNSSLTCPSessionBase::OnSSLDataSend(sslutils::IAWSSLTransport*) {
  StreamSteps::SendWaiting(*this);
}

}  // namespace zarn::utils
