// HttpClient.h - makes one exchange after the other.
#pragma once

#include "HttpExchange.h"
#include "keelbase/internal/LoopObject.h"
#include "shttp/CAWHttpManager.h"

namespace shttp {

class HttpClient final : public keelbase::internal::LoopObject<IAWHttpClient> {
 public:
  HttpClient(keelbase::internal::EventLoop& loop, const CAWHttpLimits& limits)
      : LoopObject(loop), limits_(limits) {}
  ~HttpClient() override = default;

  keelbase::AWResult SetInfo(const keelbase::CAWString& user,
                             const keelbase::CAWString& password) override;
  keelbase::AWResult SetLimits(const CAWHttpLimits& limits) override;
  keelbase::AWResult Open(const keelbase::CAWString& url, IAWChannelSink* sink,
                          std::uint32_t reserved) override;

 private:
  void OnLastReference() override { EndExchange(); }
  void EndExchange();

  Credentials credentials_;
  bool credentialsRefused_ = false;
  CAWHttpLimits limits_;
  keelbase::CAWAutoPtr<HttpExchange> exchange_;
};

}  // namespace shttp
