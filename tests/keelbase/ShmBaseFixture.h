// ShmBaseFixture.h - a segment in a directory of the test's own, and what stands in its file.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <fstream>

#include "TempRoot.h"
#include "TraceLines.h"
#include "keelbase/CAWShmBase.h"
#include "keelbase/internal/ShmHeader.h"

namespace keelbase {

using internal::ShmHeader;

class ShmBaseFixture : public testing::Test {
 protected:
  CAWString In(const char* name) const { return dir_.GetPath() + "/" + name; }

  // Writes `content` to the segment's file without going through the class.
  void Write(const CAWString& content) const { std::ofstream(path_, std::ios::binary) << content; }

  ShmHeader ReadHeader() const {
    ShmHeader header{};
    std::ifstream(path_, std::ios::binary).read(reinterpret_cast<char*>(&header), sizeof(header));
    return header;
  }
  void WriteHeader(const ShmHeader& header) const {
    std::fstream(path_, std::ios::binary | std::ios::in | std::ios::out)
        .write(reinterpret_cast<const char*>(&header), sizeof(header));
  }

  // Expects that Create fails, says why, and leaves the object empty.
  void ExpectRefused(std::size_t size, const char* why) const {
    CAWShmBase shm;
    EXPECT_EQ(shm.Create(path_, size, 0), AW_ERROR_FAILURE);
    EXPECT_EQ(shm.GetAddress(), nullptr);
    EXPECT_EQ(shm.GetSize(), 0U);
    ASSERT_FALSE(trace_.Get().empty());
    EXPECT_NE(trace_.Get().back().text.find(why), CAWString::npos) << trace_.Get().back().text;
    EXPECT_NE(trace_.Get().back().text.find(path_), CAWString::npos) << trace_.Get().back().text;
  }

  zarn::test::TraceLines trace_;
  zarn::test::TempDir dir_;
  const CAWString path_ = In("segment");
};

inline char* Bytes(const CAWShmBase& shm) { return static_cast<char*>(shm.GetAddress()); }
inline std::uint64_t& Counter(const CAWShmBase& shm) {
  return *static_cast<std::uint64_t*>(shm.GetAddress());
}
inline bool IsZero(const CAWShmBase& shm) {
  return std::all_of(Bytes(shm), Bytes(shm) + shm.GetSize(), [](char byte) { return byte == 0; });
}

}  // namespace keelbase
