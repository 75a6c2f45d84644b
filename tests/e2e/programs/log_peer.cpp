// log_peer.cpp - writes to the log as fast as it can, from several threads, until it is ended:
//   log_peer THREADS COUNTS
//
// The log lies below ZARN_ROOT. COUNTS is a file of THREADS 64-bit numbers, shared in memory: how
// many calls of each thread have returned. Line N of thread T is "thread T line N " and then as
// many dots as its number tells. Events: logging.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "Program.h"
#include "keelbase/CAWEnvironment.h"
#include "zarn/utils/ZARNLogger.h"

namespace {

using Count = std::atomic<std::uint64_t>;
static_assert(Count::is_always_lock_free);

Count* MapCounts(const char* path, std::size_t threads) {
  const int fd = ::open(path, O_RDWR);
  void* memory =
      ::mmap(nullptr, threads * sizeof(Count), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  ::close(fd);
  return memory != MAP_FAILED ? static_cast<Count*>(memory) : nullptr;
}

[[noreturn]] void WriteLines(std::size_t thread, Count& count) {
  const std::string dots(9000, '.');
  for (std::uint64_t n = 0;; ++n) {
    const int length = n % 100 == 0 ? 9000 : static_cast<int>(n % 150);  // some longer than a page
    if (n % 2 == 0)
      ZARN_LOG_INFO("thread %zu line %llu %.*s", thread, static_cast<unsigned long long>(n), length,
                    dots.c_str());
    else
      ZARN_DEBUG("thread %zu line %llu %.*s", thread, static_cast<unsigned long long>(n), length,
                 dots.c_str());
    count.store(n + 1, std::memory_order_release);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const std::size_t threads = std::stoul(argv[1]);
  Count* counts = MapCounts(argv[2], threads);
  keelbase::SetBinHomePath(zarn::utils::GetZARNRoot());
  if (counts == nullptr || zarn::utils::InitZARNLogger(true, false) != keelbase::AW_OK) return 1;
  e2e::Event("logging").With("threads", threads);
  for (std::size_t i = 0; i < threads; ++i)
    std::thread([i, counts] { WriteLines(i, counts[i]); }).detach();
  std::string line;
  while (std::getline(std::cin, line)) {
  }
  ::_exit(0);
}
