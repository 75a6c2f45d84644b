// Interruption.cpp - see Interruption.h.
#include "Interruption.h"

#include <atomic>
#include <csignal>

namespace zarn::tool {

namespace {

std::atomic<bool> signalSeen = false;
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets it");

EndingSignal firstCaught;  // of the handler, in which no other signal that ends the program comes

void Remember(int number, siginfo_t* info, void* /*context*/) {
  const EndingSignal signal(*info);
  if (!IsInterrupted()) {
    firstCaught = signal;
    NoteInterruption();
  } else if (!IsSentTwice(firstCaught, signal)) {
    ::signal(number, SIG_DFL);
    ::raise(number);  // comes when the handler has returned
  }
}

}  // namespace

std::vector<int> GetEndingSignals() {
  struct sigaction atHangup {};
  ::sigaction(SIGHUP, nullptr, &atHangup);
  if (atHangup.sa_handler == SIG_IGN) return {SIGINT, SIGTERM};
  return {SIGINT, SIGTERM, SIGHUP};
}

EndingSignal::EndingSignal(const siginfo_t& info)
    : number(info.si_signo),
      sender(info.si_code == SI_USER || info.si_code == SI_TKILL ? info.si_pid : 0),
      at(std::chrono::steady_clock::now()) {}

bool IsSentTwice(const EndingSignal& first, const EndingSignal& again) {
  const bool isSame = again.number == first.number && again.sender == first.sender;
  return isSame && first.sender != 0 && again.at - first.at < std::chrono::seconds(1);
}

void CatchInterruptions() {
  struct sigaction action {};
  action.sa_sigaction = &Remember;
  action.sa_flags = SA_SIGINFO;
  for (const int signal : GetEndingSignals()) sigaddset(&action.sa_mask, signal);
  for (const int signal : GetEndingSignals()) ::sigaction(signal, &action, nullptr);
}

void NoteInterruption() { signalSeen = true; }

bool IsInterrupted() { return signalSeen; }

}  // namespace zarn::tool
