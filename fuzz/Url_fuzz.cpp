// Url_fuzz.cpp - urls, settings and credentials of an HTTP request: whatever is taken makes a head
// with just the lines that were asked for.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "FuzzInput.h"
#include "RequestHead.h"
#include "Url.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

bool IsPlain(const std::string& text) {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') return false;
  }
  return true;
}

std::size_t CountLines(const std::string& head) {
  std::size_t lines = 0;
  for (std::size_t at = head.find("\r\n"); at != std::string::npos; at = head.find("\r\n", at + 2))
    ++lines;
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zarn::test::FuzzInput input(data, size);
  shttp::Url url;
  const bool goodUrl = shttp::ParseUrl(input.Text(), url) == 0;
  if (goodUrl) {
    Check(!url.host.empty() && url.port != 0 && url.target.front() == '/');
    Check(IsPlain(url.host + url.target + url.hostField));
    Check(url.target.find(' ') == std::string::npos && url.host.find(' ') == std::string::npos);
  }
  shttp::Setting setting;
  const bool goodSetting = shttp::ParseSetting(input.Text(), setting) == 0;
  const shttp::Credentials credentials{input.Text(), input.Text()};
  if (!goodUrl || !goodSetting || !shttp::AreGood(credentials)) return 0;

  const std::size_t bodySize = input.Byte();
  const std::string head = shttp::WriteHead(url, setting, credentials, bodySize);
  Check(head.find(setting.method + ' ' + url.target + " HTTP/1.1\r\nHost: ") == 0);
  Check(head.find("\r\n\r\n") == head.size() - 4);
  // The request, the empty line, and at most six fields of ours.
  const std::size_t lines = CountLines(head);
  Check(lines >= setting.fields.size() + 4 && lines <= setting.fields.size() + 9);
  return 0;
}
