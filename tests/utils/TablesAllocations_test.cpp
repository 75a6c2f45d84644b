// TablesAllocations_test.cpp - registries, stores and helpers without memory, and with each
// allocation failing in turn: they answer with a code, keep what they hold and can be used on.
#include <gtest/gtest.h>

#include <cstdarg>
#include <list>
#include <memory>
#include <new>
#include <optional>
#include <ostream>
#include <string>

#include "Exhaustion.h"
#include "LogTest.h"
#include "NetworkThread.h"
#include "TempRoot.h"
#include "zarn/utils/CZARNAppsManager.h"
#include "zarn/utils/CZARNLevelDBManager.h"
#include "zarn/utils/CZARNListenNodeManager.h"
#include "zarn/utils/CZARNMetrics.h"
#include "zarn/utils/CZARNShareMemory.h"
#include "zarn/utils/CZARNSqliteDB.h"
#include "zarn/utils/zarnutils.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;

TEST(RegistryAllocations, RegistriesWithoutMemoryAnswer10001AndKeepWhatTheyHold) {
  utils::CZARNAppsManager apps;
  utils::CZARNListenNodeManager nodes;
  utils::CZARNApp app;
  utils::CZARNListenNodeItem item;
  std::list<utils::CZARNApp> list;
  ASSERT_EQ(apps.AddApp(app), AW_OK);
  ASSERT_EQ(nodes.AddListenNotify(item), AW_OK);
  AWResult appResult = AW_OK;
  AWResult nodeResult = AW_OK;
  AWResult replaced = AW_ERROR_FAILURE;
  bool thrown = false;
  {
    const Exhaustion none;
    replaced = nodes.AddListenNotify(item);
    app.jno = 1;
    item.SetPno(1);
    appResult = apps.AddApp(app);
    nodeResult = nodes.AddListenNotify(item);
    try {
      apps.GetAppsList(list);
    } catch (const std::bad_alloc&) {
      thrown = true;
    }
  }
  EXPECT_EQ(appResult, AW_ERROR_FAILURE);
  EXPECT_EQ(nodeResult, AW_ERROR_FAILURE);
  EXPECT_EQ(replaced, AW_OK);
  EXPECT_TRUE(thrown && list.empty());
  apps.GetAppsList(list);
  EXPECT_EQ(list.size(), 1U);
  EXPECT_EQ(nodes.GetSize(), 1U);
  EXPECT_EQ(apps.AddApp(app), AW_OK);
  EXPECT_EQ(nodes.AddListenNotify(item), AW_OK);
}

std::string FormatText(const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  std::string text = utils::VAToString(format, args);
  va_end(args);
  return text;
}

TEST(TextWithoutMemory, VAToStringGivesAnEmptyString) {
  const FailingAllocation none(1, true);
  EXPECT_EQ(FormatText("%100d", 1), "");
  EXPECT_TRUE(none.HasFailed());
}

TEST(StoresWithoutMemory, AnswerWithACodeAndChangeNothing) {
  const TempDir dir;
  utils::CZARNSqliteDB db;
  ASSERT_EQ(db.InitDB(dir.GetPath() + "/db"), AW_OK);
  ASSERT_EQ(db.SetPersistentData("k", std::string(100, 'v')), AW_OK);
  {
    const std::string value(100, 'w');
    const std::string key("k");
    utils::CZARNSqliteDB::DataMap map;
    const Exhaustion exhaustion;
    EXPECT_EQ(db.SetPersistentData(key, value), AW_ERROR_FAILURE);
    EXPECT_EQ(db.UpdatePersistentData(key, value), AW_ERROR_FAILURE);
    EXPECT_EQ(db.RemovePersistentData(key), AW_ERROR_FAILURE);
    EXPECT_EQ(db.GetPersistentData(key), "");
    EXPECT_EQ(db.GetAllData(map), AW_ERROR_FAILURE);
  }
  EXPECT_EQ(db.GetPersistentData("k"), std::string(100, 'v'));
}

TEST(StoresWithoutMemory, LevelDBIsNotTouchedAgain) {
  const TempDir dir;
  utils::CZARNLevelDBManager store(false, 0, true, true);
  ASSERT_EQ(store.Open((dir.GetPath() + "/store").c_str()), 0);
  std::string key(100, 'k');
  std::string value(100, 'v');
  {
    const Exhaustion exhaustion;
    EXPECT_EQ(store.DBInsert(key.data(), key.size(), value.data(), value.size()), -1);
  }
  EXPECT_EQ(store.DBInsert(key.data(), key.size(), value.data(), value.size()), -1);
  EXPECT_EQ(store.DBUpdate(key.data(), key.size(), value.data(), value.size()), -1);
  EXPECT_EQ(store.DBRemove(key.data(), key.size()), -1);
  EXPECT_EQ(store.DBLookup(key.data(), key.size(), &value), -1);
  store.DBDump([](const char*, unsigned long, const char*, unsigned long) { FAIL(); });
  EXPECT_EQ(store.Open((dir.GetPath() + "/other").c_str()), 0);
  EXPECT_EQ(store.DBInsert(key.data(), key.size(), value.data(), value.size()), 0);
}

TEST(StoresWithoutMemory, SharedMemoryIsRefused) {
  const TempRoot root;
  const std::string name(100, 'n');
  keelbase::CAWAutoPtr<utils::CZARNShareMemory> memory;
  {
    const Exhaustion exhaustion;
    EXPECT_EQ(utils::CreateMemory(memory, name, 100), AW_ERROR_FAILURE);
  }
  EXPECT_FALSE(memory);
  EXPECT_EQ(utils::CreateMemory(memory, name, 100), AW_OK);
}

// --- each allocation in turn ---

// An operation with a result code. Each try has a World of its own, which `run` gets ready for use.
struct World {
  TempRoot root;
  std::string longText = std::string(100, 'x');
  utils::CZARNAppsManager apps;
  utils::CZARNListenNodeManager nodes;
  utils::CZARNApp app;
  utils::CZARNListenNodeItem item;
  keelbase::CAWIPCAddr address;
  keelbase::CAWIPCAddr known = [] {
    keelbase::CAWIPCAddr made;
    EXPECT_EQ(utils::ZARNCreateIPCAddr(3, 4, made), AW_OK);
    return made;
  }();
  keelbase::CAWAutoPtr<fipc::IAWIPCConnector> ipcClient;
  keelbase::CAWAutoPtr<fipc::IAWIPCAcceptor> ipcServer;
  keelbase::CAWAutoPtr<fshmipc::IAWShmIPCConnector> shmClient;
  keelbase::CAWAutoPtr<fshmipc::IAWShmIPCAcceptor> shmServer;
  keelbase::CAWAutoPtr<utils::CZARNShareMemory> memory;
};

struct Operation {
  const char* name;
  AWResult (*run)(World& world);
};

const Operation kOperations[] = {
    {"AddApp", [](World& world) { return world.apps.AddApp(world.app); }},
    {"AddListenNotify", [](World& world) { return world.nodes.AddListenNotify(world.item); }},
    {"ZARNLibInit", [](World&) { return utils::ZARNLibInit(); }},
    {"SetLDLibraryPath", [](World& world) { return utils::SetLDLibraryPath(world.longText); }},
    {"CreateIPCClient", [](World& world) { return utils::CreateIPCClient(world.ipcClient); }},
    {"CreateIPCServer", [](World& world) { return utils::CreateIPCServer(world.ipcServer); }},
    {"CreateShmIPCClient", [](World& world) { return utils::CreateShmIPCClient(world.shmClient); }},
    {"CreateShmIPCServer", [](World& world) { return utils::CreateShmIPCServer(world.shmServer); }},
    {"ZARNCreateIPCAddr",
     [](World& world) { return utils::ZARNCreateIPCAddr(1, 2, world.address); }},
    {"ZARNFromIPCAddr",
     [](World& world) {
       std::uint16_t a = 0;
       std::uint16_t b = 0;
       return utils::ZARNFromIPCAddr(a, b, world.known);
     }},
    {"CreateMemory",
     [](World& world) { return utils::CreateMemory(world.memory, world.longText, 100); }},
    {"InitZARNLogger", [](World&) { return utils::InitZARNLogger(false, false); }},
    {"ZARNEnableMetrics",
     [](World&) {
       const AWResult result = utils::ZARNEnableMetrics();
       if (result == AW_OK) utils::ZARNDisableMetrics();
       return result == AW_OK ? AW_OK : AW_ERROR_FAILURE;  // errno values, too
     }},
};

std::ostream& operator<<(std::ostream& out, const Operation& operation) {
  return out << operation.name;
}

class OperationAllocations : public ::testing::TestWithParam<Operation> {
 protected:
  void TearDown() override { fshmipc::CAWShmIPCManager::Instance()->SetSystemPath(""); }

  const ScopedEnv loaderPath_{"LD_LIBRARY_PATH", std::nullopt};
};

TEST_P(OperationAllocations, AnswersWithACodeAndSucceedsAfterwards) {
  for (const bool andAllLater : {false, true}) {
    for (EachAllocation each(andAllLater); each.Next();) {
      World world;
      AWResult result = AW_OK;
      each.Try([&] { result = GetParam().run(world); });
      // What it can do without is no reason to fail.
      EXPECT_TRUE(result == AW_OK || result == AW_ERROR_FAILURE) << each.GetNumber();
      EXPECT_TRUE(result == AW_OK || each.HasFailed());
      EXPECT_TRUE(result == AW_OK || GetParam().run(world) == AW_OK) << each.GetNumber();
    }
  }
}

INSTANTIATE_TEST_SUITE_P(All, OperationAllocations, ::testing::ValuesIn(kOperations),
                         [](const auto& one) { return std::string(one.param.name); });

TEST(StoreAllocations, SqliteKeepsWhatItHolds) {
  const TempDir dir;
  utils::CZARNSqliteDB db;
  ASSERT_EQ(db.InitDB(dir.GetPath() + "/db"), AW_OK);
  const std::string key(50, 'k');
  std::string held;
  for (EachAllocation each; each.Next();) {
    const std::string value = std::string(100, 'v') + std::to_string(each.GetNumber());
    AWResult result = AW_OK;
    each.Try([&] { result = db.SetOrUpdatePersistentData(key, value); });
    if (result == AW_OK) held = value;
    ASSERT_EQ(db.GetPersistentData(key), held) << each.GetNumber();
  }
  EXPECT_FALSE(held.empty());
}

TEST(StoreAllocations, SqliteGivesBackAValueOrNothing) {
  const TempDir dir;
  utils::CZARNSqliteDB db;
  ASSERT_EQ(db.InitDB(dir.GetPath() + "/db"), AW_OK);
  const std::string key(50, 'k');
  const std::string value(100, 'v');
  ASSERT_EQ(db.SetPersistentData(key, value), AW_OK);
  for (EachAllocation each; each.Next();) {
    std::string found;
    each.Try([&] { found = db.GetPersistentData(key); });
    EXPECT_EQ(found, each.HasFailed() ? "" : value);
  }
  for (EachAllocation each; each.Next();) {
    utils::CZARNSqliteDB::DataMap all;
    each.Try([&] { db.GetAllData(all); });
    EXPECT_TRUE(all.empty() ? each.HasFailed() : all.at(key) == value);
  }
}

TEST(StoreAllocations, SqliteThatCouldNotBeOpenedCanBe) {
  const TempDir dir;
  utils::CZARNSqliteDB db;
  for (EachAllocation each; each.Next();) {
    const std::string path = dir.GetPath() + "/db" + std::to_string(each.GetNumber());
    AWResult result = AW_OK;
    each.Try([&] { result = db.InitDB(path); });
    EXPECT_EQ(result, each.HasFailed() ? AW_ERROR_FAILURE : AW_OK);
    EXPECT_TRUE(result == AW_OK || db.InitDB(path) == AW_OK);
    EXPECT_EQ(db.SetPersistentData("k", "v"), AW_OK);
  }
}

TEST(StoreAllocations, LevelDBThatCouldNotBeOpenedCanBe) {
  const TempDir dir;
  utils::CZARNLevelDBManager store(false, 0, true, true);
  const std::string path = dir.GetPath() + "/a path that needs memory";
  {
    const FailingAllocation first(1);
    EXPECT_EQ(store.Open(path.c_str()), -1);
    EXPECT_TRUE(first.HasFailed());
  }
  EXPECT_EQ(store.Open(path.c_str()), 0);
}

TEST(StoreAllocations, LevelDBThatFindsNoMemoryForAnotherDatabaseHasLeftTheFirst) {
  const TempDir dir;
  utils::CZARNLevelDBManager store(false, 0, true, true);
  ASSERT_EQ(store.Open((dir.GetPath() + "/first").c_str()), 0);
  const std::string second = dir.GetPath() + "/second";
  {
    const FailingAllocation first(1);
    EXPECT_EQ(store.Open(second.c_str()), -1);
    EXPECT_TRUE(first.HasFailed());
  }
  std::string key = "key";
  EXPECT_EQ(store.DBUpdate(key.data(), key.size(), key.data(), key.size()), -1);
}

// A failure ends what was open, and the next Open finds all that was answered with 0.
TEST(StoreAllocations, LevelDBFindsWhatItHasTakenAfterAnotherOpen) {
  const TempDir dir;
  const std::string path = dir.GetPath() + "/db";
  for (EachAllocation each; each.Next();) {
    utils::CZARNLevelDBManager store(false, 0, true, true);
    ASSERT_EQ(store.Open((path + std::to_string(each.GetNumber())).c_str()), 0);
    std::string key = "key" + std::to_string(each.GetNumber());
    std::string value(100, 'v');
    int result = 0;
    each.Try([&] { result = store.DBInsert(key.data(), key.size(), value.data(), value.size()); });
    std::string found;
    const bool isThere = store.DBLookup(key.data(), key.size(), &found) == 0;
    EXPECT_EQ(isThere, result == 0) << each.GetNumber();
  }
}

TEST(MetricsAllocations, ASnapshotWithoutMemorySaysThatItIsIncomplete) {
  for (EachAllocation each; each.Next();) {
    bool complete = false;
    each.Try([&] { complete = utils::ZARNTakeMetrics(0).isComplete; });
    EXPECT_TRUE(complete || each.HasFailed());
  }
}

// With %n a line is put together in strings.
TEST(LoggerAllocations, ALineThatFindsNoMemoryIsLeftOutAndTheNextIsWhole) {
  const FixedTime time;
  FileLogger file;
  const std::string text(10000, 't');
  int before = 0;
  const auto print = [&] { file.logger.Print("level", "function", "%n%s", &before, text.c_str()); };
  print();
  const std::string line = file.Take();
  EXPECT_NE(line.find(text + "\n"), std::string::npos);
  for (EachAllocation each; each.Next();) {
    each.Try(print);
    EXPECT_EQ(file.Take(), each.HasFailed() ? "" : line) << each.GetNumber();
    print();
    EXPECT_EQ(file.Take(), line) << each.GetNumber();
  }
}

}  // namespace
}  // namespace zarn::test
