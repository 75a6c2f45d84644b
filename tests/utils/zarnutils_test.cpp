// zarnutils_test.cpp - install root, environment, IPC factories, numbers and identifiers. The
// install root is a temporary directory; the IPC manager is a fake.
#include "zarn/utils/zarnutils.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "FakeIpc.h"
#include "TempRoot.h"
#include "TraceLines.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::CAWAutoPtr;
using keelbase::CAWInetAddr;

// --- start ---

TEST(ZARNLibInit, AnswersZeroWithAnInstallRootAndMayBeRepeated) {
  TempRoot root;
  EXPECT_EQ(utils::ZARNLibInit(), AW_OK);
  EXPECT_EQ(utils::ZARNLibInit(), AW_OK);
  EXPECT_EQ(utils::ZARNLibUnInit(), AW_OK);
  EXPECT_EQ(utils::ZARNLibUnInit(), AW_OK);
}

TEST(ZARNLibInit, Answers10001WithoutAnInstallRootAndTracesIt) {
  const zarn::test::TraceLines trace;
  ScopedEnv root("ZARN_ROOT", std::nullopt);
  EXPECT_EQ(utils::ZARNLibInit(), AW_ERROR_FAILURE);
  root.Put("");
  EXPECT_EQ(utils::ZARNLibInit(), AW_ERROR_FAILURE);
  ASSERT_EQ(trace.Get().size(), 2U);
  EXPECT_EQ(trace.Get()[0].text, "ZARN_ROOT is not set: it names the install root");
}

TEST(ZARNLibInit, Answers10001WhenTheSystemDirectoryIsMissingAndTracesIt) {
  const zarn::test::TraceLines trace;
  TempDir dir;
  ScopedEnv root("ZARN_ROOT", dir.GetPath());
  EXPECT_EQ(utils::ZARNLibInit(), AW_ERROR_FAILURE);
  ASSERT_EQ(trace.Get().size(), 1U);
  EXPECT_EQ(trace.Get()[0].text, "ZARN_ROOT names no directory that has a directory system");
  std::filesystem::create_directory(dir.GetPath() + "/system");
  EXPECT_EQ(utils::ZARNLibInit(), AW_OK);
}

// --- install root ---

TEST(InstallRoot, UnsetRootGivesEmptyDirectories) {
  ScopedEnv root("ZARN_ROOT", std::nullopt);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(utils::GetZARNRoot(), "");
    EXPECT_EQ(utils::GetZARNRootBin(), "");
    EXPECT_EQ(utils::GetZARNRootSystem(), "");
    EXPECT_EQ(utils::GetZARNRootlibs(), "");
    EXPECT_EQ(utils::GetZARNRootLogs(), "");
    EXPECT_EQ(utils::GetZARNRootConfig(), "");
    root.Put("");
  }
}

TEST(InstallRoot, DirectoriesStandBelowTheRoot) {
  TempRoot root;
  std::filesystem::create_directory(root.GetPath() + "/bin");
  EXPECT_EQ(utils::GetZARNRoot(), root.GetPath());
  EXPECT_EQ(utils::GetZARNRootBin(), root.GetPath() + "/bin");
  EXPECT_EQ(utils::GetZARNRootSystem(), root.GetPath() + "/system");
  EXPECT_EQ(utils::GetZARNRootlibs(), root.GetPath() + "/libs");
  EXPECT_EQ(utils::GetZARNRootLogs(), root.GetPath() + "/logs");
  EXPECT_EQ(utils::GetZARNRootConfig(), root.GetPath() + "/config");
}

TEST(InstallRoot, MissingDirectoriesAreEmptyWhereRealPathsAreGivenAndTextElsewhere) {
  ScopedEnv root("ZARN_ROOT", "/nonexistent/root");
  EXPECT_EQ(utils::GetZARNRoot(), "");
  EXPECT_EQ(utils::GetZARNRootBin(), "");
  EXPECT_EQ(utils::GetZARNRootSystem(), "");
  EXPECT_EQ(utils::GetZARNRootlibs(), "/nonexistent/root/libs");
  EXPECT_EQ(utils::GetZARNRootLogs(), "/nonexistent/root/logs");
  EXPECT_EQ(utils::GetZARNRootConfig(), "/nonexistent/root/config");
}

TEST(InstallRoot, TrailingSlashIsDoubledInTextsAndGoneFromRealPaths) {
  TempRoot root;
  ScopedEnv slash("ZARN_ROOT", root.GetPath() + "/");
  EXPECT_EQ(utils::GetZARNRoot(), root.GetPath());
  EXPECT_EQ(utils::GetZARNRootSystem(), root.GetPath() + "/system");
  EXPECT_EQ(utils::GetZARNRootlibs(), root.GetPath() + "//libs");
  EXPECT_EQ(utils::GetZARNRootLogs(), root.GetPath() + "//logs");
  EXPECT_EQ(utils::GetZARNRootConfig(), root.GetPath() + "//config");
}

TEST(InstallRoot, SymbolicLinksAreResolvedInRealPathsOnly) {
  TempRoot root;
  TempDir elsewhere;
  const std::string link = elsewhere.GetPath() + "/link";
  std::filesystem::create_directory_symlink(root.GetPath(), link);
  ScopedEnv linked("ZARN_ROOT", link);
  EXPECT_EQ(utils::GetZARNRoot(), root.GetPath());
  EXPECT_EQ(utils::GetZARNRootSystem(), root.GetPath() + "/system");
  EXPECT_EQ(utils::GetZARNRootLogs(), link + "/logs");
}

// --- environment ---

TEST(GetEnvToString, ReferenceIsReplacedByTheVariablesValue) {
  ScopedEnv variable("ZARN_TEST_NAME", "/home/of/it");
  EXPECT_EQ(utils::GetEnvToString("{ZARN_TEST_NAME}/a"), "/home/of/it/a");
  EXPECT_EQ(utils::GetEnvToString("{ZARN_TEST_NAME}"), "/home/of/it");
}

TEST(GetEnvToString, WhatStandsBeforeTheReferenceIsDropped) {
  ScopedEnv variable("ZARN_TEST_NAME", "value");
  EXPECT_EQ(utils::GetEnvToString("pre{ZARN_TEST_NAME}/a"), "value/a");
}

TEST(GetEnvToString, TextWithoutBothBracesComesBack) {
  ScopedEnv variable("ZARN_TEST_NAME", "value");
  EXPECT_EQ(utils::GetEnvToString("plain"), "plain");
  EXPECT_EQ(utils::GetEnvToString(""), "");
  EXPECT_EQ(utils::GetEnvToString("open{"), "open{");
  EXPECT_EQ(utils::GetEnvToString("{ZARN_TEST_NAME"), "{ZARN_TEST_NAME");
  EXPECT_EQ(utils::GetEnvToString("close}"), "close}");
}

TEST(GetEnvToString, BracesInTheWrongOrderGiveAnEmptyString) {
  EXPECT_EQ(utils::GetEnvToString("}{"), "");
  EXPECT_EQ(utils::GetEnvToString("a}b{c"), "");
}

TEST(GetEnvToString, UnsetVariableGivesOnlyWhatFollows) {
  ScopedEnv variable("ZARN_TEST_UNSET", std::nullopt);
  EXPECT_EQ(utils::GetEnvToString("{ZARN_TEST_UNSET}x"), "x");
  EXPECT_EQ(utils::GetEnvToString("{}x"), "x");
}

TEST(GetEnvToString, NameReachesFromTheFirstOpeningToTheLastClosingBrace) {
  ScopedEnv a("A", "wrong");
  ScopedEnv strange("A}{B", "strange");
  EXPECT_EQ(utils::GetEnvToString("{A}{B}"), "strange");
  EXPECT_EQ(utils::GetEnvToString("x{A}{B}y"), "strangey");
}

TEST(GetEnvToString, ValueIsNotExpandedAgain) {
  ScopedEnv variable("ZARN_TEST_NAME", "{HOME}");
  EXPECT_EQ(utils::GetEnvToString("{ZARN_TEST_NAME}"), "{HOME}");
}

// The library's functions take an argument list; these make one.
int Measure(const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  const int length = utils::c_vscprintf(format, args);
  va_end(args);
  return length;
}

std::string Format(const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  std::string first = utils::VAToString(format, args);
  // The list may be used again: a second pass must give the same.
  EXPECT_EQ(utils::VAToString(format, args), first);
  va_end(args);
  return first;
}

TEST(VAToString, FormatsLikePrintf) {
  EXPECT_EQ(Format("%s=%d, %5.2f|%c", "name", -7, 3.14159, 'c'), "name=-7,  3.14|c");
  EXPECT_EQ(Format("no arguments"), "no arguments");
  EXPECT_EQ(Format("%%"), "%");
}

TEST(VAToString, EmptyFormatGivesAnEmptyString) {
  const char* empty = "";
  EXPECT_EQ(Format(empty), "");
  EXPECT_EQ(Format("%s", ""), "");
}

TEST(VAToString, LongTextComesOutWhole) {
  const std::string text(100000, 'l');
  EXPECT_TRUE(Format("<%s>", text.c_str()) == "<" + text + ">");
}

TEST(VAToString, FormatErrorGivesAnEmptyString) {
  const wchar_t impossible[] = {static_cast<wchar_t>(0x110000), 0};  // no encoding has it
  EXPECT_EQ(Format("%ls", impossible), "");
}

TEST(CVscprintf, CountsWithoutTheTerminator) {
  EXPECT_EQ(Measure("%d", 12345), 5);
  const char* empty = "";
  EXPECT_EQ(Measure(empty), 0);
}

TEST(CVscprintf, CountsWhatVsnprintfWritesForAConversionThatThereIsNot) {
  const char* unknown = "%y";
  EXPECT_EQ(Measure(unknown), 2);
  EXPECT_EQ(Format(unknown), "%y");
}

TEST(CVscprintf, FormatErrorIsNegative) {
  const wchar_t impossible[] = {static_cast<wchar_t>(0x110000), 0};
  EXPECT_LT(Measure("%ls", impossible), 0);
}

TEST(SetLDLibraryPath, DirectoryIsAddedAtTheEndAlsoWhenItIsListedAlready) {
  ScopedEnv path("LD_LIBRARY_PATH", std::nullopt);
  EXPECT_EQ(utils::SetLDLibraryPath("/d"), AW_OK);
  EXPECT_STREQ(std::getenv("LD_LIBRARY_PATH"), "/d");
  EXPECT_EQ(utils::SetLDLibraryPath("/d"), AW_OK);
  EXPECT_STREQ(std::getenv("LD_LIBRARY_PATH"), "/d:/d");
  EXPECT_EQ(utils::SetLDLibraryPath("/e"), AW_OK);
  EXPECT_STREQ(std::getenv("LD_LIBRARY_PATH"), "/d:/d:/e");
}

TEST(SetLDLibraryPath, EmptyVariableCountsAsUnset) {
  ScopedEnv path("LD_LIBRARY_PATH", "");
  utils::SetLDLibraryPath("/d");
  EXPECT_STREQ(std::getenv("LD_LIBRARY_PATH"), "/d");
}

// --- addresses ---

TEST(GetLocalIPAddr, WayToTheOwnMachineIsTheLoopback) {
  EXPECT_EQ(utils::GetLocalIPAddr(CAWInetAddr("127.0.0.1", 9)).GetIpDisplayName(), "127.0.0.1");
}

TEST(GetLocalIPAddr, PeerThatCannotBeConnectedToGivesTheZeroAddress) {
  // Broadcasting is not allowed to a plain socket.
  EXPECT_EQ(utils::GetLocalIPAddr(CAWInetAddr("255.255.255.255", 9)).GetIpDisplayName(), "0.0.0.0");
}

TEST(CreateIPCClient, AsksTheManagerForKindOneAndReleasesWhatWasHeldFirst) {
  FakeManager manager;
  CAWAutoPtr<FakeConnector> before(new FakeConnector);
  CAWAutoPtr<fipc::IAWIPCConnector> out(before.Get());
  EXPECT_EQ(utils::CreateIPCClient(out), AW_OK);
  EXPECT_EQ(manager.kinds, std::vector<int>{1});
  EXPECT_TRUE(manager.outWasNull);
  EXPECT_EQ(out.Get(), manager.connectors.at(0).Get());
  EXPECT_EQ(before->GetReferences(), 1U);
}

TEST(CreateIPCClient, ReturnsTheManagersResultAndANullPointer) {
  FakeManager manager;
  manager.createResult = 10012;
  CAWAutoPtr<fipc::IAWIPCConnector> out(new FakeConnector);
  EXPECT_EQ(utils::CreateIPCClient(out), 10012U);
  EXPECT_FALSE(out);
}

TEST(CreateIPCServer, AsksTheManagerForKindOneAndReleasesWhatWasHeldFirst) {
  FakeManager manager;
  CAWAutoPtr<FakeAcceptor> before(new FakeAcceptor);
  CAWAutoPtr<fipc::IAWIPCAcceptor> out(before.Get());
  EXPECT_EQ(utils::CreateIPCServer(out), AW_OK);
  EXPECT_EQ(manager.kinds, std::vector<int>{1});
  EXPECT_TRUE(manager.outWasNull);
  EXPECT_EQ(out.Get(), manager.acceptors.at(0).Get());
  EXPECT_EQ(before->GetReferences(), 1U);
}

TEST(CreateIPCServer, ReturnsTheManagersResultAndANullPointer) {
  FakeManager manager;
  manager.createResult = 10012;
  CAWAutoPtr<fipc::IAWIPCAcceptor> out(new FakeAcceptor);
  EXPECT_EQ(utils::CreateIPCServer(out), 10012U);
  EXPECT_FALSE(out);
}

// --- job numbers ---

TEST(MakeJno, PutsTheFirstNumberIntoTheLowHalf) {
  EXPECT_EQ(utils::MakeJno(1, 2), 2U * 65536U + 1U);
  EXPECT_EQ(utils::MakeJno(0xFFFF, 0), 0x0000FFFFU);
  EXPECT_EQ(utils::MakeJno(0, 0xFFFF), 0xFFFF0000U);
  EXPECT_EQ(utils::MakeJno(0xFFFF, 0xFFFF), 0xFFFFFFFFU);
}

TEST(FromJno, GivesBothNumbersBack) {
  std::uint16_t low = 0;
  std::uint16_t high = 0;
  utils::FromJno(utils::MakeJno(1, 2), low, high);
  EXPECT_EQ(low, 1);
  EXPECT_EQ(high, 2);
  utils::FromJno(0xABCD1234U, low, high);
  EXPECT_EQ(low, 0x1234);
  EXPECT_EQ(high, 0xABCD);
}

// --- identifiers ---

// A program of its own, since the seed of this one may have been set by another test.
TEST(UuidDeathTest, GeneratorThatWasNotSeededGivesOnlyZeros) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        char id[13];
        bool zeros = true;
        for (int i = 0; i < 3; ++i) {
          utils::uuid4_generate(id);
          zeros = zeros && std::strcmp(id, "000000000000") == 0;
        }
        std::exit(zeros ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(Uuid, IdentifierIsUpToTwelveDigitsAndStaysInItsThirteenBytes) {
  ASSERT_EQ(utils::uuid4_init(), 0);
  for (int i = 0; i < 10000; ++i) {
    char id[14];
    std::memset(id, '#', sizeof id);
    utils::uuid4_generate(id);
    ASSERT_EQ(id[12], '\0');
    ASSERT_EQ(id[13], '#');
    for (int at = 0; at < 12; ++at)
      ASSERT_TRUE(id[at] == '\0' || (id[at] >= '0' && id[at] <= '9')) << at;
  }
}

TEST(Uuid, SixOfSixteenIdentifiersAreEmptyAndEveryDigitOccurs) {
  ASSERT_EQ(utils::uuid4_init(), 0);
  constexpr int kCount = 20000;
  int empty = 0;
  int digits[10] = {};
  for (int i = 0; i < kCount; ++i) {
    char id[13];
    utils::uuid4_generate(id);
    if (id[0] == '\0')
      ++empty;
    else
      ++digits[id[0] - '0'];
  }
  // 7500 are expected, with a standard deviation of 69; 1250 of each digit, with one of 35.
  EXPECT_NEAR(empty, kCount * 6 / 16, 700);
  for (const int count : digits) EXPECT_NEAR(count, kCount / 16, 350);
}

TEST(Uuid, IdentifiersDifferAfterAnotherSeed) {
  // Twelve bytes each, those behind the text's end included: equal with a chance of about 10^-13.
  char first[13];
  char second[13];
  ASSERT_EQ(utils::uuid4_init(), 0);
  utils::uuid4_generate(first);
  ASSERT_EQ(utils::uuid4_init(), 0);
  utils::uuid4_generate(second);
  EXPECT_NE(std::memcmp(first, second, sizeof first), 0);
}

}  // namespace
}  // namespace zarn::test
