// CTORVThread.h - one receiver of in-process messages, and the events that carry work to it.
#pragma once

#include <unordered_map>

#include "keelbase/CAWError.h"
#include "keelbase/CAWEventQueue.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWThread.h"
#include "zarn/utils/ITORVSink.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// Binds a sink to the platform's task thread and knows the thread numbers (Tno) that it answers to.
// Modules use torv.h; this is what CTORVManager makes for each TORVInit.
//
// Threads: the Tno operations are called by one thread at a time (the manager holds its lock). What
// posts may be called from anywhere; On... come on the task thread.
// Ownership: the sink is not owned. Events name their receiver, so it must outlive them; the
// manager never deletes one. Tno are only ever added.
//
// Results: 0, or 10001. Nothing is thrown: without memory for an event nothing is posted, whatever
// was made of it is freed, and the answer is 10001; so it is when there is no task thread (any
// more). One that could not be started is tried again with each post.
class ZARNUTILS_API CTORVThread {
 public:
  CTORVThread(ITORVSink* sink, void* arg);  // a null sink is fine: its events do nothing
  virtual ~CTORVThread();
  CTORVThread(const CTORVThread&) = delete;
  CTORVThread& operator=(const CTORVThread&) = delete;

  unsigned long Init();  // 0

  // --- on the task thread: straight to the sink ---
  void OnInit();
  void OnMessage(keelbase::CAWMessageBlock& mb, const unsigned short& number, void* context);
  void OnUnInit();

  // --- any thread: post to the task thread; 0: it waits there ---
  unsigned long NotifyInitOk();
  unsigned long NotifyUnInit();
  unsigned long PostTORVMessage(keelbase::CAWMessageBlock& mb, const unsigned short& number,
                                void* context);  // posts a duplicate: `mb` stays the caller's

  // --- thread numbers ---
  unsigned long RegisterTno(unsigned short tno, void* context);  // 10001: taken; the first stays
  unsigned long GetTno(unsigned short tno, void*& context);  // 10001: unknown; context untouched

  // Removes nothing: answers 10001 for a Tno that is registered, and it stays so. One that is not
  // is a mistake in the program: the process stops, with a trace line that names the Tno.
  unsigned long UnRegisterTno(unsigned short tno);

  ITORVSink* GetSink() const { return sink_; }

 private:
  ITORVSink* sink_;
  keelbase::CAWThread* thread_;                         // null if it could not be started then
  std::unordered_map<unsigned short, void*> contexts_;  // by Tno
  void* arg_;
};

// The events. Each is made by `new`, posted once, fired on the task thread and then destroyed.

class ZARNUTILS_API CTORVEventInit : public keelbase::IAWEvent {
 public:
  explicit CTORVEventInit(CTORVThread* receiver) : receiver_(receiver) {}
  keelbase::AWResult OnEventFire() override;
  ~CTORVEventInit() override;

 private:
  CTORVThread* receiver_;
};

class ZARNUTILS_API CTORVEventUnInit : public keelbase::IAWEvent {
 public:
  explicit CTORVEventUnInit(CTORVThread* receiver) : receiver_(receiver) {}
  keelbase::AWResult OnEventFire() override;
  ~CTORVEventUnInit() override;

 private:
  CTORVThread* receiver_;
};

class ZARNUTILS_API CTORVEventSendData : public keelbase::IAWEvent {
 public:
  // Duplicates `mb`; lets std::bad_alloc pass.
  CTORVEventSendData(CTORVThread* receiver, keelbase::CAWMessageBlock& mb,
                     const unsigned short& number, void* context)
      : receiver_(receiver), block_(mb.DuplicateChained()), number_(number), context_(context) {}
  keelbase::AWResult OnEventFire() override;
  ~CTORVEventSendData() override;

 private:
  CTORVThread* receiver_;
  keelbase::CAWMessageBlock* block_;
  unsigned short number_;
  void* context_;
};

}  // namespace zarn::utils
