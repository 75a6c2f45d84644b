// CAWThreadAnnotations.h - says which lock guards what, for Clang's -Wthread-safety; nothing
// elsewhere.
#pragma once

#if defined(__clang__)
#define AW_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define AW_THREAD_ANNOTATION(x)
#endif

// On classes: a lock; an object that holds a lock for its scope.
#define AW_CAPABILITY(name) AW_THREAD_ANNOTATION(capability(name))
#define AW_SCOPED_CAPABILITY AW_THREAD_ANNOTATION(scoped_lockable)

// On members: touched only with the lock held.
#define AW_GUARDED_BY(lock) AW_THREAD_ANNOTATION(guarded_by(lock))

// On functions: called with the lock held; takes it; takes it when the result converts to the first
// argument; gives it back; not looked at.
#define AW_REQUIRES(...) AW_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define AW_ACQUIRE(...) AW_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define AW_TRY_ACQUIRE(...) AW_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define AW_RELEASE(...) AW_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define AW_NO_THREAD_SAFETY_ANALYSIS AW_THREAD_ANNOTATION(no_thread_safety_analysis)
