// StoreBytes.h - keys, values and messages on the command line: as text, as hex, or in a file.
#pragma once

#include <CLI/App.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "Output.h"

namespace zarn::tool {

// Which key an operator means.
struct KeyOptions {
  std::string text;
  bool hex = false;  // the text is hex digits
};

// A value that is given: exactly one of these.
struct ValueOptions {
  std::string text;
  std::string hex;
  std::string file;  // "-" is standard input
};

// How a value is to be shown.
struct ShowOptions {
  bool hex = false;
  std::string file;  // where its bytes go as they are; "-" is standard output

  bool NamesFile() const { return !file.empty() && file != "-"; }
};

void AddKey(CLI::App& command, KeyOptions& key);
void AddValue(CLI::App& command, ValueOptions& value);
void AddShow(CLI::App& command, ShowOptions& show);
void AddHex(CLI::App& command, bool& hex);  // of a list

// Nothing, after a complaint, when it is no hex or the file cannot be read.
std::optional<std::string> GetKey(const KeyOptions& options);
std::optional<std::string> GetValue(const ValueOptions& options);

// What the file holds, `most` bytes of it at most; "-" is standard input. Nothing, after a
// complaint, when it cannot be read.
std::optional<std::string> ReadBytes(const std::string& path, std::size_t most = std::string::npos);

// False after a complaint.
bool ShowValue(Output& output, const ShowOptions& options, const std::string& key,
               const std::string& value);
// One line of a list: key, tab, value.
void ShowEntry(Output& output, bool hex, std::string_view key, std::string_view value);

std::string ToHex(std::string_view bytes);
std::optional<std::string> FromHex(std::string_view text);
bool IsUtf8(std::string_view bytes);

}  // namespace zarn::tool
