// TempRoot.h - a fresh directory for one test, and environment variables that are put back
// afterwards.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

namespace zarn::test {

// Sets (or, with no value, unsets) a variable for as long as it lives.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::optional<std::string>& value) : name_(name) {
    if (const char* before = ::getenv(name)) before_ = before;
    Put(value);
  }
  ~ScopedEnv() { Put(before_); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

  void Put(const std::optional<std::string>& value) {
    if (value)
      ::setenv(name_.c_str(), value->c_str(), 1);
    else
      ::unsetenv(name_.c_str());
  }

 private:
  std::string name_;
  std::optional<std::string> before_;
};

// A directory of its own, canonical, removed with all that is in it.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zarntestXXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary directory");
    path_ = std::filesystem::canonical(pattern).string();
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& GetPath() const { return path_; }

 private:
  std::string path_;
};

// An install root with its system directory, which ZARN_ROOT names.
class TempRoot {
 public:
  TempRoot() : env_("ZARN_ROOT", dir_.GetPath()) {
    std::filesystem::create_directory(dir_.GetPath() + "/system");
  }

  const std::string& GetPath() const { return dir_.GetPath(); }
  std::string GetIpcPath(const std::string& name) const {
    return GetPath() + "/system/zarn/ipc/" + name;
  }

 private:
  TempDir dir_;
  ScopedEnv env_;
};

}  // namespace zarn::test
