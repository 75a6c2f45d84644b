// StorePlace.h - what must not be written over when something is written for a store.
#pragma once

#include <filesystem>
#include <string>

namespace zarn::tool {

// Where the links at `path` lead; nothing need be there.
std::string FollowLinks(std::filesystem::path path);

// False, after a complaint, when `place` is the SQLite store, or bears the name of a file that
// SQLite keeps beside it.
bool MayReplace(const std::string& store, const std::string& place);

// False, after a complaint, when `place` is in the directory of the LevelDB store.
bool IsOutside(const std::string& directory, const std::string& place);

}  // namespace zarn::tool
