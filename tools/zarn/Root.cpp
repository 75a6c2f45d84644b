// Root.cpp - see Root.h.
#include "Root.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "Escape.h"
#include "keelbase/CAWEnvironment.h"
#include "zarn/utils/zarnutils.h"

namespace zarn::tool {

std::string CheckRoot() {
  const std::string root = keelbase::VOS_GetEnv("ZARN_ROOT");
  if (root.empty())
    return "ZARN_ROOT is not set: name the install root with 'export ZARN_ROOT=DIR', and make it "
           "with '(umask 077; mkdir -p DIR/system)'";
  const std::string system = root + "/system";
  struct stat status {};
  const std::string shownRoot = Escape(root);
  const std::string shown = Escape(system);
  const bool found = ::stat(system.c_str(), &status) == 0;
  if (!found && errno == ENOENT)
    return fmt::format("ZARN_ROOT is '{}', but '{}' does not exist: {}, or correct ZARN_ROOT",
                       shownRoot, shown, HowToMake(system));
  if (found && !S_ISDIR(status.st_mode))
    return fmt::format("ZARN_ROOT is '{}', but '{}' is not a directory: correct ZARN_ROOT",
                       shownRoot, shown);
  // What is found from here may have too long a name all the same.
  if (!found || utils::GetZARNRootSystem().empty())
    return fmt::format("ZARN_ROOT is '{}', but '{}' cannot be used: {}; correct ZARN_ROOT",
                       shownRoot, shown, std::strerror(errno));
  return {};
}

std::string HowToMake(const std::string& directory) {
  constexpr std::string_view kPlain =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._+:,@-";
  if (directory.find_first_not_of(kPlain) != std::string::npos || directory.front() == '-')
    return "make it, so that nobody else may write to it";
  return fmt::format("make it with '(umask 077; mkdir -p {})'", directory);
}

std::string GetEndpointDirectory(std::string_view scheme) {
  std::string system = utils::GetZARNRootSystem();
  if (system.empty()) return system;
  if (scheme == "stat") return system + "/zarn/stat";
  return system + (scheme == "shm" ? "/zarn/shmipc" : "/zarn/ipc");
}

}  // namespace zarn::tool
