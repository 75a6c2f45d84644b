// RequestHead.cpp - see RequestHead.h.
#include "RequestHead.h"

#include <openssl/evp.h>

#include <algorithm>
#include <boost/beast/core/buffers_range.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/rfc7230.hpp>
#include <boost/beast/http/serializer.hpp>

namespace shttp {

namespace beast = boost::beast;
namespace http = boost::beast::http;

namespace {

constexpr std::size_t kMaxSetting = std::size_t{32} << 10;
constexpr std::size_t kMaxCredential = std::size_t{4} << 10;
constexpr std::size_t kMaxMethodLength = 32;

// What describes the connection or the length of the body is said here and nowhere else.
constexpr http::field kOurs[] = {http::field::host, http::field::content_length,
                                 http::field::transfer_encoding, http::field::connection,
                                 http::field::upgrade};

bool IsControl(char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }
bool HasControl(std::string_view text) { return std::any_of(text.begin(), text.end(), IsControl); }

std::string_view TrimBlanks(std::string_view text) {
  const std::size_t first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

// CONNECT would make a tunnel of the connection.
bool IsMethod(std::string_view text) {
  return !text.empty() && text.size() <= kMaxMethodLength && text != "CONNECT" &&
         std::all_of(text.begin(), text.end(),
                     [](char c) { return (c >= 'A' && c <= 'Z') || c == '-' || c == '_'; });
}

bool IsToken(std::string_view text) {
  constexpr std::string_view kMarks = "!#$%&'*+-.^_`|~";
  return !text.empty() && std::all_of(text.begin(), text.end(), [&](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           kMarks.find(c) != std::string_view::npos;
  });
}

bool AddField(std::string_view line, Setting& out) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) return false;
  const std::string_view name = line.substr(0, colon);
  const http::field known = http::string_to_field({name.data(), name.size()});
  if (!IsToken(name) || std::find(std::begin(kOurs), std::end(kOurs), known) != std::end(kOurs))
    return false;
  out.fields.emplace_back(name, TrimBlanks(line.substr(colon + 1)));
  return true;
}

std::string ToBase64(const std::string& text) {
  std::string out((text.size() + 2) / 3 * 4 + 1, '\0');  // and the NUL that is written behind it
  ::EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                    reinterpret_cast<const unsigned char*>(text.data()),
                    static_cast<int>(text.size()));
  out.pop_back();
  return out;
}

void SetUnlessThere(http::fields& fields, http::field name, const std::string& value) {
  if (fields.find(name) == fields.end()) fields.set(name, value);
}

// These say something about a body of no bytes; for others there is simply none.
bool MeansABody(const std::string& method) {
  return method == "POST" || method == "PUT" || method == "PATCH";
}

std::string Write(const http::request<http::empty_body>& request) {
  std::string out;
  http::request_serializer<http::empty_body> serializer(request);
  while (!serializer.is_done()) {
    beast::error_code error;
    serializer.next(error, [&](beast::error_code&, const auto& buffers) {
      std::size_t size = 0;
      for (const auto buffer : beast::buffers_range_ref(buffers)) {
        out.append(static_cast<const char*>(buffer.data()), buffer.size());
        size += buffer.size();
      }
      serializer.consume(size);
    });
  }
  return out;
}

}  // namespace

std::size_t ParseSetting(std::string_view text, Setting& out) {
  Setting setting;
  std::size_t at = 0;
  for (std::size_t number = 1; at < text.size(); ++number) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    const std::string_view line = text.substr(at, end - at);
    at = end + 1;
    if (end > kMaxSetting || HasControl(line)) return number;
    if (number == 1 && IsMethod(line)) {
      setting.method = line;
    } else if (!AddField(line, setting)) {
      return number;
    }
  }
  out = std::move(setting);
  return 0;
}

bool AreGood(const Credentials& credentials) {
  return credentials.user.size() <= kMaxCredential &&
         credentials.password.size() <= kMaxCredential && !HasControl(credentials.user) &&
         !HasControl(credentials.password) && credentials.user.find(':') == std::string::npos;
}

std::string WriteHead(const Url& url, const Setting& setting, const Credentials& credentials,
                      std::size_t bodySize) {
  http::request<http::empty_body> request;
  request.version(11);
  request.method_string(setting.method);
  request.target(url.target);
  request.set(http::field::host, url.hostField);
  for (const auto& [name, value] : setting.fields) request.insert(name, value);
  SetUnlessThere(request, http::field::user_agent, "zarnutils/" ZARN_VERSION);
  SetUnlessThere(request, http::field::accept_encoding, "gzip");
  if (!credentials.user.empty() || !credentials.password.empty())
    SetUnlessThere(request, http::field::authorization,
                   "Basic " + ToBase64(credentials.user + ':' + credentials.password));
  if (bodySize != 0) SetUnlessThere(request, http::field::content_type, "application/json");
  if (bodySize != 0 || MeansABody(setting.method))
    request.set(http::field::content_length, std::to_string(bodySize));
  request.set(http::field::connection, "close");
  return Write(request);
}

}  // namespace shttp
