// CountedHash.h - counts how often a table asks for a hash.
#pragma once

#include <cstddef>

namespace zarn::test {

// As Hash, also in whether it may throw, by which the tables choose whether to keep hashes.
template <class Hash>
struct CountedHash {
  template <class Key>
  std::size_t operator()(const Key& key) const noexcept(noexcept(Hash()(key))) {
    ++calls;
    return Hash()(key);
  }

  inline static int calls = 0;
};

}  // namespace zarn::test
