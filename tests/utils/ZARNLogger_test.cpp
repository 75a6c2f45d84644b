// ZARNLogger_test.cpp - the logger of the process: how it is set up, its macros, its end.
#include "zarn/utils/ZARNLogger.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ChildTest.h"
#include "LogTest.h"
#include "TempRoot.h"
#include "keelbase/CAWEnvironment.h"
#include "keelbase/CAWSingleton.h"

namespace zarn::test {
namespace {

using utils::InitZARNLogger;
using utils::ZARNLogger;

// The process's logger below a home of its own. Afterwards the logger has no files there.
class ZARNLoggerTest : public ::testing::Test {
 protected:
  ZARNLoggerTest() { keelbase::SetBinHomePath(home_.GetPath()); }
  ~ZARNLoggerTest() override {
    ZARNLogger::Instance()->Init("/dev/null", nullptr);
    keelbase::SetBinHomePath("");
  }

  std::string Logs() const { return home_.GetPath() + "/logs"; }
  std::string LogPath() const { return Logs() + "/" + keelbase::GetProcessName() + ".log"; }
  std::string DebugPath() const { return Logs() + "/" + keelbase::GetProcessName() + "_debug.log"; }
  std::string TakeLog() { return Take(LogPath()); }
  std::string TakeDebug() { return Take(DebugPath()); }

  TempDir home_;

 private:
  std::string Take(const std::string& path) {
    std::string text = ReadFile(path, taken_[path]);
    taken_[path] += text.size();
    return text;
  }
  std::map<std::string, std::size_t> taken_;
};

TEST_F(ZARNLoggerTest, InstanceIsAlwaysTheSame) {
  EXPECT_EQ(ZARNLogger::Instance(), ZARNLogger::Instance());
  EXPECT_NE(dynamic_cast<utils::ZARNLoggerImp*>(ZARNLogger::Instance()), nullptr);
}

TEST_F(ZARNLoggerTest, InitOpensBothFilesInADirectoryThatItMakes) {
  ASSERT_EQ(InitZARNLogger(true, false), 0U);
  EXPECT_TRUE(std::filesystem::exists(LogPath()));
  EXPECT_TRUE(std::filesystem::exists(DebugPath()));
  const FixedTime time;
  ZARNLogger::Instance()->Print("INFO", "main", "%d items", 3);
  ZARNLogger::Instance()->DebugPrint("/x/y/z.cpp", 7, "main", "hello");
  EXPECT_EQ(TakeLog(), "2024-01-31T08:15:02.004711 | INFO     | main               | 3 items\n");
  EXPECT_EQ(TakeDebug(),
            "2024-01-31T08:15:02.004711 | DEBUG    |           z.cpp[00007] | main               | "
            "hello\n");
}

TEST_F(ZARNLoggerTest, InitSwitchesDebugOutputOnAndOff) {
  ASSERT_EQ(InitZARNLogger(false, true), 0U);
  ZARN_DEBUG("no");
  EXPECT_EQ(TakeDebug(), "");
  ASSERT_EQ(InitZARNLogger(true, true), 0U);
  ZARN_DEBUG("yes");
  EXPECT_NE(TakeDebug().find("| yes\n"), std::string::npos);
}

TEST_F(ZARNLoggerTest, InitCutsTheFilesOfTheLastRun) {
  std::filesystem::create_directory(Logs());
  std::ofstream(LogPath()) << "old";
  std::ofstream(DebugPath()) << "old";
  ASSERT_EQ(InitZARNLogger(false, false), 0U);
  EXPECT_EQ(TakeLog() + TakeDebug(), "");
}

// What it says on std::cout when it fails.
std::string FailingInit() {
  std::ostringstream said;
  std::streambuf* before = std::cout.rdbuf(said.rdbuf());
  EXPECT_EQ(InitZARNLogger(true, true), 10001U);
  std::cout.rdbuf(before);
  return said.str();
}

TEST_F(ZARNLoggerTest, LogsThatIsAFileIsSaidOnStandardOutput) {
  std::ofstream(Logs()) << "no directory";
  EXPECT_EQ(FailingInit(), "Failed to open log file for read/write : Not a directory\n");
  ZARN_LOG_INFO("harmless");
}

TEST_F(ZARNLoggerTest, LogFileThatCannotBeOpenedIsSaidAndSetsNothing) {
  std::filesystem::create_directories(LogPath());  // a directory of that name
  EXPECT_EQ(FailingInit(), "Failed to open log file for read/write : Is a directory\n");
  EXPECT_EQ(utils::detail::loggersWithDebug, 0U);
}

TEST_F(ZARNLoggerTest, DebugFileThatCannotBeOpenedLeavesTheLogWithItsFirstWidths) {
  std::filesystem::create_directories(DebugPath());
  EXPECT_EQ(FailingInit(), "Failed to open log file for read/write : Is a directory\n");
  EXPECT_EQ(utils::detail::loggersWithDebug, 0U);
  const FixedTime time;
  ZARNLogger::Instance()->Print("INFO", "main", "m");
  EXPECT_EQ(TakeLog(), "2024-01-31T08:15:02.004711 | INFO     | main                 | m\n");
}

// From now on nobody tells this process where its program lies.
bool RefuseReadlink() {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_readlinkat, 1, 0),
#ifdef SYS_readlink
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_readlink, 0, 1),
#else
      BPF_JUMP(BPF_JMP | BPF_JA, 1, 0, 0),
#endif
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EACCES),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog program{sizeof filter / sizeof filter[0], filter};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST_F(ZARNLoggerTest, WithoutAHomeTheLoggerStaysAsItWas) {
  if (ChildTest::Role() == "child") {
    keelbase::SetBinHomePath("");
    const std::string path = ChildTest::Argument() + "/before.log";
    ZARNLogger::Instance()->Init(path.c_str(), nullptr);
    if (!RefuseReadlink() || !keelbase::GetBinHomePath().empty()) std::_Exit(2);
    const bool failed = InitZARNLogger(true, true) == 10001;
    ZARN_LOG_INFO("still here");
    ZARN_DEBUG("not switched on");
    std::_Exit(failed ? 0 : 1);
  }
  ChildTest child("child", home_.GetPath());
  EXPECT_EQ(child.Wait(), 0) << child.GetErrors();
  EXPECT_EQ(child.GetErrors().find("Failed to open"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(Logs()));
  const std::string text = ReadFile(home_.GetPath() + "/before.log");
  EXPECT_NE(text.find("| TestBody             | still here\n"), std::string::npos) << text;
  EXPECT_EQ(text.find("not switched on"), std::string::npos);
}

TEST_F(ZARNLoggerTest, UnwritableDirectoryIsSaid) {
  if (ChildTest::Role() == "child") {
    std::filesystem::create_directory(Logs());
    ::chmod(Logs().c_str(), 0500);
    ::chmod(home_.GetPath().c_str(), 0755);
    if (::geteuid() == 0 && ::setuid(65534) != 0) std::exit(2);
    const bool failed = InitZARNLogger(true, true) == 10001;
    std::_Exit(failed ? 0 : 1);  // what is left belongs to the parent's user
  }
  const ScopedEnv directory("TMPDIR", home_.GetPath());
  ::chmod(home_.GetPath().c_str(), 0755);
  ChildTest child("child");
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_NE(child.GetErrors().find("for read/write : Permission denied\n"), std::string::npos)
      << child.GetErrors();
}

// --- macros ---

TEST_F(ZARNLoggerTest, MacrosPassTheCallSite) {
  ASSERT_EQ(InitZARNLogger(true, false), 0U);
  const FixedTime time;
  ZARN_LOG("NOTICE", "%s", "a");
  EXPECT_EQ(TakeLog(), "2024-01-31T08:15:02.004711 | NOTICE   | TestBody           | a\n");
  ZARN_LOG_ERROR("b");
  EXPECT_EQ(TakeLog(), "2024-01-31T08:15:02.004711 | ERROR    | TestBody           | b\n");
  ZARN_LOG_WARN("c %d", 1);
  EXPECT_EQ(TakeLog(), "2024-01-31T08:15:02.004711 | WARN     | TestBody           | c 1\n");
  ZARN_LOG_INFO("d %d %d", 1, 2);
  EXPECT_EQ(TakeLog(), "2024-01-31T08:15:02.004711 | INFO     | TestBody           | d 1 2\n");
  const int line = __LINE__ + 1;
  ZARN_DEBUG("e %c", 'x');
  char place[64];
  std::snprintf(place, sizeof place, "DEBUG    | ZARNLogger_test.cpp[%05d] | TestBody  ", line);
  EXPECT_NE(TakeDebug().find(place), std::string::npos);
}

struct Number {
  int value;
  int operator%(int divisor) const {
    ZARN_LOG_INFO("%d", divisor);
    return value % divisor;
  }
};

TEST_F(ZARNLoggerTest, MacrosDoublePercentInNames) {
  ASSERT_EQ(InitZARNLogger(true, false), 0U);
  const FixedTime time;
  EXPECT_EQ(Number{7} % 4, 3);
  EXPECT_EQ(TakeLog(), "2024-01-31T08:15:02.004711 | INFO     | operator%         | 4\n");
  ZARN_LOG("100%d", "%d", 4);
  EXPECT_EQ(TakeLog(), "2024-01-31T08:15:02.004711 | 100%d   | TestBody           | 4\n");
#line 12 "/a%d/b%n.cpp"
  ZARN_DEBUG("%d", 4);
#line 200 "ZARNLogger_test.cpp"
  EXPECT_NE(TakeDebug().find("b%n.cpp[00012]"), std::string::npos);
}

TEST(LogName, DoublesPercentAndKeepsTheRest) {
  using utils::detail::LogName;
  const char* plain = "plain";
  EXPECT_EQ(LogName(plain).Get(), plain);
  EXPECT_EQ(LogName(nullptr).Get(), nullptr);
  EXPECT_STREQ(LogName("%").Get(), "%%");
  EXPECT_STREQ(LogName("a%b%%").Get(), "a%%b%%%%");
  const std::string room(510, 'x');
  EXPECT_EQ(LogName((room + "%").c_str()).Get(), room);
  EXPECT_EQ(LogName((room.substr(1) + "%x").c_str()).Get(), room.substr(1) + "%%");
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"  // %m is not in the standard

TEST_F(ZARNLoggerTest, MacrosKeepErrnoAndPrintIt) {
  ASSERT_EQ(InitZARNLogger(true, false), 0U);
  errno = ENOSPC;
  ZARN_LOG_ERROR("%m");
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_NE(TakeLog().find("| No space left on device\n"), std::string::npos);
  ZARN_DEBUG("%m");
  EXPECT_EQ(errno, ENOSPC);
}

#pragma GCC diagnostic pop

TEST_F(ZARNLoggerTest, DebugMacroEvaluatesNothingWhileItIsOff) {
  ASSERT_EQ(InitZARNLogger(false, false), 0U);
  int calls = 0;
  const auto count = [&calls] { return ++calls; };
  ZARN_DEBUG("%d", count());
  EXPECT_EQ(calls, 0);
  ZARNLogger::Instance()->enableDebug();
  ZARN_DEBUG("%d", count());
  EXPECT_EQ(calls, 1);
  ZARNLogger::Instance()->disableDebug();
  ZARN_DEBUG("%d", count());
  EXPECT_EQ(calls, 1);
}

TEST_F(ZARNLoggerTest, MacrosAreOneStatement) {
  ASSERT_EQ(InitZARNLogger(true, false), 0U);
  for (const bool choice : {true, false}) {
    if (choice)
      ZARN_LOG_INFO("yes");
    else
      ZARN_DEBUG("no");
  }
  EXPECT_NE(TakeLog().find("yes"), std::string::npos);
  EXPECT_NE(TakeDebug().find("no"), std::string::npos);
}

TEST(LoggersWithDebug, CountsLoggersAndForgetsThoseThatEnd) {
  {
    utils::ZARNLoggerImp one;
    utils::ZARNLoggerImp two;
    one.enableDebug();
    one.enableDebug();
    two.enableDebug();
    EXPECT_EQ(utils::detail::loggersWithDebug, 2U);
    one.disableDebug();
    EXPECT_EQ(utils::detail::loggersWithDebug, 1U);
  }
  EXPECT_EQ(utils::detail::loggersWithDebug, 0U);
}

// --- threads ---

TEST_F(ZARNLoggerTest, TwoHundredThreadsWriteWholeLines) {
  constexpr int kThreads = 200;
  constexpr int kLines = 50;
  ASSERT_EQ(InitZARNLogger(true, false), 0U);
  std::vector<std::thread> threads;
  std::atomic<bool> go{false};
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([i, &go] {
      const std::string filler(static_cast<std::size_t>(i * 50), static_cast<char>('a' + i % 26));
      while (!go) std::this_thread::yield();
      for (int n = 0; n < kLines; ++n) {
        ZARN_LOG_INFO("thread %d line %d %s.", i, n, filler.c_str());
        if (n % 10 == 0) ZARNLogger::Instance()->setWidthFunction(18);
      }
    });
  }
  go = true;
  for (std::thread& thread : threads) thread.join();

  const std::regex pattern(
      "\\S{26} \\| INFO     \\| operator\\(\\)         \\| thread (\\d+) line (\\d+) ");
  std::istringstream lines(TakeLog());
  std::vector<int> next(kThreads, 0);
  int count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    std::smatch match;
    ASSERT_TRUE(std::regex_search(line.cbegin(),
                                  line.cbegin() + std::min<long>(100, long(line.size())), match,
                                  pattern, std::regex_constants::match_continuous))
        << line;
    const int thread = std::stoi(match[1]);
    EXPECT_EQ(std::stoi(match[2]), next.at(static_cast<std::size_t>(thread))++);
    const std::string rest = line.substr(static_cast<std::size_t>(match.length()));
    ASSERT_EQ(rest, std::string(static_cast<std::size_t>(thread * 50),
                                static_cast<char>('a' + thread % 26)) +
                        ".");
  }
  EXPECT_EQ(count, kThreads * kLines);
}

TEST_F(ZARNLoggerTest, SettingsMayChangeWhileOthersPrint) {
  ASSERT_EQ(InitZARNLogger(true, false), 0U);
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&stop] {
      while (!stop) {
        ZARN_LOG_INFO("x");
        ZARN_DEBUG("y");
      }
    });
  }
  for (int i = 0; i < 200; ++i) {
    ZARNLogger* logger = ZARNLogger::Instance();
    i % 2 == 0 ? logger->disableDebug() : logger->enableDebug();
    logger->setWidthFilename(static_cast<unsigned char>(6 + i % 50));
    if (i % 50 == 0) {
      EXPECT_EQ(InitZARNLogger(true, false), 0U);
    }
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
}

// --- the end ---

// Made before the logger, so destroyed after it.
class LateLogger final : public keelbase::CAWCleanUpBase {
 public:
  ~LateLogger() override {
    ZARN_LOG_INFO("too late");
    ZARN_DEBUG("too late");
    ZARNLogger::Instance()->enableDebug();
    ZARN_DEBUG("too late");
    std::fputs("logged late", stderr);
  }
};

TEST_F(ZARNLoggerTest, AfterTheCleanUpThereIsASilentLogger) {
  if (ChildTest::Role() == "child") {
    keelbase::SetBinHomePath(ChildTest::Argument());
    new LateLogger;
    if (InitZARNLogger(true, false) != 0) std::_Exit(2);
    ZARN_LOG_INFO("in time");
    ZARN_DEBUG("in time");
    std::exit(0);
  }
  ChildTest child("child", home_.GetPath());
  EXPECT_EQ(child.Wait(), 0) << child.GetErrors();
  EXPECT_NE(child.GetErrors().find("logged late"), std::string::npos);
  for (const std::string& text : {TakeLog(), TakeDebug()}) {
    EXPECT_NE(text.find("in time\n"), std::string::npos);
    EXPECT_EQ(text.find("too late"), std::string::npos);
  }
}

TEST_F(ZARNLoggerTest, LinesAreThereAtOnceAndSurviveAnAbruptEnd) {
  if (ChildTest::Role() == "child") {
    keelbase::SetBinHomePath(ChildTest::Argument());
    if (InitZARNLogger(false, false) != 0) std::_Exit(2);
    ZARN_LOG_INFO("the last words");
    ::kill(::getpid(), SIGKILL);
  }
  ChildTest child("child", home_.GetPath());
  EXPECT_EQ(child.Wait(), -SIGKILL);
  EXPECT_NE(TakeLog().find("| the last words\n"), std::string::npos);
}

}  // namespace
}  // namespace zarn::test
