// Loop.cpp - see Loop.h.
#include "Loop.h"

#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>

#include "Interruption.h"
#include "Output.h"

namespace zarn::tool {

using keelbase::CAWThreadManager;

namespace {

sigset_t HandledSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : GetEndingSignals()) sigaddset(&signals, signal);
  return signals;
}

EndingSignal TakeSignal() {
  const sigset_t signals = HandledSignals();
  siginfo_t info{};
  while (::sigwaitinfo(&signals, &info) < 0) {
  }
  return EndingSignal(info);
}

keelbase::CAWThread* AdoptMainThread(int type) {
  auto* manager = CAWThreadManager::Instance();
  if (manager->AdoptCurrentThread(type) != keelbase::AW_OK) {
    Complain("no event loop: out of memory or descriptors");
    std::exit(1);
  }
  return manager->GetThread(type);
}

}  // namespace

// The signals are blocked in all threads and fetched by one that may post like any other.
Loop::Loop(std::function<void()> interrupted, int type)
    : interrupted_(std::move(interrupted)), thread_(AdoptMainThread(type)) {
  const sigset_t signals = HandledSignals();
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  signals_ = std::thread([this] { WaitForSignals(); });
}

Loop::~Loop() {
  ended_ = true;
  ::pthread_kill(signals_.native_handle(), SIGINT);  // wakes it
  signals_.join();
}

void Loop::WaitForSignals() {
  const EndingSignal first = TakeSignal();
  if (ended_) return;
  NoteInterruption();
  thread_->Post([this] { interrupted_(); });
  EndingSignal again = TakeSignal();
  while (!ended_ && IsSentTwice(first, again)) again = TakeSignal();
  if (!ended_) ::_exit(128 + again.number);
}

int Loop::Run() {
  while (code_ < 0) thread_->Run();
  return code_;
}

void Loop::Finish(int code) {
  if (code_ >= 0) return;
  code_ = code;
  thread_->Stop();
}

void Timer::Schedule(double seconds, std::uint32_t count) {
  timer_.Schedule(this, keelbase::CAWTimeValue(std::chrono::duration<double>(seconds)), count);
}

}  // namespace zarn::tool
