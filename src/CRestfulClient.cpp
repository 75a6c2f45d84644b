// CRestfulClient.cpp - see CRestfulClient.h.
#include "zarn/utils/CRestfulClient.h"

#include <atomic>
#include <cerrno>
#include <memory>
#include <new>
#include <utility>

#include "keelbase/CAWThreadManager.h"
#include "keelbase/CAWTrace.h"

namespace zarn::utils {

using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;
using keelbase::CAWString;
using keelbase::CAWThread;
using keelbase::CAWThreadManager;

namespace {

constexpr const char* kMark = "/zarn/tcpchannel";

void TellThatNobodyListens() {
  static std::atomic<bool> told{false};
  if (told.exchange(true)) return;
  keelbase::IAWTraceManager::Instance()->Trace(
      0, "an HTTP answer was dropped: no thread has adopted TT_MAIN, where callbacks run");
}

// The event is taken over.
void PostToMain(CRestfulRcvEvent* event) {
  std::unique_ptr<CRestfulRcvEvent> owned(event);
  CAWThread* main = CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_MAIN);
  if (main == nullptr) return TellThatNobodyListens();
  main->GetEventQueue()->Post(owned.release());
}

}  // namespace

// --- the client ---

CRestfulClient::~CRestfulClient() { ReleaseChannel(); }

void CRestfulClient::SetRestfulInfo(const CAWString& info1, const CAWString& info2) {
  info1_ = info1;
  info2_ = info2;
}

// On the network thread, so that nothing of the request before can happen meanwhile.
void CRestfulClient::StartClient(const CAWString& url, const CAWString& setting,
                                 const CAWString& body,
                                 std::function<void(const CAWString&, long)> callback) {
  const auto start = [&] {
    setting_ = setting;
    body_ = body;
    callback_.swap(callback);
    Open(url);
  };
  CAWThread* network = CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_NETWORK);
  if (network == nullptr) return start();
  network->Call(start);
}

void CRestfulClient::Open(const CAWString& url) {
  if (url.find(kMark) != CAWString::npos) {
    client_ = nullptr;
    shttp::IAWHttpManager::Instance()->CreateHttpClient(client_);
  }
  if (!client_) return;
  if (!info1_.empty() && !info2_.empty()) client_->SetInfo(info1_, info2_);
  client_->Open(CAWString(url), this, 0);
}

AWResult CRestfulClient::SendData(const char* data, std::size_t len) {
  if (!channel_) return AW_ERROR_NOT_INITIALIZED;
  channel_->SetRequest(setting_);
  CAWMessageBlock block(data, len, CAWMessageBlock::borrow);
  wface::CAWTransportParameter parameter;
  return channel_->SendData(block, &parameter);
}

void CRestfulClient::ReleaseChannel() {
  if (const auto channel = std::exchange(channel_, nullptr)) channel->Disconnect(0);
}

void CRestfulClient::OnConnect(long /*reason*/, shttp::IAWChannelHttpClient* channel) {
  connected_ = true;
  if (channel_.Get() != channel) channel_ = channel;
  if (!channel_) return;
  channel_->OpenWithSink(this);
  SendData(body_.data(), body_.size());
}

// From the post on another thread may destroy this object. What finds no memory is still told.
void CRestfulClient::OnReceive(CAWMessageBlock& data, wface::IAWTransport* /*transport*/,
                               wface::CAWTransportParameter* /*parameter*/) {
  const auto channel = std::exchange(channel_, nullptr);
  CRestfulRcvEvent* event = nullptr;
  try {
    response_ = data.FlattenChained();
    if (channel) channel->GetResult(result_);
    event = new CRestfulRcvEvent(response_, result_, callback_);
  } catch (const std::bad_alloc&) {
    response_ = CAWString();
    result_ = -ENOMEM;
    event = new CRestfulRcvEvent(response_, result_, callback_);
  }
  PostToMain(event);
  if (channel) channel->Disconnect(0);
}

void CRestfulClient::OnSend(wface::IAWTransport* /*transport*/,
                            wface::CAWTransportParameter* /*parameter*/) {}

void CRestfulClient::OnDisconnect(long /*reason*/, wface::IAWTransport* /*transport*/) {
  ReleaseChannel();
}

// --- the event ---

CRestfulRcvEvent::CRestfulRcvEvent(const CAWString& response, long result,
                                   const std::function<void(const CAWString&, long)>& callback)
    : response_(response), result_(result), callback_(callback) {}

CRestfulRcvEvent::~CRestfulRcvEvent() = default;

AWResult CRestfulRcvEvent::OnEventFire() {
  if (callback_) callback_(response_, result_);
  return AW_OK;
}

}  // namespace zarn::utils
