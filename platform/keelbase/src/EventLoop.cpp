// EventLoop.cpp - see EventLoop.h. Who may work on a loop, and calls from other threads, are in
// EventLoopHold.cpp.
#include "keelbase/internal/EventLoop.h"

#include <sched.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <optional>
#include <utility>

#include "keelbase/CAWTrace.h"
#include "keelbase/internal/Processor.h"
#include "keelbase/internal/ThreadName.h"

namespace keelbase::internal {

thread_local EventLoop* EventLoop::current_ = nullptr;

namespace {

// While spinning only every fourth look asks epoll; the others ask who is likely to speak next.
constexpr unsigned kLooksAtLikely = 4;

// Before Spin reads the clock or pauses, which each take longer than an answer over shared memory
// may.
constexpr unsigned kQuickLooks = 16;

// While a connection always has input, every so many reads of it are followed by a whole turn.
constexpr std::uint32_t kServedPerTurn = 16;

constexpr std::chrono::microseconds kBriefWait(2);

// So many events ahead of the one that is fired.
constexpr std::size_t kEventsFetchedAhead = 4;

// There is always room for so many events, also without memory.
constexpr std::size_t kSpareEvents = 64;

constexpr std::int64_t kNsPerMs = 1000000;
constexpr std::int64_t kNsPerSecond = 1000 * kNsPerMs;

// epoll_pwait2 waits to the nanosecond, which paced senders need. Where the kernel lacks it or a
// filter forbids it, the wait is rounded up to a millisecond.
int WaitForEvents(int epoll, epoll_event* events, int size, std::int64_t timeoutNs) {
  if (timeoutNs <= 0) return ::epoll_wait(epoll, events, size, timeoutNs < 0 ? -1 : 0);
  const timespec limit{timeoutNs / kNsPerSecond, timeoutNs % kNsPerSecond};
  const int count = ::epoll_pwait2(epoll, events, size, &limit, nullptr);
  if (count >= 0 || errno == EINTR) return count;
  return ::epoll_wait(epoll, events, size, static_cast<int>((timeoutNs + kNsPerMs - 1) / kNsPerMs));
}

// A callback that throws has left its objects in a state that nobody knows: say where, and stop.
[[noreturn]] void StopForException(const char* loop) {
  char line[512];
  CAWTextFormator text(line, sizeof line);
  text << "an exception left a callback on the " << loop << " thread";
  try {
    throw;
  } catch (const std::exception& exception) {
    text << ": " << exception.what();
  } catch (...) {
    text << " (not a std::exception)";
  }
  IAWTraceManager::Instance()->Trace(0, text.View());
  std::abort();
}

}  // namespace

EventLoop::EventLoop(const char* name)
    : name_(name),
      epoll_(::epoll_create1(EPOLL_CLOEXEC)),
      wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!epoll_ || !wake_) return;
  posted_.reserve(kSpareEvents);
  firing_.reserve(kSpareEvents);
  // Edge-triggered, so that a wake-up need not be read off.
  epoll_event event{};
  event.events = EPOLLIN | EPOLLET;
  event.data.ptr = nullptr;
  if (::epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, wake_.Get(), &event) != 0) wake_.Reset();
}

EventLoop::~EventLoop() {
  DropPosted();
  if (IsCurrent()) current_ = nullptr;
}

// --- thread ---

void EventLoop::BindToCurrentThread() {
  current_ = this;
  thread_.store(CurrentThreadNumber(), std::memory_order_release);
}

void EventLoop::CheckCurrent([[maybe_unused]] const char* operation) const {
#ifndef NDEBUG
  // Once the loop has ended, what it served is left to whoever destroys it.
  if (IsCurrent() || !IsRunning()) return;
  StopForWrongThread(operation, thread_.load(std::memory_order_acquire), CurrentThreadNumber());
#endif
}

// --- running ---

AWResult EventLoop::Run(Afterwards posts) {
  if (GetThreadNumber() != 0 && !IsBoundHere()) return AW_ERROR_FAILURE;  // it acts in place
  if (running_.exchange(true)) return AW_ERROR_FAILURE;
  TakeHoldToRun();
  FlushTurn();  // what was gathered before there was a turn
  bool worked = true;
  while (!stop_.load(std::memory_order_acquire)) {
    if (worked && spin_.load(std::memory_order_relaxed) != 0) {
      worked = Spin();
      if (worked) continue;
    } else if (worked && !pollers_.IsEmpty()) {
      // Whoever has just brought work may bring more: a look is cheaper than being woken for it.
      worked = Turn(0);
      continue;
    }
    if (std::exchange(ranPosted_, false)) WaitBriefly();
    worked = PrepareSleep() ? Turn(SleepTime()) : Turn(0);
  }
  FlushTurn();
  stop_.store(false, std::memory_order_relaxed);
  running_.store(false, std::memory_order_release);
  if (posts == Afterwards::held) {
    HoldPosted();
  } else {
    DropPosted();
  }
  LeaveHold();  // from here on others may act in place
  return AW_OK;
}

void EventLoop::Stop() {
  stop_.store(true, std::memory_order_release);
  Wake();
}

bool EventLoop::IsStopping() const {
  return stop_.load(std::memory_order_relaxed) && running_.load(std::memory_order_relaxed);
}

bool EventLoop::RunReady() {
  const InPlace here(*this, TakeHold());
  bool any = false;
  while (Turn(0)) any = true;
  return any;
}

bool EventLoop::Turn(std::int64_t timeoutNs) {
  try {
    if (batchAt_ == batchEnd_) {
      batchAt_ = 0;
      batchEnd_ = std::max(0, WaitForEvents(epoll_.Get(), batch_.data(), kBatch, timeoutNs));
    }
    bool any = Dispatch();
    any |= RunPollers();
    if (hasPosted_.load(std::memory_order_acquire)) any |= RunPosted();
    any |= RunTimers();
    FlushTurn();
    return any;
  } catch (...) {
    StopForException(name_);
  }
}

// What a stop leaves of the batch is served when the loop runs again: an edge is told only once.
bool EventLoop::Dispatch() {
  bool any = false;
  while (batchAt_ < batchEnd_ && !IsStopping()) {
    const epoll_event event = batch_[static_cast<std::size_t>(batchAt_++)];
    auto* watcher = static_cast<Watcher*>(event.data.ptr);
    if (watcher == nullptr) continue;  // the wake-up, or unwatched within this turn
    if ((event.events & EPOLLIN) != 0) recent_ = watcher;
    watcher->OnReady(event.events);
    any = true;
  }
  return any;
}

bool EventLoop::RunPollers() {
  return pollers_.Poll([this] { return IsStopping(); });
}

void EventLoop::FlushTurn() {
  while (TurnEndTask* task = atTurnEnd_.First()) {
    atTurnEnd_.Remove(*task);
    task->OnTurnEnd();
  }
}

// Asks those who are likely to have work and need no system call to say so, or a cheap one.
bool EventLoop::ServeLikely() {
  bool any = false;
  try {
    any = RunPollers() || (recent_ != nullptr && recent_->OnSpin());
    FlushTurn();  // where there was no input as well: an end may have been told
  } catch (...) {
    StopForException(name_);
  }
  if (!any) return false;
  // However much comes from these, the others have their turns.
  if (++likelyServed_ % kServedPerTurn == 0) Turn(0);
  return true;
}

// Looks for work without sleeping: a few times without a pause where a look costs only a read of
// memory; then for a microsecond with pauses, since an answer may be that near, and for that time
// only those are asked who are likely to bring it; then the processor is offered to others between
// looks, since the peer may need this very one.
bool EventLoop::Spin() {
  using std::chrono::microseconds;
  for (unsigned looks = 0; looks < kQuickLooks; ++looks) {
    if (ServeLikely()) return true;
    if (pollers_.IsEmpty() || hasPosted_.load(std::memory_order_acquire)) break;
    FinishLoads();
  }
  const auto start = std::chrono::steady_clock::now();
  const auto end = start + microseconds(spin_.load(std::memory_order_relaxed));
  auto now = start;
  unsigned looks = 0;
  do {
    if (ServeLikely()) return true;
    const bool brief = now - start <= microseconds(1);
    const bool likely = recent_ != nullptr || !pollers_.IsEmpty();
    // Asking epoll costs more than asking those who are likely to speak next.
    const bool full = !likely || (!brief && looks++ % kLooksAtLikely == 0);
    if ((full || hasPosted_.load(std::memory_order_acquire)) && Turn(0)) return true;
    if (stop_.load(std::memory_order_acquire)) return false;
    if (brief) {
      Pause();
    } else {
      ::sched_yield();
    }
    now = std::chrono::steady_clock::now();
  } while (now < end);
  return false;
}

// Whoever has posted an event is likely to post more. Being woken costs both sides several times
// this wait, and looking meanwhile would take the queue away from those who post.
void EventLoop::WaitBriefly() const {
  if (hasPosted_.load(std::memory_order_relaxed)) return;
  const auto end = std::chrono::steady_clock::now() + kBriefWait;
  while (std::chrono::steady_clock::now() < end) Pause();
}

std::int64_t EventLoop::SleepTime() const {
  using std::chrono::nanoseconds;
  const auto due = timers_.NextDue();
  if (!due) return -1;
  const auto wait = std::chrono::duration_cast<nanoseconds>(*due - Clock::Now());
  return std::clamp(wait, nanoseconds(0), nanoseconds(std::chrono::hours(1))).count();
}

// From here on whoever posts must wake us. False when something has been posted already.
bool EventLoop::PrepareSleep() {
  if (!pollers_.Arm([this] { return IsStopping(); })) return false;
  const MutexLock lock(mutex_);
  sleeping_ = !hasPosted_.load(std::memory_order_relaxed) && !stop_.load(std::memory_order_acquire);
  return sleeping_;
}

void EventLoop::Wake() {
  const std::uint64_t one = 1;
  // Fails only when the counter is full, and then the loop is awake.
  [[maybe_unused]] const ssize_t written = ::write(wake_.Get(), &one, sizeof one);
}

void EventLoop::WakeForTimer() {
  if (!IsCurrent()) Wake();
}

// --- events ---

LoopTask* EventLoop::Reversed(LoopTask* list) {
  LoopTask* reversed = nullptr;
  while (list != nullptr) list = std::exchange(list->nextTask, std::exchange(reversed, list));
  return reversed;
}

void EventLoop::Drop(LoopTask* list) {
  while (list != nullptr) std::exchange(list, list->nextTask)->OnDropped();
}

AWResult EventLoop::Post(IAWEvent* event) {
  if (event == nullptr) return AW_ERROR_FAILURE;
  bool wake = false;
  bool taken = false;
  {
    const MutexLock lock(mutex_);
    if (!refusing_) {
      try {
        posted_.push_back(event);
        taken = true;
      } catch (const std::bad_alloc&) {
      }
    }
    if (taken) {
      hasPosted_.store(true, std::memory_order_release);
      wake = std::exchange(sleeping_, false);
    }
  }
  if (wake) Wake();
  if (!taken) event->OnDestorySelf();
  return taken ? AW_OK : AW_ERROR_FAILURE;
}

// True when the loop must be woken.
bool EventLoop::Enqueue(LoopTask& task) {
  task.nextTask = std::exchange(tasks_, &task);
  hasPosted_.store(true, std::memory_order_release);
  return std::exchange(sleeping_, false);
}

bool EventLoop::PostTask(LoopTask& task) {
  bool wake = false;
  {
    const MutexLock lock(mutex_);
    if (task.OutlastsRun() ? refusing_ : closed_) return false;
    wake = Enqueue(task);
  }
  if (wake) Wake();
  return true;
}

// After the events that were posted before them.
bool EventLoop::RunTasks() {
  bool any = false;
  while (runningTasks_ != nullptr && !IsStopping()) {
    LoopTask& task = *runningTasks_;
    runningTasks_ = task.nextTask;
    task.OnLoopTask();
    any = true;
  }
  return any;
}

void EventLoop::TakeTasks() {
  LoopTask** end = &runningTasks_;
  while (*end != nullptr) end = &(*end)->nextTask;
  *end = Reversed(std::exchange(tasks_, nullptr));
}

bool EventLoop::RunPosted() {
  {
    const MutexLock lock(mutex_);
    if (firing_.empty()) {
      firing_.swap(posted_);
      TakeTasks();
    }
    hasPosted_.store(!posted_.empty() || tasks_ != nullptr, std::memory_order_relaxed);
  }
  std::size_t fired = 0;
  const std::size_t count = firing_.size();
  IAWEvent** const events = firing_.data();
  while (fired < count && !IsStopping()) {
    // Another thread has written it: the wait for its bytes begins before its turn.
    if (fired + kEventsFetchedAhead < count)
      __builtin_prefetch(events[fired + kEventsFetchedAhead]);
    IAWEvent* event = std::exchange(events[fired++], nullptr);
    event->OnEventFire();
    event->OnDestorySelf();
  }
  firing_.erase(firing_.begin(), firing_.begin() + static_cast<std::ptrdiff_t>(fired));
  ranPosted_ = true;
  return RunTasks() || fired != 0;
}

bool EventLoop::RunTimers() {
  bool any = false;
  std::optional<Clock::Point> begin;
  while (!IsStopping() && timers_.RunNextDue(begin)) any = true;
  return any;
}

// Whoever waits for a call to be done goes on in place; the rest is there when the loop runs again.
void EventLoop::HoldPosted() {
  {
    const MutexLock lock(mutex_);
    closed_ = true;
    TakeTasks();
  }
  LoopTask* tasks = std::exchange(runningTasks_, nullptr);
  LoopTask** end = &runningTasks_;
  while (tasks != nullptr) {
    LoopTask* task = std::exchange(tasks, std::exchange(tasks->nextTask, nullptr));
    if (task->OutlastsRun()) {
      end = &(*end = task)->nextTask;
    } else {
      task->OnDropped();
    }
  }
  const MutexLock lock(mutex_);
  if (!firing_.empty() || runningTasks_ != nullptr)
    hasPosted_.store(true, std::memory_order_relaxed);
}

void EventLoop::DropPosted() {
  std::vector<IAWEvent*> left;
  std::vector<IAWEvent*> dropped;
  left.swap(firing_);
  LoopTask* tasks = nullptr;
  {
    const MutexLock lock(mutex_);
    closed_ = true;
    refusing_ = true;
    dropped.swap(posted_);
    tasks = std::exchange(tasks_, nullptr);
    hasPosted_.store(false, std::memory_order_relaxed);
  }
  Drop(std::exchange(runningTasks_, nullptr));
  Drop(Reversed(tasks));
  for (IAWEvent* event : left) {
    if (event != nullptr) event->OnDestorySelf();
  }
  for (IAWEvent* event : dropped) event->OnDestorySelf();
}

void EventLoop::End() {
  {
    const MutexLock lock(mutex_);
    if (running_.load(std::memory_order_relaxed) && !IsHeldHere()) return;
    closed_ = true;
    refusing_ = true;
  }
  const InPlace here(*this, TakeHoldAtExit());
  if (!here) return;
  callbacksOver_ = true;  // also those that a failed write would bring about
  FlushTurn();
  DropPosted();
  timers_.ForgetFiring();
  const MutexLock lock(mutex_);
  holds_ = 1;  // what has called this from inside the loop goes on no more
  callbackEnded_.notify_all();
}

void EventLoop::LeaveToParent() {
  leftToParent_.store(true, std::memory_order_relaxed);
  callbacksOver_ = true;
  running_.store(false, std::memory_order_relaxed);
  epoll_.Reset();
}

// --- descriptors ---

namespace {
int Control(int epoll, int operation, int fd, std::uint32_t events, Watcher* watcher) {
  epoll_event event{};
  event.events = events;
  event.data.ptr = watcher;
  return ::epoll_ctl(epoll, operation, fd, &event) == 0 ? 0 : errno;
}
}  // namespace

int EventLoop::Watch(int fd, std::uint32_t events, Watcher& watcher) {
  return Control(epoll_.Get(), EPOLL_CTL_ADD, fd, events, &watcher);
}

int EventLoop::Change(int fd, std::uint32_t events, Watcher& watcher) {
  return Control(epoll_.Get(), EPOLL_CTL_MOD, fd, events, &watcher);
}

void EventLoop::Unwatch(int fd, Watcher& watcher) {
  Control(epoll_.Get(), EPOLL_CTL_DEL, fd, 0, nullptr);
  if (recent_ == &watcher) recent_ = nullptr;
  for (int i = batchAt_; i < batchEnd_; ++i) {
    epoll_event& event = batch_[static_cast<std::size_t>(i)];
    if (event.data.ptr == &watcher) event.data.ptr = nullptr;
  }
}

// --- lingers ---

void EventLoop::FinishLingers() {
  const InPlace here(*this, TakeHoldAtExit());
  if (here) lingers_.Finish();
}

}  // namespace keelbase::internal
