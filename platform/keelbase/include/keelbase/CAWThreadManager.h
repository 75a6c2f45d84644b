// CAWThreadManager.h - the platform threads of a process, by type.
#pragma once

#include "keelbase/CAWDefines.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWMutex.h"
#include "keelbase/CAWThread.h"

namespace keelbase {

// Hands out the process's typed threads. One for the process, never destroyed. Any thread may call
// it.
//
// The network and the task thread start on first use. The clean-up chain at process exit first
// stops them, after the callback in hand (at once where exit() was called in it), writes what was
// sent until then as far as the system takes it, and destroys what is still posted. Nobody is
// called back any more, but by a loop that its adopted thread runs again. Later it lets transports
// that were closed write out what they have taken, and await what they would await otherwise, for
// their linger time at most (2 seconds unless AW_OPT_LINGER says otherwise). A function that runs
// in place on an adopted loop that does not run is waited for three seconds, and that loop is then
// left alone. An adopted thread must have left Run() before main() returns, or exit() is called
// elsewhere than in its own callback: it is not stopped, since what its program does behind Run()
// would then go on beside the end of the process, and its callbacks come while static objects are
// destroyed. The main thread exists only once a thread has adopted that type.
//
// A fork()ed child has none of these threads: fork before first use, or exec at once, and _exit()
// when that fails. Should a child call exit(), its clean-up chain leaves alone what its parent has:
// nothing is written, no thread is awaited, and the connections and endpoints that static objects
// let go of after that stay as they are. What exit handlers and static objects let go of before,
// since they are younger than the process's first platform thread or singleton, is closed for the
// parent too, but for the files of its endpoints.
class KEELBASE_API CAWThreadManager {
 public:
  enum ThreadType { TT_MAIN = 1, TT_NETWORK = 2, TT_TASK = 3 };

  static CAWThreadManager* Instance();

  // The thread of a type; null for an unknown type, for a main thread that nobody adopted, and when
  // a thread cannot be started (tried again at the next call).
  CAWThread* GetThread(int type);

  // Makes the calling thread the platform thread of `type`; it then serves its queue with
  // GetThread(type)->Run(). Any type may be adopted, so a small process can run its network loop on
  // main. 10001, and a trace line, when that type exists already (also because something was made
  // that needs it: adopt first) or the caller is a platform thread already.
  AWResult AdoptCurrentThread(int type);

  // The platform thread that the caller runs on, else null.
  CAWThread* GetCurrent();

  // The platform thread that the caller runs on, else the network thread: where the callbacks of
  // what the caller makes now will come. Null only when the network thread cannot be started.
  CAWThread* GetCurrentOrNetwork();

  // Taken while a singleton is made. Recursive: a singleton's constructor may ask for another one.
  CAWMutexThread& GetSingletonMutex();

 private:
  CAWThreadManager() = default;
  ~CAWThreadManager() = default;
};

}  // namespace keelbase
