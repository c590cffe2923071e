// The simulated device clock: runners take turns, device time jumps from deadline to deadline,
// and the same program takes the same turns on every run. Nothing here looks at the machine's
// clock: only device times and the order of what happened.
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "CycleRunner.h"
#include "JQ_SDK_DateTime.h"
#include "JQ_SDK_Global.h"
#include "JQ_SDK_Storage.h"
#include "MsgClientManage.h"
#include "OsUtils.h"
#include "OsdRecords.h"
#include "TestSupport.h"
#include "TruckServiceManage.h"

namespace {

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

class SimClock : public SimDeviceTest {};

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
    EXPECT_EQ(OsUtilsGetTickCount(), kSimStartMs) << "work takes no device time";
    EXPECT_EQ(GetTimeOfDayMicros(), int64_t{1700000000} * 1000000);
    EXPECT_EQ(nvx::SentMessages().back().tMs, 0u) << "counted from the clock's start";

    nvx::SimSleepUntil(kSimStartMs + 250);
    OsUtilsSleep(0);                        // a yield with nobody else: no time passes
    nvx::SimSleepUntil(kSimStartMs + 100);  // already past
    EXPECT_EQ(OsUtilsGetTickCount(), kSimStartMs + 250);
    OsUtilsSleep(1750);
    EXPECT_EQ(OsUtilsGetTickCount(), kSimStartMs + 2000);
    EXPECT_EQ(OsUtilsGetSeconds(), 7u);
    EXPECT_EQ(GetTimeOfDayMicros(), int64_t{1700000002} * 1000000);
    long long seconds = 0;
    ASSERT_EQ(JQ_SDK_DateTime_GetLocalSeconds(&seconds), 0);
    EXPECT_EQ(seconds, 1700000002);
    client.MSGSendMessage(0, 0x51, 0, "x", 1, 1);
    EXPECT_EQ(nvx::SentMessages().back().tMs, 2000u);
}

namespace {

// The device's own threads at work: a write to the parameter store is reported to a listener
// on the parameter thread, a storage report to a monitor on the storage thread.
class DeviceThreads {
public:
    explicit DeviceThreads(Trace& trace) : m_root("test_sim_clock") {
        nvx::SetSystemRoot(m_root.path());  // where the store is saved
        EXPECT_NE(JQ_SDK_Global_Initialize("/global.bsn"), nullptr);
        const std::string listen = R"({"GSP":"?"})";
        EXPECT_EQ(
            JQ_SDK_Global_ListenParameter(
                listen.data(), static_cast<int>(listen.size()),
                [](const char*, int, void* t, void*) { static_cast<Trace*>(t)->Add("parameter", "changed"); },
                &trace, nullptr),
            0);
        EXPECT_EQ(
            JQ_SDK_Storage_MonitorFuseStatus(
                [](void*, int, void* t) { static_cast<Trace*>(t)->Add("storage", "report"); }, &trace, 0),
            0);
    }
    ~DeviceThreads() {
        JQ_SDK_Global_Deinitialize();
        nvx::SetSystemRoot("");
    }
    static void Write(int n) {
        EXPECT_EQ(
            nvx::SetParameterDocument(R"({"PARAMETER":{"MDVR":{"GSP":{"N":)" + std::to_string(n) + "}}}}"),
            0);
    }
    static void Report() { nvx::InjectStorageReport(0, "/mnt/sd"); }

private:
    TempFolder m_root;
};

}  // namespace

// Every event makes its waiter runnable at the device time it came, in the order the events
// came, the device's own threads' events too, whether or not their thread had to start.
TEST_F(SimClock, AnEventWakesItsWaiterAtOnceAndAWaitWithoutOneEndsAtItsExactTimeOut) {
    Trace trace;
    CMsgClientManage client("simwait", 30, nullptr);
    Counter counter;
    ASSERT_EQ(client.MSGEventRegister(1, 0x77, &counter, &Counter::OnEvent), 0);
    {
        DeviceThreads device(trace);
        StartRunner([&] {
            trace.Add("waiter", std::to_string(client.MSGWaitForEvent(5000)));
            trace.Add("waiter", std::to_string(client.MSGWaitForEvent(50)));
        });
        nvx::SimSleepUntil(kSimStartMs + 1200);
        EXPECT_EQ(nvx::InjectBusEvent(0x77, "e", 1), 1);
        device.Write(1);
        device.Report();
        ASSERT_TRUE(nvx::WaitForThreadsToEnd(60000));
        nvx::SimSleepUntil(kSimStartMs + 1300);
        device.Write(2);
        device.Report();
        ASSERT_TRUE(nvx::WaitForParamIdle(60000) && nvx::WaitForStorageIdle(60000));
    }
    EXPECT_EQ(trace.Steps(),
              (std::vector<Step>{Step{6200, "waiter", "1"}, Step{6200, "parameter", "changed"},
                                 Step{6200, "storage", "report"}, Step{6250, "waiter", "0"},
                                 Step{6300, "parameter", "changed"}, Step{6300, "storage", "report"}}));
    EXPECT_EQ(counter.calls, 1);
}

namespace {

// Threads that sleep, send and wait on each other over the bus and through the device's own
// threads, at times that collide.
std::vector<Step> BusyScenario() {
    Trace trace;
    DeviceThreads device(trace);
    // Delivered at once also on a second run, which finds the device's threads idle since the
    // first: they must be runners before an event wakes them.
    device.Report();
    nvx::SimSleepUntil(kSimStartMs + 1);
    device.Write(-1);
    nvx::SimSleepUntil(kSimStartMs + 2);
    CMsgClientManage consumer("consumer", 30, nullptr);
    Counter counter;
    consumer.MSGEventRegister(1, 0x42, &counter, &Counter::OnEvent);
    StartRunner([&] {
        CMsgClientManage producer("producer", 30, nullptr);
        for (int i = 0; i < 12; ++i) {
            OsUtilsSleep(7);
            producer.MSGSendMessage(0, 0x42, 0, "p", 1, 2);
            trace.Add("producer", "sent");
            device.Write(i);
            device.Report();
        }
    });
    StartRunner([&] {
        while (counter.calls < 12) {
            trace.Add("consumer", std::to_string(consumer.MSGWaitForEvent(20)));
        }
    });
    StartRunner([&] {
        for (int i = 0; i < 20; ++i) {
            OsUtilsSleep(i % 3 == 0 ? 0 : 5);
            trace.Add("ticker", "tick");
        }
    });
    EXPECT_TRUE(nvx::WaitForThreadsToEnd(60000));
    EXPECT_TRUE(nvx::WaitForParamIdle(60000) && nvx::WaitForStorageIdle(60000));
    return trace.Steps();
}

}  // namespace

TEST_F(SimClock, TheSameProgramTakesTheSameTurnsOnEveryRun) {
    const std::vector<Step> first = BusyScenario();
    nvx::SimClockOff();
    nvx::SimClockOn(kSimStartMs);
    const std::vector<Step> second = BusyScenario();
    EXPECT_EQ(first, second);
    // Kept to one core, as the host keeps it: the same turns, and every thread started from
    // then on shares the core.
    nvx::SimClockOff();
    ASSERT_TRUE(nvx::SimKeepToOneCore());
    const int core = sched_getcpu();
    nvx::SimClockOn(kSimStartMs);
    EXPECT_EQ(BusyScenario(), first);
    cpu_set_t cores;
    int coresOfThread = -1;
    std::thread([&] {
        if (sched_getaffinity(0, sizeof(cores), &cores) == 0) {
            coresOfThread = CPU_COUNT(&cores);
        }
    }).join();
    EXPECT_EQ(coresOfThread, 1);
    EXPECT_TRUE(CPU_ISSET(core, &cores));
    ASSERT_GE(first.size(), 2u);
    EXPECT_EQ(first[0], Step(kSimStartMs, "storage", "report"));
    EXPECT_EQ(first[1], Step(kSimStartMs + 1, "parameter", "changed"));
    std::map<std::string, int> steps;
    for (const Step& step : first) {
        ++steps[std::get<1>(step)];
    }
    EXPECT_EQ(steps, (std::map<std::string, int>{{"consumer", steps["consumer"]},
                                                 {"parameter", 13},
                                                 {"producer", 12},
                                                 {"storage", 13},
                                                 {"ticker", 20}}));
}

TEST_F(SimClock, ARunnerBlockedOutsideTheDeviceStopsTheProcessWithAReport) {
#if defined(__arm__)
    // Re-executing the binary fails under user-mode emulation, and a forked child would lack the
    // stall watch's thread; the watch is the same code on every target.
    GTEST_SKIP() << "needs a re-executed death test";
#endif
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            std::timed_mutex held;
            StartRunner([&] {
                std::lock_guard<std::timed_mutex> lock(held);
                OsUtilsSleep(1000);  // waits on the device with the lock held
            });
            // A thread of the plug-in's kind, listed with the call it waits in.
            std::thread([] {
                pthread_setname_np(pthread_self(), "sleeper");
                usleep(2000000);
            }).detach();
            nvx::SimSleepUntil(kSimStartMs + 10);
            // Only now: however slow the machine, nothing before this point is taken for a stall.
            nvx::SetSimStallLimitMs(200);
            // Without the report the lock never comes: a bound, so that a broken watch fails.
            held.try_lock_for(std::chrono::seconds(60));
            exit(0);
        },
        "simulated clock stalled at device time 5010 ms: runner 'driver' \\(#0, thread [^)]*\\) has held the "
        "turn for 200 ms .* It last left the stand-in from SimSleepUntil.*\n.*runner "
        "'OsUtilsCreateThread' \\(#1, thread [^)]*\\) waits in OsUtilsSleep until 6000 ms\n.*runner "
        "'pthread_create' \\(#2, thread sleeper\\) waits in usleep until 7000 ms");
}

namespace {

// The whole service on the simulated clock: the main cycle and the OSD business on its own
// thread, as ServiceFaults runs them on the machine's.
class SimService : public ManagerOnDevice {
protected:
    SimService() : ManagerOnDevice("test_sim_service") {}
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(ManagerOnDevice::SetUp());
        WriteOsdOnItsOwnThread();
        WriteDeviceFile("/mnt/tmpfs/global.bsn",
                        R"({"PARAMETER":{"MDVR":{"TIMEP":{"TIMEZ":"480"},"EOSD":[{"TX":100,"TY":20,"SX":900,)"
                        R"("SY":40,"TFS":2,"COSD":[{"X":400,"Y":80,"EN":1}]}]}}})");
        manage.reset();  // the service makes its own
        nvx::SimClockOn(kSimStartMs);
        nvx::SetWallClock(1720000800);  // 2024-07-03 10:00:00
    }
    void TearDown() override {
        nvx::SimClockOff();
        ManagerOnDevice::TearDown();
    }
};

}  // namespace

TEST_F(SimService, SixtyDeviceSecondsKeepEveryCycleOnItsExactCadence) {
    tag_ServiceParam param;
    param.ucRunning.store(0);
    ASSERT_EQ(JQ_SDK_Service_Start(&param), 0);
    nvx::SimSleepUntil(kSimStartMs + 60000);
    const uint64_t feeds = nvx::WatchdogFeedCount("truckbusiness.02");
    const uint64_t lastFeed = nvx::LastWatchdogFeedTick("truckbusiness.02");
    EXPECT_EQ(JQ_SDK_Service_Stop(&param), 0);
    ASSERT_TRUE(nvx::WaitForThreadsToEnd(kGenerousMs));

    std::vector<std::pair<uint64_t, std::string>> times;
    for (const nvx::BusMessage& m : nvx::SentMessages()) {
        const osd::Overlay o = m.event == osd::kEventOverlay ? osd::DecodeOverlay(m.payload) : osd::Overlay();
        if (m.event == osd::kEventOverlay && o.kind == osd::kTime) {
            times.emplace_back(m.tMs, o.text);
        }
    }
    // One feed per 50 ms pass, with the tick the pass began at: at 60000 the driver (the first
    // runner) looks before the pass that began at 59950 has fed.
    EXPECT_EQ(feeds, 1199u);
    EXPECT_EQ(lastFeed, kSimStartMs + 59900);
    // The date/time line every 500 ms from the business's first cycle, showing the device's
    // second at the moment it is sent.
    ASSERT_EQ(times.size(), 120u);
    for (size_t i = 0; i < times.size(); ++i) {
        const uint64_t at = 150 + 500 * i;
        char shown[32];
        snprintf(shown, sizeof(shown), "07/03/2024 10:00:%02u", static_cast<unsigned>(at / 1000));
        EXPECT_EQ(times[i], std::make_pair(at, std::string(shown))) << i;
    }
}
