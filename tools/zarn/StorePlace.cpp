// StorePlace.cpp - see StorePlace.h.
#include "StorePlace.h"

#include <system_error>

#include "Output.h"

namespace zarn::tool {

namespace {

bool IsOfStore(const std::filesystem::path& store, const std::filesystem::path& place) {
  std::error_code error;
  if (std::filesystem::equivalent(store, place, error)) return true;
  if (!std::filesystem::equivalent(store.parent_path() / ".", place.parent_path() / ".", error))
    return false;
  for (const char* suffix : {"-journal", "-wal", "-shm"})
    if (place.filename() == (store.filename() += suffix)) return true;
  return false;
}

}  // namespace

std::string FollowLinks(std::filesystem::path path) {
  constexpr int kMaxLinks = 40;  // as many as the kernel follows
  std::error_code error;
  for (int links = 0; links < kMaxLinks && std::filesystem::is_symlink(path, error); ++links)
    path = path.parent_path() / std::filesystem::read_symlink(path, error);
  return path.string();
}

bool MayReplace(const std::string& store, const std::string& place) {
  if (!IsOfStore(FollowLinks(store), FollowLinks(place))) return true;
  Complain("'{}': is the store itself, or belongs to it", Escape(place));
  return false;
}

bool IsOutside(const std::string& directory, const std::string& place) {
  std::error_code error;
  const std::filesystem::path parent = std::filesystem::path(FollowLinks(place)).parent_path();
  if (!std::filesystem::equivalent(directory, parent / ".", error)) return true;
  Complain("'{}': belongs to the store", Escape(place));
  return false;
}

}  // namespace zarn::tool
