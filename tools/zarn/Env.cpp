// Env.cpp - zarn env: the install root, what is wrong with it, and which versions are in use.
#include <fmt/format.h>
#include <json/version.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/App.hpp>
#include <CLI/Version.hpp>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "CommandLine.h"
#include "Output.h"
#include "Root.h"
#include "keelbase/CAWEnvironment.h"
#include "zarn/utils/zarnversion.h"

namespace zarn::tool {

namespace {

struct Directory {
  const char* name;
  std::string belowRoot;
  enum Need { needed, madeOnDemand, optional } need;
};

const Directory kDirectories[] = {
    {"root", "", Directory::needed},
    {"system", "/system", Directory::needed},
    {"zarn", "/system/zarn", Directory::madeOnDemand},
    {"ipc", "/system/zarn/ipc", Directory::madeOnDemand},
    {"shmipc", "/system/zarn/shmipc", Directory::madeOnDemand},
    {"stat", "/system/zarn/stat", Directory::madeOnDemand},
    {"bin", "/bin", Directory::optional},
    {"libs", "/libs", Directory::optional},
    {"logs", "/logs", Directory::optional},
    {"config", "/config", Directory::optional},
};

struct Finding {
  std::string state;   // "ok", "missing" or "wrong"
  std::string detail;  // what is wrong and what to do, or what a missing one means
};

Finding ExamineMissing(const Directory& directory, const std::string& path, int error) {
  if (error != ENOENT) return {"wrong", std::strerror(error)};
  switch (directory.need) {
    case Directory::needed:
      return {"wrong", "missing: " + HowToMake(path)};
    case Directory::madeOnDemand:
      return {"missing", "made when it is needed"};
    case Directory::optional:
      break;
  }
  return {"missing", "not needed to exchange messages"};
}

// What others may change they can redirect, so nobody else may write to what endpoints live in.
Finding Examine(const Directory& directory, const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return ExamineMissing(directory, path, errno);
  if (!S_ISDIR(status.st_mode)) return {"wrong", "not a directory"};
  std::vector<std::string> problems;
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    problems.push_back(
        fmt::format("mode {:o}, others may write to it: make it private with 'chmod "
                    "go-w'",
                    status.st_mode & 07777));
  if (status.st_uid != ::geteuid() && status.st_uid != 0)
    problems.push_back(fmt::format("belongs to user {}", status.st_uid));
  const bool written = directory.need != Directory::needed || directory.belowRoot == "/system";
  if (written && ::access(path.c_str(), W_OK | X_OK) != 0)
    problems.push_back(std::string("not writable: ") + std::strerror(errno));
  if (problems.empty()) return {"ok", ""};
  return {"wrong", fmt::format("{}", fmt::join(problems, "; "))};
}

// True when nothing is wrong with it.
bool PrintDirectory(Output& output, const Directory& directory, const std::string& root) {
  const std::string path = root + directory.belowRoot;
  const Finding finding = Examine(directory, path);
  output.Text("{:<8} {:<8} {}{}", directory.name, finding.state, Escape(path),
              finding.detail.empty() ? "" : " (" + finding.detail + ")");
  Json::Value object;
  object["event"] = "directory";
  object["name"] = directory.name;
  object["path"] = Escape(path);
  object["state"] = finding.state;
  object["detail"] = finding.detail;
  output.Object(object);
  return finding.state != "wrong";
}

void PrintVersion(Output& output, const char* name, const std::string& version,
                  const std::string& build) {
  output.Text("{:<8} {:<8} {}", name, version, build);
  Json::Value object;
  object["event"] = "version";
  object["name"] = name;
  object["version"] = version;
  object["build"] = build;
  output.Object(object);
}

std::string ToolLibraries() {
  return fmt::format("CLI11 {}, fmt {}.{}.{}, jsoncpp {}", CLI11_VERSION, FMT_VERSION / 10000,
                     FMT_VERSION / 100 % 100, FMT_VERSION % 100, JSONCPP_VERSION_STRING);
}

int RunEnv(bool json) {
  Output output(json);
  int code = kDone;
  const std::string root = keelbase::VOS_GetEnv("ZARN_ROOT");
  if (!root.empty()) {
    for (const Directory& directory : kDirectories)
      if (!PrintDirectory(output, directory, root)) code = kFailed;
  }
  PrintVersion(output, "library", utils::ZARNLibVersion(), utils::ZARNLibBuild());
  PrintVersion(output, "zarn", ZARN_VERSION, ToolLibraries());
  const bool written = output.Flush();
  if (const std::string problem = CheckRoot(); !problem.empty()) {
    Complain("{}", problem);
    code = kFailed;
  }
  return written ? code : kFailed;
}

}  // namespace

void AddEnv(CLI::App& app, Action& action) {
  auto json = std::make_shared<bool>(false);
  CLI::App& command = *app.add_subcommand(
      "env", "show the install root, what is wrong with it, and the versions in use");
  AddJson(command, *json);
  SetExamples(command, "  zarn env");
  command.callback([json, &action] { action = [json] { return RunEnv(*json); }; });
}

}  // namespace zarn::tool
