// VirtualSlot.h - the place of a virtual operation in its class's table, counted from 0.
#pragma once

#include <cstddef>
#include <cstring>

namespace zarn::test {

// Itanium C++ ABI (all 64-bit Linux compilers on x86-64): a pointer to a virtual member holds one
// plus the byte offset of its entry, and behind it the adjustment of the object pointer. -1 for an
// operation that is not virtual, -2 for one that is reached through another base.
template <class Member>
long VirtualSlot(Member member) {
  static_assert(sizeof(Member) == 2 * sizeof(std::ptrdiff_t));
  std::ptrdiff_t words[2];
  std::memcpy(words, &member, sizeof words);
  if ((words[0] & 1) == 0) return -1;
  if (words[1] != 0) return -2;
  return static_cast<long>((words[0] - 1) / static_cast<std::ptrdiff_t>(sizeof(void*)));
}

}  // namespace zarn::test
