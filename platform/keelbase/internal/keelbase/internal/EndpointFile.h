// EndpointFile.h - the socket file of a listener: made, checked, replaced and removed.
#pragma once

#include <sys/types.h>

#include <string>

#include "keelbase/internal/EndpointPath.h"

namespace keelbase::internal {

// Owns the endpoint file of one listening socket.
//
// Whoever makes an endpoint holds flock on the directory meanwhile, so that two processes never
// judge and replace the same file at once. Waiting for that lock is the caller's business. The
// directory stays open, so that the file is found again whatever becomes of the working directory
// and of names on the way. Removing takes no lock: the file is still the one that was made (same
// inode) for as long as its socket is open, since nobody replaces a served endpoint.
class KEELBASE_API EndpointFile {
 public:
  EndpointFile() = default;
  ~EndpointFile() { Remove(); }
  EndpointFile(const EndpointFile&) = delete;
  EndpointFile& operator=(const EndpointFile&) = delete;

  // Peers may pass descriptors along, which are refused otherwise. Before Listen.
  void TakeDescriptors() { takesDescriptors_ = true; }

  // Binds and listens at `path`. 0: `listening` is ready; EWOULDBLOCK: another process holds the
  // directory, ask again later; else an errno value, and nothing was changed.
  int Listen(const EndpointPath& path, FileDescriptor& listening);

  // Removes the file if it is still the one that Listen made. Nothing in a forked child: its parent
  // still listens.
  void Remove();

 private:
  FileDescriptor directory_;  // none: no file
  std::string name_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
  pid_t process_ = 0;  // that has made it
  bool takesDescriptors_ = false;
};

}  // namespace keelbase::internal
