// The threads a runner starts with pthread_create (the plug-in's std::threads), on the
// simulated clock.
//
// This library defines the libc calls such a thread makes to pass time, and the process's
// calls reach them as they reach gettimeofday (see MsgSdk.cpp): the executable's dependencies
// come before libc, and a sanitizer runtime's interceptor forwards to the next definition.
// Each passes straight to the next one (libc's) unless the clock is on; then:
//   - a thread created by a runner that holds the turn is "adopted": a runner from its
//     creation, as the stand-in's own threads are, that leaves when its routine returns;
//   - on an adopted thread, a sleep is a wait on the clock until its deadline, a condition
//     wait is one keyed by the condition with its mutex released meanwhile, the monotonic
//     clocks read device time (so the standard library's steady clock, which decides whether
//     a timed condition wait ran out, agrees), and a runner's join of an adopted thread waits
//     on the clock for its end;
//   - a notification of a condition from anyone wakes its adopted waiters on the clock too.
// Device time counts whole milliseconds: a sleep or a time-out is rounded up to the next one,
// so that a thread that polls with a shorter sleep still lets time move. A condition's
// adopted waiters are keyed one byte past its address, which no wait of the stand-in's uses:
// the stand-in notifies its own waiters itself, and some of them deliberately not.
// OwnCalls (HostThreads) marks the stand-in's and the host's own calls, which are always the
// real ones.
#include <dlfcn.h>
#include <errno.h>
#include <stdint.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <new>
#include <memory>
#include <mutex>

#include "NvxControl.h"
#include "SimClock.h"

namespace nvx {
namespace detail {
namespace {

thread_local int t_own = 0;
thread_local bool t_adopted = false;

// Adopted threads in a condition wait now, so that a notification costs nothing more when
// there are none.
std::atomic<int> g_condWaiters{0};

// The next definition of `name` (libc's), the default version or `version` where libc keeps
// an older one beside it under the same name.
void* Next(const char* name, const char* version) {
    void* fn = version != nullptr ? dlvsym(RTLD_NEXT, name, version) : nullptr;
    if (fn == nullptr) {
        fn = dlsym(RTLD_NEXT, name);
    }
    if (fn == nullptr) {
        fprintf(stderr, "norvixsdk: no %s to forward to\n", name);
        abort();
    }
    return fn;
}

// The pthread_cond calls of the current ABI; x86-64 keeps the older ones under the same names.
constexpr const char* kCondVersion = "GLIBC_2.3.2";

#define NVX_REAL(type, name, version)                              \
    static std::atomic<void*> name##_slot{nullptr};                \
    void* name##_fn = name##_slot.load(std::memory_order_relaxed); \
    if (name##_fn == nullptr) {                                    \
        name##_fn = nvx::detail::Next(#name, version);             \
        name##_slot.store(name##_fn, std::memory_order_relaxed);   \
    }                                                              \
    const auto real = reinterpret_cast<type>(name##_fn)

using MutexCall = int (*)(pthread_mutex_t*);

MutexCall RealUnlock() {
    NVX_REAL(MutexCall, pthread_mutex_unlock, nullptr);
    return real;
}

MutexCall RealLock() {
    NVX_REAL(MutexCall, pthread_mutex_lock, nullptr);
    return real;
}

// Whether the calling thread's call is the clock's to take: the atomic load first, which is
// all a call costs while the clock is off.
bool Adopted() {
    return SimOn() && t_adopted && t_own == 0;
}

constexpr int64_t kNsPerMs = 1000000;

// Milliseconds from now that `ns` nanoseconds take, rounded up; none for a negative span.
uint64_t CeilMs(int64_t ns) {
    return ns <= 0 ? 0 : static_cast<uint64_t>(ns / kNsPerMs + (ns % kNsPerMs != 0 ? 1 : 0));
}

// Saturated: a time given as "never" (the largest seconds) stays the latest one.
int64_t Ns(const struct timespec& t) {
    constexpr int64_t kMaxSeconds = INT64_MAX / 1000000000 - 1;
    const int64_t seconds = static_cast<int64_t>(t.tv_sec);
    return seconds > kMaxSeconds ? INT64_MAX : seconds * 1000000000 + t.tv_nsec;
}

bool Valid(const struct timespec* t) {
    return t != nullptr && t->tv_sec >= 0 && t->tv_nsec >= 0 && t->tv_nsec < 1000000000;
}

bool Monotonic(clockid_t clock) {
    return clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_RAW || clock == CLOCK_MONOTONIC_COARSE ||
           clock == CLOCK_BOOTTIME;
}

int RealClock(clockid_t clock, struct timespec* out) {
    NVX_REAL(int (*)(clockid_t, struct timespec*), clock_gettime, nullptr);
    return real(clock, out);
}

// The device deadline of an absolute time on `clock`: the monotonic clocks read device time
// on an adopted thread; the realtime clock is the machine's, so its time left counts from now.
bool DeadlineOf(clockid_t clock, const struct timespec* at, uint64_t* deadlineMs) {
    if (!Valid(at)) {
        return false;
    }
    if (clock == CLOCK_MONOTONIC || clock == CLOCK_BOOTTIME) {
        *deadlineMs = CeilMs(Ns(*at));
        return true;
    }
    struct timespec now;
    if (clock != CLOCK_REALTIME || RealClock(clock, &now) != 0) {
        return false;
    }
    *deadlineMs = SimNowMs() + CeilMs(Ns(*at) - Ns(now));
    return true;
}

void SleepFor(int64_t ns, const char* where) {
    SimWait(nullptr, SimNowMs() + CeilMs(ns), nullptr, where);
}

const void* CondKey(const pthread_cond_t* cond) {
    return reinterpret_cast<const char*>(cond) + 1;
}

// A spurious wake-up, to the caller, when the clock is switched off meanwhile: it looks again
// and waits on the machine's clock.
int CondWait(pthread_cond_t* cond, pthread_mutex_t* mutex, uint64_t deadlineMs, const char* where) {
    g_condWaiters.fetch_add(1);
    SimWaitReleasing(CondKey(cond), deadlineMs, mutex, RealUnlock(), RealLock(), where);
    g_condWaiters.fetch_sub(1);
    return deadlineMs != kSimForever && SimOn() && SimNowMs() >= deadlineMs ? ETIMEDOUT : 0;
}

void NotifyWaiters(pthread_cond_t* cond) {
    if (SimOn() && g_condWaiters.load() > 0 && t_own == 0) {
        SimNotify(CondKey(cond));
    }
}

// ---- adopted threads: their start, their end and who waits for it ----

struct ThreadEnd {
    std::atomic<bool> ended{false};
};

struct Ends {
    std::mutex mutex;
    std::map<pthread_t, std::shared_ptr<ThreadEnd>> live;  // adopted threads whose routine runs
};

Ends& TheEnds() {
    static Ends* ends = new Ends;  // never destroyed, see Device.cpp
    return *ends;
}

std::shared_ptr<ThreadEnd> EndOf(pthread_t thread) {
    Ends& e = TheEnds();
    ClockLock lock(e.mutex);
    auto it = e.live.find(thread);
    return it == e.live.end() ? nullptr : it->second;
}

struct Adoption {
    SimTicket ticket;
    void* (*routine)(void*);
    void* arg;
    std::shared_ptr<ThreadEnd> end;
};

// Listed by its creator, which holds the turn, so before the thread can run: a runner's join
// finds it from then on. Without room for it, a join is the machine's.
void ListEnd(pthread_t thread, const std::shared_ptr<ThreadEnd>& end) {
    Ends& e = TheEnds();
    ClockLock lock(e.mutex);
    if (end->ended.load()) {
        return;
    }
    try {
        e.live[thread] = end;
    } catch (const std::bad_alloc&) {
    }
}

// Also when the routine ends by pthread_exit, which unwinds through here. Ended on its turn,
// so that a joiner, which looks on its own turn, sees the end or waits for it.
class Leaving {
public:
    explicit Leaving(const Adoption& adoption) : m_ticket(adoption.ticket), m_end(adoption.end) {}
    ~Leaving() {
        t_adopted = false;
        {
            Ends& e = TheEnds();
            ClockLock lock(e.mutex);
            m_end->ended.store(true);
            auto it = e.live.find(pthread_self());
            if (it != e.live.end() && it->second == m_end) {
                e.live.erase(it);
            }
        }
        SimNotify(m_end.get());
        SimWithdraw(m_ticket);
    }
    Leaving(const Leaving&) = delete;
    Leaving& operator=(const Leaving&) = delete;

private:
    SimTicket m_ticket;
    std::shared_ptr<ThreadEnd> m_end;
};

void* RunAdopted(void* raw) {
    std::unique_ptr<Adoption> adoption(static_cast<Adoption*>(raw));
    SimEnter(adoption->ticket);
    t_adopted = adoption->ticket != nullptr;
    Leaving leaving(*adoption);
    return adoption->routine(adoption->arg);
}

#if defined(__SANITIZE_THREAD__)
// ThreadSanitizer starts every thread through a routine of its own, which registers the thread
// and then lets the creator go on before it calls the routine given; a thread held for its
// turn ahead of that would hold its creator, the runner holding the turn. The routine given and
// its argument lead that routine's parameter block (compiler-rt's ThreadParam), so the
// adoption goes in there, to run after that point.
struct SanitizerThreadParam {
    void* (*routine)(void*);
    void* arg;
};
#endif

}  // namespace

}  // namespace detail

HostThreads::HostThreads() {
    ++detail::t_own;
}

HostThreads::~HostThreads() {
    --detail::t_own;
}
}  // namespace nvx

using nvx::detail::Adopted;

extern "C" {

int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*routine)(void*), void* arg) {
    NVX_REAL(int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*), pthread_create, nullptr);
    if (!nvx::detail::SimOn() || nvx::detail::t_own > 0 || !nvx::detail::SimHoldsTurn()) {
        return real(thread, attr, routine, arg);
    }
    std::shared_ptr<nvx::detail::ThreadEnd> end;
    nvx::detail::SimTicket ticket;
    nvx::detail::Adoption* adoption = nullptr;
    try {
        end = std::make_shared<nvx::detail::ThreadEnd>();
        ticket = nvx::detail::SimAdmit("pthread_create");
        adoption = new nvx::detail::Adoption{ticket, routine, arg, end};
    } catch (...) {
        nvx::detail::SimWithdraw(ticket);
        return EAGAIN;  // as when the machine has no room for a thread
    }
#if defined(__SANITIZE_THREAD__)
    auto* param = static_cast<nvx::detail::SanitizerThreadParam*>(arg);
    adoption->routine = param->routine;
    adoption->arg = param->arg;
    param->routine = nvx::detail::RunAdopted;
    param->arg = adoption;
    const int rc = real(thread, attr, routine, arg);
#else
    const int rc = real(thread, attr, nvx::detail::RunAdopted, adoption);
#endif
    if (rc != 0) {
        nvx::detail::SimWithdraw(adoption->ticket);
        delete adoption;
        return rc;
    }
    nvx::detail::ListEnd(*thread, end);
    return rc;
}

int pthread_join(pthread_t thread, void** result) {
    NVX_REAL(int (*)(pthread_t, void**), pthread_join, nullptr);
    if (nvx::detail::SimOn() && nvx::detail::t_own == 0) {
        const std::shared_ptr<nvx::detail::ThreadEnd> end = nvx::detail::EndOf(thread);
        if (end && nvx::detail::SimHoldsTurn()) {
            while (!end->ended.load() && nvx::detail::SimOn()) {
                nvx::detail::SimWait(end.get(), nvx::detail::kSimForever, nullptr, "pthread_join");
            }
        }
    }
    return real(thread, result);
}

int usleep(useconds_t micros) {
    NVX_REAL(int (*)(useconds_t), usleep, nullptr);
    if (!Adopted()) {
        return real(micros);
    }
    nvx::detail::SleepFor(static_cast<int64_t>(micros) * 1000, "usleep");
    return 0;
}

unsigned int sleep(unsigned int seconds) {
    NVX_REAL(unsigned int (*)(unsigned int), sleep, nullptr);
    if (!Adopted()) {
        return real(seconds);
    }
    nvx::detail::SleepFor(static_cast<int64_t>(seconds) * 1000000000, "sleep");
    return 0;
}

int nanosleep(const struct timespec* span, struct timespec* left) {
    NVX_REAL(int (*)(const struct timespec*, struct timespec*), nanosleep, nullptr);
    if (!Adopted() || !nvx::detail::Valid(span)) {
        return real(span, left);
    }
    nvx::detail::SleepFor(nvx::detail::Ns(*span), "nanosleep");
    return 0;
}

int clock_nanosleep(clockid_t clock, int flags, const struct timespec* span, struct timespec* left) {
    NVX_REAL(int (*)(clockid_t, int, const struct timespec*, struct timespec*), clock_nanosleep, nullptr);
    if (!Adopted()) {
        return real(clock, flags, span, left);
    }
    if ((flags & TIMER_ABSTIME) == 0) {
        if (!nvx::detail::Valid(span) ||
            (clock != CLOCK_MONOTONIC && clock != CLOCK_BOOTTIME && clock != CLOCK_REALTIME)) {
            return real(clock, flags, span, left);
        }
        nvx::detail::SleepFor(nvx::detail::Ns(*span), "clock_nanosleep");
        return 0;
    }
    uint64_t deadline = 0;
    if (!nvx::detail::DeadlineOf(clock, span, &deadline)) {
        return real(clock, flags, span, left);
    }
    nvx::detail::SimWait(nullptr, deadline, nullptr, "clock_nanosleep");
    return 0;
}

int clock_gettime(clockid_t clock, struct timespec* out) noexcept {
    // Declared non-null, like gettimeofday's (see MsgSdk.cpp); the kernel answers a null one.
    struct timespec* checked = out;
    __asm__("" : "+r"(checked));
    if (!Adopted() || !nvx::detail::Monotonic(clock) || checked == nullptr) {
        return nvx::detail::RealClock(clock, out);
    }
    const uint64_t now = nvx::detail::SimNowMs();
    out->tv_sec = static_cast<time_t>(now / 1000);
    out->tv_nsec = static_cast<long>(now % 1000 * 1000000);
    return 0;
}

int pthread_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t clock,
                           const struct timespec* at) {
    NVX_REAL(int (*)(pthread_cond_t*, pthread_mutex_t*, clockid_t, const struct timespec*),
             pthread_cond_clockwait, nullptr);
    uint64_t deadline = 0;
    if (!Adopted() || !nvx::detail::DeadlineOf(clock, at, &deadline)) {
        return real(cond, mutex, clock, at);
    }
    return nvx::detail::CondWait(cond, mutex, deadline, "pthread_cond_clockwait");
}

// Taken as a condition of the realtime clock, the default one, as every condition of the
// standard library's is.
int pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex, const struct timespec* at) {
    NVX_REAL(int (*)(pthread_cond_t*, pthread_mutex_t*, const struct timespec*), pthread_cond_timedwait,
             nvx::detail::kCondVersion);
    uint64_t deadline = 0;
    if (!Adopted() || !nvx::detail::DeadlineOf(CLOCK_REALTIME, at, &deadline)) {
        return real(cond, mutex, at);
    }
    return nvx::detail::CondWait(cond, mutex, deadline, "pthread_cond_timedwait");
}

int pthread_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mutex) {
    NVX_REAL(int (*)(pthread_cond_t*, pthread_mutex_t*), pthread_cond_wait, nvx::detail::kCondVersion);
    if (!Adopted()) {
        return real(cond, mutex);
    }
    return nvx::detail::CondWait(cond, mutex, nvx::detail::kSimForever, "pthread_cond_wait");
}

int pthread_cond_signal(pthread_cond_t* cond) {
    NVX_REAL(int (*)(pthread_cond_t*), pthread_cond_signal, nvx::detail::kCondVersion);
    const int rc = real(cond);
    nvx::detail::NotifyWaiters(cond);
    return rc;
}

int pthread_cond_broadcast(pthread_cond_t* cond) {
    NVX_REAL(int (*)(pthread_cond_t*), pthread_cond_broadcast, nvx::detail::kCondVersion);
    const int rc = real(cond);
    nvx::detail::NotifyWaiters(cond);
    return rc;
}

}  // extern "C"
