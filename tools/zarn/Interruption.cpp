// Interruption.cpp - see Interruption.h.
#include "Interruption.h"

#include <csignal>
#include <initializer_list>

namespace zarn::tool {

namespace {

volatile std::sig_atomic_t signalSeen = 0;

void Remember(int /*signal*/) { signalSeen = 1; }

}  // namespace

void CatchInterruptions() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction before {};
    if (::sigaction(signal, nullptr, &before) == 0 && before.sa_handler == SIG_IGN) continue;
    struct sigaction action {};
    action.sa_handler = &Remember;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    ::sigaction(signal, &action, nullptr);
  }
}

bool IsInterrupted() { return signalSeen != 0; }

}  // namespace zarn::tool
