// failing_calls.cpp - a library to be preloaded: lets one system call of the process fail, once or
// for ever, and counts them all.
//
//   ZARN_FAULT        "NAME NUMBER ERRNO once|ever": the NUMBERth call of NAME (from 1) fails, or
//                     that and all later ones; not set: none
//   ZARN_FAULT_REPORT a file; gets a line "failed NAME NUMBER" for the first that failed and, when
//                     the process ends in order, "count NAME CALLS" for each
//
//
// Left alone: what goes to the standard streams, waking a loop (an eventfd that can be written does
// not fail) and taking a descriptor out of an epoll set (which does not fail either).
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// --- what is to fail ---

struct Fault {
  char name[32] = "";
  unsigned long number = 0;
  int error = 0;
  bool ever = false;

  Fault() {
    const char* text = std::getenv("ZARN_FAULT");
    char how[8] = "";
    if (text != nullptr && std::sscanf(text, "%31s %lu %d %7s", name, &number, &error, how) == 4)
      ever = std::strcmp(how, "ever") == 0;
  }
};

const Fault& TheFault() {
  static const Fault fault;
  return fault;
}

// Past all that is counted.
void Report(const char* what, const char* name, unsigned long number) {
  const char* path = std::getenv("ZARN_FAULT_REPORT");
  if (path == nullptr) return;
  char line[64];
  const int length = std::snprintf(line, sizeof line, "%s %s %lu\n", what, name, number);
  const long file =
      ::syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (file < 0) return;
  ::syscall(SYS_write, file, line, static_cast<std::size_t>(length));
  ::syscall(SYS_close, file);
}

// --- the calls ---

class Call {
 public:
  explicit Call(const char* name) : name_(name) {
    next_ = first_.load();
    while (!first_.compare_exchange_weak(next_, this)) {
    }
  }

  // Whether this one is to fail, with errno set.
  bool Fails() {
    const unsigned long number = ++count_;
    const Fault& fault = TheFault();
    if (fault.number == 0 || std::strcmp(fault.name, name_) != 0) return false;
    if (number < fault.number || (number > fault.number && !fault.ever)) return false;
    if (number == fault.number) Report("failed", name_, number);
    errno = fault.error;
    return true;
  }

  static void ReportAll() {
    for (const Call* call = first_; call != nullptr; call = call->next_)
      Report("count", call->name_, call->count_);
  }

 private:
  static std::atomic<Call*> first_;

  const char* const name_;
  std::atomic<unsigned long> count_{0};
  Call* next_ = nullptr;
};

std::atomic<Call*> Call::first_{nullptr};

__attribute__((destructor)) void AtEnd() { Call::ReportAll(); }

template <class Function>
Function* Real(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

std::array<std::atomic<bool>, 4096> wakers;  // by descriptor: is an eventfd

bool IsStandardStream(int fd) { return fd >= 0 && fd <= 2; }
bool IsWaker(int fd) {
  return fd >= 0 && static_cast<std::size_t>(fd) < wakers.size() &&
         wakers[static_cast<std::size_t>(fd)];
}
void SetWaker(int fd, bool is) {
  if (fd >= 0 && static_cast<std::size_t>(fd) < wakers.size())
    wakers[static_cast<std::size_t>(fd)] = is;
}

}  // namespace

// NAME(parameters) that calls the real one with (arguments), unless it fails and gives `failure`.
#define FAILING(type, failure, name, parameters, arguments) \
  extern "C" type name parameters {                         \
    static auto* const real = Real<type parameters>(#name); \
    static Call& call = *new Call(#name);                   \
    return call.Fails() ? (failure) : real arguments;       \
  }

FAILING(int, -1, socket, (int domain, int kind, int protocol) noexcept, (domain, kind, protocol))
FAILING(int, -1, bind, (int fd, const sockaddr* address, socklen_t size) noexcept,
        (fd, address, size))
FAILING(int, -1, listen, (int fd, int backlog) noexcept, (fd, backlog))
FAILING(int, -1, accept4, (int fd, sockaddr* address, socklen_t* size, int flags),
        (fd, address, size, flags))
FAILING(int, -1, connect, (int fd, const sockaddr* address, socklen_t size), (fd, address, size))
FAILING(int, -1, getsockname, (int fd, sockaddr* address, socklen_t* size) noexcept,
        (fd, address, size))
FAILING(int, -1, getpeername, (int fd, sockaddr* address, socklen_t* size) noexcept,
        (fd, address, size))
FAILING(int, -1, getsockopt, (int fd, int level, int option, void* value, socklen_t* size) noexcept,
        (fd, level, option, value, size))
FAILING(int, -1, setsockopt,
        (int fd, int level, int option, const void* value, socklen_t size) noexcept,
        (fd, level, option, value, size))
FAILING(ssize_t, -1, send, (int fd, const void* data, std::size_t size, int flags),
        (fd, data, size, flags))
FAILING(ssize_t, -1, sendmsg, (int fd, const msghdr* message, int flags), (fd, message, flags))
FAILING(ssize_t, -1, recv, (int fd, void* data, std::size_t size, int flags),
        (fd, data, size, flags))
FAILING(ssize_t, -1, recvmsg, (int fd, msghdr* message, int flags), (fd, message, flags))
FAILING(int, -1, epoll_create1, (int flags) noexcept, (flags))
FAILING(int, -1, epoll_wait, (int epoll, epoll_event* events, int size, int timeout),
        (epoll, events, size, timeout))
FAILING(int, -1, epoll_pwait2,
        (int epoll, epoll_event* events, int size, const timespec* timeout, const sigset_t* mask),
        (epoll, events, size, timeout, mask))
FAILING(int, -1, poll, (pollfd * fds, nfds_t count, int timeout), (fds, count, timeout))
FAILING(void*, MAP_FAILED, mmap,
        (void* place, std::size_t size, int protection, int flags, int fd, off_t offset) noexcept,
        (place, size, protection, flags, fd, offset))
FAILING(int, -1, munmap, (void* place, std::size_t size) noexcept, (place, size))
FAILING(int, -1, memfd_create, (const char* name, unsigned flags) noexcept, (name, flags))
FAILING(int, -1, ftruncate, (int fd, off_t size) noexcept, (fd, size))
FAILING(int, -1, fallocate, (int fd, int mode, off_t offset, off_t size), (fd, mode, offset, size))
FAILING(int, -1, fstat, (int fd, struct stat* out) noexcept, (fd, out))
FAILING(int, -1, stat, (const char* path, struct stat* out) noexcept, (path, out))
FAILING(int, -1, lstat, (const char* path, struct stat* out) noexcept, (path, out))
FAILING(int, -1, fstatat, (int at, const char* path, struct stat* out, int flags) noexcept,
        (at, path, out, flags))
FAILING(int, -1, fchmod, (int fd, mode_t mode) noexcept, (fd, mode))
FAILING(int, -1, mkdir, (const char* path, mode_t mode) noexcept, (path, mode))
FAILING(int, -1, unlink, (const char* path) noexcept, (path))
FAILING(int, -1, unlinkat, (int at, const char* path, int flags) noexcept, (at, path, flags))
FAILING(dirent*, nullptr, readdir, (DIR * directory), (directory))
FAILING(int, -1, flock, (int fd, int operation) noexcept, (fd, operation))
FAILING(ssize_t, -1, getrandom, (void* out, std::size_t size, unsigned flags), (out, size, flags))
FAILING(char*, nullptr, realpath, (const char* path, char* out) noexcept, (path, out))
FAILING(int, EAGAIN, pthread_create,
        (pthread_t * thread, const pthread_attr_t* attributes, void* (*run)(void*),
         void* argument) noexcept,
        (thread, attributes, run, argument))

// The descriptor is closed all the same, as the system does.
extern "C" int close(int fd) {
  static auto* const real = Real<int(int)>("close");
  static Call& call = *new Call("close");
  SetWaker(fd, false);
  const int result = real(fd);
  return result == 0 && call.Fails() ? -1 : result;
}

extern "C" ssize_t read(int fd, void* data, std::size_t size) {
  static auto* const real = Real<ssize_t(int, void*, std::size_t)>("read");
  static Call& call = *new Call("read");
  return !IsStandardStream(fd) && call.Fails() ? -1 : real(fd, data, size);
}

extern "C" ssize_t write(int fd, const void* data, std::size_t size) {
  static auto* const real = Real<ssize_t(int, const void*, std::size_t)>("write");
  static Call& call = *new Call("write");
  return !IsStandardStream(fd) && !IsWaker(fd) && call.Fails() ? -1 : real(fd, data, size);
}

extern "C" int eventfd(unsigned count, int flags) noexcept {
  static auto* const real = Real<int(unsigned, int)>("eventfd");
  static Call& call = *new Call("eventfd");
  if (call.Fails()) return -1;
  const int fd = real(count, flags);
  SetWaker(fd, true);
  return fd;
}

extern "C" int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept {
  static auto* const real = Real<int(int, int, int, epoll_event*)>("epoll_ctl");
  static Call& call = *new Call("epoll_ctl");
  return operation != EPOLL_CTL_DEL && call.Fails() ? -1 : real(epoll, operation, fd, event);
}

extern "C" int open(const char* path, int flags, ...) {
  static auto* const real = Real<int(const char*, int, ...)>("open");
  static Call& call = *new Call("open");
  va_list more;
  va_start(more, flags);
  const auto mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(more, mode_t) : mode_t{};
  va_end(more);
  return call.Fails() ? -1 : real(path, flags, mode);
}

extern "C" int fcntl(int fd, int operation, ...) {
  static auto* const real = Real<int(int, int, ...)>("fcntl");
  static Call& call = *new Call("fcntl");
  va_list more;
  va_start(more, operation);
  void* const argument = va_arg(more, void*);
  va_end(more);
  return call.Fails() ? -1 : real(fd, operation, argument);
}

extern "C" int getaddrinfo(const char* host, const char* service, const addrinfo* hints,
                           addrinfo** out) {
  static auto* const real =
      Real<int(const char*, const char*, const addrinfo*, addrinfo**)>("getaddrinfo");
  static Call& call = *new Call("getaddrinfo");
  return call.Fails() ? EAI_AGAIN : real(host, service, hints, out);
}
