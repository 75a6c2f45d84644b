// HttpClient.cpp - see HttpClient.h.
#include "HttpClient.h"

#include <cerrno>
#include <new>
#include <utility>

#include "keelbase/internal/TraceError.h"

namespace shttp {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWString;

AWResult HttpClient::SetInfo(const CAWString& user, const CAWString& password) try {
  credentialsError_ = EINVAL;
  Credentials credentials{user, password};
  if (!AreGood(credentials)) {
    keelbase::internal::TraceLine("HTTP: the user name or the password is not good");
    return AW_ERROR_FAILURE;
  }
  credentials_ = std::move(credentials);
  credentialsError_ = 0;
  return AW_OK;
} catch (const std::bad_alloc&) {
  credentialsError_ = ENOMEM;
  return AW_ERROR_FAILURE;
}

AWResult HttpClient::SetLimits(const CAWHttpLimits& limits) {
  limits_ = limits;
  return AW_OK;
}

AWResult HttpClient::Open(const CAWString& url, IAWChannelSink* sink, std::uint32_t) try {
  EndExchange();
  if (sink == nullptr) return AW_ERROR_FAILURE;
  exchange_ =
      new HttpExchange(loop_, sink, HttpOrder{url, credentials_, credentialsError_, limits_});
  if (exchange_->Start()) return AW_OK;
  EndExchange();
  return AW_ERROR_FAILURE;
} catch (const std::bad_alloc&) {
  EndExchange();
  return AW_ERROR_FAILURE;
}

void HttpClient::EndExchange() {
  if (const CAWAutoPtr<HttpExchange> exchange = std::move(exchange_)) exchange->Cancel();
}

}  // namespace shttp
