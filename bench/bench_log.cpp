// bench_log.cpp - lines written to a log file, one after the other, each in the file when the call
// returns:
//   bench_log zarn|spdlog|write [--threads N] [--seconds S]     {"rate":lines a second}
//   bench_log debug-off [--seconds S]                           {"ns":for one ZARN_DEBUG}
// "write" is the bare system call with a line that is made already.
#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "common/Bench.h"
#include "zarn/utils/ZARNLogger.h"

namespace {

using bench::Fail;
using bench::Now;
using zarn::utils::ZARNLogger;

struct LogOptions {
  std::string mode;
  unsigned threads = 1;
  double seconds = 1;
};

LogOptions Parse(int argc, char** argv) {
  LogOptions options;
  if (argc < 2 || argc % 2 != 0) Fail("usage: bench_log MODE [--threads N] [--seconds S]");
  options.mode = argv[1];
  for (int i = 2; i < argc; i += 2) {
    const std::string_view name = argv[i];
    if (name == "--threads")
      options.threads = static_cast<unsigned>(std::stoul(argv[i + 1]));
    else if (name == "--seconds")
      options.seconds = std::stod(argv[i + 1]);
    else
      Fail("unknown option " + std::string(name));
  }
  return options;
}

// Where the lines go; removed at the end. The disk itself is not what is measured.
class LogFile {
 public:
  LogFile()
      : path_(std::filesystem::temp_directory_path() /
              ("zarn-bench-" + std::to_string(::getpid()) + ".log")) {}
  ~LogFile() { std::filesystem::remove(path_); }
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  const std::string& GetPath() const { return path_; }
  // A line that is lost or cut would make any logger fast.
  void CheckLines(std::uint64_t count, std::size_t least) const {
    const std::size_t size = std::filesystem::file_size(path_);
    if (size < count * least) Fail("lines are missing in " + path_);
  }

 private:
  const std::string path_;
};

constexpr const char* kPeer = "ipc://1_2";

void PrintZarn(std::uint64_t number) {
  ZARN_LOG_INFO("sent message %llu to %s", static_cast<unsigned long long>(number), kPeer);
}

void PrintSpdlog(std::uint64_t number) { SPDLOG_INFO("sent message {} to {}", number, kPeer); }

void SetUpSpdlog(const std::string& path) {
  auto logger = spdlog::basic_logger_mt("bench", path, true);
  logger->set_pattern("%Y-%m-%dT%H:%M:%S.%f | %-8l | %-18! | %v", spdlog::pattern_time_type::utc);
  logger->flush_on(spdlog::level::trace);
  spdlog::set_default_logger(logger);
}

// Lines a second of all threads.
double Measure(const LogOptions& options, const LogFile& file,
               const std::function<void(std::uint64_t)>& print) {
  std::atomic<bool> go{false};
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> lines{0};
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < options.threads; ++i) {
    threads.emplace_back([&] {
      while (!go) std::this_thread::yield();
      std::uint64_t count = 0;
      for (; !stop.load(std::memory_order_relaxed); ++count) print(count);
      lines += count;
    });
  }
  const double begin = Now();
  go = true;
  std::this_thread::sleep_for(std::chrono::duration<double>(options.seconds));
  stop = true;
  for (std::thread& thread : threads) thread.join();
  const double seconds = Now() - begin;
  file.CheckLines(lines, 60);
  return static_cast<double>(lines) / seconds;
}

double MeasureLines(const LogOptions& options) {
  const LogFile file;
  if (options.mode == "zarn") {
    ZARNLogger::Instance()->Init(file.GetPath().c_str(), nullptr);
    ZARNLogger::Instance()->setWidthFunction(18);
    return Measure(options, file, PrintZarn);
  }
  if (options.mode == "spdlog") {
    SetUpSpdlog(file.GetPath());
    return Measure(options, file, PrintSpdlog);
  }
  const int fd = ::open(file.GetPath().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  constexpr std::string_view kLine =
      "2024-01-31T08:15:02.004711 | INFO     | PrintZarn          | sent message 123456 to "
      "ipc://1_2\n";
  return Measure(options, file, [fd, kLine](std::uint64_t) {
    if (::write(fd, kLine.data(), kLine.size()) < 0) bench::FailErrno("write");
  });
}

double MeasureDebugOff(const LogOptions& options) {
  constexpr int kRound = 1000000;
  const double begin = Now();
  double now = begin;
  std::uint64_t calls = 0;
  for (; now - begin < options.seconds; now = Now()) {
    for (int i = 0; i < kRound; ++i) {
      ZARN_DEBUG("%d", i);
      asm volatile("" ::: "memory");  // each time anew
    }
    calls += kRound;
  }
  return (now - begin) * 1e9 / static_cast<double>(calls);
}

}  // namespace

int main(int argc, char** argv) {
  const LogOptions options = Parse(argc, argv);
  if (options.mode == "debug-off") {
    std::printf("{\"ns\":%.4f}\n", MeasureDebugOff(options));
  } else if (options.mode == "zarn" || options.mode == "spdlog" || options.mode == "write") {
    std::printf("{\"rate\":%.1f}\n", MeasureLines(options));
  } else {
    Fail("unknown mode " + options.mode);
  }
  return 0;
}
