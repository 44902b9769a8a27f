#pragma once

#include "base/trace/Trace.h"

#include <cstdint>
#include <mutex>
#include <shared_mutex>

// Clang checks these with -Wthread-safety; other compilers see nothing.
#if defined(__clang__)
#define MORVA_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define MORVA_THREAD_ATTRIBUTE(x)
#endif
#define MORVA_CAPABILITY(x) MORVA_THREAD_ATTRIBUTE(capability(x))
#define MORVA_SCOPED_CAPABILITY MORVA_THREAD_ATTRIBUTE(scoped_lockable)
#define MORVA_GUARDED_BY(x) MORVA_THREAD_ATTRIBUTE(guarded_by(x))
#define MORVA_PT_GUARDED_BY(x) MORVA_THREAD_ATTRIBUTE(pt_guarded_by(x))
#define MORVA_REQUIRES(...) MORVA_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define MORVA_EXCLUDES(...) MORVA_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define MORVA_ACQUIRE(...) MORVA_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define MORVA_RELEASE(...) MORVA_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define MORVA_NO_THREAD_SAFETY_ANALYSIS MORVA_THREAD_ATTRIBUTE(no_thread_safety_analysis)

namespace Morva {

/// The two lines that a lock writes at level Debug. The texts must be literals.
struct LockTexts {
    char const* lock;
    char const* unlock;
};

/// A mutex that traces its lock and unlock lines, with the id of its owner if it is not 0.
class MORVA_CAPABILITY("mutex") TracedMutex {
public:
    explicit TracedMutex(LockTexts texts, std::uint64_t id = 0) : texts_(texts), id_(id) {}

    void lock() MORVA_ACQUIRE() {
        mutex_.lock();
        if (Trace::enabled(TraceLevel::Debug)) [[unlikely]]
            trace(texts_.lock);
    }
    void unlock() MORVA_RELEASE() {
        if (Trace::enabled(TraceLevel::Debug)) [[unlikely]]
            trace(texts_.unlock);
        mutex_.unlock();
    }
    /// For the trace lines only; to be set before the lock is shared.
    void id(std::uint64_t value) { id_ = value; }
    /// For condition variables, which need the plain mutex.
    std::mutex& native() { return mutex_; }

private:
    void trace(char const* text) const;

    std::mutex mutex_;
    LockTexts texts_;
    std::uint64_t id_;
};

/// Holds a TracedMutex for its scope; can be given up early.
class MORVA_SCOPED_CAPABILITY TracedLock {
public:
    explicit TracedLock(TracedMutex& mutex) MORVA_ACQUIRE(mutex) : mutex_(&mutex) { mutex.lock(); }
    ~TracedLock() MORVA_RELEASE() {
        if (mutex_)
            mutex_->unlock();
    }
    void release() MORVA_RELEASE() {
        mutex_->unlock();
        mutex_ = nullptr;
    }
    TracedLock(TracedLock const&) = delete;
    TracedLock& operator=(TracedLock const&) = delete;

private:
    TracedMutex* mutex_;
};

} // namespace Morva
