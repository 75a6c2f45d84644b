// StoreBytes.cpp - see StoreBytes.h.
#include "StoreBytes.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "CommandLine.h"

namespace zarn::tool {

namespace {

using StoreStream = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

// "-" is one of the standard streams, which stay open.
StoreStream OpenStream(const std::string& path, const char* mode, std::FILE* standard) {
  if (path == "-") return {standard, [](std::FILE*) { return 0; }};
  return {std::fopen(path.c_str(), mode), &std::fclose};
}

bool WriteBytes(const std::string& path, const std::string& bytes) {
  const StoreStream file = OpenStream(path, "wbe", stdout);
  if (file && std::fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size() &&
      std::fflush(file.get()) == 0)
    return true;
  Complain("'{}': {}", Escape(path), std::strerror(errno));
  return false;
}

int HexDigit(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

CLI::Validator IsHex() {
  return {[](const std::string& text) {
            return FromHex(text) ? std::string() : "'" + text + "' is not pairs of hex digits";
          },
          ""};
}

Json::Value DescribeEntry(bool hex, std::string_view key, std::string_view value) {
  Json::Value object;
  object["event"] = "entry";
  object["key"] = hex ? ToHex(key) : Escape(key);
  object["value"] = hex ? ToHex(value) : Escape(value);
  object["size"] = Json::UInt64(value.size());
  return object;
}

}  // namespace

void AddKey(CLI::App& command, KeyOptions& key) {
  command.add_option("KEY", key.text, "the key")->required();
  command.add_flag("--hex-key", key.hex, "KEY is hex digits, two for each byte");
}

void AddValue(CLI::App& command, ValueOptions& value) {
  command.add_option("VALUE", value.text, "the value, a text, unless --hex or --file gives it")
      ->group(kExactlyOneOrValue);
  command.add_option("--hex", value.hex, "the value as hex digits, two for each byte")
      ->type_name("HEX")
      ->check(IsHex())
      ->group(kExactlyOneOrValue);
  command
      .add_option("--file", value.file, "the value is what the file holds; '-' is standard input")
      ->check(IsNotEmpty())
      ->type_name("FILE")
      ->group(kExactlyOneOrValue);
  command.parse_complete_callback([&command] { RequireOne(command); });
}

void AddShow(CLI::App& command, ShowOptions& show) {
  AddHex(command, show.hex);
  command.add_option("--file", show.file, "write the value there as it is; '-' is standard output")
      ->check(IsNotEmpty())
      ->type_name("FILE");
}

void AddHex(CLI::App& command, bool& hex) {
  command.add_flag("--hex", hex, "show keys and values as hex digits");
}

std::optional<std::string> ReadBytes(const std::string& path, std::size_t most) {
  const StoreStream file = OpenStream(path, "rbe", stdin);
  std::string bytes;
  char buffer[65536];
  while (file && bytes.size() < most) {
    const std::size_t wanted = std::min(sizeof buffer, most - bytes.size());
    const std::size_t count = std::fread(buffer, 1, wanted, file.get());
    if (count == 0) break;
    bytes.append(buffer, count);
  }
  if (file && std::ferror(file.get()) == 0) return bytes;
  Complain("'{}': {}", Escape(path), std::strerror(errno));
  return std::nullopt;
}

std::optional<std::string> GetKey(const KeyOptions& options) {
  if (!options.hex) return options.text;
  std::optional<std::string> key = FromHex(options.text);
  if (!key) Complain("the key '{}' is not pairs of hex digits", Escape(options.text));
  return key;
}

std::optional<std::string> GetValue(const ValueOptions& options) {
  if (!options.file.empty()) return ReadBytes(options.file);
  if (!options.hex.empty()) return FromHex(options.hex);
  return options.text;
}

bool ShowValue(Output& output, const ShowOptions& options, const std::string& key,
               const std::string& value) {
  if (!options.file.empty()) return WriteBytes(options.file, value);
  output.Text("{}", options.hex ? ToHex(value) : Escape(value));
  if (output.IsJson()) output.Object(DescribeEntry(options.hex, key, value));
  return true;
}

void ShowEntry(Output& output, bool hex, std::string_view key, std::string_view value) {
  if (output.IsJson()) return output.Object(DescribeEntry(hex, key, value));
  output.Text("{}\t{}", hex ? ToHex(key) : Escape(key), hex ? ToHex(value) : Escape(value));
}

std::string ToHex(std::string_view bytes) {
  std::string text;
  text.reserve(2 * bytes.size());
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    text.push_back("0123456789abcdef"[value >> 4]);
    text.push_back("0123456789abcdef"[value & 0xf]);
  }
  return text;
}

std::optional<std::string> FromHex(std::string_view text) {
  if (text.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  bytes.reserve(text.size() / 2);
  for (std::size_t at = 0; at < text.size(); at += 2) {
    const int high = HexDigit(text[at]);
    const int low = HexDigit(text[at + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes.push_back(static_cast<char>(high * 16 + low));
  }
  return bytes;
}

bool IsUtf8(std::string_view bytes) {
  for (std::size_t at = 0; at < bytes.size();) {
    const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
    const unsigned lead = byteAt(at++);
    if (lead < 0x80) continue;
    const std::size_t more = lead >= 0xf0 ? 3 : lead >= 0xe0 ? 2 : 1;
    if (lead < 0xc2 || lead > 0xf4 || bytes.size() - at < more) return false;
    unsigned code = lead & (0x3fU >> more);
    for (std::size_t i = 0; i < more; ++i, ++at) {
      if ((byteAt(at) & 0xc0U) != 0x80) return false;
      code = code << 6 | (byteAt(at) & 0x3fU);
    }
    constexpr unsigned kMinCodes[] = {0, 0x80, 0x800, 0x10000};
    if (code < kMinCodes[more] || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff))
      return false;
  }
  return true;
}

}  // namespace zarn::tool
