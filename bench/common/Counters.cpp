// Counters.cpp - see Counters.h. The program's own definitions stand before those of the C library,
// also for the shared libraries that it loads.
#include "Counters.h"

#include <dlfcn.h>
#include <poll.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>

namespace {

// Constant-initialised: malloc is called before any constructor has run.
std::atomic<bool> counting{false};
std::atomic<std::uint64_t> allocations{0};
std::atomic<std::uint64_t> system_calls{0};

void Count(std::atomic<std::uint64_t>& counter) {
  if (counting.load(std::memory_order_relaxed)) counter.fetch_add(1, std::memory_order_relaxed);
}

template <class Function>
Function FindNext(const char* name) {
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

namespace bench {

void StartCounting() { counting = true; }
Counts GetCounts() { return {allocations, system_calls}; }

}  // namespace bench

extern "C" {

// --- allocations; what these return is freed by the C library's own free ---

void* __libc_malloc(std::size_t size) noexcept;
void* __libc_calloc(std::size_t count, std::size_t size) noexcept;
void* __libc_realloc(void* memory, std::size_t size) noexcept;
void* __libc_memalign(std::size_t alignment, std::size_t size) noexcept;

void* malloc(std::size_t size) noexcept {
  Count(allocations);
  return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) noexcept {
  Count(allocations);
  return __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size) noexcept {
  Count(allocations);
  return __libc_realloc(memory, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  Count(allocations);
  return __libc_memalign(alignment, size);
}

int posix_memalign(void** out, std::size_t alignment, std::size_t size) noexcept {
  Count(allocations);
  void* memory = __libc_memalign(alignment, size);
  if (memory == nullptr) return ENOMEM;
  *out = memory;
  return 0;
}

// --- system calls ---

#define BENCH_COUNTED_CALL(name, ...)                        \
  static const auto next = FindNext<decltype(&name)>(#name); \
  Count(system_calls);                                       \
  return next(__VA_ARGS__)

ssize_t read(int fd, void* data, std::size_t size) { BENCH_COUNTED_CALL(read, fd, data, size); }

ssize_t write(int fd, const void* data, std::size_t size) {
  BENCH_COUNTED_CALL(write, fd, data, size);
}

ssize_t readv(int fd, const iovec* pieces, int count) {
  BENCH_COUNTED_CALL(readv, fd, pieces, count);
}

ssize_t writev(int fd, const iovec* pieces, int count) {
  BENCH_COUNTED_CALL(writev, fd, pieces, count);
}

ssize_t recv(int fd, void* data, std::size_t size, int flags) {
  BENCH_COUNTED_CALL(recv, fd, data, size, flags);
}

ssize_t send(int fd, const void* data, std::size_t size, int flags) {
  BENCH_COUNTED_CALL(send, fd, data, size, flags);
}

ssize_t recvmsg(int fd, msghdr* message, int flags) {
  BENCH_COUNTED_CALL(recvmsg, fd, message, flags);
}

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  BENCH_COUNTED_CALL(sendmsg, fd, message, flags);
}

int poll(pollfd* descriptors, nfds_t count, int timeout) {
  BENCH_COUNTED_CALL(poll, descriptors, count, timeout);
}

int epoll_wait(int epoll, epoll_event* events, int count, int timeout) {
  BENCH_COUNTED_CALL(epoll_wait, epoll, events, count, timeout);
}

int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept {
  BENCH_COUNTED_CALL(epoll_ctl, epoll, operation, fd, event);
}

int sched_yield() noexcept { BENCH_COUNTED_CALL(sched_yield); }

}  // extern "C"
