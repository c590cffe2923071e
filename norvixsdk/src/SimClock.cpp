// The simulated device clock and the scheduler that keeps it.
//
// What always holds, under Sim::mutex (the innermost lock of the stand-in: taken inside any
// other, never held while calling out; held through a ClockLock, since the clock also runs
// inside the calls it takes over from threads it adopted, see SimThreads.cpp):
//   - at most one runner holds the turn (`turn`); every other runner is ready (queued in
//     `ready`, first come first served) or waiting (on a key, a deadline, or both);
//   - device time (`g_simNowMs`) moves only in Dispatch, when nobody holds the turn and
//     nobody is ready: it jumps to the earliest deadline, and the runners due then become
//     ready in the order they joined;
//   - a waiting runner's deadline is later than the device time (a deadline already reached
//     makes it ready at once), so no deadline is ever missed by a jump;
//   - `runners` lists the runners of the clock now on in the order they joined. Every change
//     of state happens on the thread that holds the turn, or when nobody holds it, so the
//     sequence of turns is the same on every run of the same program.
//   - `parked` lists the threads idling in an endless wait on the machine's clock while it is
//     off (see SimPark), and those the switch-off left so; switching on makes each a runner.
// A runner's record is shared with its thread, which may still be inside SimWait when the
// clock is switched off and the table is cleared; `generation` tells a record of an earlier
// session from one of this. The checks below hold in debug and sanitizer builds.
#include "SimClock.h"

#include <assert.h>
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <time.h>

#include <algorithm>
#include <deque>
#include <string>
#include <vector>

#include "Device.h"

namespace nvx {
namespace detail {

std::atomic<bool> g_simOn{false};
std::atomic<uint64_t> g_simNowMs{0};

struct SimRunner {
    std::string name;
    uint64_t order = 0;
    uint64_t generation = 0;
    enum State { kReady, kRunning, kWaiting, kGone } state = kWaiting;  // until told otherwise
    const void* key = nullptr;
    uint64_t deadline = kSimForever;
    const char* where = "its start";  // the stand-in call it waits in, or last returned from
    pthread_t thread{};
    bool entered = false;
    std::condition_variable turn;  // it has been given the turn, or the clock went off
    // In an endless condition wait (WaitMs): where it goes on waiting once the clock is off.
    std::condition_variable* waitCv = nullptr;
    std::mutex* waitMutex = nullptr;
    std::shared_ptr<SimParked> parkedAs;  // listed for it by the switch-off
};

struct SimParked {
    SimParked(std::condition_variable* waitedCv, std::mutex* waitedMutex)
        : cv(waitedCv), mutex(waitedMutex) {}
    std::condition_variable* cv;
    std::mutex* mutex;
    bool adopted = false;  // guarded by *mutex
    SimTicket runner;      // guarded by Sim::mutex
};

namespace {

struct Sim {
    std::mutex mutex;
    uint64_t startMs = 0;
    std::atomic<uint64_t> generation{0};
    uint64_t nextOrder = 0;
    std::vector<SimTicket> runners;
    std::deque<SimRunner*> ready;
    SimRunner* turn = nullptr;
    std::chrono::steady_clock::time_point turnSince;
    std::vector<std::shared_ptr<SimParked>> parked;  // in the order they began to wait

    // The stall watch: a thread of the machine's clock, not a runner.
    std::thread watch;
    std::condition_variable watchWake;
    bool watchStop = false;
    int stallLimitMs = 20000;
};

Sim& TheSim() {
    static Sim* sim = new Sim;  // never destroyed, see Device.cpp
    return *sim;
}

// The calling thread's record, and its leaving when the thread ends.
struct RunnerSlot {
    SimTicket runner;
    ~RunnerSlot();
};
thread_local RunnerSlot t_slot;

// The calling thread is the one that runs for `runner`.
void BindThisThread(const SimTicket& runner) {
    t_slot.runner = runner;
    runner->thread = pthread_self();
    runner->entered = true;
}

bool Current(const Sim& s, const SimTicket& runner) {
    return runner && runner->generation == s.generation.load() && runner->state != SimRunner::kGone;
}

void MakeReady(Sim& s, SimRunner* runner) {
    assert(runner->state != SimRunner::kGone);
    if (runner->state == SimRunner::kReady) {
        return;
    }
    runner->state = SimRunner::kReady;
    runner->key = nullptr;
    s.ready.push_back(runner);
}

void MakeWaiting(Sim& s, SimRunner* runner, const void* key, uint64_t deadline) {
    if (runner->state == SimRunner::kReady) {
        s.ready.erase(std::remove(s.ready.begin(), s.ready.end(), runner), s.ready.end());
    }
    runner->state = SimRunner::kWaiting;
    runner->key = key;
    runner->deadline = deadline;
}

void GiveTurn(Sim& s, SimRunner* runner) {
    assert(s.turn == nullptr && runner->state != SimRunner::kGone);
    runner->state = SimRunner::kRunning;
    s.turn = runner;
    s.turnSince = std::chrono::steady_clock::now();
    runner->turn.notify_one();
}

// With the mutex held and nobody holding the turn: hands it to the first ready runner,
// moving the clock to the next deadline when nobody is ready. With nothing ready and no
// deadline the world idles until an event from outside.
void Dispatch(Sim& s) {
    assert(s.turn == nullptr);
    for (;;) {
        if (!s.ready.empty()) {
            SimRunner* next = s.ready.front();
            s.ready.pop_front();
            GiveTurn(s, next);
            return;
        }
        uint64_t next = kSimForever;
        for (const SimTicket& r : s.runners) {
            if (r->state == SimRunner::kWaiting) {
                next = std::min(next, r->deadline);
            }
        }
        if (next == kSimForever) {
            return;
        }
        g_simNowMs.store(next, std::memory_order_release);
        for (const SimTicket& r : s.runners) {
            if (r->state == SimRunner::kWaiting && r->deadline <= next) {
                MakeReady(s, r.get());
            }
        }
    }
}

SimTicket Join(Sim& s, const char* name) {
    auto runner = std::make_shared<SimRunner>();
    runner->name = name;
    runner->order = s.nextOrder++;
    runner->generation = s.generation.load();
    s.runners.push_back(runner);
    return runner;
}

void Leave(Sim& s, SimRunner* runner) {
    runner->state = SimRunner::kGone;
    s.ready.erase(std::remove(s.ready.begin(), s.ready.end(), runner), s.ready.end());
    s.runners.erase(std::remove_if(s.runners.begin(), s.runners.end(),
                                   [runner](const SimTicket& r) { return r.get() == runner; }),
                    s.runners.end());
    if (s.turn == runner) {
        s.turn = nullptr;
        Dispatch(s);
    }
}

RunnerSlot::~RunnerSlot() {
    SimWithdraw(runner);
}

const char* StateName(SimRunner::State state) {
    switch (state) {
        case SimRunner::kReady:
            return "ready";
        case SimRunner::kRunning:
            return "holds the turn";
        case SimRunner::kWaiting:
            return "waits";
        case SimRunner::kGone:
            break;
    }
    return "gone";
}

// Printed straight to standard error: the process is about to abort, and the log may be the
// very thing that is stuck.
void ReportStall(Sim& s) {
    SimRunner* holder = s.turn;
    char thread[16] = "?";
    if (holder->entered) {
        pthread_getname_np(holder->thread, thread, sizeof(thread));
    }
    fprintf(
        stderr,
        "\n*** simulated clock stalled at device time %llu ms: runner '%s' (#%llu, thread %s) has held the "
        "turn for %d ms of wall time without waiting on the device. It last left the stand-in from %s and "
        "is blocked outside it, most likely on a lock that a waiting runner holds.\n",
        static_cast<unsigned long long>(SimNowMs()), holder->name.c_str(),
        static_cast<unsigned long long>(holder->order), thread, s.stallLimitMs, holder->where);
    for (const SimTicket& r : s.runners) {
        if (r.get() == holder) {
            continue;
        }
        char name[16] = "?";
        if (r->entered) {
            pthread_getname_np(r->thread, name, sizeof(name));
        }
        fprintf(stderr, "***   runner '%s' (#%llu, thread %s) %s in %s", r->name.c_str(),
                static_cast<unsigned long long>(r->order), name, StateName(r->state), r->where);
        if (r->state == SimRunner::kWaiting && r->deadline != kSimForever) {
            fprintf(stderr, " until %llu ms", static_cast<unsigned long long>(r->deadline));
        }
        fprintf(stderr, "\n");
    }
    fflush(stderr);
}

void WatchLoop() {
    prctl(PR_SET_NAME, "nvx-simwatch", 0, 0, 0);
    Sim& s = TheSim();
    std::unique_lock<std::mutex> lock(s.mutex);  // never in a call the clock takes over
    while (!s.watchStop) {
        const int period = std::max(10, std::min(1000, s.stallLimitMs / 4));
        s.watchWake.wait_for(lock, std::chrono::milliseconds(period));
        if (s.watchStop || s.turn == nullptr) {
            continue;
        }
        if (std::chrono::steady_clock::now() - s.turnSince >= std::chrono::milliseconds(s.stallLimitMs)) {
            ReportStall(s);
            abort();
        }
    }
}

// The device's wall clock keeps reading on when the clock changes hands.
int64_t RealHostMicros() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

}  // namespace

uint64_t SimElapsedMs() {
    return SimNowMs() - TheSim().startMs;
}

SimTicket SimAdmit(const char* name) {
    if (!SimOn()) {
        return nullptr;
    }
    Sim& s = TheSim();
    ClockLock lock(s.mutex);
    if (!SimOn()) {
        return nullptr;
    }
    SimTicket runner = Join(s, name);
    MakeReady(s, runner.get());
    if (s.turn == nullptr) {
        Dispatch(s);
    }
    return runner;
}

void SimEnter(const SimTicket& ticket) {
    if (!ticket) {
        return;
    }
    Sim& s = TheSim();
    ClockLock lock(s.mutex);
    BindThisThread(ticket);
    lock.Wait(ticket->turn, [&] { return s.turn == ticket.get() || !Current(s, ticket); });
}

void SimWithdraw(const SimTicket& ticket) {
    if (!ticket) {
        return;
    }
    Sim& s = TheSim();
    ClockLock lock(s.mutex);
    if (Current(s, ticket)) {
        Leave(s, ticket.get());
    }
}

bool SimHoldsTurn() {
    Sim& s = TheSim();
    ClockLock lock(s.mutex);
    return SimOn() && Current(s, t_slot.runner) && s.turn == t_slot.runner.get();
}

std::shared_ptr<SimParked> SimPark(std::condition_variable* cv, std::mutex* mutex) {
    auto parked = std::make_shared<SimParked>(cv, mutex);
    Sim& s = TheSim();
    ClockLock lock(s.mutex);
    s.parked.push_back(parked);
    return parked;
}

bool SimParkedAdopted(const SimParked& parked) {
    return parked.adopted;
}

void SimUnpark(const std::shared_ptr<SimParked>& parked) {
    Sim& s = TheSim();
    ClockLock lock(s.mutex);
    s.parked.erase(std::remove(s.parked.begin(), s.parked.end(), parked), s.parked.end());
    if (Current(s, parked->runner)) {
        BindThisThread(parked->runner);
    }
}

namespace {

// The lock a waiter holds on entry: a standard one, or a platform mutex released by the
// given calls.
class UserLock {
public:
    explicit UserLock(std::unique_lock<std::mutex>* held) : m_held(held) {}
    UserLock(pthread_mutex_t* mutex, int (*unlock)(pthread_mutex_t*), int (*lock)(pthread_mutex_t*))
        : m_mutex(mutex), m_unlock(unlock), m_lock(lock) {}
    void Release() {
        if (m_held != nullptr) {
            m_held->unlock();
        } else {
            m_unlock(m_mutex);
        }
    }
    void Retake() {
        if (m_held != nullptr) {
            m_held->lock();
        } else {
            m_lock(m_mutex);
        }
    }
    std::mutex* StdMutex() const { return m_held != nullptr ? m_held->mutex() : nullptr; }

private:
    std::unique_lock<std::mutex>* m_held = nullptr;
    pthread_mutex_t* m_mutex = nullptr;
    int (*m_unlock)(pthread_mutex_t*) = nullptr;
    int (*m_lock)(pthread_mutex_t*) = nullptr;
};

std::shared_ptr<SimParked> WaitTurn(const void* key, uint64_t deadlineMs, UserLock* userLock,
                                    std::condition_variable* cv, const char* where) {
    if (!SimOn()) {
        return nullptr;
    }
    Sim& s = TheSim();
    ClockLock lock(s.mutex);
    if (!SimOn()) {
        return nullptr;
    }
    if (!Current(s, t_slot.runner)) {
        // A thread that did not start as a runner (one started before the clock came on).
        BindThisThread(Join(s, "joined on its first wait"));
    }
    SimTicket self = t_slot.runner;
    // Only the holder of the turn runs; a runner that has just joined waits for its first.
    assert(s.turn == self.get() || self->state != SimRunner::kRunning);
    self->where = where;
    const bool endless = cv != nullptr && deadlineMs == kSimForever;  // SimWaitOn, with its lock
    self->waitCv = endless ? cv : nullptr;
    self->waitMutex = endless ? userLock->StdMutex() : nullptr;
    if (deadlineMs <= SimNowMs()) {
        MakeReady(s, self.get());  // a yield: everyone ready before it goes first
    } else {
        MakeWaiting(s, self.get(), key, deadlineMs);
    }
    if (s.turn == self.get()) {
        s.turn = nullptr;
    }
    if (s.turn == nullptr) {
        Dispatch(s);
    }
    // Only now, with the waiter listed: a notification that takes this lock finds it.
    if (userLock != nullptr) {
        userLock->Release();
    }
    lock.Wait(self->turn, [&] { return s.turn == self.get() || !Current(s, self); });
    std::shared_ptr<SimParked> parked = std::move(self->parkedAs);
    lock.unlock();
    if (userLock != nullptr) {
        userLock->Retake();
    }
    return parked;
}

}  // namespace

void SimWait(const void* key, uint64_t deadlineMs, std::unique_lock<std::mutex>* lock, const char* where) {
    UserLock held(lock);  // not used without a lock
    WaitTurn(key, deadlineMs, lock != nullptr ? &held : nullptr, nullptr, where);
}

void SimWaitReleasing(const void* key, uint64_t deadlineMs, pthread_mutex_t* mutex,
                      int (*unlock)(pthread_mutex_t*), int (*lock)(pthread_mutex_t*), const char* where) {
    UserLock held(mutex, unlock, lock);
    WaitTurn(key, deadlineMs, &held, nullptr, where);
}

std::shared_ptr<SimParked> SimWaitOn(std::condition_variable& cv, uint64_t deadlineMs,
                                     std::unique_lock<std::mutex>& lock, const char* where) {
    UserLock held(&lock);
    return WaitTurn(&cv, deadlineMs, &held, &cv, where);
}

void SimNotify(const void* key) {
    if (!SimOn() || key == nullptr) {
        return;
    }
    Sim& s = TheSim();
    ClockLock lock(s.mutex);
    bool woke = false;
    for (const SimTicket& r : s.runners) {
        if (r->state == SimRunner::kWaiting && r->key == key) {
            MakeReady(s, r.get());
            woke = true;
        }
    }
    if (woke && s.turn == nullptr) {
        Dispatch(s);
    }
}

}  // namespace detail

void SimClockOn(uint64_t startTickMs) {
    detail::Sim& s = detail::TheSim();
    // Also for the wake-ups of the parked threads below, which are the stand-in's own, and
    // the stall watch's start.
    detail::OwnCalls own;
    std::vector<std::shared_ptr<detail::SimParked>> adopted;
    {
        detail::ClockLock lock(s.mutex);
        if (detail::SimOn()) {
            return;
        }
        const int64_t real = detail::RealHostMicros();
        s.generation.fetch_add(1);
        s.nextOrder = 0;
        s.startMs = startTickMs;
        detail::g_simNowMs.store(startTickMs, std::memory_order_release);
        detail::RebaseWallClock(real, static_cast<int64_t>(startTickMs) * 1000);
        detail::BindThisThread(detail::Join(s, "driver"));
        detail::GiveTurn(s, detail::t_slot.runner.get());
        // The platform threads idling since an earlier run join next, in the order they began
        // to wait, as runners waiting where they are.
        for (const std::shared_ptr<detail::SimParked>& parked : s.parked) {
            parked->runner = detail::Join(s, "platform thread");
            parked->runner->where = "its endless wait";
            detail::MakeWaiting(s, parked->runner.get(), parked->cv, detail::kSimForever);
        }
        adopted = s.parked;
        s.watchStop = false;
        detail::g_simOn.store(true, std::memory_order_release);
    }
    // Under each waiter's own mutex, so that none misses it between its test and its wait;
    // never under the clock's, which is taken inside those.
    for (const std::shared_ptr<detail::SimParked>& parked : adopted) {
        std::lock_guard<std::mutex> lock(*parked->mutex);
        parked->adopted = true;
        parked->cv->notify_all();
    }
    s.watch = std::thread(detail::WatchLoop);  // under `own`: never a runner
}

void SimClockOff() {
    detail::Sim& s = detail::TheSim();
    {
        detail::ClockLock lock(s.mutex);
        if (!detail::SimOn()) {
            return;
        }
        detail::g_simOn.store(false, std::memory_order_release);
        detail::RebaseWallClock(static_cast<int64_t>(detail::SimNowMs()) * 1000, detail::RealHostMicros());
        s.generation.fetch_add(1);
        // Every runner goes on by the machine's clock, from wherever it waits. One in an
        // endless wait is listed as idling there now, before it wakes, so that switching the
        // clock on again at once still finds it.
        for (const detail::SimTicket& r : s.runners) {
            if (r->state == detail::SimRunner::kWaiting && r->waitCv != nullptr) {
                r->parkedAs = std::make_shared<detail::SimParked>(r->waitCv, r->waitMutex);
                s.parked.push_back(r->parkedAs);
            }
            r->turn.notify_all();
        }
        s.runners.clear();
        s.ready.clear();
        s.turn = nullptr;
        s.watchStop = true;
        s.watchWake.notify_all();
    }
    if (s.watch.joinable()) {
        s.watch.join();
    }
}

bool SimClockIsOn() {
    return detail::SimOn();
}

uint64_t SimNowMs() {
    return detail::SimNowMs();
}

void SimSleepUntil(uint64_t deviceMs) {
    detail::SimWait(nullptr, deviceMs, nullptr, "SimSleepUntil");
}

bool SimKeepToOneCore() {
    const int core = sched_getcpu();
    if (core < 0 || core >= CPU_SETSIZE) {
        return false;
    }
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(core, &set);
    return sched_setaffinity(0, sizeof(set), &set) == 0;
}

void SetSimStallLimitMs(int ms) {
    detail::Sim& s = detail::TheSim();
    detail::ClockLock lock(s.mutex);
    s.stallLimitMs = ms > 0 ? ms : 20000;
    s.watchWake.notify_all();
}

}  // namespace nvx
