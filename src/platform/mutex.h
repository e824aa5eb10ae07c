// Mutexes that clang's thread-safety analysis follows: data says which mutex guards it, a function
// says which must be held, and scripts/test's tidy step refuses whoever forgets. Other compilers
// see nothing of it.
#pragma once

#include <mutex>

#ifdef __clang__
#define WEXD_THREAD_ANNOTATION(...) __attribute__((__VA_ARGS__))
#else
#define WEXD_THREAD_ANNOTATION(...)
#endif

/// A type whose objects are held and let go, and one whose objects do so for as long as they live.
#define WEXD_CAPABILITY(what) WEXD_THREAD_ANNOTATION(capability(what))
#define WEXD_SCOPED_CAPABILITY WEXD_THREAD_ANNOTATION(scoped_lockable)
/// Data that is looked at and changed by whoever holds it only.
#define WEXD_GUARDED_BY(what) WEXD_THREAD_ANNOTATION(guarded_by(what))
/// A function for callers that hold it, one that takes it, and one that lets it go.
#define WEXD_REQUIRES(...) WEXD_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define WEXD_ACQUIRE(...) WEXD_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define WEXD_RELEASE(...) WEXD_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
/// The body does what the analysis cannot follow, such as to wait on a condition.
#define WEXD_UNCHECKED_LOCKING WEXD_THREAD_ANNOTATION(no_thread_safety_analysis)

class WEXD_CAPABILITY("mutex") Mutex {
public:
  void lock() WEXD_ACQUIRE() { mutex_.lock(); }
  void unlock() WEXD_RELEASE() { mutex_.unlock(); }

private:
  std::mutex mutex_;
};

/// Holds a mutex for as long as it lives.
class WEXD_SCOPED_CAPABILITY MutexLock {
public:
  explicit MutexLock(Mutex& mutex) WEXD_ACQUIRE(mutex) : mutex_(mutex) { mutex.lock(); }
  ~MutexLock() WEXD_RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

private:
  Mutex& mutex_;
};
