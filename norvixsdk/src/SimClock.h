// The simulated device clock, for the stand-in's modules. Off by default: then every wait and
// every clock reading below is the machine's, exactly as without it.
//
// When on, the threads that take part ("runners") run one at a time. A runner gives up its
// turn only where it waits on the stand-in; device time moves only when every runner waits,
// by a jump to the earliest deadline. See SimClock.cpp for the rules the scheduler keeps.
// A thread that a runner starts with pthread_create (a std::thread of the plug-in's) is a
// runner too: its sleeps, monotonic clock readings, condition waits and joins are taken over
// by this library while the clock is on (SimThreads.cpp), as gettimeofday is.
#ifndef NORVIX_SRC_SIMCLOCK_H
#define NORVIX_SRC_SIMCLOCK_H

#include <pthread.h>
#include <stdint.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "NvxControl.h"

namespace nvx {
namespace detail {

extern std::atomic<bool> g_simOn;
extern std::atomic<uint64_t> g_simNowMs;

inline bool SimOn() {
    return g_simOn.load(std::memory_order_acquire);
}
// Device milliseconds on the simulated clock (meaningful while it is on).
inline uint64_t SimNowMs() {
    return g_simNowMs.load(std::memory_order_acquire);
}
// Device milliseconds since the simulated clock was switched on.
uint64_t SimElapsedMs();

constexpr uint64_t kSimForever = UINT64_MAX;
// WaitMs's time-out for a wait without one; any other negative time-out is none at all, as the
// control's waits have always taken it.
constexpr int64_t kWaitEndless = INT64_MIN;

struct SimRunner;
using SimTicket = std::shared_ptr<SimRunner>;

// A thread about to be started takes part from its creation, so that the order in which
// runners join depends only on the order of the turns. The creator admits it (null while the
// clock is off); the new thread enters before anything else and waits there for its turn; a
// thread that never started is withdrawn. A runner leaves when its thread ends.
SimTicket SimAdmit(const char* name);
void SimEnter(const SimTicket& ticket);
void SimWithdraw(const SimTicket& ticket);
// Whether the calling thread is a runner of the clock now on and holds the turn.
bool SimHoldsTurn();

// While one lives, the calling thread's thread creations, sleeps, clock readings and condition
// waits and notifications are the real ones even on a thread the clock adopted: the
// scheduler's own, and those of the stand-in's threads, which admit themselves. The host's
// threads are kept off the clock by the same mark.
using OwnCalls = ::nvx::HostThreads;

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* addr);
extern "C" void __tsan_release(void* addr);
#endif

// A lock of the clock's own. ThreadSanitizer ignores the locks taken inside a call it counts as
// blocking (a sleep, a condition wait, a join), and there the clock takes such calls over: so
// what the lock orders is told to it directly as well. The calls made under it are own calls.
class ClockLock {
public:
    explicit ClockLock(std::mutex& mutex) : m_lock(mutex) { Acquired(); }
    ~ClockLock() {
        if (m_lock.owns_lock()) {
            Releasing();
        }
    }
    ClockLock(const ClockLock&) = delete;
    ClockLock& operator=(const ClockLock&) = delete;
    void unlock() {
        Releasing();
        m_lock.unlock();
    }
    template <class Pred>
    void Wait(std::condition_variable& cv, Pred pred) {
        while (!pred()) {
            Releasing();
            cv.wait(m_lock);
            Acquired();
        }
    }

private:
    void Acquired() {
#if defined(__SANITIZE_THREAD__)
        __tsan_acquire(m_lock.mutex());
#endif
    }
    void Releasing() {
#if defined(__SANITIZE_THREAD__)
        __tsan_release(m_lock.mutex());
#endif
    }

    OwnCalls m_own;
    std::unique_lock<std::mutex> m_lock;
};

// Gives up the turn until notified on `key` (null: only the deadline), or device time
// `deadlineMs`, then waits for the turn again. `lock`, when given, is held on entry, released
// while waiting and held again on return. A thread that is not yet a runner joins here.
// Returns at once while the clock is off, or when it is switched off meanwhile. `where`
// names the call, for the stall report.
void SimWait(const void* key, uint64_t deadlineMs, std::unique_lock<std::mutex>* lock, const char* where);
// The same with a platform mutex held on entry, released with `unlock` and retaken with `lock`:
// the real calls, past an interceptor that has accounted for the caller's own already.
void SimWaitReleasing(const void* key, uint64_t deadlineMs, pthread_mutex_t* mutex,
                      int (*unlock)(pthread_mutex_t*), int (*lock)(pthread_mutex_t*), const char* where);
// The waiters on `key` may run, at the current device time.
void SimNotify(const void* key);
// A condition's waiters, on the machine's clock and on the simulated one alike: every notify
// of the stand-in goes through these, so that none forgets its waiters on the clock.
inline void NotifyAll(std::condition_variable& cv) {
    cv.notify_all();
    SimNotify(&cv);
}
inline void NotifyOne(std::condition_variable& cv) {
    cv.notify_one();
    SimNotify(&cv);
}

// A platform thread that idles on the machine's clock in an endless wait is listed while it
// waits, so that switching the clock on makes it a runner before anything wakes it: an event
// then finds it waiting on the clock like any other runner, instead of waking it outside the
// turns. The mutex is the one `cv` is waited with, and lives as long as the process.
struct SimParked;
std::shared_ptr<SimParked> SimPark(std::condition_variable* cv, std::mutex* mutex);
// With the mutex held.
bool SimParkedAdopted(const SimParked& parked);
// Off the list; the calling thread is now the runner the clock made of it, if it did.
void SimUnpark(const std::shared_ptr<SimParked>& parked);
// SimWait on `cv`, waited with `lock`. Returns where it is listed when the clock was switched
// off during an endless wait, else null.
std::shared_ptr<SimParked> SimWaitOn(std::condition_variable& cv, uint64_t deadlineMs,
                                     std::unique_lock<std::mutex>& lock, const char* where);

// Waits on the machine's clock, listed, until `pred` holds or the clock is switched on.
template <class Pred>
void WaitParked(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
                const std::shared_ptr<SimParked>& parked, Pred pred) {
    cv.wait(lock, [&] { return pred() || SimParkedAdopted(*parked); });
    SimUnpark(parked);
}

// A condition wait of the stand-in: `cv.wait_for` (kWaitEndless: `cv.wait`) on the machine's
// clock while the simulated clock is off, the same in device time while it is on.
template <class Pred>
bool WaitMs(std::condition_variable& cv, std::unique_lock<std::mutex>& lock, int64_t timeoutMs, Pred pred,
            const char* where) {
    const bool endless = timeoutMs == kWaitEndless;
    if (!SimOn() && !endless) {
        return cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), pred);
    }
    uint64_t deadline = kSimForever;
    bool timed = false;
    for (;;) {
        if (!SimOn()) {
            // A bounded wait that the clock's switching off cut short ends here; an endless one
            // goes on on the machine's clock, listed.
            if (!endless || pred()) {
                return pred();
            }
            WaitParked(cv, lock, SimPark(&cv, lock.mutex()), pred);
            continue;
        }
        if (!endless && !timed) {
            deadline = SimNowMs() + static_cast<uint64_t>(timeoutMs < 0 ? 0 : timeoutMs);
            timed = true;
        }
        const bool met = pred();
        if (met && SimHoldsTurn()) {
            return true;
        }
        if (!met && deadline != kSimForever && SimNowMs() >= deadline) {
            return false;
        }
        // Met but not on its turn (a thread that has just joined): it waits for the turn.
        const std::shared_ptr<SimParked> parked = SimWaitOn(cv, met ? SimNowMs() : deadline, lock, where);
        if (parked) {
            WaitParked(cv, lock, parked, pred);
        }
    }
}

// The same with a deadline on the steady clock, as the delivery channels take it; in device
// time it is the time left from now.
template <class Pred>
bool WaitUntil(std::condition_variable& cv, std::unique_lock<std::mutex>& lock,
               std::chrono::steady_clock::time_point deadline, Pred pred, const char* where) {
    if (!SimOn()) {
        return cv.wait_until(lock, deadline, pred);
    }
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return WaitMs(cv, lock, left.count() < 0 ? 0 : left.count(), pred, where);
}

// A platform thread of the stand-in's own, a runner while the clock is on.
template <class Entry>
std::thread StartThread(const char* name, Entry entry) {
    SimTicket ticket = SimAdmit(name);
    try {
        OwnCalls own;  // admitted here, not adopted
        return std::thread([ticket, entry]() mutable {
            SimEnter(ticket);
            entry();
        });
    } catch (...) {
        SimWithdraw(ticket);
        throw;
    }
}

}  // namespace detail
}  // namespace nvx

#endif
