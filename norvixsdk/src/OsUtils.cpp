// Threads, ticks and sleeps. Every thread started here is counted until its entry returns,
// so that tests and the host can wait for the device to be quiet. Tests may hold the tick
// and make sleeps instant, to pin cadences and stop waits by count instead of by time.
#include "OsUtils.h"

#include <limits.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "Device.h"
#include "SimClock.h"

namespace nvx {
namespace {

struct ThreadState {
    std::mutex mutex;
    std::condition_variable ended;
    int running = 0;
    std::vector<std::pair<unsigned int, int>> created;            // stack size, flag
    std::map<std::thread::id, std::vector<unsigned int>> sleeps;  // OsUtilsSleep durations
};

std::atomic<bool> g_tickHeld{false};
std::atomic<uint64_t> g_heldTick{0};
std::atomic<bool> g_instantSleeps{false};
std::atomic<int> g_createdAnswer{0};

ThreadState& Threads() {
    static ThreadState* state = new ThreadState;  // never destroyed, see Device.cpp
    return *state;
}

struct Start {
    OsUtilsThreadEntry entry;
    void* arg;
    detail::SimTicket runner;  // null unless the simulated clock is on
};

void* RunCounted(void* raw) {
    Start start = *static_cast<Start*>(raw);
    delete static_cast<Start*>(raw);
    detail::SimEnter(start.runner);
    // Counted, so that a test can hold a new thread at a gate: a thread the scheduler runs late.
    detail::CountCall("OsUtilsThreadStart");
    void* result = start.entry(start.arg);
    ThreadState& t = Threads();
    {
        std::lock_guard<std::mutex> lock(t.mutex);
        --t.running;
    }
    detail::NotifyAll(t.ended);
    return result;
}

}  // namespace

int RunningThreads() {
    ThreadState& t = Threads();
    std::lock_guard<std::mutex> lock(t.mutex);
    return t.running;
}

bool WaitForThreadsToEnd(int timeoutMs) {
    ThreadState& t = Threads();
    std::unique_lock<std::mutex> lock(t.mutex);
    return detail::WaitMs(
        t.ended, lock, timeoutMs, [&] { return t.running == 0; }, "WaitForThreadsToEnd");
}

std::vector<std::pair<unsigned int, int>> CreatedThreads() {
    ThreadState& t = Threads();
    std::lock_guard<std::mutex> lock(t.mutex);
    return t.created;
}

void HoldTickCount(uint64_t ms) {
    g_heldTick.store(ms);
    g_tickHeld.store(true);
}

void ReleaseTickCount() {
    g_tickHeld.store(false);
}

std::vector<unsigned int> SleepsOfThisThread() {
    ThreadState& t = Threads();
    std::lock_guard<std::mutex> lock(t.mutex);
    return t.sleeps[std::this_thread::get_id()];
}

void SetSleepsInstant(bool instant) {
    g_instantSleeps.store(instant);
}

void SetCreatedThreadAnswer(int answer) {
    g_createdAnswer.store(answer);
}

namespace detail {
void ResetThreads() {
    ThreadState& t = Threads();
    std::lock_guard<std::mutex> lock(t.mutex);
    t.created.clear();
    t.sleeps.clear();
    g_tickHeld.store(false);
    g_instantSleeps.store(false);
    g_createdAnswer.store(0);
}
}  // namespace detail

}  // namespace nvx

int OsUtilsCreateThread(pthread_t* handle, OsUtilsThreadEntry entry, void* arg, unsigned int stackSize,
                        int flag) {
    const bool fails = nvx::detail::CountCall("OsUtilsCreateThread");
    {
        nvx::ThreadState& t = nvx::Threads();
        std::lock_guard<std::mutex> lock(t.mutex);
        t.created.emplace_back(stackSize, flag);
    }
    if (entry == nullptr || fails) {
        return -1;
    }
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        return -1;
    }
    if (stackSize != 0) {
        // Sanitizer builds need more stack than the device gives; never go below the minimum.
        size_t size = static_cast<size_t>(stackSize) < static_cast<size_t>(PTHREAD_STACK_MIN)
                          ? static_cast<size_t>(PTHREAD_STACK_MIN)
                          : stackSize;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
        size *= 4;
#endif
        pthread_attr_setstacksize(&attr, size);
    }
    pthread_attr_setdetachstate(&attr, flag == 1 ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);

    nvx::ThreadState& t = nvx::Threads();
    {
        std::lock_guard<std::mutex> lock(t.mutex);
        ++t.running;
    }
    pthread_t local;
    auto* start = new nvx::Start{entry, arg, nvx::detail::SimAdmit("OsUtilsCreateThread")};
    int rc = 0;
    {
        nvx::detail::OwnCalls own;  // admitted above, not adopted
        rc = pthread_create(handle != nullptr ? handle : &local, &attr, nvx::RunCounted, start);
    }
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        nvx::detail::SimWithdraw(start->runner);
        delete start;
        std::lock_guard<std::mutex> lock(t.mutex);
        --t.running;
        return -1;
    }
    // Counted once the thread exists: a gate here holds the creator, as a scheduler that runs
    // the new thread first would.
    nvx::detail::CountCall("OsUtilsThreadCreated");
    return nvx::g_createdAnswer.load();
}

unsigned long long OsUtilsGetTickCount(void) {
    if (nvx::g_tickHeld.load()) {
        return nvx::g_heldTick.load();
    }
    if (nvx::detail::SimOn()) {
        return nvx::detail::SimNowMs();
    }
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<unsigned long long>(now.tv_sec) * 1000ULL +
           static_cast<unsigned long long>(now.tv_nsec) / 1000000ULL;
}

void OsUtilsSleep(unsigned int ms) {
    {
        nvx::ThreadState& t = nvx::Threads();
        std::lock_guard<std::mutex> lock(t.mutex);
        t.sleeps[std::this_thread::get_id()].push_back(ms);
    }
    if (nvx::g_instantSleeps.load()) {
        return;
    }
    if (nvx::detail::SimOn()) {
        // A sleep of 0 still hands the turn on: a loop that polls with it lets the others run.
        nvx::detail::SimWait(nullptr, nvx::detail::SimNowMs() + ms, nullptr, "OsUtilsSleep");
        return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

unsigned int OsUtilsGetSeconds(void) {
    return static_cast<unsigned int>(OsUtilsGetTickCount() / 1000ULL);
}
