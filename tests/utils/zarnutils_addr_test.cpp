// zarnutils_addr_test.cpp - names of local IPC endpoints and the way back, below a temporary
// install root.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "TempRoot.h"
#include "zarn/utils/zarnutils.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWIPCAddr;

class EndpointName : public ::testing::Test {
 protected:
  // Fills a and b, which are 777 and 888 before.
  AWResult Parse(const std::string& path) {
    a = 777;
    b = 888;
    return utils::ZARNFromIPCAddr(a, b, CAWIPCAddr(path));
  }
  void MakeDirectories() {
    CAWIPCAddr address;
    ASSERT_EQ(utils::ZARNCreateIPCAddr(1, 1, address), AW_OK);
  }

  TempRoot root;
  std::uint16_t a = 0;
  std::uint16_t b = 0;
};

TEST_F(EndpointName, SecondNumberStandsFirst) {
  CAWIPCAddr address;
  EXPECT_EQ(utils::ZARNCreateIPCAddr(7, 3, address), AW_OK);
  EXPECT_EQ(address.GetPath(), root.GetIpcPath("3_7"));
}

TEST_F(EndpointName, NumbersAreDecimalWithoutPadding) {
  CAWIPCAddr address;
  utils::ZARNCreateIPCAddr(0, 65535, address);
  EXPECT_EQ(address.GetPath(), root.GetIpcPath("65535_0"));
}

TEST_F(EndpointName, DirectoriesAreMadeForTheOwnerOnlyButNotTheFile) {
  CAWIPCAddr address;
  utils::ZARNCreateIPCAddr(7, 3, address);
  for (const char* directory : {"/system/zarn", "/system/zarn/ipc"}) {
    struct stat status {};
    ASSERT_EQ(::stat((root.GetPath() + directory).c_str(), &status), 0) << directory;
    EXPECT_TRUE(S_ISDIR(status.st_mode));
    EXPECT_EQ(status.st_mode & 0777, 0700U) << directory;
  }
  EXPECT_FALSE(std::filesystem::exists(address.GetPath()));
}

TEST_F(EndpointName, DirectoriesThatAreThereAreFine) {
  MakeDirectories();
  std::ofstream(root.GetIpcPath("5_6")) << "kept";
  CAWIPCAddr address;
  EXPECT_EQ(utils::ZARNCreateIPCAddr(7, 3, address), AW_OK);
  EXPECT_TRUE(std::filesystem::exists(root.GetIpcPath("5_6")));
}

TEST_F(EndpointName, NoInstallRootAnswers10001AndLeavesTheAddress) {
  CAWIPCAddr address("/untouched");
  ScopedEnv none("ZARN_ROOT", std::nullopt);
  EXPECT_EQ(utils::ZARNCreateIPCAddr(7, 3, address), AW_ERROR_FAILURE);
  EXPECT_EQ(address.GetPath(), "/untouched");
  EXPECT_EQ(Parse(root.GetIpcPath("3_7")), AW_ERROR_FAILURE);
  EXPECT_EQ(a, 777);
  EXPECT_EQ(b, 888);
}

TEST_F(EndpointName, MissingSystemDirectoryAnswers10001AndMakesNothing) {
  std::filesystem::remove_all(root.GetPath() + "/system");
  CAWIPCAddr address("/untouched");
  EXPECT_EQ(utils::ZARNCreateIPCAddr(7, 3, address), AW_ERROR_FAILURE);
  EXPECT_EQ(address.GetPath(), "/untouched");
  EXPECT_TRUE(std::filesystem::is_empty(root.GetPath()));
}

TEST_F(EndpointName, RootOf200CharactersWorks) {
  const std::string deep = root.GetPath() + "/" + std::string(200, 'd');
  std::filesystem::create_directories(deep + "/system");
  ScopedEnv env("ZARN_ROOT", deep);
  CAWIPCAddr address;
  EXPECT_EQ(utils::ZARNCreateIPCAddr(7, 3, address), AW_OK);
  EXPECT_EQ(address.GetPath(), deep + "/system/zarn/ipc/3_7");
  EXPECT_EQ(Parse(address.GetPath()), AW_OK);
  EXPECT_EQ(a, 7);
  EXPECT_EQ(b, 3);
}

// --- the way back ---

TEST_F(EndpointName, PairComesBackWhileTheEndpointFileDoesNotExist) {
  CAWIPCAddr address;
  utils::ZARNCreateIPCAddr(7, 3, address);
  EXPECT_EQ(Parse(address.GetPath()), AW_OK);
  EXPECT_EQ(a, 7);
  EXPECT_EQ(b, 3);
}

TEST_F(EndpointName, PairComesBackWhenTheEndpointFileExists) {
  CAWIPCAddr address;
  utils::ZARNCreateIPCAddr(7, 3, address);
  std::ofstream(address.GetPath()) << "x";
  EXPECT_EQ(Parse(address.GetPath()), AW_OK);
  EXPECT_EQ(a, 7);
  EXPECT_EQ(b, 3);
}

TEST_F(EndpointName, EveryPairOfExtremesComesBack) {
  constexpr std::uint16_t kNumbers[] = {0, 1, 9, 32767, 32768, 65535};
  for (const std::uint16_t first : kNumbers) {
    for (const std::uint16_t second : kNumbers) {
      CAWIPCAddr address;
      utils::ZARNCreateIPCAddr(first, second, address);
      EXPECT_EQ(Parse(address.GetPath()), AW_OK);
      EXPECT_EQ(a, first);
      EXPECT_EQ(b, second);
    }
  }
}

TEST_F(EndpointName, PathThroughASymbolicLinkIsCanonicalised) {
  MakeDirectories();
  TempDir elsewhere;
  const std::string link = elsewhere.GetPath() + "/a link with quite a long name";
  std::filesystem::create_directory_symlink(root.GetPath(), link);
  EXPECT_EQ(Parse(link + "/system/zarn/ipc/3_7"), AW_OK);
  EXPECT_EQ(a, 7);
  EXPECT_EQ(b, 3);
  std::ofstream(root.GetIpcPath("3_7")) << "x";
  EXPECT_EQ(Parse(link + "/system/../system/zarn/ipc/3_7"), AW_OK);
  EXPECT_EQ(a, 7);
  EXPECT_EQ(b, 3);
}

TEST_F(EndpointName, RootThatIsASymbolicLinkWorksBothWays) {
  TempDir elsewhere;
  const std::string link = elsewhere.GetPath() + "/link";
  std::filesystem::create_directory_symlink(root.GetPath(), link);
  ScopedEnv env("ZARN_ROOT", link);
  CAWIPCAddr address;
  EXPECT_EQ(utils::ZARNCreateIPCAddr(7, 3, address), AW_OK);
  EXPECT_EQ(address.GetPath(), root.GetIpcPath("3_7"));
  EXPECT_EQ(Parse(address.GetPath()), AW_OK);
  EXPECT_EQ(a, 7);
}

TEST_F(EndpointName, NameThatIsNoPairParsesToZeros) {
  MakeDirectories();
  EXPECT_EQ(Parse(root.GetIpcPath("name")), AW_OK);
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, 0);
}

TEST_F(EndpointName, HalfAPairGivesTheFirstNumberOnly) {
  MakeDirectories();
  EXPECT_EQ(Parse(root.GetIpcPath("5")), AW_OK);
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, 5);
  EXPECT_EQ(Parse(root.GetIpcPath("5_x")), AW_OK);
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, 5);
}

TEST_F(EndpointName, IsReadUpToTheFirstCharacterThatDoesNotFit) {
  MakeDirectories();
  EXPECT_EQ(Parse(root.GetIpcPath("7x_8")), AW_OK);
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, 7);
  EXPECT_EQ(Parse(root.GetIpcPath("7_8x")), AW_OK);
  EXPECT_EQ(a, 8);
  EXPECT_EQ(b, 7);
}

TEST_F(EndpointName, NumbersAbove65535AreTruncated) {
  MakeDirectories();
  EXPECT_EQ(Parse(root.GetIpcPath("65537_65538")), AW_OK);
  EXPECT_EQ(a, 2);
  EXPECT_EQ(b, 1);
}

TEST_F(EndpointName, PathThatIsNotLongerThanTheDirectoryAnswers10001) {
  MakeDirectories();
  for (const std::string& path :
       {std::string(), std::string("/"), std::string("/tmp"), root.GetPath(),
        root.GetPath() + "/system/zarn/ipc", root.GetPath() + "/system/zarn/ipc/"}) {
    EXPECT_EQ(Parse(path), AW_ERROR_FAILURE) << path;
    EXPECT_EQ(a, 777);
    EXPECT_EQ(b, 888);
  }
}

TEST_F(EndpointName, PathOfADirectoryThatDoesNotExistAnswers10001) {
  MakeDirectories();
  EXPECT_EQ(Parse(root.GetPath() + "/system/zarn/ipc/nowhere/at/all/1_2"), AW_ERROR_FAILURE);
  EXPECT_EQ(a, 777);
}

TEST_F(EndpointName, TextOfTheDirectoryIsNotCompared) {
  MakeDirectories();
  std::filesystem::create_directory(root.GetPath() + "/system/zarn/ipx");  // as long as "ipc"
  EXPECT_EQ(Parse(root.GetPath() + "/system/zarn/ipx/8_9"), AW_OK);
  EXPECT_EQ(a, 9);
  EXPECT_EQ(b, 8);
}

}  // namespace
}  // namespace zarn::test
