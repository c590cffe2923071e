// The stand-in's date conversions and its device-signal and CAN-port monitors.
#include <string.h>
#include <sys/time.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "JQ_SDK_Basic.h"
#include "JQ_SDK_DateTime.h"
#include "JQ_SDK_Device.h"
#include "TestSupport.h"

namespace {

using DateTime = DeviceTest;
using Peripheral = DeviceTest;

int g_handle = 0;

tagDateTime Record(int year, int month, int day, int hour, int minute, int second, int weekday = 0) {
    return tagDateTime{static_cast<uint8_t>(year - 2000), static_cast<uint8_t>(month),
                       static_cast<uint8_t>(day),         static_cast<uint8_t>(hour),
                       static_cast<uint8_t>(minute),      static_cast<uint8_t>(second),
                       static_cast<uint8_t>(weekday),     0};
}

// What a monitor saw, to be read once its channel is idle. Its callback holds while `hold` is
// set, so that a test can act while it runs.
struct Probe {
    std::vector<std::string> records;
    std::thread::id thread;
    std::atomic<bool> hold{false};
    std::atomic<bool> running{false};
    int withdrawInside = 0;  // 1: from device signals, 2: from the CAN port
};

void OnRecord(const char* data, int length, void* user, void* reserved) {
    Probe* p = static_cast<Probe*>(user);
    EXPECT_EQ(reserved, nullptr);
    p->records.push_back(data == nullptr ? "(null)" : std::string(data, static_cast<size_t>(length)));
    p->thread = std::this_thread::get_id();
    p->running = true;
    EXPECT_TRUE(Eventually([p] { return !p->hold; }));
    p->running = false;
    if (p->withdrawInside != 0) {
        EXPECT_EQ(p->withdrawInside == 1
                      ? JQ_SDK_Device_MonitorDevSignalData(nullptr, user, 0)
                      : JQ_SDK_Basic_Peripheral_MonitorCanPortEvent(&g_handle, nullptr, user, 0),
                  0);
    }
}

void OnRecordReplaced(const char*, int, void* user, void* reserved) {
    OnRecord("new", 3, user, reserved);
}

// Runs `act` on another thread while p's callback is held: it must not return while the
// callback runs (given a while to show it), and the callback must be over once it has.
void ActWhileRunning(Probe& p, void (*act)(Probe*)) {
    ASSERT_TRUE(Eventually([&p] { return p.running.load(); }));
    std::atomic<bool> returned{false};
    bool runningAtReturn = true;
    std::thread actor([&] {
        act(&p);
        runningAtReturn = p.running;
        returned = true;
    });
    EXPECT_FALSE(Eventually([&] { return returned.load(); }, 100)) << "returned while the callback ran";
    p.hold = false;
    actor.join();
    EXPECT_FALSE(runningAtReturn);
}

}  // namespace

TEST_F(DateTime, ConversionsRoundTripOverTheCenturyOnAThirtyTwoBitScale) {
    const struct {
        tagDateTime record;
        uint32_t seconds;
    } cases[] = {
        {Record(2000, 1, 1, 0, 0, 0, 6), 946684800u},
        {Record(2000, 2, 29, 12, 34, 56, 2), 951827696u},
        {Record(2037, 12, 31, 23, 59, 59, 4), 2145916799u},
        {Record(2038, 1, 19, 3, 14, 8, 2), 2147483648u},
        {Record(2096, 2, 29, 0, 0, 0, 3), 3981312000u},
        {Record(2099, 12, 31, 23, 59, 59, 4), 4102444799u},
    };
    for (const auto& c : cases) {
        const long handedOut = static_cast<int32_t>(c.seconds);
        long seconds = 0;
        EXPECT_EQ(JQ_SDK_DateTime_BrokenDownTimeToCalendarTime(&c.record, &seconds), 0);
        EXPECT_EQ(seconds, handedOut) << c.seconds;
        // Read back as handed out, and as a 64-bit long with the same low 32 bits.
        for (const long in :
             {handedOut, static_cast<long>(c.seconds + (sizeof(long) > 4 ? 7ull << 32 : 0))}) {
            tagDateTime back = {6, 6, 6, 6, 6, 6, 6, 6};
            EXPECT_EQ(JQ_SDK_DateTime_CalendarTimeToBrokenDownTime(&in, &back), 0);
            EXPECT_EQ(memcmp(&back, &c.record, sizeof(back)), 0) << c.seconds;
        }
    }
    tagDateTime out;
    for (const long outside : {946684799L, static_cast<long>(static_cast<int32_t>(4102444800u)), -1L, 0L}) {
        EXPECT_EQ(JQ_SDK_DateTime_CalendarTimeToBrokenDownTime(&outside, &out), -1) << outside;
    }
    const tagDateTime bad[] = {
        Record(2100, 1, 1, 0, 0, 0),  Record(2024, 0, 1, 0, 0, 0),  Record(2024, 13, 1, 0, 0, 0),
        Record(2024, 1, 0, 0, 0, 0),  Record(2023, 2, 29, 0, 0, 0), Record(2024, 4, 31, 0, 0, 0),
        Record(2024, 1, 1, 24, 0, 0), Record(2024, 1, 1, 0, 60, 0), Record(2024, 1, 1, 0, 0, 60),
    };
    long seconds = 0;
    for (const tagDateTime& record : bad) {
        EXPECT_EQ(JQ_SDK_DateTime_BrokenDownTimeToCalendarTime(&record, &seconds), -1) << int(record.ucDay);
    }
    const tagDateTime anyWeekday = Record(2024, 2, 29, 0, 0, 0, 200);
    EXPECT_EQ(JQ_SDK_DateTime_BrokenDownTimeToCalendarTime(&anyWeekday, &seconds), 0);
    EXPECT_EQ(JQ_SDK_DateTime_BrokenDownTimeToCalendarTime(nullptr, &seconds), -1);
    EXPECT_EQ(JQ_SDK_DateTime_CalendarTimeToBrokenDownTime(&seconds, nullptr), -1);
}

TEST_F(DateTime, LocalTimeFollowsTheDeviceClockPast2038) {
    long long seconds = 0;
    EXPECT_EQ(JQ_SDK_DateTime_GetLocalSeconds(nullptr), -1);
    EXPECT_EQ(JQ_SDK_DateTime_GetLocalBrokendownTime(nullptr), -1);
    const struct {
        int64_t clock;
        tagDateTime record;
    } cases[] = {
        {1700000000, Record(2023, 11, 14, 22, 13, 20, 2)},
        {2147483664LL, Record(2038, 1, 19, 3, 14, 24, 2)},
        {3981312000LL, Record(2096, 2, 29, 0, 0, 0, 3)},
    };
    for (const auto& c : cases) {
        nvx::SetWallClock(c.clock);
        tagDateTime now = {6, 6, 6, 6, 6, 6, 6, 6};
        ASSERT_EQ(JQ_SDK_DateTime_GetLocalBrokendownTime(&now), 0);
        ASSERT_EQ(JQ_SDK_DateTime_GetLocalSeconds(&seconds), 0);
        // The device's scale is 32 bits wide, so a moment past 2038 reads as a negative number.
        const long long onDevice = static_cast<int32_t>(static_cast<uint32_t>(c.clock));
        EXPECT_TRUE(seconds >= onDevice && seconds < onDevice + kGenerousMs / 1000) << seconds;
        // The clock runs on from where it was set; no case is near the end of a minute.
        EXPECT_TRUE(now.ucSecond >= c.record.ucSecond && now.ucSecond < c.record.ucSecond + 10) << c.clock;
        now.ucSecond = c.record.ucSecond;
        EXPECT_EQ(memcmp(&now, &c.record, sizeof(now)), 0)
            << c.clock << ": " << int(now.ucYear) << "-" << int(now.ucMonth) << "-" << int(now.ucDay);
    }
}

// Set, the clock starts its second there, not at the host's next second boundary: a run and
// its replay that set the clock at the same moment see the same second boundaries.
TEST_F(DateTime, TheClockStartsItsSecondWhenSet) {
    nvx::SetWallClock(1700000000);
    struct timeval now;
    gettimeofday(&now, nullptr);
    EXPECT_EQ(now.tv_sec, 1700000000);
    EXPECT_LT(now.tv_usec, 500000) << "half a second is far more than two calls in a row take";
}

TEST_F(DateTime, DayByWeekCountsWeeksFromTheStartAndFiveAsTheLast) {
    const unsigned char cases[][4] = {
        // year, month, week << 4 | weekday, day
        {24, 3, 0x20, 10}, {24, 11, 0x10, 3}, {24, 10, 0x50, 27}, {24, 3, 0x50, 31}, {24, 2, 0x54, 29},
        {24, 2, 0x44, 22}, {23, 2, 0x53, 22}, {0, 1, 0x16, 1},    {0, 1, 0x50, 30},  {99, 12, 0x53, 30},
    };
    unsigned char day = 0;
    for (const auto& c : cases) {
        EXPECT_EQ(JQ_SDK_DateTime_GetDayByWeek(c[0], c[1], c[2], &day), 0);
        EXPECT_EQ(day, c[3]) << int(c[0]) << "/" << int(c[1]) << " week|weekday " << std::hex << int(c[2]);
    }
    const unsigned char bad[][3] = {{100, 1, 0x10}, {24, 0, 0x10}, {24, 13, 0x10},
                                    {24, 1, 0x00},  {24, 1, 0x60}, {24, 1, 0x17}};
    for (const auto& b : bad) {
        EXPECT_EQ(JQ_SDK_DateTime_GetDayByWeek(b[0], b[1], b[2], &day), -1)
            << int(b[1]) << std::hex << int(b[2]);
    }
    EXPECT_EQ(JQ_SDK_DateTime_GetDayByWeek(24, 1, 0x10, nullptr), -1);
}

TEST_F(Peripheral, EveryMonitorGetsItsOwnCopyOnItsChannelsThreadAndAReplacementTakesOver) {
    Probe a, b, can;
    EXPECT_EQ(JQ_SDK_Device_MonitorDevSignalData(OnRecord, &a, 0), 0);
    EXPECT_EQ(JQ_SDK_Device_MonitorDevSignalData(OnRecord, &b, 0), 0);
    EXPECT_EQ(JQ_SDK_Basic_Peripheral_MonitorCanPortEvent(nullptr, OnRecord, &can, 0), -1);
    EXPECT_EQ(JQ_SDK_Basic_Peripheral_MonitorCanPortEvent(&g_handle, OnRecord, &can, 0), 0);
    EXPECT_EQ(nvx::CallCount("JQ_SDK_Basic_Peripheral_MonitorCanPortEvent"), 2u);

    char signal[] = "{\"io\":1}\0tail";
    nvx::InjectDevSignal(signal, sizeof(signal) - 1);
    signal[0] = 'X';
    nvx::InjectDevSignal("", 0);
    nvx::InjectCanRecord("\x01\x02", 2);
    nvx::InjectCanRecord(nullptr, 4);
    EXPECT_EQ(JQ_SDK_Device_MonitorDevSignalData(OnRecordReplaced, &a, 0), 0);
    nvx::InjectDevSignal("x", 1);
    ASSERT_TRUE(nvx::WaitForPeripheralIdle(kGenerousMs));

    EXPECT_EQ(b.records, (std::vector<std::string>{std::string("{\"io\":1}\0tail", 13), "", "x"}));
    EXPECT_EQ(can.records, (std::vector<std::string>{"\x01\x02", "(null)"}));
    // Records still queued when the replacement came go to the new callback too.
    EXPECT_EQ(a.records.size(), 3u);
    EXPECT_EQ(a.records.back(), "new");
    EXPECT_EQ(nvx::DevSignalMonitorCount(), 2);
    EXPECT_EQ(nvx::CanPortMonitorCount(), 1);
    EXPECT_NE(a.thread, std::this_thread::get_id());
    EXPECT_NE(a.thread, can.thread);
}

TEST_F(Peripheral, WithdrawalWaitsForTheRunningCallbackAndDropsWhatIsQueued) {
    Probe held, other;
    held.hold = true;
    JQ_SDK_Basic_Peripheral_MonitorCanPortEvent(&g_handle, OnRecord, &held, 0);
    JQ_SDK_Basic_Peripheral_MonitorCanPortEvent(&g_handle, OnRecord, &other, 0);
    nvx::InjectCanRecord("1", 1);
    nvx::InjectCanRecord("2", 1);
    ActWhileRunning(held,
                    [](Probe* p) { JQ_SDK_Basic_Peripheral_MonitorCanPortEvent(&g_handle, nullptr, p, 0); });
    ASSERT_TRUE(nvx::WaitForPeripheralIdle(kGenerousMs));
    EXPECT_EQ(held.records, std::vector<std::string>{"1"});
    EXPECT_EQ(other.records, (std::vector<std::string>{"1", "2"}));

    Probe signalSelf, canSelf;  // each withdraws from inside its own callback
    signalSelf.withdrawInside = 1;
    canSelf.withdrawInside = 2;
    JQ_SDK_Device_MonitorDevSignalData(OnRecord, &signalSelf, 0);
    JQ_SDK_Basic_Peripheral_MonitorCanPortEvent(&g_handle, OnRecord, &canSelf, 0);
    for (const char* record : {"a", "b"}) {
        nvx::InjectDevSignal(record, 1);
        nvx::InjectCanRecord(record, 1);
    }
    ASSERT_TRUE(nvx::WaitForPeripheralIdle(kGenerousMs));
    EXPECT_EQ(signalSelf.records, std::vector<std::string>{"a"});
    EXPECT_EQ(canSelf.records, std::vector<std::string>{"a"});
    EXPECT_EQ(nvx::DevSignalMonitorCount() + nvx::CanPortMonitorCount(), 1) << "only `other` is left";
}

TEST_F(Peripheral, ResetDropsMonitorsAndRecordsAndWaitsForTheRunningCallback) {
    Probe held;
    held.hold = true;
    JQ_SDK_Device_MonitorDevSignalData(OnRecord, &held, 0);
    nvx::InjectDevSignal("1", 1);
    nvx::InjectDevSignal("2", 1);
    ActWhileRunning(held, [](Probe*) { nvx::Reset(); });
    EXPECT_EQ(nvx::DevSignalMonitorCount(), 0);
    nvx::InjectDevSignal("3", 1);
    ASSERT_TRUE(nvx::WaitForPeripheralIdle(kGenerousMs));
    EXPECT_EQ(held.records, std::vector<std::string>{"1"});
}
