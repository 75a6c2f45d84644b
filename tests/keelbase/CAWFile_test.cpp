// CAWFile_test.cpp - directories and files, in a directory of the test's own.
#include "keelbase/CAWFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "TempRoot.h"

namespace keelbase {
namespace {

namespace fs = std::filesystem;

class CAWFileTest : public testing::Test {
 protected:
  CAWString In(const char* name) const { return dir_.GetPath() + "/" + name; }
  CAWString Touch(const char* name) const {
    std::ofstream(In(name)) << "content";
    return In(name);
  }

 private:
  zarn::test::TempDir dir_;
};

TEST_F(CAWFileTest, MakesEveryDirectoryUpToTheLastSlash) {
  EXPECT_EQ(CAWFile::mkdir(In("a/b/c/")), AW_OK);
  EXPECT_TRUE(fs::is_directory(In("a/b/c")));
}

TEST_F(CAWFileTest, DoesNotMakeWhatFollowsTheLastSlash) {
  EXPECT_EQ(CAWFile::mkdir(In("a/file")), AW_OK);
  EXPECT_TRUE(fs::is_directory(In("a")));
  EXPECT_FALSE(fs::exists(In("a/file")));
}

TEST_F(CAWFileTest, DirectoriesAreForTheirOwnerAlone) {
  ASSERT_EQ(CAWFile::mkdir(In("a/b/")), AW_OK);
  for (const char* name : {"a", "a/b"}) {
    struct stat status {};
    ASSERT_EQ(::stat(In(name).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0700U) << name;
  }
}

TEST_F(CAWFileTest, ExistingDirectoriesAreFine) {
  EXPECT_EQ(CAWFile::mkdir(In("a/")), AW_OK);
  EXPECT_EQ(CAWFile::mkdir(In("a/")), AW_OK);
  EXPECT_EQ(CAWFile::mkdir("/"), AW_OK);
  fs::create_directory_symlink(In("a"), In("link"));
  EXPECT_EQ(CAWFile::mkdir(In("link/b/")), AW_OK);
  EXPECT_TRUE(fs::is_directory(In("a/b")));
}

TEST_F(CAWFileTest, DoubledSlashesMakeNoDifference) {
  EXPECT_EQ(CAWFile::mkdir(In("/a///b//")), AW_OK);
  EXPECT_TRUE(fs::is_directory(In("a/b")));
}

TEST_F(CAWFileTest, FileInTheWayIsAnErrorAndStays) {
  Touch("file");
  EXPECT_EQ(CAWFile::mkdir(In("file/")), AW_ERROR_FAILURE);
  EXPECT_EQ(CAWFile::mkdir(In("file/a/")), AW_ERROR_FAILURE);
  fs::create_symlink(In("nowhere"), In("dangling"));
  EXPECT_EQ(CAWFile::mkdir(In("dangling/")), AW_ERROR_FAILURE);
  EXPECT_TRUE(fs::is_regular_file(In("file")));
  EXPECT_FALSE(fs::exists(In("nowhere")));
}

TEST_F(CAWFileTest, PathWithoutSlashAsksForNothingAndEmptyPathIsAnError) {
  EXPECT_EQ(CAWFile::mkdir("name-without-directory"), AW_OK);
  EXPECT_FALSE(fs::exists("name-without-directory"));
  EXPECT_EQ(CAWFile::mkdir(""), AW_ERROR_FAILURE);
}

TEST_F(CAWFileTest, NameThatIsTooLongIsAnError) {
  EXPECT_EQ(CAWFile::mkdir(In("") + CAWString(5000, 'a') + "/"), AW_ERROR_FAILURE);
}

TEST_F(CAWFileTest, PathWithANulByteIsAnErrorAndNothingIsMadeOrDeleted) {
  const CAWString file = Touch("file");
  EXPECT_EQ(CAWFile::DeleteFile(file + CAWString("\0.tmp", 5)), AW_ERROR_FAILURE);
  EXPECT_TRUE(fs::exists(file));
  EXPECT_EQ(CAWFile::mkdir(In("a") + CAWString("\0b/c/", 5)), AW_ERROR_FAILURE);
  EXPECT_EQ(CAWFile::mkdir(In("a/b") + CAWString("\0", 1)), AW_ERROR_FAILURE);
  EXPECT_FALSE(fs::exists(In("a")));
}

TEST_F(CAWFileTest, DeletesFileAndLinkButNotTheLinksTarget) {
  const CAWString file = Touch("file");
  fs::create_symlink(file, In("link"));
  EXPECT_EQ(CAWFile::DeleteFile(In("link")), AW_OK);
  EXPECT_TRUE(fs::exists(file));
  EXPECT_EQ(CAWFile::DeleteFile(file), AW_OK);
  EXPECT_FALSE(fs::exists(file));
}

TEST_F(CAWFileTest, DeletingWhatIsNotThereIsNotFound) {
  EXPECT_EQ(CAWFile::DeleteFile(In("missing")), AW_ERROR_NOT_FOUND);
  EXPECT_EQ(CAWFile::DeleteFile(""), AW_ERROR_NOT_FOUND);
}

TEST_F(CAWFileTest, DirectoryIsNotDeleted) {
  ASSERT_EQ(CAWFile::mkdir(In("a/")), AW_OK);
  EXPECT_EQ(CAWFile::DeleteFile(In("a")), AW_ERROR_FAILURE);
  EXPECT_TRUE(fs::is_directory(In("a")));
}

}  // namespace
}  // namespace keelbase
