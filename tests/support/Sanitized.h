// Sanitized.h - what only a build without a sanitizer can stand.
#pragma once

namespace zarn::test {

// A sanitizer takes more address space than any limit.
inline bool IsSanitized() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
  return true;
#endif
#endif
  return false;
}

}  // namespace zarn::test
