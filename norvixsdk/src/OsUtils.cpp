// Threads, ticks and sleeps. Every thread started here is counted until its entry returns,
// so that tests and the host can wait for the device to be quiet.
#include "OsUtils.h"

#include <limits.h>
#include <time.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "Device.h"

namespace nvx {
namespace {

struct ThreadState {
    std::mutex mutex;
    std::condition_variable ended;
    int running = 0;
};

ThreadState& Threads() {
    static ThreadState* state = new ThreadState;  // never destroyed, see Device.cpp
    return *state;
}

struct Start {
    OsUtilsThreadEntry entry;
    void* arg;
};

void* RunCounted(void* raw) {
    Start start = *static_cast<Start*>(raw);
    delete static_cast<Start*>(raw);
    void* result = start.entry(start.arg);
    ThreadState& t = Threads();
    {
        std::lock_guard<std::mutex> lock(t.mutex);
        --t.running;
    }
    t.ended.notify_all();
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
    return t.ended.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return t.running == 0; });
}

namespace detail {
void ResetThreads() {}
}  // namespace detail

}  // namespace nvx

int OsUtilsCreateThread(pthread_t* handle, OsUtilsThreadEntry entry, void* arg, unsigned int stackSize,
                        int flag) {
    nvx::detail::CountCall("OsUtilsCreateThread");
    if (entry == nullptr) {
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
    auto* start = new nvx::Start{entry, arg};
    int rc = pthread_create(handle != nullptr ? handle : &local, &attr, nvx::RunCounted, start);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        delete start;
        std::lock_guard<std::mutex> lock(t.mutex);
        --t.running;
        return -1;
    }
    return 0;
}

unsigned long long OsUtilsGetTickCount(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<unsigned long long>(now.tv_sec) * 1000ULL +
           static_cast<unsigned long long>(now.tv_nsec) / 1000000ULL;
}

void OsUtilsSleep(unsigned int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

unsigned int OsUtilsGetSeconds(void) {
    return static_cast<unsigned int>(OsUtilsGetTickCount() / 1000ULL);
}
