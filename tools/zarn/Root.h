// Root.h - the install root that local endpoints live in.
#pragma once

#include <string>

namespace zarn::tool {

// In one line what is wrong with ZARN_ROOT and what to do about it; empty when nothing is.
std::string CheckRoot();

// Where the endpoint files are; need not exist. Empty without a good root.
std::string GetIpcDirectory();

}  // namespace zarn::tool
