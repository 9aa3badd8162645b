#pragma once

// What a mutex guards, said so that the compiler checks it. Clang's thread-safety analysis runs
// with the lints (scripts/lint) and takes every breach for an error; GCC sees nothing of this. It
// works with zelt::Mutex and zelt::Lock (zelt/Mutex.h), not with std::mutex.
#if defined(__clang__)
#define ZELT_THREAD_ANNOTATION(...) __attribute__((__VA_ARGS__))
#else
#define ZELT_THREAD_ANNOTATION(...)
#endif

// On a member: read or write it with `mutex` held only.
#define ZELT_GUARDED_BY(mutex) ZELT_THREAD_ANNOTATION(guarded_by(mutex))

// On a function: call it with the mutexes held, or without holding any of them.
#define ZELT_REQUIRES(...) ZELT_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ZELT_EXCLUDES(...) ZELT_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

// On a function that locks (and returns with the lock), or unlocks.
#define ZELT_ACQUIRE(...) ZELT_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ZELT_RELEASE(...) ZELT_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

// On a class: a mutex of the given kind; an object that holds a mutex as long as it lives.
#define ZELT_CAPABILITY(kind) ZELT_THREAD_ANNOTATION(capability(kind))
#define ZELT_SCOPED_CAPABILITY ZELT_THREAD_ANNOTATION(scoped_lockable)
