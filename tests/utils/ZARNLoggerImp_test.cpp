// ZARNLoggerImp_test.cpp - files, widths and lines of a logger.
#include "zarn/utils/ZARNLoggerImp.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "ChildTest.h"
#include "LogTest.h"
#include "TempRoot.h"
#include "keelbase/internal/FileDescriptor.h"

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
  const FixedTime time({1706774400, 0});  // no other test's second: the last one's text is kept
  FileLogger file;
  {
    const ScopedEnv zone("TZ", "FAR-14");  // fourteen hours ahead
    ::tzset();
    file.logger.Print("INFO", "f", "m");
  }
  ::tzset();
  EXPECT_EQ(file.Take().substr(0, 26), "2024-02-01T08:00:00.000000");
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

// How many bytes-writing calls of the system this thread has made.
unsigned long CountWrites() {
  const std::string text = ReadFile("/proc/thread-self/io");
  return std::stoul(text.substr(text.find("syscw: ") + 7));
}

TEST_F(ZARNLoggerImpTest, LongLinesGoOutByOneCallOfTheSystem) {
  FileLogger file;
  const std::string message(100000, 'x');
  const unsigned long before = CountWrites();
  file.logger.Print("INFO", "f", "m");
  EXPECT_EQ(CountWrites() - before, 1U);
  file.logger.Print("INFO", "f", "%s", message.c_str());
  EXPECT_EQ(CountWrites() - before, 2U);
  file.logger.DebugPrint("z.cpp", 1, "f", "%s", message.c_str());
  EXPECT_EQ(CountWrites() - before, 3U);
}

// --- streams that others have opened ---

constexpr const char* kOnOthersStream = "2024-01-31T08:15:02.004711 | INFO     | f | ";

void PrintOn(std::FILE* stream, const char* format, ...) __attribute__((format(printf, 2, 3)));
void PrintOn(std::FILE* stream, const char* format, ...) {
  ZARNLoggerImp logger;
  std::va_list args;
  va_start(args, format);
  logger.printV("INFO", stream, nullptr, 0, "f", format, args);
  va_end(args);
}

TEST_F(ZARNLoggerImpTest, LongLinesOnABufferedStreamGoOutByOneCallToo) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(std::fopen(Path("a").c_str(), "wb"),
                                                               &std::fclose);
  std::string message(5000, 'x');
  const unsigned long before = CountWrites();
  PrintOn(stream.get(), "%s", message.c_str());
  EXPECT_EQ(CountWrites() - before, 1U);
  EXPECT_EQ(Read("a"), kOnOthersStream + message + "\n");
}

TEST_F(ZARNLoggerImpTest, LinesComeAfterWhatTheStreamHeldBefore) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(std::fopen(Path("a").c_str(), "wb"),
                                                               &std::fclose);
  std::fputs("one\n", stream.get());
  PrintOn(stream.get(), "two");
  EXPECT_EQ(Read("a"), std::string("one\n") + kOnOthersStream + "two\n");
}

TEST_F(ZARNLoggerImpTest, StreamsThatAreNoFilesTakeLinesToo) {
  char* text = nullptr;
  std::size_t size = 0;
  std::FILE* stream = ::open_memstream(&text, &size);
  PrintOn(stream, "m");
  EXPECT_STREQ(text, (std::string(kOnOthersStream) + "m\n").c_str());
  std::fclose(stream);
  std::free(text);
}

// --- lines that do not go out at once ---

// No file grows beyond that many bytes as long as it lives.
class ShortDisk {
 public:
  explicit ShortDisk(rlim_t bytes) : ignored_(::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limit{bytes, before_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~ShortDisk() {
    ::setrlimit(RLIMIT_FSIZE, &before_);
    ::signal(SIGXFSZ, ignored_);
  }
  ShortDisk(const ShortDisk&) = delete;
  ShortDisk& operator=(const ShortDisk&) = delete;

 private:
  const sighandler_t ignored_;
  rlimit before_{};
};

TEST_F(ZARNLoggerImpTest, LineAfterHalfALineBeginsInARowOfItsOwn) {
  FileLogger file;
  const std::string message(200000, 'x');
  {
    const ShortDisk disk(100000);
    file.logger.Print("INFO", "f", "%s", message.c_str());
    EXPECT_EQ(file.Take().size(), 100000U);
    file.logger.Print("INFO", "f", "lost");
    file.logger.Print("INFO", "f", "lost too");
  }
  file.logger.Print("INFO", "f", "after");
  file.logger.Print("INFO", "f", "second");
  const std::string begin = std::string(kTime) + "INFO     | f                  | ";
  EXPECT_EQ(file.Take(), "\n" + begin + "after\n" + begin + "second\n");
}

TEST_F(ZARNLoggerImpTest, LineThatIsLostAltogetherLeavesNoEmptyRow) {
  FileLogger file;
  file.logger.Print("INFO", "f", "before");
  const std::string before = file.Take();
  {
    const ShortDisk disk(before.size());
    file.logger.Print("INFO", "f", "lost");
  }
  file.logger.Print("INFO", "f", "after");
  EXPECT_EQ(file.Take(), std::string(kTime) + "INFO     | f                  | after\n");
}

// A stream into a pipe that holds one page.
class PipeStream {
 public:
  PipeStream() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    reader_.Reset(ends[0]);
    ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
    size_ = ::fcntl(ends[1], F_SETPIPE_SZ, 4096);
    stream_ = ::fdopen(ends[1], "wb");
  }
  ~PipeStream() {
    if (IsFree()) std::fclose(stream_);
  }
  PipeStream(const PipeStream&) = delete;
  PipeStream& operator=(const PipeStream&) = delete;

  std::FILE* Get() const { return stream_; }
  bool IsFull() const {
    int count = 0;
    return ::ioctl(reader_.Get(), FIONREAD, &count) == 0 && count == size_;
  }
  // Whether no other thread holds the stream.
  bool IsFree() const {
    if (::ftrylockfile(stream_) != 0) return false;
    ::funlockfile(stream_);
    return true;
  }
  // What is in it now.
  std::string Read() const {
    std::string text(static_cast<std::size_t>(size_), '\0');
    const ssize_t count = ::read(reader_.Get(), text.data(), text.size());
    text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return text;
  }

 private:
  keelbase::internal::FileDescriptor reader_;
  int size_ = 0;
  std::FILE* stream_ = nullptr;
};

TEST_F(ZARNLoggerImpTest, ThreadCancelledWithinALineLeavesTheStreamToOthers) {
  PipeStream pipe;
  const std::string message(100000, 'x');
  std::thread cancelled([&] { PrintOn(pipe.Get(), "%s", message.c_str()); });
  while (!pipe.IsFull()) std::this_thread::yield();
  ::pthread_cancel(cancelled.native_handle());
  cancelled.join();
  ASSERT_TRUE(pipe.IsFree());
  EXPECT_TRUE(pipe.Read().ends_with('x'));
  PrintOn(pipe.Get(), "after");
  EXPECT_EQ(pipe.Read(), std::string("\n") + kOnOthersStream + "after\n");
}

// SIGUSR1 interrupts the calls of the system that it comes upon.
class InterruptingSignal {
 public:
  InterruptingSignal() {
    handled_ = 0;
    struct sigaction action {};
    action.sa_handler = [](int) { ++handled_; };
    ::sigaction(SIGUSR1, &action, &before_);
  }
  ~InterruptingSignal() { ::sigaction(SIGUSR1, &before_, nullptr); }
  InterruptingSignal(const InterruptingSignal&) = delete;
  InterruptingSignal& operator=(const InterruptingSignal&) = delete;

  int CountHandled() const { return handled_; }

 private:
  inline static std::atomic<int> handled_{0};
  struct sigaction before_ {};
};

TEST_F(ZARNLoggerImpTest, SignalsTakeNothingFromALine) {
  const InterruptingSignal signal;
  PipeStream pipe;
  const std::string message(100000, 'x');
  std::atomic<bool> written{false};
  std::thread writer([&] {
    PrintOn(pipe.Get(), "%s", message.c_str());
    written = true;
  });
  std::string text;
  while (!written) {
    if (!pipe.IsFull()) continue;
    for (const int enough = signal.CountHandled() + 10; signal.CountHandled() < enough && !written;)
      ::pthread_kill(writer.native_handle(), SIGUSR1);
    text += pipe.Read();
  }
  writer.join();
  EXPECT_TRUE(text + pipe.Read() == kOnOthersStream + message + "\n");
}

}  // namespace
}  // namespace zarn::test
