// CAWString.h - the string type of the platform.
#pragma once

#include <functional>
#include <string>

namespace keelbase {

using CAWString = std::string;
using CAWStringHash = std::hash<std::string>;

}  // namespace keelbase
