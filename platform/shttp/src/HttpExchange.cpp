// HttpExchange.cpp - see HttpExchange.h.
#include "HttpExchange.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <string>
#include <utility>

#include "HttpChannel.h"
#include "keelbase/internal/TellOwner.h"
#include "keelbase/internal/TraceError.h"

namespace shttp {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_AVAILABLE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWMessageBlock;
using keelbase::internal::TellOwner;
using keelbase::internal::TraceLine;

namespace {

// The system has a time limit of its own for a peer that does not stir. What the transport says of
// itself (10001 and the like) means nothing to whoever asked.
long ResultOfEnd(long reason) {
  if (reason == ETIMEDOUT) return -ETIME;
  const bool ofTransport = reason >= static_cast<long>(AW_ERROR_FAILURE) &&
                           reason <= static_cast<long>(AW_ERROR_PARTIAL_DATA);
  return ofTransport || reason == EPIPE ? -ECONNRESET : -reason;
}

// A server that is busy may take nothing for a while: the system is not to give it up before the
// request's own limits do.
void AllowSilence(ByteStream& stream, const CAWHttpLimits& limits) {
  std::uint32_t silenceMs = std::clamp(std::max(limits.sendMs, limits.answerMs),
                                       wface::AW_SILENCE_LIMIT_MIN, wface::AW_SILENCE_LIMIT_MAX);
  stream.SetOption(wface::AW_OPT_SILENCE_LIMIT, &silenceMs);
}

// A connection that has failed tells that itself, after what had come before: an answer may be
// there already.
bool IsToldAsEnd(AWResult failureOfSend) {
  return failureOfSend != AW_ERROR_FAILURE && failureOfSend != AW_ERROR_NOT_INITIALIZED;
}

}  // namespace

HttpExchange::HttpExchange(keelbase::internal::EventLoop& loop, IAWChannelSink* sink,
                           HttpOrder order)
    : LoopObject(loop),
      connectSink_(sink),
      channel_(std::make_unique<HttpChannel>(loop)),
      order_(std::move(order)),
      refused_(order_.credentialsError),
      timer_(loop),
      dialer_(loop) {}

HttpExchange::~HttpExchange() = default;

bool HttpExchange::Step::Post() {
  exchange_.AddReference();
  const bool posted = exchange_.GetLoop().PostTask(*this);
  if (!posted) exchange_.ReleaseReference();
  return posted;
}

void HttpExchange::Step::OnLoopTask() {
  const CAWAutoPtr<HttpExchange> alive(&exchange_);
  exchange_.ReleaseReference();
  (exchange_.*work_)();
}

bool HttpExchange::Start() { return begin_.Post(); }

// What belongs to the loop is let go there.
void HttpExchange::Cancel() {
  if (cancelled_.exchange(true)) return;
  if (GetLoop().IsCurrent()) return LetGo();
  letGo_.Post();
}

void HttpExchange::LetGo() {
  const CAWAutoPtr<HttpExchange> alive(this);
  connectSink_ = nullptr;
  sink_ = nullptr;
  timer_.Cancel();
  dialer_.Stop();
  stream_ = nullptr;
  rest_ = nullptr;
}

// --- connecting ---

void HttpExchange::Begin() {
  if (IsOver()) return LetGo();
  const CAWAutoPtr<HttpExchange> alive(this);
  if (const int error = StartConnect(); error != 0) Connected(error, nullptr);
}

int HttpExchange::StartConnect() try {
  if (const int error = ParseUrl(order_.url, url_); error != 0) {
    if (error == EINVAL) TraceLine("an HTTP request is not sent: its url is not good");
    return error;
  }
  timer_.Start(std::chrono::milliseconds(order_.limits.connectMs), 1,
               [this] { Connected(ETIMEDOUT, nullptr); });
  return dialer_.Start(url_, [this](long reason, std::unique_ptr<ByteStream> stream) {
    Connected(reason, std::move(stream));
  });
} catch (const std::bad_alloc&) {
  return ENOMEM;
}

void HttpExchange::Connected(long reason, std::unique_ptr<ByteStream> stream) {
  const auto alive = Hold();
  if (!alive || IsOver()) return;
  timer_.Cancel();
  dialer_.Stop();
  stream_ = std::move(stream);
  if (stream_ != nullptr) AllowSilence(*stream_, order_.limits);
  if (reason != 0) result_ = -reason;
  handle_ = channel_.get();
  const CAWAutoPtr<HttpChannel> channel(channel_.release());
  channel->Attach(this);
  TellOwner(
      [&, sink = std::exchange(connectSink_, nullptr)] { sink->OnConnect(reason, channel.Get()); });
}

// --- the request ---

AWResult HttpExchange::Listen(wface::IAWTransportSink* sink) {
  GetLoop().CheckCurrent("an HTTP channel's OpenWithSink");
  if (sink == nullptr || opened_ || IsOver()) return AW_ERROR_FAILURE;
  opened_ = true;
  sink_ = sink;
  if (result_) FinishLater(*result_);
  return AW_OK;
}

AWResult HttpExchange::SetRequest(const std::string& setting) try {
  GetLoop().CheckCurrent("an HTTP channel's SetRequest");
  setting_ = Setting();
  const std::size_t badLine = ParseSetting(setting, setting_);
  refused_ = badLine == 0 ? order_.credentialsError : EINVAL;
  if (badLine == 0) return AW_OK;
  TraceLine("an HTTP request is not sent: line " + std::to_string(badLine) +
            " of its setting is not good");
  return AW_ERROR_FAILURE;
} catch (const std::bad_alloc&) {
  refused_ = ENOMEM;
  return AW_ERROR_FAILURE;
}

AWResult HttpExchange::Send(CAWMessageBlock& body) {
  GetLoop().CheckCurrent("an HTTP channel's SendData");
  if (IsOver() || result_) return AW_ERROR_NOT_INITIALIZED;
  if (!opened_ || sent_) return AW_ERROR_FAILURE;
  sent_ = true;
  if (refused_ != 0) {
    FinishLater(-refused_);
    return AW_ERROR_FAILURE;
  }
  try {
    SendHeadAnd(body);
    return AW_OK;
  } catch (const std::bad_alloc&) {
    FinishLater(-ENOMEM);
    return AW_ERROR_FAILURE;
  }
}

void HttpExchange::SendHeadAnd(CAWMessageBlock& body) {
  const std::size_t size = body.GetChainedLength();
  const std::string text = WriteHead(url_, setting_, order_.credentials, size);
  reader_ = std::make_unique<AnswerReader>(order_.limits, setting_.method == "HEAD");
  Limit(order_.limits.sendMs, -ETIME);
  stream_->Open(this);
  CAWMessageBlock head(text.data(), text.size(), CAWMessageBlock::borrow);
  const CAWMessageBlock::LinkForCall link(head, body);
  const AWResult sent = stream_->Send(head);
  if (sent == AW_OK) return AwaitAnswer();
  if (sent != AW_ERROR_PARTIAL_DATA) {
    if (!IsToldAsEnd(sent)) FinishLater(ResultOfEnd(static_cast<long>(sent)));
    return;
  }
  rest_.reset(head.DuplicateChained());
  body.AdvanceChainedReadPtr(body.GetChainedLength());
}

void HttpExchange::OnRoom() {
  if (rest_ == nullptr) return;
  const AWResult sent = stream_->Send(*rest_);
  if (sent == AW_ERROR_PARTIAL_DATA) return;
  rest_ = nullptr;
  if (sent == AW_OK) return AwaitAnswer();
  if (!IsToldAsEnd(sent)) Finish(ResultOfEnd(static_cast<long>(sent)));
}

void HttpExchange::AwaitAnswer() { Limit(order_.limits.answerMs, -ETIME); }

void HttpExchange::Limit(std::uint32_t milliseconds, long result) {
  timer_.Start(std::chrono::milliseconds(milliseconds), 1, [this, result] { Finish(result); });
}

// --- the answer; it may come before the request is sent ---

void HttpExchange::OnBytes(CAWMessageBlock& chain) {
  int error = 0;
  try {
    for (const CAWMessageBlock* block = &chain; block != nullptr && error == 0;
         block = block->GetNext())
      error = reader_->Add({block->GetReadPtr(), block->GetLength()});
  } catch (const std::bad_alloc&) {
    error = ENOMEM;
  }
  if (error != 0) return Finish(-error);
  if (reader_->IsWhole()) Finish(reader_->GetStatus());
}

// Linux reports a reset that follows the peer's end as EPIPE: all that the peer sent has arrived
// then. Over TLS only the peer's closing alert proves that.
void HttpExchange::OnEnd(long reason) {
  const bool peerEnded = reason == 0 || (reason == EPIPE && !url_.tls);
  if (!peerEnded) return Finish(ResultOfEnd(reason));
  int error = 0;
  try {
    error = reader_->End();
  } catch (const std::bad_alloc&) {
    error = ENOMEM;
  }
  if (error == 0) return Finish(reader_->GetStatus());
  Finish(reason == 0 ? -error : ResultOfEnd(reason));
}

// Nothing is told from inside an operation of the user's. Happens once at most.
void HttpExchange::FinishLater(long result) {
  timer_.Cancel();
  resultToTell_ = result;
  finish_.Post();
}

void HttpExchange::FinishNow() {
  if (resultToTell_) Finish(*resultToTell_);
}

// What is over is let go of after the user was told, who need not wait for the system to close a
// connection.
void HttpExchange::Finish(long result) {
  const auto alive = Hold();
  if (!alive) return;
  const std::unique_ptr<ByteStream> stream = std::move(stream_);
  const std::unique_ptr<AnswerReader> reader = std::move(reader_);
  rest_ = nullptr;
  result_ = result;
  resultToTell_.reset();
  timer_.Cancel();
  Deliver(result > 0 ? reader->TakeBody() : nullptr);
}

void HttpExchange::Deliver(std::unique_ptr<CAWMessageBlock> body) {
  if (IsOver() || handle_ == nullptr) return;
  const auto channel = handle_->Hold();
  if (!channel) return;
  CAWMessageBlock nothing(nullptr, 0, CAWMessageBlock::borrow);
  TellOwner([&] { sink_->OnReceive(body != nullptr ? *body : nothing, handle_, nullptr); });
  const auto stillInUse = handle_->Hold();  // not when the last user has let go meanwhile
  if (IsOver() || !stillInUse) return;
  if (auto* sink = std::exchange(sink_, nullptr))
    TellOwner([&] { sink->OnDisconnect(0, handle_); });
}

AWResult HttpExchange::GetResult(long& result) const {
  if (!result_) return AW_ERROR_NOT_AVAILABLE;
  result = *result_;
  return AW_OK;
}

AWResult HttpExchange::GetOption(int code, void* value) {
  return stream_ == nullptr ? AW_ERROR_FAILURE : stream_->GetOption(code, value);
}

}  // namespace shttp
