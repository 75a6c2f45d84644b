// Interruption.cpp - see Interruption.h.
#include "Interruption.h"

#include <csignal>

namespace zarn::tool {

namespace {

volatile std::sig_atomic_t signalSeen = 0;

void Remember(int /*signal*/) { signalSeen = 1; }

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

bool IsInterrupted() { return signalSeen != 0; }

}  // namespace zarn::tool
