// EventLoop.h - the loop behind a CAWThread: descriptors, events, timers, and what is due at a
// turn's end.
//
// One turn: wait for descriptors (or not), serve those that are ready, run the posted events, fire
// due timers, then flush what the turn has gathered. epoll is used directly because the loop must
// notice a peer's end while it does not read from it, keep each registration between events, and
// know exactly where a turn ends.
#pragma once

#include <sys/epoll.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "keelbase/CAWError.h"
#include "keelbase/CAWEventQueue.h"
#include "keelbase/internal/BufferPool.h"
#include "keelbase/internal/FileDescriptor.h"
#include "keelbase/internal/IntrusiveList.h"
#include "keelbase/internal/Lingers.h"
#include "keelbase/internal/Mutex.h"
#include "keelbase/internal/Pollers.h"
#include "keelbase/internal/TimerQueue.h"

namespace keelbase::internal {

// Somebody who watches a descriptor. All calls come on the loop's thread. Must outlive its watch.
class Watcher {
 public:
  // EPOLLIN, EPOLLOUT, EPOLLRDHUP, EPOLLHUP, EPOLLERR.
  virtual void OnReady(std::uint32_t events) = 0;

  // The loop spins: look for input without having been told. True when there was some.
  virtual bool OnSpin() { return false; }

 protected:
  ~Watcher() = default;
};

// Somebody who gathers during a turn. Called once at its end for each AtTurnEnd().
class TurnEndTask {
 public:
  virtual void OnTurnEnd() = 0;

  ListPlace<TurnEndTask> placeAtTurnEnd;  // the loop's own

 protected:
  ~TurnEndTask() = default;
};

// Work for the loop's thread that needs no memory to get there. Exists until it has run.
class LoopTask {
 public:
  virtual void OnLoopTask() = 0;
  virtual void OnDropped() = 0;  // the loop will not run it

  // When Run() returns: true when it waits for the next Run(), whoever works in place meanwhile,
  // false when it is dropped.
  virtual bool OutlastsRun() const { return false; }

  LoopTask* nextTask = nullptr;  // the loop's own

 protected:
  ~LoopTask() = default;
};

inline constexpr std::size_t kCacheLine = 64;  // bytes

class KEELBASE_API EventLoop {
 public:
  explicit EventLoop(const char* name);
  ~EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  bool IsUsable() const { return epoll_ && wake_; }
  const char* GetName() const { return name_; }

  // --- thread ---
  void BindToCurrentThread();
  bool IsCurrent() const { return current_ == this; }
  static EventLoop* Current() { return current_; }
  bool IsHeldHere() const;  // this thread runs it or works on it in place
  std::uint64_t GetThreadNumber() const { return thread_.load(std::memory_order_relaxed); }
  void CheckCurrent(const char* operation) const;  // debug builds stop on a wrong thread

  // --- running ---
  // What waits when Run() returns, and what is posted from then on: held for the next Run(), or
  // destroyed.
  enum class Afterwards { held, destroyed };
  AWResult Run(Afterwards posts = Afterwards::held);  // until Stop(); 10001 when it runs already
  void Stop();                                        // any thread
  bool RunReady();
  bool IsRunning() const { return running_.load(std::memory_order_acquire); }
  void SetSpin(std::uint32_t microseconds) { spin_.store(microseconds, std::memory_order_relaxed); }

  // --- events: any thread ---
  AWResult Post(IAWEvent* event);
  // See CAWThread::Call. Allocates nothing.
  template <class Function>
  void Call(Function&& function) {
    RunThere(std::ref(function));
  }
  void RunThere(const std::function<void()>& function);
  // Runs after what has been posted before. False when the loop does not run any more and the task
  // does not wait for the next time.
  bool PostTask(LoopTask& task);
  // At once on the loop's thread, else as PostTask. Once the loop has stopped: at once, in place,
  // or by whoever works there just then. Waits for nobody.
  void HandOver(LoopTask& task);
  // Whether this thread may wait for a callback of the loop: one that has a loop itself may not,
  // since the callback may be waiting for it in a Call; and once callbacks are over none ends.
  bool CanAwaitCallbacks() const { return current_ == nullptr && !callbacksOver_; }
  // The process ends: nobody is called back any more.
  bool AreCallbacksOver() const { return callbacksOver_.load(std::memory_order_relaxed); }
  // For an object's release: waits until `ended()`, which is asked again at each
  // TellCallbackEnded(), or the callbacks are over.
  template <class Condition>
  void AwaitCallback(Condition ended) {
    MutexLock lock(mutex_);
    while (!ended() && !callbacksOver_) lock.Wait(callbackEnded_);
  }
  void TellCallbackEnded() {
    const MutexLock lock(mutex_);
    callbackEnded_.notify_all();
  }
  // Destroys what waits and refuses what comes. On the loop's thread, or while the loop does not
  // run.
  void DropPosted();
  // The process ends: writes what was gathered, then as DropPosted, unless another thread runs the
  // loop or works on it for too long. From here on others may act in place, also when exit() was
  // called inside a callback of the loop: it never returns, and nobody waits for it any more.
  void End();
  // A forked child that ends has no use for its parent's loop, whose descriptors both share: from
  // here on nothing is watched any more, what is handed over stays as it is, timers neither start
  // nor end, and calls run in place. Takes no lock: a thread that the child does not have may hold
  // it.
  void LeaveToParent();
  bool IsLeftToParent() const { return leftToParent_.load(std::memory_order_relaxed); }
  // Takes over what a thread holds that waits in a Call for the function that has called exit(), on
  // a loop that is held here: it never goes on. False when it does not hold this loop.
  bool InheritFrom(const EventLoop& served);

  // --- descriptors: loop thread. 0 or an errno value ---
  int Watch(int fd, std::uint32_t events, Watcher& watcher);
  int Change(int fd, std::uint32_t events, Watcher& watcher);
  void Unwatch(int fd, Watcher& watcher);

  // --- polling: loop thread ---
  void StartPolling(Poller& poller) { pollers_.Start(poller); }  // not twice
  void StopPolling(Poller& poller) { pollers_.Stop(poller); }

  void AtTurnEnd(TurnEndTask& task) { atTurnEnd_.Append(task); }  // once until it is called
  void DropTurnEnd(TurnEndTask& task) { atTurnEnd_.Remove(task); }

  TimerQueue& Timers() { return timers_; }
  void WakeForTimer();

  BufferPool& Buffers() { return buffers_; }

  // --- lingers ---
  void BeginLinger(LingerTask& task) { lingers_.Begin(task); }
  void EndLinger(LingerTask& task) { lingers_.End(task); }
  // At the process's end: serves everybody who lingers, without serving anything else, until done
  // or out of time. On the loop's thread, or on any once the loop has stopped.
  void FinishLingers();

 private:
  // Whoever works on the loop holds it: its thread while it runs, and once it has stopped one
  // thread at a time, in place.
  class InPlace {
   public:
    InPlace(EventLoop& loop, bool held) : loop_(held ? &loop : nullptr), before_(current_) {
      if (held) current_ = &loop;
    }
    ~InPlace() {
      if (loop_ == nullptr) return;
      loop_->LeaveHold();
      current_ = before_;
    }
    InPlace(const InPlace&) = delete;
    InPlace& operator=(const InPlace&) = delete;
    explicit operator bool() const { return loop_ != nullptr; }

   private:
    EventLoop* const loop_;
    EventLoop* const before_;
  };
  class WaitingCall;
  bool IsBoundHere() const;
  bool IsUsedInPlace() const AW_REQUIRES(mutex_);  // by another thread
  bool TakeHold();
  bool TakeHoldAtExit();
  bool TryHold() AW_REQUIRES(mutex_);
  void TakeHoldToRun();
  void Reopen() AW_REQUIRES(mutex_);
  void AddHold() AW_REQUIRES(mutex_);
  void LeaveHold();
  LoopTask* TakeTasksForNow() AW_REQUIRES(mutex_);
  bool Enqueue(LoopTask& task) AW_REQUIRES(mutex_);

  bool Turn(std::int64_t timeoutNs);  // below 0: for ever
  bool Dispatch();
  bool RunPosted();
  bool RunTasks();
  void TakeTasks() AW_REQUIRES(mutex_);
  void HoldPosted();
  static LoopTask* Reversed(LoopTask* list);
  static void Drop(LoopTask* list);
  bool RunTimers();
  bool IsStopping() const;
  void FlushTurn();
  bool Spin();
  bool ServeLikely();
  bool RunPollers();
  void WaitBriefly() const;
  std::int64_t SleepTime() const;
  bool PrepareSleep();
  void Wake();

  const char* name_;
  FileDescriptor epoll_;
  FileDescriptor wake_;

  static thread_local EventLoop* current_ __attribute__((tls_model("initial-exec")));
  std::atomic<std::uint64_t> thread_{0};
  std::atomic<bool> running_{false};
  std::atomic<bool> stop_{false};
  std::atomic<std::uint32_t> spin_{0};
  std::atomic<bool> leftToParent_{false};
  // None begins, and one that has begun does not end any more.
  std::atomic<bool> callbacksOver_{false};

  // What those who post write to stands apart from what the loop's thread uses for each event.
  alignas(kCacheLine) Mutex mutex_;
  std::vector<IAWEvent*> posted_ AW_GUARDED_BY(mutex_);
  LoopTask* tasks_ AW_GUARDED_BY(mutex_) = nullptr;  // the last one first
  bool closed_ AW_GUARDED_BY(mutex_) = false;        // it has run: whoever calls acts in place
  bool refusing_ AW_GUARDED_BY(mutex_) = false;      // and does not run again
  bool sleeping_ AW_GUARDED_BY(mutex_) = false;
  unsigned holds_ AW_GUARDED_BY(mutex_) = 0;
  bool leftAlone_ AW_GUARDED_BY(mutex_) = false;  // at exit: whoever holds it does not end
  std::atomic<std::uint64_t> holder_{0};          // its thread number; changed under mutex_
  std::condition_variable holdChanged_;
  std::condition_variable callbackEnded_;
  std::atomic<bool> hasPosted_{false};

  // Null once an event is taken out to be fired; a stop may leave others behind, which come first
  // when the loop runs again.
  alignas(kCacheLine) std::vector<IAWEvent*> firing_;
  LoopTask* runningTasks_ = nullptr;  // the first one first
  bool ranPosted_ = false;            // in the last turn
  std::uint64_t caller_ = 0;          // the thread whose Call is being served

  static constexpr int kBatch = 64;
  std::array<epoll_event, kBatch> batch_{};
  int batchAt_ = 0;  // what stands before it was served
  int batchEnd_ = 0;
  Watcher* recent_ = nullptr;  // the last one with input: looked at while the loop spins
  std::uint32_t likelyServed_ = 0;

  Pollers pollers_;
  IntrusiveList<TurnEndTask, &TurnEndTask::placeAtTurnEnd> atTurnEnd_;
  Lingers lingers_;
  TimerQueue timers_;
  BufferPool buffers_;
};

}  // namespace keelbase::internal
