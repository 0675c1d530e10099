// Clang's thread-safety annotations, and a mutex the analysis understands. Empty on compilers
// without them, so GCC builds the same code. The `clang` preset builds with -Wthread-safety.
#pragma once

#include <mutex>

#if defined(__clang__)
#define VD_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VD_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) VD_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY VD_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) VD_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) VD_THREAD_ANNOTATION(pt_guarded_by(x))
#define REQUIRES(...) VD_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) VD_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) VD_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VD_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) VD_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS VD_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace vigild {

// std::mutex with annotations; libstdc++'s own is not annotated.
class CAPABILITY("mutex") Mutex {
public:
    void lock() ACQUIRE() { m_.lock(); }
    void unlock() RELEASE() { m_.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return m_.try_lock(); }

private:
    std::mutex m_;
};

// std::recursive_mutex with annotations.
class CAPABILITY("mutex") RecursiveMutex {
public:
    void lock() ACQUIRE() { m_.lock(); }
    void unlock() RELEASE() { m_.unlock(); }

private:
    std::recursive_mutex m_;
};

// lock_guard for the annotated mutexes.
template <typename M>
class SCOPED_CAPABILITY Lock {
public:
    explicit Lock(M& m) ACQUIRE(m) : m_(m) { m_.lock(); }
    ~Lock() RELEASE() { m_.unlock(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    M& m_;
};

} // namespace vigild
