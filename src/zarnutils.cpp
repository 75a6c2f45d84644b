// zarnutils.cpp - see zarnutils.h.
#include "zarn/utils/zarnutils.h"

#include <sys/socket.h>

#include <cstddef>
#include <cstdio>
#include <limits>
#include <memory>
#include <new>

#include "SystemDirectory.h"
#include "keelbase/CAWEnvironment.h"
#include "keelbase/CAWFile.h"
#include "keelbase/CAWSocketUdp.h"
#include "keelbase/CAWTrace.h"
#include "zarn/utils/CZARNShareMemory.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWString;
using keelbase::VOS_GetEnv;
using keelbase::VOS_GetRealPath;

namespace {

constexpr const char* kRootVariable = "ZARN_ROOT";
constexpr const char* kLoaderPathVariable = "LD_LIBRARY_PATH";
constexpr const char* kEndpointDirectory = "/zarn/ipc/";  // below the system directory

// No code reads these; debuggers show them.
[[maybe_unused]] bool iszarninit = false;
[[maybe_unused]] CAWString gzarnpath;

std::uint64_t seed[2] = {0, 0};

// Below the install root as the variable spells it; empty when it is unset.
CAWString BelowRoot(const char* directory) {
  CAWString path = VOS_GetEnv(kRootVariable);
  if (!path.empty()) path += directory;
  return path;
}

CAWString RealPathBelowRoot(const char* directory) {
  const CAWString path = BelowRoot(directory);
  return path.empty() ? path : VOS_GetRealPath(path);
}

// An endpoint's file need not exist; its directory must.
CAWString GetRealEndpointPath(const CAWString& path) {
  CAWString real = VOS_GetRealPath(path);
  if (!real.empty()) return real;
  const std::size_t slash = path.rfind('/');
  if (slash == CAWString::npos) return {};
  const CAWString directory = VOS_GetRealPath(path.substr(0, slash + 1));
  return directory.empty() ? directory : directory + path.substr(slash);
}

// One step of xorshift128+.
std::uint64_t NextRandom() {
  std::uint64_t x = seed[0];
  const std::uint64_t y = seed[1];
  seed[0] = y;
  x ^= x << 23;
  seed[1] = x ^ y ^ (x >> 18) ^ (y >> 5);
  return seed[1] + y;
}

}  // namespace

// --- start and install root ---

AWResult ZARNLibInit() try {
  iszarninit = true;
  const CAWString system = DemandSystemDirectory();
  if (system.empty()) return AW_ERROR_FAILURE;
  const CAWString path = VOS_GetRealPath(system);
  fshmipc::CAWShmIPCManager::Instance()->SetSystemPath(path);
  gzarnpath = path;
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult ZARNLibUnInit() {
  iszarninit = false;
  return AW_OK;
}

CAWString DemandSystemDirectory() {
  CAWString system = GetZARNRootSystem();
  if (system.empty()) {
    const bool isSet = !VOS_GetEnv(kRootVariable).empty();
    keelbase::IAWTraceManager::Instance()->Trace(
        0, isSet ? "ZARN_ROOT names no directory that has a directory system"
                 : "ZARN_ROOT is not set: it names the install root");
  }
  return system;
}

CAWString GetZARNRoot() { return VOS_GetRealPath(VOS_GetEnv(kRootVariable)); }
CAWString GetZARNRootBin() { return RealPathBelowRoot("/bin"); }
CAWString GetZARNRootSystem() { return RealPathBelowRoot("/system"); }
CAWString GetZARNRootlibs() { return BelowRoot("/libs"); }
CAWString GetZARNRootLogs() { return BelowRoot("/logs"); }
CAWString GetZARNRootConfig() { return BelowRoot("/config"); }

// --- environment and text ---

CAWString GetEnvToString(const CAWString& text) {
  const std::size_t open = text.find('{');
  const std::size_t close = text.rfind('}');
  if (open == CAWString::npos || close == CAWString::npos) return text;
  if (open >= close) return {};
  return VOS_GetEnv(text.substr(open + 1, close - open - 1)) + text.substr(close + 1);
}

int c_vscprintf(const char* format, std::va_list args) {
  std::va_list copy;
  va_copy(copy, args);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  return length;
}

CAWString VAToString(const char* format, std::va_list args) try {
  const int length = c_vscprintf(format, args);
  if (length <= 0) return {};
  CAWString text(static_cast<std::size_t>(length), '\0');
  std::va_list copy;
  va_copy(copy, args);
  std::vsnprintf(text.data(), text.size() + 1, format, copy);
  va_end(copy);
  return text;
} catch (const std::bad_alloc&) {
  return {};
}

AWResult SetLDLibraryPath(const CAWString& dir) try {
  const CAWString before = VOS_GetEnv(kLoaderPathVariable);
  return keelbase::VOS_SetEnv(kLoaderPathVariable, before.empty() ? dir : before + ":" + dir);
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

keelbase::CAWInetAddr GetLocalIPAddr(const keelbase::CAWInetAddr& peer) {
  keelbase::CAWInetAddr local;
  keelbase::CAWSocketUdp socket;
  socket.Open(keelbase::CAWInetAddr("0.0.0.0", 0));
  // Connecting a datagram socket sends nothing: it only chooses a route. Without one 0.0.0.0 stays.
  (void)::connect(socket.GetHandle(), peer.GetPtr(), peer.GetSize());
  socket.GetLocalAddr(local);
  return local;
}

// --- local IPC ---

AWResult CreateIPCClient(keelbase::CAWAutoPtr<fipc::IAWIPCConnector>& out) {
  fipc::CAWIPCManager* manager = fipc::CAWIPCManager::Instance();
  out = nullptr;
  return manager->CreateConnector(fipc::AW_KIND_UNIX, out);
}

AWResult CreateIPCServer(keelbase::CAWAutoPtr<fipc::IAWIPCAcceptor>& out) {
  fipc::CAWIPCManager* manager = fipc::CAWIPCManager::Instance();
  out = nullptr;
  return manager->CreateAcceptor(fipc::AW_KIND_UNIX, out);
}

// --- IPC over shared memory ---

AWResult CreateShmIPCClient(keelbase::CAWAutoPtr<fshmipc::IAWShmIPCConnector>& out) {
  return fshmipc::CAWShmIPCManager::Instance()->CreateConnector(out);
}

AWResult CreateShmIPCServer(keelbase::CAWAutoPtr<fshmipc::IAWShmIPCAcceptor>& out) {
  return fshmipc::CAWShmIPCManager::Instance()->CreateAcceptor(out);
}

// --- endpoints ---

AWResult ZARNCreateIPCAddr(std::uint16_t a, std::uint16_t b, keelbase::CAWIPCAddr& out) try {
  const CAWString system = DemandSystemDirectory();
  if (system.empty()) return AW_ERROR_FAILURE;
  const CAWString directory = system + kEndpointDirectory;
  keelbase::CAWFile::mkdir(directory);  // if that fails, so will what uses the address, and say why
  out = keelbase::CAWIPCAddr(directory + std::to_string(b) + "_" + std::to_string(a));
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult ZARNFromIPCAddr(std::uint16_t& a, std::uint16_t& b, const keelbase::CAWIPCAddr& addr) try {
  const CAWString system = DemandSystemDirectory();
  if (system.empty()) return AW_ERROR_FAILURE;
  const CAWString path = GetRealEndpointPath(addr.GetPath());
  const CAWString directory = VOS_GetRealPath(system + kEndpointDirectory);
  if (path.size() <= directory.size()) return AW_ERROR_FAILURE;
  int first = 0;
  int second = 0;
  std::sscanf(path.c_str() + directory.size() + 1, "%d_%d", &first, &second);
  a = static_cast<std::uint16_t>(second);
  b = static_cast<std::uint16_t>(first);
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

// --- memory that processes share by name ---

AWResult CreateMemory(keelbase::CAWAutoPtr<CZARNShareMemory>& out, const CAWString& name,
                      std::size_t size) try {
  constexpr std::size_t kMaxSize = std::numeric_limits<unsigned int>::max();
  if (size == 0 || size > kMaxSize || name.empty()) return AW_ERROR_FAILURE;
  auto memory = std::make_unique<CZARNShareMemory>(name, static_cast<unsigned int>(size));
  if (memory->createshm() != 0) return AW_ERROR_FAILURE;
  out = memory.release();
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

// --- numbers ---

std::uint32_t MakeJno(std::uint16_t low, std::uint16_t high) {
  return low | std::uint32_t{high} << 16;
}

void FromJno(std::uint32_t jno, std::uint16_t& low, std::uint16_t& high) {
  low = static_cast<std::uint16_t>(jno & 0xffff);
  high = static_cast<std::uint16_t>(jno >> 16);
}

int uuid4_init() {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen("/dev/urandom", "rb"),
                                                             &std::fclose);
  if (file == nullptr) return -1;
  return std::fread(seed, 1, sizeof seed, file.get()) == sizeof seed ? 0 : -1;
}

void uuid4_generate(char* dst) {
  constexpr int kLength = 12;
  const std::uint64_t lowDigits = NextRandom();  // sixteen nibbles, of which twelve are used
  NextRandom();                                  // keeps the step of two for each text
  for (int i = 0; i < kLength; ++i) {
    const auto nibble = static_cast<char>((lowDigits >> (4 * i)) & 0xf);
    dst[i] = nibble < 10 ? static_cast<char>('0' + nibble) : '\0';
  }
  dst[kLength] = '\0';
}

}  // namespace zarn::utils
