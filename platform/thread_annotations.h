#pragma once

#include <mutex>

/// Names for clang's thread-safety analysis (https://clang.llvm.org/docs/ThreadSafetyAnalysis.html). A queue or a mutex
/// is a capability; what it guards says so in its type. Under other compilers the macros are empty.
#if defined(__clang__)
#define ORX_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define ORX_THREAD_ATTRIBUTE(x)
#endif

#define ORX_CAPABILITY(name) ORX_THREAD_ATTRIBUTE(capability(name))
#define ORX_SCOPED_CAPABILITY ORX_THREAD_ATTRIBUTE(scoped_lockable)
#define ORX_GUARDED_BY(x) ORX_THREAD_ATTRIBUTE(guarded_by(x))
#define ORX_PT_GUARDED_BY(x) ORX_THREAD_ATTRIBUTE(pt_guarded_by(x))
#define ORX_REQUIRES(...) ORX_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ORX_REQUIRES_SHARED(...) ORX_THREAD_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define ORX_ACQUIRE(...) ORX_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ORX_RELEASE(...) ORX_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define ORX_EXCLUDES(...) ORX_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ORX_ASSERT_CAPABILITY(x) ORX_THREAD_ATTRIBUTE(assert_capability(x))
#define ORX_ASSERT_SHARED_CAPABILITY(x) ORX_THREAD_ATTRIBUTE(assert_shared_capability(x))
#define ORX_RETURN_CAPABILITY(x) ORX_THREAD_ATTRIBUTE(lock_returned(x))
#define ORX_NO_THREAD_SAFETY_ANALYSIS ORX_THREAD_ATTRIBUTE(no_thread_safety_analysis)

namespace orvex::platform {

/// A std::mutex that the analysis can see. For leaves only: nothing is called while one is held.
class ORX_CAPABILITY("mutex") Mutex {
public:
    void lock() ORX_ACQUIRE() { _mutex.lock(); }
    void unlock() ORX_RELEASE() { _mutex.unlock(); }

    /// For a condition variable, which needs the real one.
    std::mutex& native() ORX_RETURN_CAPABILITY(this) { return _mutex; }

private:
    std::mutex _mutex;
};

class ORX_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ORX_ACQUIRE(mutex) : _mutex(mutex) { _mutex.lock(); }
    ~MutexLock() ORX_RELEASE() { _mutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& _mutex;
};

}  // namespace orvex::platform
