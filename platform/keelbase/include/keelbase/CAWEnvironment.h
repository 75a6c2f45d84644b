// CAWEnvironment.h - the process's environment: variables, real paths, where the program stands.
#pragma once

#include "keelbase/CAWDefines.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWString.h"

namespace keelbase {

// The variable's value; empty when it is unset. Like all use of the environment, not while another
// thread sets a variable.
KEELBASE_API CAWString VOS_GetEnv(const CAWString& name);

// Sets or replaces it, for this process and its later children. 0; 10001 for a name that is empty
// or holds '=', or without memory. Not while another thread reads or sets a variable.
KEELBASE_API AWResult VOS_SetEnv(const CAWString& name, const CAWString& value);

// The absolute path without symbolic links, "." and ".."; empty when something of it does not exist
// or cannot be reached.
KEELBASE_API CAWString VOS_GetRealPath(const CAWString& path);

// The executable's file name, without directories. Any thread.
KEELBASE_API CAWString GetProcessName();

// Where the program is installed, without a trailing '/' (but for the root itself): the directory
// above the executable's when that is called "bin", else the executable's own. Empty when the
// system does not tell. Any thread.
KEELBASE_API CAWString GetBinHomePath();

// Says so for a process that is installed elsewhere; an empty path restores the rule above. Any
// thread.
KEELBASE_API void SetBinHomePath(const CAWString& path);

}  // namespace keelbase
