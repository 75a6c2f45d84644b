// HttpClient.h - makes one exchange after the other.
#pragma once

#include <atomic>

#include "HttpExchange.h"
#include "shttp/CAWHttpManager.h"

namespace shttp {

// Nothing of it belongs to the loop, so it ends wherever its last reference is dropped.
class HttpClient final : public IAWHttpClient {
 public:
  HttpClient(keelbase::internal::EventLoop& loop, const CAWHttpLimits& limits)
      : loop_(loop), limits_(limits) {}
  ~HttpClient() override { EndExchange(); }

  std::uint32_t AddReference() override {
    return count_.fetch_add(1, std::memory_order_relaxed) + 1;
  }
  std::uint32_t ReleaseReference() override {
    const std::uint32_t left = count_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) delete this;
    return left;
  }

  keelbase::AWResult SetInfo(const keelbase::CAWString& user,
                             const keelbase::CAWString& password) override;
  keelbase::AWResult SetLimits(const CAWHttpLimits& limits) override;
  keelbase::AWResult Open(const keelbase::CAWString& url, IAWChannelSink* sink,
                          std::uint32_t reserved) override;

 private:
  void EndExchange();

  keelbase::internal::EventLoop& loop_;
  std::atomic<std::uint32_t> count_{0};
  Credentials credentials_;
  int credentialsError_ = 0;  // an errno value
  CAWHttpLimits limits_;
  keelbase::CAWAutoPtr<HttpExchange> exchange_;
};

}  // namespace shttp
