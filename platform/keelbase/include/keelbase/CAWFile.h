// CAWFile.h - making directories and deleting files.
#pragma once

#include "keelbase/CAWDefines.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWString.h"

namespace keelbase {

// Any thread.
class KEELBASE_API CAWFile {
 public:
  // Makes every missing directory that `path` names up to its last '/', mode 0700. What follows
  // that '/' is a file's name and is not made; a path without '/' asks for nothing. 0, also when
  // all are there; 10001 when one cannot be made, when a name on the way is not a directory, for ""
  // and for a path with a NUL byte, of which nothing is made.
  static AWResult mkdir(const CAWString& path);

  // Removes a file, or a symbolic link itself; never a directory. 0, 10011 when there is none, or
  // 10001, also for a path with a NUL byte.
  static AWResult DeleteFile(const CAWString& path);
};

}  // namespace keelbase
