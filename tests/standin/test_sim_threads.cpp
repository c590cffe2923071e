// Threads that a runner starts with std::thread on the simulated clock: their sleeps, condition
// waits and joins take device time only, at exact device milliseconds; and so the plug-in's
// hub and timestamp clock keep their cadences. Each test runs in a process of its own, as the
// hub is one for the process.
#include <errno.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "HC.h"
#include "OsUtils.h"
#include "TestSupport.h"

namespace {

// What happened at which device millisecond.
class Times {
public:
    void Add(const std::string& what) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_steps.emplace_back(OsUtilsGetTickCount() - kSimStartMs, what);
    }
    std::vector<std::pair<uint64_t, std::string>> Steps() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_steps;
    }

private:
    std::mutex m_mutex;
    std::vector<std::pair<uint64_t, std::string>> m_steps;
};

uint64_t SteadyMs() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

class SimThreads : public SimDeviceTest {};

}  // namespace

// The test's thread is the driver: it joins the sleeper on its turn, so the sleeper must be a
// runner whose every sleep is a wait on the clock. A thread the host starts as its own is not.
TEST_F(SimThreads, AStdThreadSleepsInDeviceTimeAndIsJoinedAtItsEnd) {
    Times times;
    std::thread sleeper([&] {
        times.Add("steady " + std::to_string(SteadyMs()));
        for (int i = 0; i < 3; ++i) {
            usleep(100000);
        }
        times.Add("usleep");
        usleep(500);  // rounded up to the next millisecond
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        times.Add("sleep_for");
        struct timespec at = {static_cast<time_t>(kSimStartMs / 1000 + 1), 0};
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr);
        times.Add("clock_nanosleep");
        sleep(2);
        times.Add("steady " + std::to_string(SteadyMs()));
    });
    sleeper.join();
    EXPECT_EQ(OsUtilsGetTickCount(), kSimStartMs + 3000);
    std::thread host;
    {
        nvx::HostThreads hosts;
        host = std::thread([&] {
            usleep(1000);  // the machine's: no device time passes
            times.Add("host");
        });
    }
    host.join();
    EXPECT_EQ(times.Steps(), (std::vector<std::pair<uint64_t, std::string>>{{0, "steady 5000"},
                                                                            {300, "usleep"},
                                                                            {551, "sleep_for"},
                                                                            {1000, "clock_nanosleep"},
                                                                            {3000, "steady 8000"},
                                                                            {3000, "host"}}));
}

TEST_F(SimThreads, AConditionWaitEndsAtItsDeviceDeadlineOrAtTheNotifiersTime) {
    Times times;
    std::mutex mutex;
    std::condition_variable changed;
    int stage = 0;
    bool done = false;
    std::thread waiter([&] {
        std::unique_lock<std::mutex> lock(mutex);
        times.Add("timed out " + std::to_string(!changed.wait_for(lock, std::chrono::milliseconds(300),
                                                                  [&] { return stage > 0; })));
        times.Add("notified " + std::to_string(changed.wait_for(lock, std::chrono::seconds(100),
                                                                [&] { return stage > 0; })));
        changed.wait(lock, [&] { return stage > 1; });
        times.Add("woken");
        // A deadline on the realtime clock, the machine's, ends by the notification well before.
        struct timespec at;
        clock_gettime(CLOCK_REALTIME, &at);
        at.tv_sec += 3;
        const int rc = pthread_cond_timedwait(changed.native_handle(), mutex.native_handle(), &at);
        times.Add("timedwait " + std::to_string(rc));
        done = true;
    });
    nvx::SimSleepUntil(kSimStartMs + 700);
    {
        std::lock_guard<std::mutex> lock(mutex);
        stage = 1;
    }
    changed.notify_one();
    nvx::SimSleepUntil(kSimStartMs + 900);
    {
        std::lock_guard<std::mutex> lock(mutex);
        stage = 2;
    }
    changed.notify_all();
    nvx::SimSleepUntil(kSimStartMs + 1200);
    {
        std::lock_guard<std::mutex> lock(mutex);
        changed.notify_one();  // held, as the waiter's mutex is released on its wait
    }
    nvx::SimSleepUntil(kSimStartMs + 2000);
    EXPECT_EQ(times.Steps(),
              (std::vector<std::pair<uint64_t, std::string>>{
                  {300, "timed out 1"}, {700, "notified 1"}, {900, "woken"}, {1200, "timedwait 0"}}));
    bool finished = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        finished = done;
    }
    if (!finished) {
        nvx::SimClockOff();  // lets a waiter that missed its wake-up go
    }
    waiter.join();
}

// The scheduler settles for 1000 ms, then waits 100 ms for the bus a pass, and rests 100 ms after
// the pass that took the last queued event; the heartbeat goes out once more than 15 timestamp
// seconds have passed, and the timestamp counts the device's milliseconds.
TEST_F(SimThreads, TheHubAndTheTimestampClockKeepExactDeviceCadences) {
    MsgManager* hub = MsgManager::GetInstance();
    BTime* stamp = BTime::GetInstance();
    // Where the driver looks at `ms`, after the threads due then have had their turn.
    auto at = [](uint64_t ms) {
        nvx::SimSleepUntil(kSimStartMs + ms);
        OsUtilsSleep(0);
    };
    for (uint64_t beat = 1; beat <= 3; ++beat) {
        at(16000 * beat - 1);
        EXPECT_EQ(nvx::WatchdogFeedCount(nvx::kMsgHandleClient), beat - 1) << beat;
        at(16000 * beat);
        EXPECT_EQ(nvx::WatchdogFeedCount(nvx::kMsgHandleClient), beat) << beat;
    }
    EXPECT_EQ(stamp->stampMicros.load(), 48000000u);
    EXPECT_EQ(stamp->stampMillis.load(), 48000u);
    EXPECT_EQ(nvx::CallCount("JQ_SDK_MSG_WaitForEvent"), 471u) << "from 1000 ms, one every 100 ms";

    Times times;
    Subscriber* subscriber = new Subscriber;
    subscriber->callback = [&](const char*, int) { times.Add("delivered"); };
    ASSERT_EQ(hub->Subscribe(0x20000, subscriber), 0);
    ASSERT_EQ(hub->Publish(0, 0x20000, nullptr, 0, MSG_TYPE_SEND, 0), 0);
    at(48350);
    EXPECT_EQ(times.Steps(), (std::vector<std::pair<uint64_t, std::string>>{{48100, "delivered"}}));
    EXPECT_EQ(nvx::CallCount("JQ_SDK_MSG_WaitForEvent"), 473u) << "passes at 48100 and 48300";
    EXPECT_EQ(stamp->stampMillis.load(), 48350u);
}

// A hub destroyed before its loop begins joins its scheduler. On the clock that thread runs only
// when the destroying thread waits for it, so one left unjoined would still be listed. Under an
// emulator a joined thread's host thread may outlive the join for a moment, so the listing is
// read again while the device's time stands still.
TEST_F(SimThreads, AHubGoneBeforeItsLoopBeginsHasJoinedItsScheduler) {
    { MsgManager first; }  // starts the process's wheel and timestamp clock once
    const auto before = Tasks();
    { MsgManager hub; }
    auto listedBefore = [&](const auto& task) {
        return std::any_of(before.begin(), before.end(),
                           [&](const auto& t) { return t.first == task.first; });
    };
    EXPECT_TRUE(Eventually([&] {
        const auto now = Tasks();
        return std::all_of(now.begin(), now.end(), listedBefore);
    })) << "a thread born with the hub is still listed";
    EXPECT_EQ(OsUtilsGetTickCount(), kSimStartMs) << "its loop never began";
    EXPECT_EQ(nvx::CallCount("JQ_SDK_MSG_WaitForEvent"), 0u);
}
