// ZARNLoggerImp_test.cpp - files, widths and lines of a logger.
#include "zarn/utils/ZARNLoggerImp.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>

#include "ChildTest.h"
#include "LogTest.h"
#include "TempRoot.h"

namespace zarn::test {
namespace {

using utils::ZARNLoggerImp;

constexpr const char* kTime = "2024-01-31T08:15:02.004711 | ";

class ZARNLoggerImpTest : public ::testing::Test {
 protected:
  std::string Path(const std::string& name) const { return directory_.GetPath() + "/" + name; }
  std::string Read(const std::string& name) const { return ReadFile(Path(name)); }
  std::size_t CountOpen(const std::string& name) const {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code gone;
      count += std::filesystem::read_symlink(entry, gone) == Path(name);
    }
    return count;
  }

  FixedTime time_;
  TempDir directory_;
};

TEST_F(ZARNLoggerImpTest, WritesNothingBeforeInit) {
  ZARNLoggerImp logger;
  logger.enableDebug();
  logger.Print("INFO", "main", "lost");
  logger.DebugPrint("z.cpp", 1, "main", "lost");
  EXPECT_TRUE(std::filesystem::is_empty(directory_.GetPath()));
}

TEST_F(ZARNLoggerImpTest, LinesOfBothKindsHaveTheirColumns) {
  FileLogger file;
  file.logger.Print("INFO", "main", "%d items", 3);
  EXPECT_EQ(file.Take(), std::string(kTime) + "INFO     | main               | 3 items\n");
  file.logger.DebugPrint("/x/y/z.cpp", 42, "Run", "%s", "text");
  EXPECT_EQ(file.Take(),
            std::string(kTime) + "DEBUG    |           z.cpp[00042] | Run                | text\n");
}

TEST_F(ZARNLoggerImpTest, FileIsShownWithoutItsDirectories) {
  FileLogger file;
  const auto shown = [&file](const char* path) {
    file.logger.DebugPrint(path, 1, "f", "m");
    const std::string line = file.Take();
    const std::size_t begin = std::strlen(kTime) + std::strlen("DEBUG    | ");
    return line.substr(begin, line.find('[') - begin);
  };
  EXPECT_EQ(shown("/x/y/z.cpp"), "          z.cpp");
  EXPECT_EQ(shown("z.cpp"), "          z.cpp");
  EXPECT_EQ(shown("/z.cpp"), "          z.cpp");
  EXPECT_EQ(shown("x/"), "               ");
  EXPECT_EQ(shown(""), "               ");
}

TEST_F(ZARNLoggerImpTest, LongFieldsAreNotCut) {
  FileLogger file;
  file.logger.Print("ABCDEFGHIJ", "a_function_of_a_long_name", "m");
  EXPECT_EQ(file.Take(), std::string(kTime) + "ABCDEFGHIJ | a_function_of_a_long_name | m\n");
  file.logger.DebugPrint("a_file_of_a_long_name.cpp", 1234567, "f", "m");
  EXPECT_EQ(file.Take(), std::string(kTime) +
                             "DEBUG    | a_file_of_a_long_name.cpp[1234567] | "
                             "f                  | m\n");
}

TEST_F(ZARNLoggerImpTest, NegativeLinesAndNullTextsAreShown) {
  FileLogger file;
  file.logger.DebugPrint("z.cpp", -7, "f", "m");
  EXPECT_NE(file.Take().find("z.cpp[-0007] |"), std::string::npos);
  const char* volatile none = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
  file.logger.Print(none, none, none);
#pragma GCC diagnostic pop
  EXPECT_EQ(file.Take(), std::string(kTime) + "(null)   | (null)             | (null)\n");
}

TEST_F(ZARNLoggerImpTest, WidthsFrom6To59AreTaken) {
  FileLogger file;
  const auto columns = [&file] {
    file.logger.DebugPrint("z", 1, "f", "m");
    const std::string line = file.Take();
    const std::size_t begin = std::strlen(kTime) + std::strlen("DEBUG    | ");
    const std::size_t bracket = line.find('[');
    const std::size_t function = bracket + std::strlen("[00001] | ");
    return std::pair(bracket - begin, line.rfind(" | ") - function);
  };
  for (const auto width : {5, 60, 0, 255, 1, 61}) {
    file.logger.setWidthFilename(static_cast<unsigned char>(width));
    file.logger.setWidthFunction(static_cast<unsigned char>(width));
    EXPECT_EQ(columns(), std::pair(std::size_t{15}, std::size_t{18})) << width;
  }
  file.logger.setWidthFilename(6);
  file.logger.setWidthFunction(59);
  EXPECT_EQ(columns(), std::pair(std::size_t{6}, std::size_t{59}));
  file.logger.setWidthFilename(59);
  file.logger.setWidthFunction(6);
  EXPECT_EQ(columns(), std::pair(std::size_t{59}, std::size_t{6}));
}

TEST_F(ZARNLoggerImpTest, InitSetsBothWidthsTo20AndDebugOff) {
  ZARNLoggerImp logger;
  logger.setWidthFunction(30);
  logger.enableDebug();
  logger.Init(Path("a").c_str(), Path("b").c_str());
  logger.DebugPrint("z.cpp", 1, "f", "nothing");
  logger.enableDebug();
  logger.DebugPrint("z.cpp", 1, "f", "m");
  EXPECT_EQ(Read("b"), std::string(kTime) + "DEBUG    |                z.cpp[00001] | " +
                           "f                    | m\n");
  EXPECT_EQ(Read("a"), "");
}

TEST_F(ZARNLoggerImpTest, DebugLinesAreWrittenOnlyWhileEnabled) {
  ZARNLoggerImp logger;
  logger.Init(Path("a").c_str(), Path("b").c_str());
  logger.DebugPrint("z.cpp", 1, "f", "no");
  EXPECT_EQ(Read("b"), "");
  logger.enableDebug();
  logger.enableDebug();
  logger.DebugPrint("z.cpp", 1, "f", "yes");
  logger.disableDebug();
  logger.DebugPrint("z.cpp", 1, "f", "no");
  const std::string text = Read("b");
  EXPECT_NE(text.find("| yes\n"), std::string::npos);
  EXPECT_EQ(text.find("| no\n"), std::string::npos);
}

TEST_F(ZARNLoggerImpTest, SameNameTwiceIsOneFileOpenedOnce) {
  {
    ZARNLoggerImp logger;
    logger.Init(Path("a").c_str(), Path("a").c_str());
    logger.enableDebug();
    EXPECT_EQ(CountOpen("a"), 1U);
    logger.Print("INFO", "f", "one");
    logger.DebugPrint("z.cpp", 1, "f", "two");
    logger.Print("INFO", "f", "three");
    const std::string text = Read("a");
    EXPECT_LT(text.find("one"), text.find("two"));
    EXPECT_LT(text.find("two"), text.find("three"));
    EXPECT_NE(text.find("three"), std::string::npos);
  }
  EXPECT_EQ(CountOpen("a"), 0U);
}

TEST_F(ZARNLoggerImpTest, NoDebugFileMeansTheLogFile) {
  {
    ZARNLoggerImp logger;
    logger.Init(Path("a").c_str(), nullptr);
    logger.enableDebug();
    logger.DebugPrint("z.cpp", 1, "f", "two");
    EXPECT_NE(Read("a").find("DEBUG"), std::string::npos);
  }
  EXPECT_EQ(CountOpen("a"), 0U);
}

TEST_F(ZARNLoggerImpTest, NoFilesMeanStandardOutputWhichStaysOpen) {
  if (ChildTest::Role() == "child") {
    const FixedTime time;
    {
      ZARNLoggerImp logger;
      logger.Init(nullptr, nullptr);
      logger.enableDebug();
      logger.Print("INFO", "f", "one");
      logger.DebugPrint("z.cpp", 1, "f", "two");
    }
    std::puts("still open");
    std::exit(0);
  }
  ChildTest child("child");
  EXPECT_EQ(child.Wait(), 0);
  const std::string text = child.GetErrors();
  EXPECT_NE(text.find(std::string(kTime) + "INFO     | f                    | one\n" + kTime +
                      "DEBUG    |                z.cpp[00001] | f                    | two\n"
                      "still open\n"),
            std::string::npos)
      << text;
}

TEST_F(ZARNLoggerImpTest, StandardOutputMayHaveADebugFileBesideIt) {
  ZARNLoggerImp logger;
  logger.Init(nullptr, Path("b").c_str());
  logger.enableDebug();
  logger.DebugPrint("z.cpp", 1, "f", "two");
  EXPECT_NE(Read("b").find("| two\n"), std::string::npos);
}

TEST_F(ZARNLoggerImpTest, FilesAreCutWhenTheyAreOpened) {
  std::ofstream(Path("a")) << "what was there before";
  ZARNLoggerImp logger;
  logger.Init(Path("a").c_str(), nullptr);
  EXPECT_EQ(Read("a"), "");
}

TEST_F(ZARNLoggerImpTest, DestructorClosesBothFiles) {
  {
    ZARNLoggerImp logger;
    logger.Init(Path("a").c_str(), Path("b").c_str());
    EXPECT_EQ(CountOpen("a") + CountOpen("b"), 2U);
  }
  EXPECT_EQ(CountOpen("a") + CountOpen("b"), 0U);
}

TEST_F(ZARNLoggerImpTest, SecondInitLeavesTheEarlierFilesOpen) {
  {
    ZARNLoggerImp logger;
    logger.Init(Path("a").c_str(), Path("b").c_str());
    logger.Init(Path("c").c_str(), nullptr);
    logger.Print("INFO", "f", "m");
    EXPECT_EQ(Read("a"), "");
    EXPECT_NE(Read("c"), "");
  }
  EXPECT_EQ(CountOpen("a") + CountOpen("b"), 2U);
  EXPECT_EQ(CountOpen("c"), 0U);
}

const char* MessageOfInit(ZARNLoggerImp& logger, const std::string& log, const std::string& debug) {
  try {
    logger.Init(log.c_str(), debug.c_str());
  } catch (const char* message) {
    return message;
  }
  return "none";
}

TEST_F(ZARNLoggerImpTest, LogFileThatCannotBeOpenedThrowsItsErrorAndLeavesNoStream) {
  ZARNLoggerImp logger;
  EXPECT_STREQ(MessageOfInit(logger, Path("no/a"), Path("b")), std::strerror(ENOENT));
  EXPECT_STREQ(MessageOfInit(logger, directory_.GetPath(), Path("b")), std::strerror(EISDIR));
  EXPECT_FALSE(std::filesystem::exists(Path("b")));
  logger.enableDebug();
  logger.Print("INFO", "f", "lost");
  logger.DebugPrint("z.cpp", 1, "f", "lost");
}

TEST_F(ZARNLoggerImpTest, DebugFileThatCannotBeOpenedLeavesTheLogFileInUse) {
  {
    ZARNLoggerImp logger;
    EXPECT_STREQ(MessageOfInit(logger, Path("a"), Path("no/b")), std::strerror(ENOENT));
    logger.enableDebug();
    logger.Print("INFO", "f", "kept");
    logger.DebugPrint("z.cpp", 1, "f", "lost");
    const std::string text = Read("a");
    EXPECT_NE(text.find("kept"), std::string::npos);
    EXPECT_EQ(text.find("lost"), std::string::npos);
  }
  EXPECT_EQ(CountOpen("a"), 0U);
}

TEST_F(ZARNLoggerImpTest, TimeIsUtcWhateverTheZoneOfTheProcess) {
  FileLogger file;
  {
    const ScopedEnv zone("TZ", "FAR-14");  // fourteen hours ahead
    ::tzset();
    file.logger.Print("INFO", "f", "m");
  }
  ::tzset();
  EXPECT_EQ(file.Take().substr(0, 29), kTime);
}

TEST_F(ZARNLoggerImpTest, TimeChangesWithTheSecond) {
  FileLogger file;
  const auto at = [&file](timeval time) {
    const FixedTime fixed(time);
    file.logger.Print("INFO", "f", "m");
    return file.Take().substr(0, 26);
  };
  EXPECT_EQ(at({0, 0}), "1970-01-01T00:00:00.000000");
  EXPECT_EQ(at({0, 999999}), "1970-01-01T00:00:00.999999");
  EXPECT_EQ(at({951782399, 1}), "2000-02-28T23:59:59.000001");
  EXPECT_EQ(at({951782400, 20}), "2000-02-29T00:00:00.000020");
  EXPECT_EQ(at({-1, 500000}), "1969-12-31T23:59:59.500000");
}

TEST_F(ZARNLoggerImpTest, ErrorsOfWritingAreIgnored) {
  ZARNLoggerImp logger;
  logger.Init("/dev/full", nullptr);
  errno = EINTR;
  logger.Print("INFO", "f", "m");
  EXPECT_EQ(errno, EINTR);
}

TEST_F(ZARNLoggerImpTest, LongLinesGoOutByOneCallOfTheSystem) {
  FileLogger file;
  const auto writes = [] {
    const std::string text = ReadFile("/proc/thread-self/io");
    return std::stoul(text.substr(text.find("syscw: ") + 7));
  };
  const std::string message(100000, 'x');
  const unsigned long before = writes();
  file.logger.Print("INFO", "f", "m");
  EXPECT_EQ(writes() - before, 1U);
  file.logger.Print("INFO", "f", "%s", message.c_str());
  EXPECT_EQ(writes() - before, 2U);
  file.logger.DebugPrint("z.cpp", 1, "f", "%s", message.c_str());
  EXPECT_EQ(writes() - before, 3U);
}

}  // namespace
}  // namespace zarn::test
