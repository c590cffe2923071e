// The simulated device clock: runners take turns, device time jumps from deadline to deadline,
// and the same program takes the same turns on every run. Nothing here looks at the machine's
// clock: only device times and the order of what happened.
#include <stdlib.h>
#include <sys/time.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "JQ_SDK_DateTime.h"
#include "MsgClientManage.h"
#include "OsUtils.h"
#include "TestSupport.h"

namespace {

constexpr uint64_t kStartMs = 5000;

// What happened, at which device millisecond, on which thread.
using Step = std::tuple<uint64_t, std::string, std::string>;

class Trace {
public:
    void Add(const std::string& who, const std::string& what) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_steps.emplace_back(OsUtilsGetTickCount(), who, what);
    }
    std::vector<Step> Steps() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_steps;
    }

private:
    std::mutex m_mutex;
    std::vector<Step> m_steps;
};

// A detached platform thread running `body`, as the plug-in starts its own.
void StartRunner(std::function<void()> body) {
    auto* owned = new std::function<void()>(std::move(body));
    pthread_t handle;
    ASSERT_EQ(OsUtilsCreateThread(
                  &handle,
                  [](void* raw) -> void* {
                      std::unique_ptr<std::function<void()>> run(static_cast<std::function<void()>*>(raw));
                      (*run)();
                      return nullptr;
                  },
                  owned, 0, 1),
              0);
}

struct Counter {
    int calls = 0;
    void OnEvent(const char*, int) { ++calls; }
};

int64_t GetTimeOfDayMicros() {
    struct timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_usec;
}

// The test's own thread is the driver: it holds the turn whenever the others wait.
class SimClock : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        nvx::SimClockOn(kStartMs);
    }
    void TearDown() override {
        nvx::SimClockOff();
        DeviceTest::TearDown();
    }
};

}  // namespace

TEST_F(SimClock, SleepersWakeInDeadlineOrderThenJoinOrderAtExactDeviceTimes) {
    Trace trace;
    StartRunner([&] {
        OsUtilsSleep(1000);
        trace.Add("long", "woke");
    });
    StartRunner([&] {
        for (int i = 0; i < 3; ++i) {
            OsUtilsSleep(300);
            trace.Add("short", "woke");
        }
    });
    StartRunner([&] {
        OsUtilsSleep(600);  // due together with the short sleeper's second wake
        trace.Add("tie", "woke");
    });
    ASSERT_TRUE(nvx::WaitForThreadsToEnd(60000));
    EXPECT_EQ(trace.Steps(), (std::vector<Step>{Step{5300, "short", "woke"}, Step{5600, "short", "woke"},
                                                Step{5600, "tie", "woke"}, Step{5900, "short", "woke"},
                                                Step{6000, "long", "woke"}}));
    EXPECT_EQ(nvx::SimNowMs(), 6000u) << "the driver woke as the last thread ended";
}

TEST_F(SimClock, DeviceTimeStandsStillBetweenWaitsAndEveryClockJumpsWithIt) {
    CMsgClientManage client("simclock", 30, nullptr);
    nvx::SetWallClock(1700000000);
    for (int i = 0; i < 1000; ++i) {
        client.MSGSendMessage(0, 0x51, 0, "x", 1, 1);
    }
    EXPECT_EQ(OsUtilsGetTickCount(), kStartMs) << "work takes no device time";
    EXPECT_EQ(GetTimeOfDayMicros(), int64_t{1700000000} * 1000000);
    EXPECT_EQ(nvx::SentMessages().back().tMs, 0u) << "counted from the clock's start";

    nvx::SimSleepUntil(kStartMs + 250);
    OsUtilsSleep(0);                     // a yield with nobody else: no time passes
    nvx::SimSleepUntil(kStartMs + 100);  // already past
    EXPECT_EQ(OsUtilsGetTickCount(), kStartMs + 250);
    OsUtilsSleep(1750);
    EXPECT_EQ(OsUtilsGetTickCount(), kStartMs + 2000);
    EXPECT_EQ(OsUtilsGetSeconds(), 7u);
    EXPECT_EQ(GetTimeOfDayMicros(), int64_t{1700000002} * 1000000);
    long long seconds = 0;
    ASSERT_EQ(JQ_SDK_DateTime_GetLocalSeconds(&seconds), 0);
    EXPECT_EQ(seconds, 1700000002);
    client.MSGSendMessage(0, 0x51, 0, "x", 1, 1);
    EXPECT_EQ(nvx::SentMessages().back().tMs, 2000u);
}

TEST_F(SimClock, BusWaitEndsAtOnceOnAnEventAndAtItsExactTimeOutOtherwise) {
    Trace trace;
    CMsgClientManage client("simwait", 30, nullptr);
    Counter counter;
    ASSERT_EQ(client.MSGEventRegister(1, 0x77, &counter, &Counter::OnEvent), 0);
    StartRunner([&] {
        trace.Add("waiter", std::to_string(client.MSGWaitForEvent(5000)));
        trace.Add("waiter", std::to_string(client.MSGWaitForEvent(50)));
    });
    nvx::SimSleepUntil(kStartMs + 1200);
    EXPECT_EQ(nvx::InjectBusEvent(0x77, "e", 1), 1);
    ASSERT_TRUE(nvx::WaitForThreadsToEnd(60000));
    EXPECT_EQ(trace.Steps(), (std::vector<Step>{Step{6200, "waiter", "1"}, Step{6250, "waiter", "0"}}));
    EXPECT_EQ(counter.calls, 1);
}

namespace {

// Threads that sleep, send and wait on each other over the bus, at times that collide.
std::vector<Step> BusyScenario() {
    Trace trace;
    CMsgClientManage consumer("consumer", 30, nullptr);
    Counter counter;
    consumer.MSGEventRegister(1, 0x42, &counter, &Counter::OnEvent);
    StartRunner([&] {
        trace.Add("producer", "start");
        CMsgClientManage producer("producer", 30, nullptr);
        for (int i = 0; i < 12; ++i) {
            OsUtilsSleep(7);
            producer.MSGSendMessage(0, 0x42, 0, "p", 1, 2);
            trace.Add("producer", "sent");
        }
    });
    StartRunner([&] {
        trace.Add("consumer", "start");
        while (counter.calls < 12) {
            const int got = consumer.MSGWaitForEvent(20);
            trace.Add("consumer", std::to_string(got));
        }
    });
    StartRunner([&] {
        trace.Add("ticker", "start");
        for (int i = 0; i < 20; ++i) {
            OsUtilsSleep(i % 3 == 0 ? 0 : 5);
            trace.Add("ticker", "tick");
        }
    });
    EXPECT_TRUE(nvx::WaitForThreadsToEnd(60000));
    return trace.Steps();
}

}  // namespace

TEST_F(SimClock, TheSameProgramTakesTheSameTurnsOnEveryRun) {
    const std::vector<Step> first = BusyScenario();
    nvx::SimClockOff();
    nvx::SimClockOn(kStartMs);
    const std::vector<Step> second = BusyScenario();
    EXPECT_EQ(first, second);
    std::map<std::string, int> steps;
    int received = 0;
    for (const Step& step : first) {
        ++steps[std::get<1>(step)];
        received += std::get<1>(step) == "consumer" && std::get<2>(step) != "start"
                        ? std::stoi(std::get<2>(step))
                        : 0;
    }
    EXPECT_EQ(steps["producer"], 1 + 12);
    EXPECT_EQ(steps["ticker"], 1 + 20);
    EXPECT_EQ(received, 12);
}

TEST_F(SimClock, ARunnerBlockedOutsideTheDeviceStopsTheProcessWithAReport) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            nvx::SetSimStallLimitMs(200);
            std::timed_mutex held;
            StartRunner([&] {
                std::lock_guard<std::timed_mutex> lock(held);
                OsUtilsSleep(1000);  // waits on the device with the lock held
            });
            nvx::SimSleepUntil(kStartMs + 10);
            // Without the report the lock never comes: a bound, so that a broken watch fails.
            held.try_lock_for(std::chrono::seconds(60));
            exit(0);
        },
        "simulated clock stalled at device time 5010 ms: runner 'driver' \\(#0, thread [^)]*\\) has held the "
        "turn for 200 ms .* It last left the stand-in from SimSleepUntil.*\n.*runner "
        "'OsUtilsCreateThread' \\(#1, thread [^)]*\\) waits in OsUtilsSleep until 6000 ms");
}
