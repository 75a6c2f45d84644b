// HttpChannel.h - what the user holds of an exchange: letting go of it ends the exchange.
#pragma once

#include "HttpExchange.h"
#include "keelbase/internal/LoopObject.h"

namespace shttp {

class HttpChannel final : public keelbase::internal::LoopObject<IAWChannelHttpClient> {
 public:
  explicit HttpChannel(keelbase::internal::EventLoop& loop) : LoopObject(loop) {}
  ~HttpChannel() override {
    if (exchange_) exchange_->handle_ = nullptr;
  }

  // Before anybody is told of it.
  void Attach(HttpExchange* exchange) { exchange_ = exchange; }

  keelbase::AWResult OpenWithSink(wface::IAWTransportSink* sink) override {
    return exchange_->Listen(sink);
  }
  keelbase::AWResult SetRequest(const keelbase::CAWString& setting) override {
    return exchange_->SetRequest(setting);
  }
  keelbase::AWResult SendData(keelbase::CAWMessageBlock& data,
                              wface::CAWTransportParameter* /*parameter*/) override {
    return exchange_->Send(data);
  }
  keelbase::AWResult Disconnect(long /*reason*/) override {
    exchange_->Cancel();
    return keelbase::AW_OK;
  }
  keelbase::AWResult GetResult(long& result) override { return exchange_->GetResult(result); }
  keelbase::AWResult GetOption(int code, void* value) override {
    return exchange_->GetOption(code, value);
  }
  keelbase::AWResult SetOption(int /*code*/, void* /*value*/) override {
    return keelbase::AW_ERROR_FAILURE;
  }

 private:
  void OnLastReference() override { exchange_->Cancel(); }

  keelbase::CAWAutoPtr<HttpExchange> exchange_;
};

}  // namespace shttp
