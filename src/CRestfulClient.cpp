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

// Block by block, so that a large answer is not held twice.
CAWString TakeText(CAWMessageBlock& chain) {
  CAWString text;
  text.reserve(chain.GetChainedLength());
  std::unique_ptr<CAWMessageBlock> rest(chain.Disjoint(chain.GetLength()));
  text.append(chain.GetReadPtr(), chain.GetLength());
  while (rest != nullptr) {
    text.append(rest->GetReadPtr(), rest->GetLength());
    rest->AdvanceReadPtr(rest->GetLength());
    rest.reset(rest.release()->ReclaimGarbage());
  }
  return text;
}

void TellThatNobodyListens() {
  static std::atomic<bool> told{false};
  if (told.exchange(true)) return;
  keelbase::IAWTraceManager::Instance()->Trace(
      0, "an HTTP answer was dropped: no thread has adopted TT_MAIN, where callbacks run");
}

void TellThatNothingIsSent(bool hasMark) {
  keelbase::IAWTraceManager::Instance()->Trace(
      0, hasMark ? "an HTTP request is not sent, and no callback comes: no memory or network thread"
                 : "an HTTP request is not sent, and no callback comes: its url has no "
                   "/zarn/tcpchannel");
}

void PostToMain(std::unique_ptr<CRestfulRcvEvent> event) {
  CAWThread* main = CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_MAIN);
  if (main == nullptr) return TellThatNobodyListens();
  main->GetEventQueue()->Post(event.release());
}

}  // namespace

// --- the client ---

CRestfulClient::~CRestfulClient() { ReleaseChannel(); }

void CRestfulClient::SetRestfulInfo(const CAWString& info1, const CAWString& info2) {
  CAWString newInfo1(info1);
  CAWString newInfo2(info2);
  info1_.swap(newInfo1);  // both or, without memory, neither
  info2_.swap(newInfo2);
}

// A request that is under way is dropped on the network thread, where nothing of it can happen
// meanwhile. Otherwise nobody else touches this object. What needs memory is made before.
void CRestfulClient::StartClient(const CAWString& url, const CAWString& setting,
                                 const CAWString& body,
                                 std::function<void(const CAWString&, long)> callback) {
  const CAWString newUrl(url);
  CAWString newSetting(setting);
  CAWString newBody(body);
  auto event = std::make_unique<CRestfulRcvEvent>(CAWString(), 0, nullptr);
  const auto start = [&] {
    setting_.swap(newSetting);
    body_.swap(newBody);
    callback_.swap(callback);
    event_.swap(event);
    Open(newUrl);
  };
  if (!underWay_.load(std::memory_order_acquire)) return start();
  CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_NETWORK)->Call(start);
}

void CRestfulClient::Open(const CAWString& url) {
  const bool hasMark = url.find(kMark) != CAWString::npos;
  if (hasMark) {
    client_ = nullptr;
    shttp::IAWHttpManager::Instance()->CreateHttpClient(client_);
  }
  if (!client_) return TellThatNothingIsSent(hasMark);
  if (!info1_.empty() && !info2_.empty()) client_->SetInfo(info1_, info2_);
  underWay_.store(true, std::memory_order_relaxed);
  if (client_->Open(url, this, 0) != AW_OK) Fail();
}

// The client that there is had no memory to begin, so nothing of it will tell.
void CRestfulClient::Fail() {
  response_.clear();
  result_ = -ENOMEM;
  Tell();
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

void CRestfulClient::OnReceive(CAWMessageBlock& data, wface::IAWTransport* /*transport*/,
                               wface::CAWTransportParameter* /*parameter*/) {
  const auto channel = std::exchange(channel_, nullptr);
  try {
    response_ = TakeText(data);
    if (channel) channel->GetResult(result_);
  } catch (const std::bad_alloc&) {
    response_.clear();
    result_ = -ENOMEM;
  }
  Tell();
  if (channel) channel->Disconnect(0);
}

// Another thread may use or destroy this object as soon as no request is under way. The text goes
// over to the event, so that a large answer is there once; the callback does when there is no
// memory for a copy.
void CRestfulClient::Tell() {
  auto event = std::move(event_);
  if (event == nullptr)  // nobody has started a request
    event = std::make_unique<CRestfulRcvEvent>(CAWString(), 0, nullptr);
  event->response_ = std::move(response_);
  event->result_ = result_;
  try {
    event->callback_ = callback_;
  } catch (const std::bad_alloc&) {
    event->callback_ = std::move(callback_);
  }
  underWay_.store(false, std::memory_order_release);
  PostToMain(std::move(event));
}

void CRestfulClient::OnSend(wface::IAWTransport* /*transport*/,
                            wface::CAWTransportParameter* /*parameter*/) {}

void CRestfulClient::OnDisconnect(long /*reason*/, wface::IAWTransport* /*transport*/) {
  ReleaseChannel();
}

// --- the event ---

CRestfulRcvEvent::CRestfulRcvEvent(CAWString response, long result,
                                   std::function<void(const CAWString&, long)> callback)
    : response_(std::move(response)), result_(result), callback_(std::move(callback)) {}

CRestfulRcvEvent::~CRestfulRcvEvent() = default;

AWResult CRestfulRcvEvent::OnEventFire() {
  if (callback_) callback_(response_, result_);
  return AW_OK;
}

}  // namespace zarn::utils
