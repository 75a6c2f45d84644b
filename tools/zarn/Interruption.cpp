// Interruption.cpp - see Interruption.h.
#include "Interruption.h"

#include <atomic>
#include <csignal>

namespace zarn::tool {

namespace {

std::atomic<bool> signalSeen = false;
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

void Remember(int /*signal*/) { NoteInterruption(); }

}  // namespace

std::vector<int> GetEndingSignals() {
  struct sigaction atHangup {};
  ::sigaction(SIGHUP, nullptr, &atHangup);
  if (atHangup.sa_handler == SIG_IGN) return {SIGINT, SIGTERM};
  return {SIGINT, SIGTERM, SIGHUP};
}

void CatchInterruptions() {
  for (const int signal : GetEndingSignals()) {
    struct sigaction action {};
    action.sa_handler = &Remember;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    ::sigaction(signal, &action, nullptr);
  }
}

void NoteInterruption() { signalSeen = true; }

bool IsInterrupted() { return signalSeen; }

}  // namespace zarn::tool
