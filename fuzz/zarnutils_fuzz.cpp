// zarnutils_fuzz.cpp - texts with environment references, and endpoint paths, from anywhere.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "keelbase/CAWEnvironment.h"
#include "zarn/utils/zarnutils.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

// What a reader of the header would write.
std::string Expand(const std::string& text) {
  const std::size_t open = text.find('{');
  const std::size_t close = text.rfind('}');
  if (open == std::string::npos || close == std::string::npos) return text;
  if (close < open) return "";
  const std::string name = text.substr(open + 1, close - open - 1);
  return (name == "FUZZ_NAME" ? "value" : keelbase::VOS_GetEnv(name)) + text.substr(close + 1);
}

std::string& Root() {
  static std::string root;
  return root;
}

void RemoveRoot() { std::filesystem::remove_all(Root()); }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  std::string name = std::filesystem::temp_directory_path() / "zarn-fuzz-XXXXXX";
  Check(::mkdtemp(name.data()) != nullptr);
  Root() = name;
  std::filesystem::create_directory(name + "/system");
  keelbase::VOS_SetEnv("ZARN_ROOT", name);
  keelbase::VOS_SetEnv("FUZZ_NAME", "value");
  std::atexit(RemoveRoot);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Check(zarn::utils::GetEnvToString(text) == Expand(text));

  std::uint16_t a = 1;
  std::uint16_t b = 2;
  zarn::utils::ZARNFromIPCAddr(a, b, keelbase::CAWIPCAddr(text));
  const keelbase::CAWIPCAddr below(Root() + "/system/zarn/ipc/" + text);
  zarn::utils::ZARNFromIPCAddr(a, b, below);
  zarn::utils::GetHashKey(below);

  if (size < 4) return 0;
  const auto first = static_cast<std::uint16_t>(data[0] << 8 | data[1]);
  const auto second = static_cast<std::uint16_t>(data[2] << 8 | data[3]);
  keelbase::CAWIPCAddr endpoint;
  Check(zarn::utils::ZARNCreateIPCAddr(first, second, endpoint) == 0);
  Check(zarn::utils::ZARNFromIPCAddr(a, b, endpoint) == 0 && a == first && b == second);
  Check(zarn::utils::GetHashKey(endpoint) == zarn::utils::MakeJno(second, first));
  return 0;
}
