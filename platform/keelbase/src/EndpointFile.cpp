// EndpointFile.cpp - see EndpointFile.h.
#include "keelbase/internal/EndpointFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "keelbase/internal/PassedDescriptors.h"

namespace keelbase::internal {

namespace {

// Opens and locks the directory. Nobody but us (and root) may write to it: whoever may could put
// another endpoint in our place.
int LockDirectory(const std::string& path, FileDescriptor& directory) {
  directory.Reset(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory) return errno;
  struct stat status {};
  if (::fstat(directory.Get(), &status) != 0) return errno;
  const bool ours = status.st_uid == ::geteuid() || status.st_uid == 0;
  if (!ours || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return EPERM;
  return ::flock(directory.Get(), LOCK_EX | LOCK_NB) == 0 ? 0 : errno;
}

// 0 when nobody serves it. Asks with a socket of another type: a bound socket answers that the type
// is wrong, and its owner notices nothing.
int CheckUnserved(const EndpointAddress& address) {
  const FileDescriptor probe(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!probe) return errno;
  if (::connect(probe.Get(), address.Get(), address.Size()) == 0) return EADDRINUSE;
  return errno == ECONNREFUSED ? 0 : EADDRINUSE;
}

// Removes what a listener of ours left behind when it died; everything else is in somebody's use.
int RemoveStale(int directory, const std::string& name, const EndpointAddress& address) {
  struct stat status {};
  if (::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
    return errno == ENOENT ? 0 : errno;
  if (!S_ISSOCK(status.st_mode) || status.st_uid != ::geteuid()) return EADDRINUSE;
  if (const int error = CheckUnserved(address); error != 0) return error;
  return ::unlinkat(directory, name.c_str(), 0) == 0 ? 0 : errno;
}

}  // namespace

int EndpointFile::Listen(const EndpointPath& path, FileDescriptor& listening) {
  EndpointAddress address;
  if (const int error = address.Resolve(path); error != 0) return error;
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) return errno;
  if (!takesDescriptors_) RefuseDescriptors(socket.Get());
  std::string name = path.name;
  FileDescriptor directory;
  if (const int error = LockDirectory(path.directory, directory); error != 0) return error;
  if (const int error = RemoveStale(directory.Get(), path.name, address); error != 0) return error;
  // The file takes its mode from the socket, so nobody else can connect even for a moment.
  if (::fchmod(socket.Get(), S_IRUSR | S_IWUSR) != 0) return errno;
  if (::bind(socket.Get(), address.Get(), address.Size()) != 0) return errno;
  struct stat status {};
  if (::fstatat(directory.Get(), path.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
      ::listen(socket.Get(), SOMAXCONN) != 0) {
    const int error = errno;
    ::unlinkat(directory.Get(), path.name.c_str(), 0);
    return error;
  }
  ::flock(directory.Get(), LOCK_UN);
  directory_ = std::move(directory);
  name_ = std::move(name);
  device_ = status.st_dev;
  inode_ = status.st_ino;
  process_ = ::getpid();
  listening = std::move(socket);
  return 0;
}

// Nobody replaces the file of a live listener, so it is removed while ours still listens.
void EndpointFile::Remove() {
  if (!directory_) return;
  struct stat status {};
  if (process_ == ::getpid() &&
      ::fstatat(directory_.Get(), name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
      status.st_dev == device_ && status.st_ino == inode_)
    ::unlinkat(directory_.Get(), name_.c_str(), 0);
  directory_.Reset();
}

}  // namespace keelbase::internal
