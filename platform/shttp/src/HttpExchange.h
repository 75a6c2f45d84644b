// HttpExchange.h - one request from the url to the answer.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "AnswerReader.h"
#include "Dialer.h"
#include "RequestHead.h"
#include "keelbase/internal/LoopObject.h"
#include "shttp/CAWHttpManager.h"

namespace shttp {

class HttpChannel;

// The reference count, as an interface: LoopObject implements it.
class Counted {
 public:
  virtual std::uint32_t AddReference() = 0;
  virtual std::uint32_t ReleaseReference() = 0;

 protected:
  virtual ~Counted() = default;
};

// What the client knows of a request.
struct HttpOrder {
  std::string url;
  Credentials credentials;
  int credentialsError = 0;  // an errno value
  CAWHttpLimits limits;
};

// The client holds it to end it, the channel to use it. All but Cancel, Start and the counting
// happens on the loop's thread. Whatever fails is told when the user listens; telling it needs no
// memory.
class HttpExchange final : public keelbase::internal::LoopObject<Counted>,
                           private ByteStream::Sink {
 public:
  // May throw std::bad_alloc.
  HttpExchange(keelbase::internal::EventLoop& loop, IAWChannelSink* sink, HttpOrder order);
  ~HttpExchange() override;

  bool Start();   // any thread; false: the loop has ended, and no callback comes
  void Cancel();  // any thread; on the loop's no callback begins from now on

  // --- the channel's ---
  keelbase::AWResult Listen(wface::IAWTransportSink* sink);
  keelbase::AWResult SetRequest(const std::string& setting);
  keelbase::AWResult Send(keelbase::CAWMessageBlock& body);
  keelbase::AWResult GetResult(long& result) const;
  keelbase::AWResult GetOption(int code, void* value);

 private:
  friend class HttpChannel;

  // A step that the loop's thread makes later, once. It holds the exchange meanwhile.
  class Step final : public keelbase::internal::LoopTask {
   public:
    using Work = void (HttpExchange::*)();
    Step(HttpExchange& exchange, Work work) : exchange_(exchange), work_(work) {}
    bool Post();  // any thread; false: the loop has ended

   private:
    void OnLoopTask() override;
    void OnDropped() override { exchange_.ReleaseReference(); }
    bool OutlastsRun() const override { return true; }

    HttpExchange& exchange_;
    const Work work_;
  };

  void Begin();
  int StartConnect();
  void Connected(long reason, std::unique_ptr<ByteStream> stream);
  void SendHeadAnd(keelbase::CAWMessageBlock& body);
  void AwaitAnswer();
  void OnBytes(keelbase::CAWMessageBlock& block) override;
  void OnRoom() override;
  void OnEnd(long reason) override;
  void FinishLater(long result);
  void FinishNow();
  void Finish(long result);
  void Deliver(std::unique_ptr<keelbase::CAWMessageBlock> body);
  void LetGo();
  bool IsOver() const { return cancelled_.load(std::memory_order_acquire); }
  void Limit(std::uint32_t milliseconds, long result);

  IAWChannelSink* connectSink_;           // null once it was told
  std::unique_ptr<HttpChannel> channel_;  // until the sink is told of it, so that memory is there
  HttpChannel* handle_ = nullptr;         // what the sink was told of; null when it is gone
  wface::IAWTransportSink* sink_ = nullptr;  // null: not yet listening, or told all
  bool opened_ = false;
  const HttpOrder order_;
  Url url_;
  Setting setting_;
  int refused_;  // why the credentials or the setting are; an errno value
  bool sent_ = false;
  std::optional<long> result_;
  std::optional<long> resultToTell_;
  std::atomic<bool> cancelled_{false};

  Step begin_{*this, &HttpExchange::Begin};
  Step finish_{*this, &HttpExchange::FinishNow};
  Step letGo_{*this, &HttpExchange::LetGo};
  keelbase::internal::Timer timer_;  // the limit of what is in hand
  Dialer dialer_;
  std::unique_ptr<ByteStream> stream_;
  std::unique_ptr<keelbase::CAWMessageBlock> rest_;  // of the request, for want of room
  std::unique_ptr<AnswerReader> reader_;
};

}  // namespace shttp
