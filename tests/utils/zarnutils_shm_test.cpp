// zarnutils_shm_test.cpp - what the library's start and its factories ask of the shared-memory
// manager, which is a fake here.
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "FakeShmIpc.h"
#include "TempRoot.h"
#include "zarn/utils/zarnutils.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using Paths = std::vector<keelbase::CAWString>;

// --- ZARNLibInit ---

TEST(ZARNLibInitOverShm, HandsTheRealSystemDirectoryToTheManager) {
  FakeShmManager manager;
  TempRoot root;
  TempDir links;
  std::filesystem::create_directory_symlink(root.GetPath(), links.GetPath() + "/link");
  ScopedEnv linked("ZARN_ROOT", links.GetPath() + "/link/");
  EXPECT_EQ(utils::ZARNLibInit(), AW_OK);
  EXPECT_EQ(manager.systemPaths, Paths{root.GetPath() + "/system"});
}

TEST(ZARNLibInitOverShm, TellsTheManagerAnewEachTime) {
  FakeShmManager manager;
  TempRoot first;
  EXPECT_EQ(utils::ZARNLibInit(), AW_OK);
  EXPECT_EQ(utils::ZARNLibInit(), AW_OK);
  TempRoot second;
  EXPECT_EQ(utils::ZARNLibUnInit(), AW_OK);
  EXPECT_EQ(utils::ZARNLibInit(), AW_OK);
  const std::string before = first.GetPath() + "/system";
  EXPECT_EQ(manager.systemPaths, (Paths{before, before, second.GetPath() + "/system"}));
}

TEST(ZARNLibInitOverShm, TellsTheManagerNothingWithoutAnInstallRoot) {
  FakeShmManager manager;
  ScopedEnv root("ZARN_ROOT", std::nullopt);
  EXPECT_EQ(utils::ZARNLibInit(), AW_ERROR_FAILURE);
  root.Put("");
  EXPECT_EQ(utils::ZARNLibInit(), AW_ERROR_FAILURE);
  EXPECT_TRUE(manager.systemPaths.empty());
}

TEST(ZARNLibInitOverShm, TellsTheManagerNothingWithoutASystemDirectory) {
  FakeShmManager manager;
  TempDir empty;
  ScopedEnv root("ZARN_ROOT", empty.GetPath());
  EXPECT_EQ(utils::ZARNLibInit(), AW_ERROR_FAILURE);
  EXPECT_TRUE(manager.systemPaths.empty());
}

TEST(ZARNLibInitOverShm, UnInitLeavesTheManagerAsItIs) {
  FakeShmManager manager;
  EXPECT_EQ(utils::ZARNLibUnInit(), AW_OK);
  EXPECT_TRUE(manager.systemPaths.empty());
}

// --- factories ---

// One factory, what it makes, and where the manager notes it.
struct Client {
  using Interface = fshmipc::IAWShmIPCConnector;
  using Fake = FakeShmConnector;
  static AWResult Create(CAWAutoPtr<Interface>& out) { return utils::CreateShmIPCClient(out); }
  static Interface* Made(FakeShmManager& manager) { return manager.connectors.at(0).Get(); }
  static constexpr const char* kName = "CreateShmIPCClient";
};

struct Server {
  using Interface = fshmipc::IAWShmIPCAcceptor;
  using Fake = FakeShmAcceptor;
  static AWResult Create(CAWAutoPtr<Interface>& out) { return utils::CreateShmIPCServer(out); }
  static Interface* Made(FakeShmManager& manager) { return manager.acceptors.at(0).Get(); }
  static constexpr const char* kName = "CreateShmIPCServer";
};

struct FactoryNames {
  template <class Factory>
  static std::string GetName(int) {
    return Factory::kName;
  }
};

template <class Factory>
class ShmFactory : public ::testing::Test {
 protected:
  using Out = CAWAutoPtr<typename Factory::Interface>;

  FakeShmManager manager;
  CAWAutoPtr<typename Factory::Fake> before{new typename Factory::Fake};
  Out out{before.Get()};
};

using Factories = ::testing::Types<Client, Server>;
TYPED_TEST_SUITE(ShmFactory, Factories, FactoryNames);

TYPED_TEST(ShmFactory, HandsItsTargetToTheManagerAsItIs) {
  EXPECT_EQ(TypeParam::Create(this->out), AW_OK);
  EXPECT_EQ(this->manager.requests, 1);
  EXPECT_FALSE(this->manager.outWasNull);
  EXPECT_EQ(this->out.Get(), TypeParam::Made(this->manager));
  EXPECT_EQ(this->before->GetReferences(), 1U);
}

TYPED_TEST(ShmFactory, ReturnsTheManagersResultAndWhatItLeft) {
  this->manager.createResult = 10012;
  EXPECT_EQ(TypeParam::Create(this->out), 10012U);
  EXPECT_FALSE(this->out);
  this->out = this->before.Get();
  this->manager.createResult = AW_OK;
  this->manager.createsNothing = true;
  EXPECT_EQ(TypeParam::Create(this->out), AW_OK);
  EXPECT_EQ(this->out.Get(), this->before.Get());
}

}  // namespace
}  // namespace zarn::test
