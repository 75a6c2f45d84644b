// torv.h - messages between the modules of one process: who receives them, and how they are sent.
//
//   class Store : public ITORVSink { ... };           // OnMessage runs on the task thread
//   TORVInit(&store, nullptr);                        // a receiver
//   TORVRegisterTno(&store, 7, &table);               // answers to thread number 7
//   NotifyTORVInitEnd();                              // OnInit of every receiver
//   keelbase::CAWMessageBlock block(data, size, keelbase::CAWMessageBlock::borrow);
//   SendTORVMessage(block, 1, 7);                     // number 1 to everybody who answers to 7
//
// Each function does what CTORVManager's operation of that name does, see there. From any thread
// and from callbacks; none throws or waits for a delivery. 0; 10001 from TORVInit for a null sink
// and without memory, and from any of them when there is none for the manager itself. May be called
// to the very end of the process, by any thread: once the clean-up chain has run they do nothing.
#pragma once

#include "keelbase/CAWError.h"
#include "keelbase/CAWMessageBlock.h"
#include "zarn/utils/ITORVSink.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

ZARNUTILS_API keelbase::AWResult TORVInit(ITORVSink* sink, void* arg);
ZARNUTILS_API keelbase::AWResult TORVRegisterTno(ITORVSink* sink, unsigned short tno,
                                                 void* context);
ZARNUTILS_API keelbase::AWResult TORVUnRegisterTno(ITORVSink* sink, unsigned short tno);

// A 0 says nothing about who, if anybody, will get it: let receivers answer if that matters.
ZARNUTILS_API keelbase::AWResult SendTORVMessage(keelbase::CAWMessageBlock& mb,
                                                 unsigned short number, unsigned short tno);

ZARNUTILS_API keelbase::AWResult NotifyTORVInitEnd();
ZARNUTILS_API keelbase::AWResult NotifyTORVUnInit();

}  // namespace zarn::utils
