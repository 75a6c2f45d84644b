// ITORVSink.h - what a receiver of in-process messages implements.
#pragma once

#include "keelbase/CAWMessageBlock.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// A module's ear. Registered with TORVInit (torv.h), which does not take it over: it must live for
// as long as anything can still be delivered, best to the end of the process.
//
// Threads: every callback of every receiver comes on the platform's task thread, one at a time, in
// the order of the calls that caused them. No lock is held, so a callback may use all of torv.h. It
// should not wait: everybody's messages wait with it.
// An exception that leaves a callback is traced and ends the process.
class ZARNUTILS_API ITORVSink {
 public:
  virtual void OnInit(void* arg) = 0;  // `arg` of TORVInit; after each NotifyTORVInitEnd

  // `mb` is the receiver's own duplicate: it may be read, advanced and cut, and is destroyed when
  // the callback returns; DuplicateChained() keeps it. `number` is the sender's. `context` is what
  // the Tno was registered with, null for a broadcast.
  virtual void OnMessage(keelbase::CAWMessageBlock& mb, const unsigned short& number,
                         void* context) = 0;

  virtual void OnUnInit() = 0;  // after each NotifyTORVUnInit; messages may still follow

  virtual ~ITORVSink() = default;
};

}  // namespace zarn::utils
