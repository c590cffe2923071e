// Preconditions that a comment would otherwise only state ("called with the mutex held", "on
// the main cycle's thread only"), checked in debug and sanitizer builds so that a change that
// breaks one fails a test instead of racing in the field. Release builds compile them away.
#ifndef TRUCK_INCLUDE_TRUCKLOCKCHECK_H
#define TRUCK_INCLUDE_TRUCKLOCKCHECK_H

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

#include <atomic>
#include <mutex>

#if !defined(NDEBUG) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TRUCK_CHECKS_ON 1
#else
#define TRUCK_CHECKS_ON 0
#endif

// A broken precondition ends the process at once, where it broke: going on would race.
[[noreturn]] inline void TruckCheckFailed(const char* condition, const char* file, int line) {
    fprintf(stderr, "%s:%d: precondition failed: %s\n", file, line, condition);
    abort();
}

#if TRUCK_CHECKS_ON
#define TRUCK_CHECK(condition) ((condition) ? (void)0 : TruckCheckFailed(#condition, __FILE__, __LINE__))
#else
#define TRUCK_CHECK(condition) ((void)0)
#endif

// A recursive mutex that can say whether the calling thread holds it, for TRUCK_CHECK. The
// holder is kept in debug and sanitizer builds only; elsewhere it is a plain recursive mutex.
class TruckRecursiveMutex {
public:
    void lock() {
        m_mutex.lock();
        Enter();
    }
    void unlock() {
        Leave();
        m_mutex.unlock();
    }
    // True in builds without checks: there is nothing to tell.
    bool HeldByThisThread() const {
#if TRUCK_CHECKS_ON
        return pthread_equal(m_owner.load(std::memory_order_relaxed), pthread_self());
#else
        return true;
#endif
    }

private:
    void Enter() {
#if TRUCK_CHECKS_ON
        m_owner.store(pthread_self(), std::memory_order_relaxed);
        ++m_depth;
#endif
    }
    void Leave() {
#if TRUCK_CHECKS_ON
        if (--m_depth == 0) {
            m_owner.store(pthread_t(), std::memory_order_relaxed);
        }
#endif
    }

    std::recursive_mutex m_mutex;
#if TRUCK_CHECKS_ON
    // The owner is written only by the holder, and cleared before the mutex is let go: another
    // thread reading it sees an owner that is not its own, which is all HeldByThisThread asks.
    // The depth is the holder's alone.
    std::atomic<pthread_t> m_owner{pthread_t()};
    int m_depth = 0;
#endif
};

#endif
