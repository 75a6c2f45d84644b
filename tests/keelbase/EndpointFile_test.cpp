// EndpointFile_test.cpp - the file of a listening socket by itself.
#include "keelbase/internal/EndpointFile.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>

#include "ForkedChild.h"
#include "TempRoot.h"

namespace keelbase::internal {
namespace {

using zarn::test::TempDir;

TEST(EndpointFile, LivesAsLongAsItsOwner) {
  const TempDir dir;
  const std::string path = dir.GetPath() + "/1_2";
  {
    EndpointFile file;
    FileDescriptor listening;
    EXPECT_EQ(file.Listen(EndpointPath(path), listening), 0);
    EXPECT_TRUE(static_cast<bool>(listening));
    EXPECT_TRUE(std::filesystem::is_socket(path));
  }
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(EndpointFile, RemovesWhatItMadeOnly) {
  const TempDir dir;
  const std::string path = dir.GetPath() + "/1_2";
  auto first = std::make_unique<EndpointFile>();
  FileDescriptor listening;
  ASSERT_EQ(first->Listen(EndpointPath(path), listening), 0);
  std::filesystem::remove(path);
  EndpointFile second;
  FileDescriptor other;
  ASSERT_EQ(second.Listen(EndpointPath(path), other), 0);
  first.reset();
  EXPECT_TRUE(std::filesystem::is_socket(path));
  second.Remove();
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(EndpointFile, StaysWhereAPathWithANulByteMeansItsDirectory) {
  const TempDir dir;
  const std::string path = dir.GetPath() + "/1_2";
  EndpointFile first;
  FileDescriptor listening;
  ASSERT_EQ(first.Listen(EndpointPath(path), listening), 0);
  EndpointFile second;
  FileDescriptor other;
  const std::string cut = dir.GetPath() + std::string("\0x/1_2", 6);
  EXPECT_EQ(second.Listen(EndpointPath(cut), other), EINVAL);
  EXPECT_TRUE(std::filesystem::is_socket(path));
}

TEST(EndpointFile, OfARelativePathIsRemovedFromAnotherWorkingDirectoryToo) {
  const TempDir dir;
  EXPECT_TRUE(zarn::test::ForkedChild([&] {
                EndpointFile file;
                FileDescriptor listening;
                std::filesystem::current_path(dir.GetPath());
                if (file.Listen(EndpointPath("1_2"), listening) != 0) return false;
                std::filesystem::current_path("/");
                file.Remove();
                return true;
              }).Succeeded());
  EXPECT_FALSE(std::filesystem::exists(dir.GetPath() + "/1_2"));
}

TEST(EndpointFile, IsRemovedFromADirectoryThatWasRenamed) {
  const TempDir dir;
  const std::string before = dir.GetPath() + "/before";
  const std::string after = dir.GetPath() + "/after";
  std::filesystem::create_directory(before);
  std::filesystem::permissions(before, std::filesystem::perms::owner_all);
  EndpointFile file;
  FileDescriptor listening;
  ASSERT_EQ(file.Listen(EndpointPath(before + "/1_2"), listening), 0);
  std::filesystem::rename(before, after);
  file.Remove();
  EXPECT_FALSE(std::filesystem::exists(after + "/1_2"));
}

TEST(EndpointFile, IsNotRemovedByAForkedChild) {
  const TempDir dir;
  const std::string path = dir.GetPath() + "/1_2";
  EndpointFile file;
  FileDescriptor listening;
  ASSERT_EQ(file.Listen(EndpointPath(path), listening), 0);
  EXPECT_TRUE(zarn::test::ForkedChild([&] {
                file.Remove();
                return true;
              }).Succeeded());
  EXPECT_TRUE(std::filesystem::is_socket(path));
  file.Remove();
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(EndpointFile, FailureChangesNothing) {
  const TempDir dir;
  EndpointFile file;
  FileDescriptor listening;
  EXPECT_EQ(file.Listen(EndpointPath(dir.GetPath() + "/no/1_2"), listening), ENOENT);
  EXPECT_FALSE(static_cast<bool>(listening));
  EXPECT_EQ(file.Listen(EndpointPath(""), listening), EINVAL);
}

}  // namespace
}  // namespace keelbase::internal
