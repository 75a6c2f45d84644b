// SuperJournal.cpp - see SuperJournal.h.
#include "SuperJournal.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>

namespace zarn::utils {

namespace {

// The end of a journal that names one: length of the name, checksum, magic number.
constexpr std::size_t kMagicAt = 8;
using Tail = std::array<unsigned char, 16>;
constexpr std::array<unsigned char, 8> kMagic{0xd9, 0xd5, 0x05, 0xf9, 0x20, 0xa1, 0x63, 0xd7};

bool NamesOne(const Tail& tail) {
  const bool hasName = std::any_of(tail.begin(), tail.begin() + 4, [](auto byte) { return byte; });
  return hasName && std::equal(kMagic.begin(), kMagic.end(), tail.begin() + kMagicAt);
}

}  // namespace

bool NamesSuperJournal(sqlite3* handle) {
  const char* file = sqlite3_db_filename(handle, "main");
  if (file == nullptr || *file == '\0') return false;  // in memory
  const int journal = ::open(sqlite3_filename_journal(file), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (journal < 0) return false;
  struct stat status {};
  Tail tail{};
  const bool read = ::fstat(journal, &status) == 0 && status.st_size >= off_t{tail.size()} &&
                    ::pread(journal, tail.data(), tail.size(),
                            status.st_size - off_t{tail.size()}) == ssize_t{tail.size()};
  ::close(journal);
  return read && NamesOne(tail);
}

}  // namespace zarn::utils
