// Processor.h - what is said to the processor itself, and has no words in C++. What this one does
// not know costs a little speed only.
#pragma once

namespace keelbase::internal {

// In a loop that looks for what another processor writes: the loop takes less of what they share.
inline void Pause() {
#if defined(__x86_64__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("isb");
#endif
}

// Between two quick looks: keeps the processor from making the second one ahead of the first, which
// it would have to undo just when there is something to see. Takes a tenth of a pause.
inline void FinishLoads() {
#if defined(__x86_64__)
  __builtin_ia32_lfence();
#endif
}

// Fetches the cache line, and takes it from the other processors, since it will be written.
inline void FetchLineToWrite(const char* at) {
#if defined(__x86_64__)
  // The builtin fetches without taking: a write would still have to wait.
  asm volatile("prefetchw %0" : : "m"(*at));
#else
  __builtin_prefetch(at, 1);
#endif
}

// True: the instruction that memcpy takes for long pieces takes several times as long where the
// ends are not aligned.
inline bool HasSlowStringCopy() {
#if defined(__x86_64__)
  return __builtin_cpu_is("amdfam17h") != 0 || __builtin_cpu_is("amdfam19h") != 0;
#else
  return false;
#endif
}

}  // namespace keelbase::internal
