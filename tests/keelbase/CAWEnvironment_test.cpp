// CAWEnvironment_test.cpp - variables, real paths and the program's place. The last is tested with
// copies of this very program in other directories: a copy runs the same test, in its other role.
#include "keelbase/CAWEnvironment.h"

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "TempRoot.h"

namespace keelbase {
namespace {

namespace fs = std::filesystem;
using zarn::test::ScopedEnv;
using zarn::test::TempDir;

TEST(CAWEnvironment, UnsetVariableIsEmpty) {
  const ScopedEnv unset("KEELBASE_TEST_VARIABLE", std::nullopt);
  EXPECT_EQ(VOS_GetEnv("KEELBASE_TEST_VARIABLE"), "");
  EXPECT_EQ(VOS_GetEnv(""), "");
}

TEST(CAWEnvironment, VariableIsSetAndReplaced) {
  const ScopedEnv restore("KEELBASE_TEST_VARIABLE", std::nullopt);
  EXPECT_EQ(VOS_SetEnv("KEELBASE_TEST_VARIABLE", "one"), AW_OK);
  EXPECT_EQ(VOS_GetEnv("KEELBASE_TEST_VARIABLE"), "one");
  EXPECT_EQ(VOS_SetEnv("KEELBASE_TEST_VARIABLE", "two=2"), AW_OK);
  EXPECT_EQ(VOS_GetEnv("KEELBASE_TEST_VARIABLE"), "two=2");
}

TEST(CAWEnvironment, NameThatNoVariableCanHaveIsAnError) {
  EXPECT_EQ(VOS_SetEnv("", "x"), AW_ERROR_FAILURE);
  EXPECT_EQ(VOS_SetEnv("A=B", "x"), AW_ERROR_FAILURE);
}

TEST(CAWEnvironment, RealPathIsWithoutLinksAndDots) {
  const TempDir dir;
  fs::create_directories(dir.GetPath() + "/a/b");
  fs::create_directory_symlink(dir.GetPath() + "/a", dir.GetPath() + "/link");
  EXPECT_EQ(VOS_GetRealPath(dir.GetPath() + "//link/./b/../b/"), dir.GetPath() + "/a/b");
  EXPECT_EQ(VOS_GetRealPath("/"), "/");
}

TEST(CAWEnvironment, RealPathOfWhatDoesNotExistIsEmpty) {
  const TempDir dir;
  fs::create_symlink(dir.GetPath() + "/nowhere", dir.GetPath() + "/dangling");
  EXPECT_EQ(VOS_GetRealPath(dir.GetPath() + "/missing"), "");
  EXPECT_EQ(VOS_GetRealPath(dir.GetPath() + "/missing/.."), "");
  EXPECT_EQ(VOS_GetRealPath(dir.GetPath() + "/dangling"), "");
  EXPECT_EQ(VOS_GetRealPath(""), "");
}

constexpr char kExpectedHome[] = "KEELBASE_TEST_EXPECTED_HOME";

void ExpectOwnPlace(const CAWString& home) {
  EXPECT_EQ(GetProcessName(), "program");
  EXPECT_EQ(GetBinHomePath(), home);
}

// The role of the copy; it also deletes its own file, as an update of an installed program does.
void RunAsCopy() {
  const CAWString home = VOS_GetEnv(kExpectedHome);
  ExpectOwnPlace(home);
  fs::remove(fs::read_symlink("/proc/self/exe"));
  ExpectOwnPlace(home);
}

// Runs a copy of this program in `directory`; true when the copy found itself where it should.
bool CopyFindsItself(const fs::path& directory, const CAWString& home) {
  fs::create_directories(directory);
  const CAWString program = (directory / "program").string();
  fs::copy_file(fs::read_symlink("/proc/self/exe"), program);
  const ScopedEnv expected(kExpectedHome, home);
  const ScopedEnv oneShard("GTEST_TOTAL_SHARDS", "1");
  const ScopedEnv firstShard("GTEST_SHARD_INDEX", "0");
  CAWString name = "a name that is not the file's";
  CAWString filter = "--gtest_filter=CAWEnvironment.ProgramKnowsItsNameAndHome";
  char* arguments[] = {name.data(), filter.data(), nullptr};
  pid_t child = -1;
  if (::posix_spawn(&child, program.c_str(), nullptr, nullptr, arguments, environ) != 0)
    return false;
  int status = -1;
  ::waitpid(child, &status, 0);
  const bool didRun = !fs::exists(program);
  return didRun && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(CAWEnvironment, ProgramKnowsItsNameAndHome) {
  if (!VOS_GetEnv(kExpectedHome).empty()) {
    RunAsCopy();
    return;
  }
  const TempDir dir;
  EXPECT_TRUE(CopyFindsItself(dir.GetPath() + "/x/bin", dir.GetPath() + "/x"));
  EXPECT_TRUE(CopyFindsItself(dir.GetPath() + "/x/sbin", dir.GetPath() + "/x/sbin"));
  EXPECT_TRUE(CopyFindsItself(dir.GetPath() + "/bin/y", dir.GetPath() + "/bin/y"));
}

TEST(CAWEnvironment, HomeCanBeSetAndRestored) {
  const CAWString real = GetBinHomePath();
  ASSERT_FALSE(real.empty());
  SetBinHomePath("/opt/x/");
  EXPECT_EQ(GetBinHomePath(), "/opt/x");
  SetBinHomePath("///");
  EXPECT_EQ(GetBinHomePath(), "/");
  SetBinHomePath("");
  EXPECT_EQ(GetBinHomePath(), real);
}

}  // namespace
}  // namespace keelbase
