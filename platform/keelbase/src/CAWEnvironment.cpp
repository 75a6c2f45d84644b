// CAWEnvironment.cpp - the process's environment.
#include "keelbase/CAWEnvironment.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string_view>
#include <system_error>
#include <utility>

#include "keelbase/internal/Immortal.h"
#include "keelbase/internal/Mutex.h"

namespace keelbase {
namespace {

struct BinHome {
  internal::Mutex mutex;
  CAWString path AW_GUARDED_BY(mutex);
};

// A log may be opened during exit.
BinHome& GetBinHome() { return internal::Immortal<BinHome>(); }

// The kernel marks an executable whose file was deleted or replaced since.
CAWString GetExecutable() {
  constexpr std::string_view kDeleted = " (deleted)";
  std::error_code error;
  CAWString path = std::filesystem::read_symlink("/proc/self/exe", error).string();
  if (error) return {};
  if (std::string_view(path).ends_with(kDeleted) && !std::filesystem::exists(path, error)) {
    path.resize(path.size() - kDeleted.size());
  }
  return path;
}

}  // namespace

CAWString VOS_GetEnv(const CAWString& name) {
  const char* value = std::getenv(name.c_str());
  return value != nullptr ? value : CAWString();
}

AWResult VOS_SetEnv(const CAWString& name, const CAWString& value) {
  return ::setenv(name.c_str(), value.c_str(), 1) == 0 ? AW_OK : AW_ERROR_FAILURE;
}

CAWString VOS_GetRealPath(const CAWString& path) {
  const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr),
                                                         &std::free);
  return real ? CAWString(real.get()) : CAWString();
}

CAWString GetProcessName() {
  const CAWString executable = GetExecutable();
  if (executable.empty()) return program_invocation_short_name;
  return executable.substr(executable.rfind('/') + 1);
}

CAWString GetBinHomePath() {
  {
    BinHome& home = GetBinHome();
    internal::MutexLock lock(home.mutex);
    if (!home.path.empty()) return home.path;
  }
  const CAWString executable = GetExecutable();
  if (executable.empty()) return {};
  std::filesystem::path directory = std::filesystem::path(executable).parent_path();
  if (directory.filename() == "bin") directory = directory.parent_path();
  return directory.string();
}

void SetBinHomePath(const CAWString& path) {
  CAWString stripped = path;
  while (stripped.size() > 1 && stripped.back() == '/') stripped.pop_back();
  BinHome& home = GetBinHome();
  internal::MutexLock lock(home.mutex);
  home.path = std::move(stripped);
}

}  // namespace keelbase
