// FailingCalls.cpp - see FailingCalls.h.
#include "FailingCalls.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>

namespace {

thread_local const char* failing = "";
thread_local int failure = 0;
thread_local int toPass = 0;
thread_local int left = 0;
thread_local int failed = 0;

bool Fails(const char* name) {
  if (left == 0 || std::strcmp(failing, name) != 0) return false;
  if (toPass > 0) {
    --toPass;
    return false;
  }
  --left;
  ++failed;
  errno = failure;
  return true;
}

template <class... Arguments>
long Call(const char* name, long number, Arguments... arguments) {
  if (Fails(name)) return -1;
  return ::syscall(number, arguments...);
}

}  // namespace

namespace zarn::test {

FailingCalls::FailingCalls(const char* name, int error, int count, int passing) {
  failing = name;
  failure = error;
  toPass = passing;
  left = count;
  failed = 0;
}
FailingCalls::~FailingCalls() { left = 0; }
int FailingCalls::GetFailed() const { return failed; }

}  // namespace zarn::test

extern "C" {

ssize_t sendmsg(int socket, const msghdr* message, int flags) {
  return Call("sendmsg", SYS_sendmsg, socket, message, flags);
}
ssize_t recvmsg(int socket, msghdr* message, int flags) {
  return Call("recvmsg", SYS_recvmsg, socket, message, flags);
}
ssize_t send(int socket, const void* bytes, std::size_t length, int flags) {
  return Call("send", SYS_sendto, socket, bytes, length, flags, nullptr, 0);
}
int socket(int domain, int type, int protocol) noexcept {
  return static_cast<int>(Call("socket", SYS_socket, domain, type, protocol));
}
int accept4(int socket, sockaddr* address, socklen_t* size, int flags) {
  return static_cast<int>(Call("accept4", SYS_accept4, socket, address, size, flags));
}
int listen(int socket, int backlog) noexcept {
  return static_cast<int>(Call("listen", SYS_listen, socket, backlog));
}
int getsockname(int socket, sockaddr* address, socklen_t* size) noexcept {
  return static_cast<int>(Call("getsockname", SYS_getsockname, socket, address, size));
}
int epoll_ctl(int epoll, int operation, int fd, epoll_event* event) noexcept {
  return static_cast<int>(Call("epoll_ctl", SYS_epoll_ctl, epoll, operation, fd, event));
}
int epoll_pwait2(int epoll, epoll_event* events, int size, const timespec* limit,
                 const sigset_t* signals) {
  return static_cast<int>(Call("epoll_pwait2", SYS_epoll_pwait2, epoll, events, size, limit,
                               signals, std::size_t{_NSIG / 8}));
}
int fstatat(int directory, const char* path, struct stat* status, int flags) noexcept {
  return static_cast<int>(Call("fstatat", SYS_newfstatat, directory, path, status, flags));
}
int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return static_cast<int>(Call("open", SYS_openat, AT_FDCWD, path, flags, mode));
}
ssize_t read(int file, void* bytes, std::size_t length) {
  return Call("read", SYS_read, file, bytes, length);
}
int access(const char* path, int mode) noexcept {
  return static_cast<int>(Call("access", SYS_faccessat, AT_FDCWD, path, mode));
}
// Another name of the same function.
dirent* readdir(DIR* directory) {
  return Fails("readdir") ? nullptr : reinterpret_cast<dirent*>(::readdir64(directory));
}
int lstat(const char* path, struct stat* status) noexcept {
  return static_cast<int>(Call("lstat", SYS_lstat, path, status));
}
int ioctl(int file, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return static_cast<int>(Call("ioctl", SYS_ioctl, file, request, argument));
}
int flock(int file, int operation) noexcept {
  return static_cast<int>(Call("flock", SYS_flock, file, operation));
}
int ftruncate(int file, off_t length) noexcept {
  return static_cast<int>(Call("ftruncate", SYS_ftruncate, file, length));
}
ssize_t getrandom(void* bytes, std::size_t length, unsigned flags) {
  return Call("getrandom", SYS_getrandom, bytes, length, flags);
}
void* mmap(void* address, std::size_t length, int protection, int flags, int file,
           off_t offset) noexcept {
  return reinterpret_cast<void*>(
      Call("mmap", SYS_mmap, address, length, protection, flags, file, offset));
}

}  // extern "C"
