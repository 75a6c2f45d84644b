// Pollers.h - those whom a loop asks for work.
#pragma once

#include <cstdint>

#include "keelbase/internal/IntrusiveList.h"

namespace keelbase::internal {

// Somebody whose input comes by memory: no descriptor shows it unless the other side was asked to
// use one. All calls come on the loop's thread.
class Poller {
 public:
  virtual bool Poll() = 0;  // looks for work and does it; true when there was some

  // The loop is about to sleep. True: from here on a descriptor tells of work, and there was none
  // before; polling has ended. False: there is work.
  virtual bool Arm() = 0;

  // The loop's own: where it stands, and how often it had nothing to do.
  ListPlace<Poller> placeToPoll;
  std::uint32_t idleLooks = 0;

 protected:
  ~Poller() = default;
};

// Each may start and stop others while it is asked, itself too. `isOver()` is looked at before
// each: true when nobody else is to be asked.
class Pollers {
 public:
  bool IsEmpty() const { return list_.IsEmpty(); }

  void Start(Poller& poller) {  // not twice
    poller.idleLooks = 0;
    list_.Append(poller);
    if (asking_ && next_ == nullptr) next_ = &poller;
  }

  void Stop(Poller& poller) {
    if (!list_.Contains(poller)) return;
    if (asked_ == &poller) asked_ = nullptr;
    if (next_ == &poller) next_ = list_.After(poller);
    list_.Remove(poller);
  }

  // True when somebody had work.
  template <class IsOver>
  bool Poll(IsOver isOver) {
    bool any = false;
    ForEach(isOver, [this, &any](Poller& poller) {
      const bool worked = poller.Poll();
      any |= worked;
      if (asked_ == nullptr) return;
      if (worked) {
        poller.idleLooks = 0;
      } else if (++poller.idleLooks > kIdleLooks && poller.Arm()) {
        Stop(poller);
      }
    });
    return any;
  }

  // True when nobody is left who must be asked.
  template <class IsOver>
  bool Arm(IsOver isOver) {
    ForEach(isOver, [this](Poller& poller) {
      if (poller.Arm()) Stop(poller);
    });
    return list_.IsEmpty();
  }

 private:
  // Whoever had nothing to do for so many looks is not asked any more, though the loop still spins.
  static constexpr std::uint32_t kIdleLooks = 4096;

  template <class IsOver, class Ask>
  void ForEach(IsOver isOver, Ask ask) {
    asking_ = true;
    for (Poller* poller = list_.First(); poller != nullptr && !isOver(); poller = next_) {
      asked_ = poller;
      next_ = list_.After(*poller);
      ask(*poller);
    }
    asking_ = false;
    asked_ = next_ = nullptr;
  }

  IntrusiveList<Poller, &Poller::placeToPoll> list_;
  bool asking_ = false;
  Poller* asked_ = nullptr;  // null once it was stopped meanwhile
  Poller* next_ = nullptr;   // to be asked after it
};

}  // namespace keelbase::internal
