// Root.h - the install root that local endpoints live in.
#pragma once

#include <string>
#include <string_view>

namespace zarn::tool {

// In one line what is wrong with ZARN_ROOT and what to do about it; empty when nothing is.
std::string CheckRoot();

// What to tell a person who lacks the directory. The command that makes it is named where it can be
// pasted into a shell as it stands.
std::string HowToMake(const std::string& directory);

// Where the endpoint files of a scheme ("ipc", "shm") are, and with "stat" the files at which
// processes show their metrics; need not exist. Empty without a good root.
std::string GetEndpointDirectory(std::string_view scheme);

}  // namespace zarn::tool
