// RequestHead.h - what goes before the body of a request.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Url.h"

namespace shttp {

// What IAWChannelHttpClient::SetRequest was given.
struct Setting {
  std::string method = "POST";
  std::vector<std::pair<std::string, std::string>> fields;  // name, value
};

// 0, or the number of the first line that is refused, from 1 on; then `out` is as it was.
std::size_t ParseSetting(std::string_view text, Setting& out);

// User name and password; both empty: none.
struct Credentials {
  std::string user;
  std::string password;
};
bool AreGood(const Credentials& credentials);

// All up to the body, the empty line included. May throw std::bad_alloc.
std::string WriteHead(const Url& url, const Setting& setting, const Credentials& credentials,
                      std::size_t bodySize);

}  // namespace shttp
