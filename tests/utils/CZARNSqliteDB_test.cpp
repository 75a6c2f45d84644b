// CZARNSqliteDB_test.cpp - the store in real files; a full disk is a limit on the size of files.
#include "zarn/utils/CZARNSqliteDB.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <array>
#include <filesystem>
#include <fstream>

#include "ForkedChild.h"
#include "StoreTrouble.h"
#include "TempRoot.h"

namespace zarn::utils {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::CAWString;
using test::ForkedChild;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

class CZARNSqliteDBTest : public testing::Test {
 protected:
  // What sqlite3 itself finds, without the class: the first column of each row.
  std::vector<CAWString> Ask(const char* statement) const {
    std::vector<CAWString> found;
    sqlite3* handle = nullptr;
    EXPECT_EQ(sqlite3_open(path_.c_str(), &handle), SQLITE_OK);
    const auto add = [](void* data, int, char** values, char**) {
      static_cast<std::vector<CAWString>*>(data)->emplace_back(values[0]);
      return 0;
    };
    EXPECT_EQ(sqlite3_exec(handle, statement, add, &found, nullptr), SQLITE_OK) << statement;
    sqlite3_close(handle);
    return found;
  }

  CZARNSqliteDB::DataMap All() {
    CZARNSqliteDB::DataMap map;
    EXPECT_EQ(db_.GetAllData(map), AW_OK);
    return map;
  }

  test::TempDir dir_;
  const CAWString path_ = dir_.GetPath() + "/store.db";
  CZARNSqliteDB db_;
};

TEST_F(CZARNSqliteDBTest, NewFileGetsTheTable) {
  ASSERT_EQ(db_.InitDB(path_), AW_OK);
  EXPECT_THAT(Ask("SELECT sql FROM sqlite_master WHERE name='ZARNDATA'"),
              testing::ElementsAre("CREATE TABLE ZARNDATA(URL TEXT PRIMARY KEY     NOT NULL,"
                                   "VALUE           TEXT    NOT NULL)"));
}

TEST_F(CZARNSqliteDBTest, SecondObjectOnTheSameFileIsToldAFailureAndWorks) {
  ASSERT_EQ(db_.InitDB(path_), AW_OK);
  ASSERT_EQ(db_.SetPersistentData("k", "v"), AW_OK);
  CZARNSqliteDB second;
  EXPECT_EQ(second.InitDB(path_), AW_ERROR_FAILURE);
  EXPECT_EQ(second.GetPersistentData("k"), "v");
  EXPECT_EQ(second.SetPersistentData("k2", "v2"), AW_OK);
  EXPECT_EQ(db_.GetPersistentData("k2"), "v2");
}

TEST_F(CZARNSqliteDBTest, SettingTwiceReplaces) {
  db_.InitDB(path_);
  EXPECT_EQ(db_.SetPersistentData("k", "a"), AW_OK);
  EXPECT_EQ(db_.SetPersistentData("k", "b"), AW_OK);
  EXPECT_EQ(db_.GetPersistentData("k"), "b");
  EXPECT_EQ(db_.SetOrUpdatePersistentData("k", "c"), AW_OK);
  EXPECT_EQ(db_.SetOrUpdatePersistentData("l", "d"), AW_OK);
  EXPECT_THAT(All(), UnorderedElementsAre(Pair("k", "c"), Pair("l", "d")));
}

TEST_F(CZARNSqliteDBTest, EmptyKeysAndValuesAreRefusedAndNothingIsWritten) {
  db_.InitDB(path_);
  db_.SetPersistentData("k", "a");
  EXPECT_EQ(db_.SetPersistentData("k", ""), AW_ERROR_FAILURE);
  EXPECT_EQ(db_.SetPersistentData("new", ""), AW_ERROR_FAILURE);
  EXPECT_EQ(db_.SetPersistentData("", "v"), AW_ERROR_FAILURE);
  EXPECT_EQ(db_.SetOrUpdatePersistentData("k", ""), AW_ERROR_FAILURE);
  EXPECT_EQ(db_.UpdatePersistentData("k", ""), AW_ERROR_FAILURE);
  EXPECT_EQ(db_.UpdatePersistentData("", "v"), AW_ERROR_FAILURE);
  EXPECT_EQ(db_.RemovePersistentData(""), AW_ERROR_FAILURE);
  EXPECT_EQ(db_.GetPersistentData(""), "");
  EXPECT_THAT(All(), UnorderedElementsAre(Pair("k", "a")));
}

TEST_F(CZARNSqliteDBTest, EmptyKeyReadsAsEmptyThoughThereIsARow) {
  db_.InitDB(path_);
  Ask("INSERT INTO ZARNDATA VALUES('', 'v')");
  EXPECT_EQ(db_.GetPersistentData(""), "");
}

TEST_F(CZARNSqliteDBTest, AbsentKeyReadsAsEmpty) {
  db_.InitDB(path_);
  EXPECT_EQ(db_.GetPersistentData("absent"), "");
}

TEST_F(CZARNSqliteDBTest, UpdateChangesWhatIsThereAndInsertsNothing) {
  db_.InitDB(path_);
  db_.SetPersistentData("k", "a");
  EXPECT_EQ(db_.UpdatePersistentData("k", "b"), AW_OK);
  EXPECT_EQ(db_.UpdatePersistentData("absent", "b"), AW_OK);
  EXPECT_THAT(All(), UnorderedElementsAre(Pair("k", "b")));
}

TEST_F(CZARNSqliteDBTest, RemovingWhatIsNotThereSucceeds) {
  db_.InitDB(path_);
  db_.SetPersistentData("k", "a");
  EXPECT_EQ(db_.RemovePersistentData("k"), AW_OK);
  EXPECT_EQ(db_.RemovePersistentData("k"), AW_OK);
  EXPECT_THAT(All(), IsEmpty());
}

TEST_F(CZARNSqliteDBTest, AllDataComesOnTopOfWhatTheMapHolds) {
  db_.InitDB(path_);
  db_.SetPersistentData("k", "table");
  CZARNSqliteDB::DataMap map = {{"k", "before"}, {"other", "kept"}};
  EXPECT_EQ(db_.GetAllData(map), AW_OK);
  EXPECT_THAT(map, UnorderedElementsAre(Pair("k", "table"), Pair("other", "kept")));
}

TEST_F(CZARNSqliteDBTest, ClosedStoreRefusesEverything) {
  CZARNSqliteDB::DataMap map;
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(db_.GetPersistentData("k"), "");
    EXPECT_EQ(db_.SetPersistentData("k", "v"), AW_ERROR_FAILURE);
    EXPECT_EQ(db_.UpdatePersistentData("k", "v"), AW_ERROR_FAILURE);
    EXPECT_EQ(db_.RemovePersistentData("k"), AW_ERROR_FAILURE);
    EXPECT_EQ(db_.GetAllData(map), AW_ERROR_FAILURE);
    EXPECT_EQ(db_.Begin(), SQLITE_MISUSE);
    EXPECT_EQ(db_.Commit(), SQLITE_MISUSE);
    EXPECT_EQ(db_.CloseDB(), AW_OK);
    db_.InitDB(path_);
    EXPECT_EQ(db_.CloseDB(), AW_OK);
  }
  EXPECT_THAT(map, IsEmpty());
}

TEST_F(CZARNSqliteDBTest, OpeningAgainClosesWhatWasOpen) {
  const auto countOpen = [this] {
    std::ptrdiff_t open = 0;
    for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code gone;
      open += std::filesystem::read_symlink(fd, gone) == path_ ? 1 : 0;
    }
    return open;
  };
  db_.InitDB(path_);
  ASSERT_EQ(countOpen(), 1);
  EXPECT_EQ(db_.InitDB(path_), AW_ERROR_FAILURE);
  EXPECT_EQ(countOpen(), 1);
  EXPECT_EQ(db_.InitDB(dir_.GetPath() + "/other.db"), AW_OK);
  EXPECT_EQ(countOpen(), 0);
}

TEST_F(CZARNSqliteDBTest, BatchIsVisibleToOthersOnceItIsCommitted) {
  db_.InitDB(path_);
  CZARNSqliteDB other;
  other.InitDB(path_);
  EXPECT_EQ(db_.Begin(), SQLITE_OK);
  EXPECT_EQ(db_.Begin(), SQLITE_ERROR);  // already in one
  EXPECT_EQ(db_.SetPersistentData("k", "v"), AW_OK);
  EXPECT_EQ(other.GetPersistentData("k"), "");
  EXPECT_EQ(db_.Commit(), SQLITE_OK);
  EXPECT_EQ(db_.Commit(), SQLITE_ERROR);  // in none
  EXPECT_EQ(other.GetPersistentData("k"), "v");
}

TEST_F(CZARNSqliteDBTest, BatchBeginsWhileAnotherOneIsWriting) {
  db_.InitDB(path_);
  CZARNSqliteDB other;
  other.InitDB(path_);
  other.Begin();
  ASSERT_EQ(other.SetPersistentData("k", "v"), AW_OK);
  EXPECT_EQ(db_.Begin(), SQLITE_OK);
  EXPECT_EQ(other.Commit(), SQLITE_OK);
  EXPECT_EQ(db_.Commit(), SQLITE_OK);
}

TEST_F(CZARNSqliteDBTest, BatchThatIsNotCommittedIsUndoneByClosing) {
  db_.InitDB(path_);
  db_.Begin();
  db_.SetPersistentData("k", "v");
  db_.CloseDB();
  db_.InitDB(path_);
  EXPECT_THAT(All(), IsEmpty());
}

TEST_F(CZARNSqliteDBTest, FileThatAnotherOneIsWritingIsNotWaitedFor) {
  db_.InitDB(path_);
  db_.SetPersistentData("k", "before");
  CZARNSqliteDB other;
  other.InitDB(path_);
  other.Begin();
  ASSERT_EQ(other.SetPersistentData("k", "other"), AW_OK);
  EXPECT_EQ(db_.SetPersistentData("k", "mine"), AW_ERROR_FAILURE);
  EXPECT_EQ(db_.RemovePersistentData("k"), AW_ERROR_FAILURE);
  EXPECT_EQ(db_.GetPersistentData("k"), "before");
  other.Commit();
  EXPECT_EQ(db_.SetPersistentData("k", "mine"), AW_OK);
}

TEST_F(CZARNSqliteDBTest, PathThatCannotBeOpenedLeavesAnObjectThatFailsAndCanBeUsedAgain) {
  EXPECT_EQ(db_.InitDB(dir_.GetPath() + "/missing/store.db"), AW_ERROR_FAILURE);
  EXPECT_EQ(db_.SetPersistentData("k", "v"), AW_ERROR_FAILURE);
  EXPECT_EQ(db_.UpdatePersistentData("k", "v"), AW_ERROR_FAILURE);
  EXPECT_EQ(db_.GetPersistentData("k"), "");
  EXPECT_NE(db_.Begin(), SQLITE_OK);
  EXPECT_EQ(db_.InitDB(path_), AW_OK);
  EXPECT_EQ(db_.SetPersistentData("k", "v"), AW_OK);
}

TEST_F(CZARNSqliteDBTest, PathWithANulByteIsRefusedAndNoFileIsMade) {
  EXPECT_EQ(db_.InitDB(path_ + CAWString("\0more", 5)), AW_ERROR_FAILURE);
  EXPECT_EQ(db_.SetPersistentData("k", "v"), AW_ERROR_FAILURE);
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(CZARNSqliteDBTest, FileThatIsNoStoreIsLeftAsItIs) {
  const CAWString content(5000, 'x');
  std::ofstream(path_) << content;
  EXPECT_EQ(db_.InitDB(path_), AW_ERROR_FAILURE);
  EXPECT_EQ(db_.SetPersistentData("k", "v"), AW_ERROR_FAILURE);
  db_.CloseDB();
  std::ifstream file(path_);
  EXPECT_EQ(CAWString(std::istreambuf_iterator<char>(file), {}), content);
}

// --- what is printed ---

// As the one of a killed transaction over several files; that file is deleted with the journal.
void WriteJournalThatNames(const std::string& file, const CAWString& store) {
  const auto put = [](std::ostream& out, std::size_t number) {
    for (int shift = 24; shift >= 0; shift -= 8) out.put(static_cast<char>(number >> shift));
  };
  std::size_t sum = 0;
  for (const char byte : file) sum += static_cast<std::size_t>(byte);
  std::ofstream journal(store + "-journal", std::ios::binary);
  journal << std::string(512, 'x') << file;
  put(journal, file.size());
  put(journal, sum);
  journal << "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7";
}

TEST_F(CZARNSqliteDBTest, AJournalThatNamesAnotherFileIsRefusedAndThatFileStays) {
  const CAWString victim = dir_.GetPath() + "/victim";
  std::ofstream(victim) << "precious";
  db_.InitDB(path_);
  db_.SetPersistentData("k", "v");
  db_.CloseDB();
  WriteJournalThatNames(victim, path_);
  const CAWString link = dir_.GetPath() + "/link";
  std::filesystem::create_symlink(path_, link);
  for (const CAWString& path : {path_, link}) {
    EXPECT_EQ(db_.InitDB(path), AW_ERROR_FAILURE);
    EXPECT_EQ(db_.GetPersistentData("k"), "");
    EXPECT_TRUE(std::filesystem::exists(victim)) << path;
  }
  std::filesystem::remove(path_ + "-journal");
  db_.InitDB(path_);
  EXPECT_EQ(db_.GetPersistentData("k"), "v");
}

TEST_F(CZARNSqliteDBTest, AJournalThatNamesNothingIsUndoneOrPassedOver) {
  db_.InitDB(path_);
  db_.SetPersistentData("k", "v");
  for (const std::size_t size : {0, 7, 15, 16, 600}) {
    db_.CloseDB();
    std::ofstream(path_ + "-journal") << std::string(size, '\0');
    db_.InitDB(path_);
    EXPECT_EQ(db_.GetPersistentData("k"), "v") << size;
  }
}

TEST_F(CZARNSqliteDBTest, OnlyUpdateAndReadAllPrintErrors) {
  db_.InitDB(path_);
  testing::internal::CaptureStderr();
  db_.SetPersistentData("it's", "v");
  db_.RemovePersistentData("it's");
  db_.GetPersistentData("it's");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  testing::internal::CaptureStderr();
  EXPECT_EQ(db_.UpdatePersistentData("it's", "v"), AW_ERROR_FAILURE);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "SQL error: near \"s\": syntax error\n");
  Ask("DROP TABLE ZARNDATA");
  testing::internal::CaptureStderr();
  CZARNSqliteDB::DataMap map;
  EXPECT_EQ(db_.GetAllData(map), AW_OK);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "SQL error: no such table: ZARNDATA\n");
}

TEST_F(CZARNSqliteDBTest, TableOfAnotherShapeIsAnErrorOfReadAll) {
  Ask("CREATE TABLE ZARNDATA(URL TEXT, VALUE TEXT, MORE TEXT)");
  Ask("INSERT INTO ZARNDATA VALUES('k', 'v', 'm')");
  EXPECT_EQ(db_.InitDB(path_), AW_ERROR_FAILURE);
  testing::internal::CaptureStderr();
  EXPECT_THAT(All(), IsEmpty());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "SQL error: query aborted\n");
  EXPECT_EQ(db_.GetPersistentData("k"), "v");
}

// --- quotes and other bytes ---

struct QuoteCase {
  const char* what;
  const char* key;
  const char* value;
  keelbase::AWResult setResult;
  CZARNSqliteDB::DataMap left;  // of {"k": "a", "l": "b"}
};

TEST_F(CZARNSqliteDBTest, QuotesChangeTheStatement) {
  const QuoteCase cases[] = {
      {"one in the key", "it's", "v", AW_ERROR_FAILURE, {{"k", "a"}, {"l", "b"}}},
      {"one in the value", "n", "it's", AW_ERROR_FAILURE, {{"k", "a"}, {"l", "b"}}},
      {"at the end of the key", "n'", "v", AW_ERROR_FAILURE, {{"k", "a"}, {"l", "b"}}},
      {"only a quote", "'", "'", AW_OK, {{"k", "' WHERE URL='"}, {"l", "' WHERE URL='"}}},
      {"doubled: one is kept", "n''m", "v''w", AW_OK, {{"k", "a"}, {"l", "b"}, {"n'm", "v'w"}}},
      {"a second row", "n", "v'),('m','w", AW_OK, {{"k", "a"}, {"l", "b"}, {"n", "v"}, {"m", "w"}}},
      {"the rest as a comment", "n", "v');--", AW_OK, {{"k", "a"}, {"l", "b"}, {"n", "v"}}},
      {"a statement behind it", "n", "v'); DELETE FROM ZARNDATA;--", AW_OK, {}},
      {"a concatenation", "n", "x'||'y", AW_OK, {{"k", "a"}, {"l", "b"}, {"n", "xy"}}},
      {"update of every row", "k", "z'--", AW_OK, {{"k", "z"}, {"l", "z"}}},
  };
  for (const QuoteCase& one : cases) {
    std::filesystem::remove(path_);
    ASSERT_EQ(db_.InitDB(path_), AW_OK);
    db_.SetPersistentData("k", "a");
    db_.SetPersistentData("l", "b");
    EXPECT_EQ(db_.SetPersistentData(one.key, one.value), one.setResult) << one.what;
    EXPECT_EQ(All(), one.left) << one.what;
  }
}

TEST_F(CZARNSqliteDBTest, QuoteInTheKeyFailsOrRemovesTheWrongRows) {
  db_.InitDB(path_);
  db_.SetPersistentData("k", "a");
  db_.SetPersistentData("l", "b");
  EXPECT_EQ(db_.RemovePersistentData("it's"), AW_ERROR_FAILURE);
  EXPECT_EQ(db_.GetPersistentData("it's"), "");
  EXPECT_EQ(db_.GetPersistentData("x' OR URL='l"), "b");
  EXPECT_EQ(db_.RemovePersistentData("x' OR '1'='1"), AW_OK);
  EXPECT_THAT(All(), IsEmpty());
}

TEST_F(CZARNSqliteDBTest, ErrorBehindARowReadsAsEmpty) {
  db_.InitDB(path_);
  db_.SetPersistentData("k", "v");
  EXPECT_EQ(db_.GetPersistentData("k';x"), "");
}

// The statement asks for a call where there are no rows, on this connection from now on.
TEST_F(CZARNSqliteDBTest, CallsForStatementsWithoutRowsReadAsEmpty) {
  db_.InitDB(path_);
  EXPECT_EQ(db_.GetPersistentData("x'; PRAGMA empty_result_callbacks=1; SELECT '"), "");
  EXPECT_EQ(db_.GetPersistentData("absent"), "");
  EXPECT_THAT(All(), IsEmpty());
}

TEST_F(CZARNSqliteDBTest, NulByteMakesEveryStatementFail) {
  db_.InitDB(path_);
  db_.SetPersistentData("k", "a");
  const CAWString nul("k\0l", 3);
  EXPECT_EQ(db_.SetPersistentData(nul, "v"), AW_ERROR_FAILURE);
  EXPECT_EQ(db_.SetPersistentData("n", nul), AW_ERROR_FAILURE);
  EXPECT_EQ(db_.UpdatePersistentData("k", nul), AW_ERROR_FAILURE);
  EXPECT_EQ(db_.RemovePersistentData(nul), AW_ERROR_FAILURE);
  EXPECT_EQ(db_.GetPersistentData(nul), "");
  EXPECT_THAT(All(), UnorderedElementsAre(Pair("k", "a")));
}

TEST_F(CZARNSqliteDBTest, EveryOtherByteIsKept) {
  CAWString bytes;
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '\'') bytes.push_back(static_cast<char>(byte));
  }
  const CAWString large(3'000'000, '\xff');
  db_.InitDB(path_);
  EXPECT_EQ(db_.SetPersistentData(bytes, large), AW_OK);
  EXPECT_EQ(db_.SetPersistentData("k", bytes), AW_OK);
  EXPECT_EQ(db_.GetPersistentData(bytes), large);
  EXPECT_THAT(All(), UnorderedElementsAre(Pair(bytes, large), Pair("k", bytes)));
}

// --- what SQLite calls for each row ---

TEST(CZARNSqliteDBCallbacks, TakeRowsWithNullsAndNoPlaceToPutThem) {
  char text[] = "v";
  char key[] = "k";
  char empty[] = "";
  std::array<char*, 2> row = {key, text};
  std::array<char*, 2> nulls = {nullptr, nullptr};
  std::array<char*, 2> noKey = {empty, text};
  CAWString value = "before";
  EXPECT_EQ(CZARNSqliteDB::callback(nullptr, 1, row.data(), nullptr), 0);
  EXPECT_EQ(CZARNSqliteDB::callback(&value, 1, row.data(), nullptr), 0);
  EXPECT_EQ(CZARNSqliteDB::callback(&value, 1, nullptr, nullptr), 0);
  EXPECT_EQ(value, "k");
  EXPECT_EQ(CZARNSqliteDB::callback(&value, 1, nulls.data(), nullptr), 0);
  EXPECT_EQ(value, "");

  CZARNSqliteDB::DataMap map;
  EXPECT_EQ(CZARNSqliteDB::selectcallback(nullptr, 1, row.data(), nullptr), 0);
  EXPECT_EQ(CZARNSqliteDB::selectcallback(&map, 1, row.data(), nullptr), -1);
  EXPECT_EQ(CZARNSqliteDB::selectcallback(&map, 3, row.data(), nullptr), -1);
  EXPECT_EQ(CZARNSqliteDB::selectcallback(&map, 0, nullptr, nullptr), 0);
  EXPECT_EQ(CZARNSqliteDB::selectcallback(&map, 2, nullptr, nullptr), 0);
  EXPECT_EQ(CZARNSqliteDB::selectcallback(&map, 2, nulls.data(), nullptr), 0);
  EXPECT_EQ(CZARNSqliteDB::selectcallback(&map, 2, noKey.data(), nullptr), 0);
  EXPECT_THAT(map, IsEmpty());
  EXPECT_EQ(CZARNSqliteDB::selectcallback(&map, 2, row.data(), nullptr), 0);
  row[1] = nullptr;
  EXPECT_THAT(map, UnorderedElementsAre(Pair("k", "v")));
  EXPECT_EQ(CZARNSqliteDB::selectcallback(&map, 2, row.data(), nullptr), 0);
  EXPECT_THAT(map, UnorderedElementsAre(Pair("k", "")));
}

// --- no room, no permission ---

TEST_F(CZARNSqliteDBTest, FullDiskIsACodeAndTheOldDataStays) {
  db_.InitDB(path_);
  ASSERT_EQ(db_.SetPersistentData("k", "old"), AW_OK);
  const auto size = std::filesystem::file_size(path_);
  ForkedChild child([&] {
    CZARNSqliteDB db;
    db.InitDB(path_);
    if (!test::LimitFileSize(size + 4096)) return false;
    const CAWString large(100'000, 'x');
    return db.SetPersistentData("large", large) == AW_ERROR_FAILURE &&
           db.SetPersistentData("k", large) == AW_ERROR_FAILURE &&
           db.GetPersistentData("k") == "old" && db.GetPersistentData("large").empty();
  });
  EXPECT_TRUE(child.Succeeded());
  EXPECT_THAT(All(), UnorderedElementsAre(Pair("k", "old")));
  EXPECT_EQ(db_.SetPersistentData("k", "new"), AW_OK);
}

TEST_F(CZARNSqliteDBTest, BatchThatFindsNoRoomChangesNothing) {
  db_.InitDB(path_);
  ASSERT_EQ(db_.SetPersistentData("k", "old"), AW_OK);
  const auto size = std::filesystem::file_size(path_);
  ForkedChild child([&] {
    CZARNSqliteDB db;
    db.InitDB(path_);
    if (!test::LimitFileSize(size + 4096)) return false;
    db.Begin();
    db.SetPersistentData("k", "new");
    db.SetPersistentData("large", CAWString(100'000, 'x'));
    return db.Commit() != 0;
  });
  EXPECT_TRUE(child.Succeeded());
  EXPECT_THAT(All(), UnorderedElementsAre(Pair("k", "old")));
}

// SQLite undoes the batch when there is no room, which no later call undoes.
TEST_F(CZARNSqliteDBTest, WhatFollowsAFailureForLackOfRoomInABatchCountsByItself) {
  db_.InitDB(path_);
  EXPECT_TRUE(ForkedChild([&] {
                CZARNSqliteDB db;
                db.InitDB(path_);
                return test::LimitFileSizeOnce(100'000) && db.Begin() == SQLITE_OK &&
                       db.SetPersistentData("before", "v") == AW_OK &&
                       db.SetPersistentData("large", CAWString(8'000'000, 'x')) != AW_OK &&
                       db.SetPersistentData("after", "v") == AW_OK && db.Commit() != SQLITE_OK;
              }).Succeeded());
  EXPECT_THAT(All(), UnorderedElementsAre(Pair("after", "v")));
}

TEST_F(CZARNSqliteDBTest, ReadOnlyDirectoryIsACodeAndTheOldDataCanBeRead) {
  db_.InitDB(path_);
  ASSERT_EQ(db_.SetPersistentData("k", "old"), AW_OK);
  std::filesystem::permissions(path_, std::filesystem::perms{0444});
  ForkedChild child([&] {
    if (!test::MakeReadOnly(dir_.GetPath())) return false;
    CZARNSqliteDB db;
    CZARNSqliteDB made;
    return db.InitDB(path_) == AW_ERROR_FAILURE &&
           db.SetPersistentData("k", "new") == AW_ERROR_FAILURE &&
           db.RemovePersistentData("k") == AW_ERROR_FAILURE && db.GetPersistentData("k") == "old" &&
           made.InitDB(dir_.GetPath() + "/made.db") == AW_ERROR_FAILURE &&
           made.SetPersistentData("k", "v") == AW_ERROR_FAILURE;
  });
  EXPECT_TRUE(child.Succeeded());
  std::filesystem::permissions(dir_.GetPath(), std::filesystem::perms{0700});
  EXPECT_EQ(db_.GetPersistentData("k"), "old");
}

}  // namespace
}  // namespace zarn::utils
