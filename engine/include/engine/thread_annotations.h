// Lock annotations for clang's -Wthread-safety analysis, and a mutex the analysis understands.
// Under other compilers the macros expand to nothing and the types are a plain std::mutex and a
// scoped lock around it.
#pragma once

#include <mutex>

#if defined(__clang__)
#define LUMORA2_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define LUMORA2_THREAD_ANNOTATION(x)
#endif

#define LUMORA2_CAPABILITY(x) LUMORA2_THREAD_ANNOTATION(capability(x))
#define LUMORA2_SCOPED_CAPABILITY LUMORA2_THREAD_ANNOTATION(scoped_lockable)
#define LUMORA2_GUARDED_BY(x) LUMORA2_THREAD_ANNOTATION(guarded_by(x))
#define LUMORA2_REQUIRES(...) LUMORA2_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define LUMORA2_ACQUIRE(...) LUMORA2_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define LUMORA2_RELEASE(...) LUMORA2_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define LUMORA2_EXCLUDES(...) LUMORA2_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

namespace lumora2 {

// std::mutex, known to the analysis as a capability.
class LUMORA2_CAPABILITY("mutex") Mutex {
 public:
  void lock() LUMORA2_ACQUIRE() { mutex_.lock(); }
  void unlock() LUMORA2_RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

// Holds a Mutex for its own lifetime.
class LUMORA2_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) LUMORA2_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() LUMORA2_RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace lumora2
