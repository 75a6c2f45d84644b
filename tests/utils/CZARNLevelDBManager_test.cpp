// CZARNLevelDBManager_test.cpp - real databases. A path is opened once in the life of a process, so
// whoever looks at one afterwards is another process; a full disk is a limit on the size of files.
#include "zarn/utils/CZARNLevelDBManager.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <vector>

#include "ChildTest.h"
#include "DescriptorShortage.h"
#include "ForkedChild.h"
#include "StoreTrouble.h"
#include "TempRoot.h"
#include "ThreadShortage.h"

namespace zarn::utils {
namespace {

using test::ChildTest;
using test::ForkedChild;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

static_assert(std::has_virtual_destructor_v<CZARNLevelDBManager>);

using Entries = std::vector<std::pair<std::string, std::string>>;

int Insert(CZARNLevelDBManager& store, std::string key, std::string value) {
  return store.DBInsert(key.data(), key.size(), value.data(), value.size());
}
int Update(CZARNLevelDBManager& store, std::string key, std::string value) {
  return store.DBUpdate(key.data(), key.size(), value.data(), value.size());
}
int Remove(CZARNLevelDBManager& store, std::string key) {
  return store.DBRemove(key.data(), key.size());
}
int Lookup(CZARNLevelDBManager& store, std::string key, std::string& value) {
  return store.DBLookup(key.data(), key.size(), &value);
}
// The value, or a text that no test stores.
std::string ValueOf(CZARNLevelDBManager& store, const std::string& key) {
  std::string value;
  return Lookup(store, key, value) == 0 ? value : "(none)";
}
Entries All(CZARNLevelDBManager& store) {
  Entries entries;
  store.DBDump(
      [&](const char* key, unsigned long keyLen, const char* value, unsigned long valueLen) {
        entries.emplace_back(std::string(key, keyLen), std::string(value, valueLen));
      });
  return entries;
}

class CZARNLevelDBManagerTest : public testing::Test {
 protected:
  // Runs `work` on the database in another process, as this one cannot open it again.
  bool Elsewhere(const std::function<bool(CZARNLevelDBManager&)>& work) const {
    return ForkedChild([&] {
             CZARNLevelDBManager store(true, 0, true, true);
             return store.Open(path_.c_str()) == 0 && work(store);
           })
        .Succeeded();
  }

  // As another process sees it. One that tried to open it would be refused by LevelDB in any case,
  // since it has this one's memory.
  bool IsLocked() const {
    return ForkedChild([&] {
             struct flock lock {};
             lock.l_type = F_WRLCK;
             const int file = ::open((path_ + "/LOCK").c_str(), O_RDWR | O_CLOEXEC);
             return ::fcntl(file, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
           })
        .Succeeded();
  }

  test::TempDir dir_;
  const std::string path_ = dir_.GetPath() + "/store";
  CZARNLevelDBManager store_{true, 7, true, true};
};

TEST_F(CZARNLevelDBManagerTest, NothingWorksBeforeOpen) {
  std::string value = "before";
  EXPECT_EQ(Lookup(store_, "k", value), -1);
  EXPECT_EQ(Update(store_, "k", "v"), -1);
  EXPECT_EQ(Remove(store_, "k"), -1);
  EXPECT_THAT(All(store_), IsEmpty());
  EXPECT_EQ(value, "before");
  store_.Close();
}

TEST_F(CZARNLevelDBManagerTest, InsertsLooksUpUpdatesAndRemoves) {
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  EXPECT_EQ(Insert(store_, "k", "a"), 0);
  EXPECT_EQ(ValueOf(store_, "k"), "a");
  EXPECT_EQ(Insert(store_, "k", "b"), 0);
  EXPECT_EQ(ValueOf(store_, "k"), "b");
  EXPECT_EQ(Update(store_, "k", "c"), 0);
  EXPECT_EQ(ValueOf(store_, "k"), "c");
  EXPECT_EQ(Remove(store_, "k"), 0);
  EXPECT_EQ(ValueOf(store_, "k"), "(none)");
}

TEST_F(CZARNLevelDBManagerTest, UpdateOfAnAbsentKeyInsertsIt) {
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  EXPECT_EQ(Update(store_, "k", "v"), 0);
  EXPECT_EQ(ValueOf(store_, "k"), "v");
}

TEST_F(CZARNLevelDBManagerTest, RemovingWhatIsNotThereSucceeds) {
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  EXPECT_EQ(Remove(store_, "absent"), 0);
}

TEST_F(CZARNLevelDBManagerTest, KeysAndValuesAreAnyBytesAlsoNone) {
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  const std::string odd("a\0'\xff", 4);
  const std::string large(5'000'000, '\0');
  EXPECT_EQ(Insert(store_, odd, large), 0);
  EXPECT_EQ(Insert(store_, "", "empty key"), 0);
  EXPECT_EQ(Update(store_, "empty value", ""), 0);
  EXPECT_THAT(All(store_),
              ElementsAre(Pair("", "empty key"), Pair(odd, large), Pair("empty value", "")));
}

// LevelDB itself takes 4 GiB and 3 bytes for 3, and the rest for further entries.
TEST_F(CZARNLevelDBManagerTest, WhatHasMoreThanOneGibibyteIsRefusedAndChangesNothing) {
  constexpr unsigned long kTooMuch = (1UL << 30) + 1;
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  ASSERT_EQ(Insert(store_, "k", "old"), 0);
  char byte = 'k';
  std::string value;
  EXPECT_EQ(store_.DBInsert(&byte, 1, &byte, kTooMuch), -1);
  EXPECT_EQ(store_.DBInsert(&byte, kTooMuch, &byte, 1), -1);
  EXPECT_EQ(store_.DBUpdate(&byte, 1, &byte, kTooMuch), -1);
  EXPECT_EQ(store_.DBUpdate(&byte, kTooMuch, &byte, 1), -1);
  EXPECT_EQ(store_.DBRemove(&byte, kTooMuch), -1);
  EXPECT_EQ(store_.DBLookup(&byte, kTooMuch, &value), -1);
  EXPECT_THAT(All(store_), ElementsAre(Pair("k", "old")));
  EXPECT_EQ(Insert(store_, "k", "new"), 0);
}

TEST_F(CZARNLevelDBManagerTest, DumpsInTheOrderOfKeysWhatThereWasWhenItBegan) {
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  for (const char* key : {"b", "a", "c"}) Insert(store_, key, "v");
  std::string keys;
  store_.DBDump([&](const char* key, unsigned long keyLen, const char*, unsigned long) {
    keys.append(key, keyLen);
    EXPECT_EQ(Remove(store_, "c"), 0);
    EXPECT_EQ(Insert(store_, "d", "v"), 0);
  });
  EXPECT_EQ(keys, "abc");
  EXPECT_EQ(All(store_).size(), 3U);
}

TEST_F(CZARNLevelDBManagerTest, DumpWithoutAVisitorReturns) {
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  Insert(store_, "k", "v");
  store_.DBDump({});
}

TEST_F(CZARNLevelDBManagerTest, WhatTheVisitorThrowsPassesThrough) {
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  Insert(store_, "k", "v");
  const auto visit = [](const char*, unsigned long, const char*, unsigned long) {
    throw std::runtime_error("enough");
  };
  EXPECT_THROW(store_.DBDump(visit), std::runtime_error);
  EXPECT_EQ(ValueOf(store_, "k"), "v");
}

TEST_F(CZARNLevelDBManagerTest, OpenMakesADatabaseOnlyWhenToldTo) {
  CZARNLevelDBManager strict(false, 0, true, false);
  EXPECT_EQ(strict.Open(path_.c_str()), -1);
  std::string value;
  EXPECT_EQ(Lookup(strict, "k", value), -1);
  ASSERT_TRUE(Elsewhere([](CZARNLevelDBManager& store) { return Insert(store, "k", "v") == 0; }));
  ASSERT_EQ(strict.Open(path_.c_str()), 0);
  EXPECT_EQ(ValueOf(strict, "k"), "v");
}

TEST_F(CZARNLevelDBManagerTest, OpenThatFailsLeavesAnObjectThatCanOpenAnother) {
  const std::string file = dir_.GetPath() + "/file";
  std::ofstream(file) << "x";
  EXPECT_EQ(store_.Open(file.c_str()), -1);
  EXPECT_EQ(store_.Open(nullptr), -1);
  EXPECT_EQ(store_.Open(""), -1);
  EXPECT_EQ(Update(store_, "k", "v"), -1);
  EXPECT_EQ(store_.Open(path_.c_str()), 0);
  EXPECT_EQ(Update(store_, "k", "v"), 0);
}

TEST_F(CZARNLevelDBManagerTest, OpeningASecondDatabaseLetsGoOfTheFirst) {
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  Insert(store_, "k", "first");
  ASSERT_EQ(store_.Open((dir_.GetPath() + "/second").c_str()), 0);
  EXPECT_EQ(ValueOf(store_, "k"), "(none)");
  EXPECT_EQ(store_.Open(path_.c_str()), -1);
  EXPECT_EQ(Remove(store_, "k"), -1);
}

TEST_F(CZARNLevelDBManagerTest, CompressionIsAsToldAndEitherIsRead) {
  const std::string value(1'000'000, 'z');
  const auto sizeAfterCompaction = [&](const std::string& name, bool compression) {
    const std::string path = dir_.GetPath() + "/" + name;
    for (const int round : {0, 1}) {  // opening moves into a table what the log holds
      EXPECT_TRUE(ForkedChild([&] {
                    CZARNLevelDBManager store(false, 0, compression, true);
                    if (store.Open(path.c_str()) != 0) return false;
                    return round == 0 ? Insert(store, "k", value) == 0
                                      : ValueOf(store, "k") == value;
                  }).Succeeded());
    }
    std::uintmax_t size = 0;
    for (const auto& file : std::filesystem::directory_iterator(path)) {
      if (file.path().extension() == ".ldb") size += file.file_size();
    }
    return size;
  };
  EXPECT_LT(sizeAfterCompaction("small", true), 100'000U);
  EXPECT_GT(sizeAfterCompaction("large", false), 1'000'000U);
}

// --- letting go ---

TEST_F(CZARNLevelDBManagerTest, ClosedPathIsOpenedByAnotherProcessAfterOursAndNotByOurs) {
  EXPECT_TRUE(Elsewhere([this](CZARNLevelDBManager& store) {
    const bool wrote = Insert(store, "k", "v") == 0 && Update(store, "u", "w") == 0;
    store.Close();
    store.Close();
    CZARNLevelDBManager again(true, 0, true, true);
    std::string value;
    return wrote && Lookup(store, "k", value) == -1 && store.Open(path_.c_str()) == -1 &&
           again.Open(path_.c_str()) == -1;
  }));
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  EXPECT_EQ(ValueOf(store_, "k"), "v");
  EXPECT_EQ(ValueOf(store_, "u"), "w");
  store_.Close();
  EXPECT_TRUE(IsLocked());
}

TEST_F(CZARNLevelDBManagerTest, AnOpenThatIsRefusedLeavesTheDatabaseLocked) {
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  CZARNLevelDBManager second(true, 0, true, true);
  EXPECT_EQ(second.Open(path_.c_str()), -1);
  EXPECT_TRUE(IsLocked());
}

TEST_F(CZARNLevelDBManagerTest, ADatabaseIsOpenedOnceByWhateverPath) {
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  const std::string link = dir_.GetPath() + "/link";
  std::filesystem::create_directory_symlink(path_, link);
  CZARNLevelDBManager second(true, 0, true, true);
  for (const std::string& path : {path_ + "/", dir_.GetPath() + "/./store", link}) {
    EXPECT_EQ(second.Open(path.c_str()), -1) << path;
  }
  EXPECT_EQ(second.Open((dir_.GetPath() + "/another").c_str()), 0);
}

TEST_F(CZARNLevelDBManagerTest, ADatabaseWhoseLockWasRemovedIsOpenedOnceAllTheSame) {
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  ASSERT_TRUE(std::filesystem::remove(path_ + "/LOCK"));
  CZARNLevelDBManager second(true, 0, true, true);
  EXPECT_EQ(second.Open((dir_.GetPath() + "/./store").c_str()), -1);
}

TEST_F(CZARNLevelDBManagerTest, ADatabaseThatSharesItsLockWithAnotherIsNotOpened) {
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  const std::string copy = dir_.GetPath() + "/copy";
  std::filesystem::create_directory(copy);
  std::filesystem::create_hard_link(path_ + "/LOCK", copy + "/LOCK");
  CZARNLevelDBManager second(true, 0, true, true);
  EXPECT_EQ(second.Open(copy.c_str()), -1);
  EXPECT_TRUE(IsLocked());
}

TEST_F(CZARNLevelDBManagerTest, EndOfTheObjectLetsGoLikeClose) {
  {
    CZARNLevelDBManager first(true, 0, true, true);
    ASSERT_EQ(first.Open(path_.c_str()), 0);
  }
  EXPECT_EQ(store_.Open(path_.c_str()), -1);
}

// Enough for several tables, so LevelDB's thread is at work when the object goes. That thread is
// not there after a fork, hence a process that starts from nothing.
TEST_F(CZARNLevelDBManagerTest, LetsGoWhileACompactionRunsAndLosesNothing) {
  constexpr int kEntries = 400;
  const auto valueOf = [](int i) { return std::string(40'000, static_cast<char>('a' + i % 26)); };
  const auto keyOf = [](int i) { return std::to_string(i * 7919 % kEntries); };
  if (ChildTest::Role() == "writer") {
    CZARNLevelDBManager store(false, 0, false, true);
    bool good = store.Open(ChildTest::Argument().c_str()) == 0;
    for (int i = 0; i < kEntries; ++i) good = good && Insert(store, keyOf(i), valueOf(i)) == 0;
    store.Close();
    std::exit(good ? 0 : 1);
  }
  ChildTest writer("writer", path_);
  ASSERT_EQ(writer.Wait(), 0) << writer.GetErrors();
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  for (int i = 0; i < kEntries; ++i) ASSERT_EQ(ValueOf(store_, keyOf(i)), valueOf(i));
}

// In this process, where the sanitizers watch.
TEST_F(CZARNLevelDBManagerTest, ClosingDuringACompactionTouchesNothingThatIsGone) {
  {
    CZARNLevelDBManager store(false, 0, true, true);
    ASSERT_EQ(store.Open(path_.c_str()), 0);
    for (int i = 0; i < 300; ++i) {
      ASSERT_EQ(Insert(store, std::to_string(i % 100), std::string(40'000, 'x')), 0);
    }
  }
  EXPECT_EQ(store_.Open((dir_.GetPath() + "/other").c_str()), 0);
  EXPECT_EQ(Insert(store_, "k", "v"), 0);
}

TEST_F(CZARNLevelDBManagerTest, ThreadsUseOneObjectAtOnce) {
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 3; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < 50; ++i) {
        const std::string key = std::to_string(thread) + "/" + std::to_string(i);
        EXPECT_EQ(Update(store_, key, "v"), 0);
        EXPECT_EQ(ValueOf(store_, key), "v");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(All(store_).size(), 150U);
}

// --- what is not as LevelDB left it ---

std::string TheFile(const std::string& path, const std::string& prefix, const std::string& suffix) {
  for (const auto& file : std::filesystem::directory_iterator(path)) {
    const std::string name = file.path().filename();
    if (name.starts_with(prefix) && name.ends_with(suffix)) return file.path();
  }
  return "";
}

std::string ContentOf(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST_F(CZARNLevelDBManagerTest, AStoreThatLacksItsCurrentIsNotMadeAnewAndLogSaysWhy) {
  for (const char* key : {"table", "log"}) {
    EXPECT_TRUE(
        Elsewhere([&](CZARNLevelDBManager& store) { return Insert(store, key, "v") == 0; }));
    std::filesystem::rename(path_ + "/CURRENT", path_ + "/kept");
    EXPECT_EQ(store_.Open(path_.c_str()), -1);
    EXPECT_NE(ContentOf(path_ + "/LOG").find("CURRENT: is not found"), std::string::npos);
    std::filesystem::rename(path_ + "/kept", path_ + "/CURRENT");
  }
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  EXPECT_THAT(All(store_), ElementsAre(Pair("log", "v"), Pair("table", "v")));
}

TEST_F(CZARNLevelDBManagerTest, FilesThatLevelDBWouldDeleteAreNotGivenToIt) {
  for (const std::string name : {"20240131.log", "7.ldb", "7.sst"}) {
    const std::string path = dir_.GetPath() + "/of " + name;
    std::filesystem::create_directory(path);
    std::ofstream(path + "/" + name) << "content";
    EXPECT_EQ(store_.Open(path.c_str()), -1) << name;
    EXPECT_EQ(ContentOf(path + "/" + name), "content");
  }
}

TEST_F(CZARNLevelDBManagerTest, AStoreWhoseMakingWasInterruptedIsMade) {
  std::filesystem::create_directory(path_);
  std::ofstream(path_ + "/000003.log").close();
  for (const std::string name : {"a.log", "7.txt"}) std::ofstream(path_ + "/" + name) << "content";
  std::ofstream(path_ + "/MANIFEST-000001") << "half";
  std::ofstream(path_ + "/000001.dbtmp") << "MANIFEST";
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  EXPECT_EQ(Insert(store_, "k", "v"), 0);
  EXPECT_EQ(ContentOf(path_ + "/a.log"), "content");
}

// To open one waits for somebody who writes to it.
TEST_F(CZARNLevelDBManagerTest, APipeInPlaceOfAFileIsNotRead) {
  for (const char* key : {"table", "log"}) {
    EXPECT_TRUE(
        Elsewhere([&](CZARNLevelDBManager& store) { return Insert(store, key, "v") == 0; }));
  }
  const auto isWhole = [](CZARNLevelDBManager& store) {
    return ValueOf(store, "table") == "v" && ValueOf(store, "log") == "v";
  };
  for (const std::string& file : {path_ + "/CURRENT", TheFile(path_, "MANIFEST", ""),
                                  TheFile(path_, "", ".log"), TheFile(path_, "", ".ldb")}) {
    std::filesystem::rename(file, path_ + "/kept");
    ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
    EXPECT_FALSE(Elsewhere(isWhole)) << file;
    std::filesystem::rename(path_ + "/kept", file);
  }
  EXPECT_TRUE(Elsewhere(isWhole));
}

class CZARNLevelDBManagerPlaces : public CZARNLevelDBManagerTest {
 protected:
  // Opens a new store in which `make` has put something at a name that is about to be written.
  // Answers how many of them were not opened.
  int OpenWith(const std::function<void(const std::string& place)>& make) const {
    int refused = 0;
    for (const char* name :
         {"000004.log", "000004.ldb", "000004.dbtmp", "MANIFEST-000004", "000005.log", "000005.ldb",
          "000005.dbtmp", "MANIFEST-000005", "000006.log", "000006.ldb", "LOCK"}) {
      std::filesystem::remove_all(path_);
      EXPECT_TRUE(
          Elsewhere([](CZARNLevelDBManager& store) { return Insert(store, "k", "v") == 0; }));
      std::filesystem::remove(path_ + "/" + name);
      make(path_ + "/" + name);
      if (!Elsewhere([](CZARNLevelDBManager& store) { return ValueOf(store, "k") == "v"; }))
        ++refused;
    }
    return refused;
  }
};

TEST_F(CZARNLevelDBManagerPlaces, NothingIsWrittenThroughALink) {
  const std::string victim = dir_.GetPath() + "/victim";
  std::ofstream(victim) << "precious";
  const auto link = [&](const std::string& place) {
    std::filesystem::create_symlink(victim, place);
  };
  EXPECT_GE(OpenWith(link), 3);
  EXPECT_EQ(ContentOf(victim), "precious");
}

TEST_F(CZARNLevelDBManagerPlaces, NoFileIsMadeThroughALink) {
  const std::string elsewhere = dir_.GetPath() + "/elsewhere";
  const auto link = [&](const std::string& place) {
    std::filesystem::create_symlink(elsewhere, place);
  };
  EXPECT_GE(OpenWith(link), 3);
  EXPECT_FALSE(std::filesystem::exists(elsewhere));
}

// To open one waits for somebody who reads it.
TEST_F(CZARNLevelDBManagerPlaces, NoPipeIsWrittenTo) {
  const auto pipe = [](const std::string& place) {
    EXPECT_EQ(::mkfifo(place.c_str(), 0600), 0) << place;
  };
  EXPECT_GE(OpenWith(pipe), 3);
}

// LevelDB moves the one of the run before out of the way, where it can.
TEST_F(CZARNLevelDBManagerPlaces, NoLogIsWrittenThroughALinkAndTheStoreIsOpened) {
  const std::string victim = dir_.GetPath() + "/victim";
  std::ofstream(victim) << "precious";
  std::filesystem::create_directories(path_ + "/LOG.old");
  std::filesystem::create_symlink(victim, path_ + "/LOG");
  EXPECT_TRUE(Elsewhere([](CZARNLevelDBManager& store) { return Insert(store, "k", "v") == 0; }));
  EXPECT_EQ(ContentOf(victim), "precious");
}

TEST_F(CZARNLevelDBManagerTest, AStoreBehindALinkIsMadeAndOpenedAgain) {
  std::filesystem::create_directory(dir_.GetPath() + "/real");
  std::filesystem::create_directory_symlink("real", path_);
  EXPECT_TRUE(Elsewhere([](CZARNLevelDBManager& store) { return Insert(store, "k", "v") == 0; }));
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  EXPECT_EQ(ValueOf(store_, "k"), "v");
}

// --- no thread, no room, no permission ---

// Who can start no thread is another user than root.
void OpenToAll(const std::string& directory) {
  std::filesystem::permissions(directory, std::filesystem::perms::all);
}

TEST_F(CZARNLevelDBManagerTest, WithoutAThreadForLevelDBNothingIsOpenedAndNothingHangs) {
  if (ChildTest::Role() == "without threads") {
    const std::string path = ChildTest::Argument();
    CZARNLevelDBManager other(true, 0, true, true);
    bool refused = false;
    {
      const test::ThreadShortage none;
      refused = store_.Open(path.c_str()) == -1 && store_.Open(path.c_str()) == -1;
    }
    refused = refused && other.Open((path + ".other").c_str()) == -1;
    std::_Exit(refused ? 0 : 1);  // nobody looks for leaks: LevelDB loses a few bytes
  }
  OpenToAll(dir_.GetPath());
  ChildTest opener("without threads", path_);
  EXPECT_EQ(opener.Wait(), 0) << opener.GetErrors();
}

TEST_F(CZARNLevelDBManagerTest, WritesNeedNoThreadThatTheSystemMayNotGive) {
  if (ChildTest::Role() == "writer") {
    const std::string path = ChildTest::Argument();
    if (store_.Open(path.c_str()) != 0) std::exit(1);
    OpenToAll(path);
    int taken = 0;
    {
      const test::ThreadShortage none;
      const std::string value(1'000'000, 'v');  // so there are several logs
      while (taken < 12 && Insert(store_, std::to_string(taken), value) == 0) ++taken;
    }
    std::exit(taken == 12 ? 0 : 1);
  }
  OpenToAll(dir_.GetPath());
  ChildTest writer("writer", path_);
  EXPECT_EQ(writer.Wait(), 0) << writer.GetErrors();
}

// LevelDB itself acknowledges the small ones, and has lost them when it is opened again.
TEST_F(CZARNLevelDBManagerTest, FullDiskIsACodeTheOldDataStaysAndNoLaterWriteIsTaken) {
  EXPECT_TRUE(Elsewhere([](CZARNLevelDBManager& store) { return Insert(store, "k", "old") == 0; }));
  EXPECT_TRUE(Elsewhere([](CZARNLevelDBManager& store) {
    if (!test::LimitFileSize(20'000) || Insert(store, "before", "b") != 0) return false;
    const std::string large(100'000, 'x');
    return Insert(store, "large", large) == -1 && Update(store, "large", large) == -1 &&
           Insert(store, "small", "s") == -1 && Update(store, "small", "s") == -1 &&
           Remove(store, "k") == -1 && ValueOf(store, "k") == "old" && All(store).size() == 2;
  }));
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  EXPECT_THAT(All(store_), ElementsAre(Pair("before", "b"), Pair("k", "old")));
  EXPECT_EQ(Insert(store_, "k", "new"), 0);
}

// Inserts small values until twenty were refused. The keys of the others, one a line.
std::string InsertUntilRefused(CZARNLevelDBManager& store, const std::string& prefix) {
  std::string written;
  int refused = 0;
  for (int i = 0; refused < 20 && i < 20'000; ++i) {
    const std::string key = prefix + std::to_string(i);
    if (Insert(store, key, "v") == 0) {
      written += key + "\n";
    } else {
      ++refused;
    }
  }
  return written;
}

// A large value has no room while threads insert small ones, for which there is room again at once.
void InsertWhileAWriteFails(const std::string& path) {
  CZARNLevelDBManager store(false, 0, true, true);
  if (store.Open(path.c_str()) != 0 || !test::LimitFileSizeOnce(200'000)) std::exit(1);
  std::vector<std::string> written(4);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < written.size(); ++i) {
    threads.emplace_back(
        [&, i] { written[i] = InsertUntilRefused(store, std::to_string(i) + "/"); });
  }
  const bool refused = Insert(store, "large", std::string(1'000'000, 'x')) == -1;
  for (std::thread& thread : threads) thread.join();
  std::ofstream file(path + ".written");
  for (const std::string& keys : written) file << keys;
  file.close();
  std::exit(refused && Insert(store, "late", "v") == -1 ? 0 : 1);
}

// With threads of its own, hence a process that starts from nothing.
TEST_F(CZARNLevelDBManagerTest, WhatThreadsWereToldIsWrittenWhileAWriteFailedIsFoundAgain) {
  if (ChildTest::Role() == "writers") InsertWhileAWriteFails(ChildTest::Argument());
  ChildTest writers("writers", path_);
  ASSERT_EQ(writers.Wait(), 0) << writers.GetErrors();
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  std::ifstream file(path_ + ".written");
  for (std::string key; file >> key;) EXPECT_EQ(ValueOf(store_, key), "v") << key;
}

TEST_F(CZARNLevelDBManagerTest, AFullDiskThatHasRoomAgainTakesNoMoreWrites) {
  EXPECT_TRUE(Elsewhere([](CZARNLevelDBManager& store) {
    if (!test::LimitFileSizeOnce(20'000) || Insert(store, "before", "b") != 0) return false;
    return Insert(store, "large", std::string(100'000, 'x')) == -1 &&
           Insert(store, "small", "s") == -1 && Update(store, "small", "s") == -1 &&
           Remove(store, "before") == -1 && ValueOf(store, "before") == "b";
  }));
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  EXPECT_THAT(All(store_), ElementsAre(Pair("before", "b")));
}

// LevelDB's thread starts when the write is made again, hence a process that starts from nothing.
TEST_F(CZARNLevelDBManagerTest, WriteWithoutADescriptorForANewLogMayBeMadeAgain) {
  const std::string value(100'000, 'v');
  if (ChildTest::Role() == "without descriptors") {
    CZARNLevelDBManager store(true, 0, true, true);
    if (store.Open(ChildTest::Argument().c_str()) != 0) std::exit(1);
    int taken = 0;
    {
      const test::DescriptorShortage none;
      while (taken < 100 && Insert(store, std::to_string(taken), value) == 0) ++taken;
    }
    std::exit(taken < 100 && Insert(store, "late", "v") == 0 ? 0 : 1);
  }
  ChildTest writer("without descriptors", path_);
  ASSERT_EQ(writer.Wait(), 0) << writer.GetErrors();
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  EXPECT_EQ(ValueOf(store_, "late"), "v");
  EXPECT_EQ(ValueOf(store_, "0"), value);
}

TEST_F(CZARNLevelDBManagerTest, ReadOnlyDirectoryIsACodeAndTheOldDataStays) {
  EXPECT_TRUE(Elsewhere([](CZARNLevelDBManager& store) { return Insert(store, "k", "old") == 0; }));
  ForkedChild child([&] {
    CZARNLevelDBManager made(true, 0, true, true);
    return test::MakeReadOnly(path_) && store_.Open(path_.c_str()) == -1 &&
           made.Open((path_ + "/below").c_str()) == -1;
  });
  EXPECT_TRUE(child.Succeeded());
  std::filesystem::permissions(path_, std::filesystem::perms{0700});
  ASSERT_EQ(store_.Open(path_.c_str()), 0);
  EXPECT_EQ(ValueOf(store_, "k"), "old");
}

}  // namespace
}  // namespace zarn::utils
