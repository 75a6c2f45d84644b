// JsonMembers.h - how the records deal with JSON objects.
#pragma once

#include <json/value.h>

#include <cstdint>

namespace zarn::utils {

// Json::Value throws when it is asked for a member and is of another kind.
inline bool CanHaveMembers(const Json::Value& value) { return value.isObject() || value.isNull(); }

// Written as a signed integer of 32 bits, whatever the field's own sign.
inline Json::Value SignedNumber(std::uint32_t number) { return {static_cast<Json::Int>(number)}; }

}  // namespace zarn::utils
