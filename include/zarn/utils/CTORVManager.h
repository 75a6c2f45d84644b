// CTORVManager.h - the receivers of a process, and the way of a message to them.
#pragma once

#include <vector>

#include "keelbase/CAWError.h"
#include "keelbase/CAWMessageBlock.h"
#include "zarn/utils/CTORVThread.h"
#include "zarn/utils/zarndefines.h"

namespace keelbase {
template <class T>
class CAWSingletonT;
}

namespace zarn::utils {

// The process-wide list of receivers. torv.h is the usual way in; only the broadcast has no
// function there.
//
// Threads: any thread may call any operation, a callback too. One lock serialises them and is held
// while a message is posted to all its receivers, so everybody gets messages in the same order.
// Lifetime: made by the first Instance(), destroyed by the clean-up chain at process exit.
// Instance() after that gives another, empty one, to which all of this may be said without effect.
// A thread that the process has started itself must not keep the pointer beyond the end of main():
// ask again. Receivers are never deleted.
//
// Results: 0, and 10001 as said. Nothing but Instance() throws.
class ZARNUTILS_API CTORVManager {
 public:
  static CTORVManager* Instance();  // lets std::bad_alloc pass when it makes one

  // Adds a receiver; twice the same sink is two receivers, and both get everything. 10001 for null
  // and without memory, nothing is added then.
  keelbase::AWResult TORVInit(ITORVSink* sink, void* arg);

  // To every receiver of that sink; 0, also when there is none, when the Tno was taken and when
  // there was no memory to note it.
  keelbase::AWResult TORVRegisterTno(ITORVSink* sink, unsigned short tno, void* context);

  // 0. Removes nothing, and a Tno that a receiver of that sink does not have ends the process: see
  // CTORVThread::UnRegisterTno.
  keelbase::AWResult TORVUnRegisterTno(ITORVSink* sink, unsigned short tno);

  // Posts a duplicate of `mb` to every receiver, with a null context; or to those that have
  // registered `tno`, each with its own context. `number` is for the receiver to read. `mb` stays
  // the caller's, who may change or free it at once. 0 whatever became of each: nobody there, no
  // memory for one of them (the others get theirs), no task thread.
  keelbase::AWResult SendTORVMessage(keelbase::CAWMessageBlock& mb, unsigned short number);
  keelbase::AWResult SendTORVMessage(keelbase::CAWMessageBlock& mb, unsigned short number,
                                     unsigned short tno);

  // Post a call of OnInit, or OnUnInit, to every receiver that is there now. 0.
  keelbase::AWResult NotifyTORVInitEnd();
  keelbase::AWResult NotifyTORVUnInit();

 private:
  friend class keelbase::CAWSingletonT<CTORVManager>;
  CTORVManager();
  ~CTORVManager();
  CTORVManager(const CTORVManager&) = delete;
  CTORVManager& operator=(const CTORVManager&) = delete;

  std::vector<CTORVThread*> receivers_;  // in the order of their making
};

}  // namespace zarn::utils
