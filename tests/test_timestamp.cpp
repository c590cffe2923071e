// The timestamp clock against a wall clock the test holds and steps, and the stand-in's
// gettimeofday that the clock samples.
#include <dirent.h>
#include <sys/time.h>
#include <time.h>

#include <fstream>
#include <string>

#include "HC.h"
#include "TestSupport.h"

namespace {

using Timestamp = DeviceTest;
using TimestampWallClock = DeviceTest;

const int64_t kSomeDay = 1767323045000000;  // 2026-01-02 03:04:05 in microseconds

// Holds the wall clock `step` further on and waits until `clock` has sampled it.
void Step(BTime& clock, int64_t& wall, int64_t step) {
    wall += step;
    nvx::HoldWallClockMicros(wall);
    ASSERT_TRUE(Eventually([&] { return clock.wallMicros.load() == static_cast<uint64_t>(wall); }));
}

bool HasThreadNamed(const std::string& name) {
    DIR* dir = opendir("/proc/self/task");
    bool found = false;
    for (const dirent* entry = readdir(dir); entry != nullptr && !found; entry = readdir(dir)) {
        std::string comm;
        std::getline(std::ifstream(std::string("/proc/self/task/") + entry->d_name + "/comm"), comm);
        found = comm == name;
    }
    closedir(dir);
    return found;
}

size_t Occurrences(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

}  // namespace

TEST_F(Timestamp, CountsOnlyForwardStepsBelowASecondAndCarriesOnAfterAJump) {
    int64_t wall = kSomeDay;
    nvx::HoldWallClockMicros(wall);
    testing::internal::CaptureStdout();
    {
        BTime clock;
        ASSERT_TRUE(Eventually([&] { return clock.running.load(); }));
        Step(clock, wall, 0);
        EXPECT_EQ(clock.stampMicros.load(), 0u) << "equal readings add nothing";

        Step(clock, wall, 250);
        EXPECT_TRUE(Eventually([&] { return clock.stampMicros.load() == 250; }));

        // An hour back, then a small step: only the small one counts.
        Step(clock, wall, -3600LL * 1000000);
        Step(clock, wall, 100);
        EXPECT_TRUE(Eventually([&] { return clock.stampMicros.load() == 350; }));

        // A whole second is a setting of the clock; one microsecond less is time passing.
        Step(clock, wall, 1000000);
        Step(clock, wall, 1);
        EXPECT_TRUE(Eventually([&] { return clock.stampMicros.load() == 351; }));
        Step(clock, wall, 999999);
        EXPECT_TRUE(Eventually([&] { return clock.stampMicros.load() == 1000350; }));
        EXPECT_EQ(clock.stampMillis.load(), 1000u);
        EXPECT_EQ(clock.wallMillis.load(), static_cast<uint64_t>(wall / 1000));
    }
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(Occurrences(out, "TimeStamp thread started!\n"), 1u);
    EXPECT_EQ(Occurrences(out, "Stamp expired is not abnormal:"), 2u) << out;
    EXPECT_EQ(Occurrences(out, "Stamp expired is not abnormal:-3600000000\n"), 1u) << out;
    EXPECT_EQ(Occurrences(out, "Stamp expired is not abnormal:1000000\n"), 1u) << out;
}

TEST_F(Timestamp, DestructionRightAfterConstructionStopsAndJoinsTheThread) {
    // Many of these end before the thread has taken its first reading; each must return.
    testing::internal::CaptureStdout();
    for (int i = 0; i < 200; ++i) {
        BTime clock;
    }
    testing::internal::GetCapturedStdout();
    EXPECT_FALSE(HasThreadNamed("BTime"));
}

TEST_F(TimestampWallClock, GettimeofdayAnswersTheDeviceClockOrTheHeldValue) {
    nvx::HoldWallClockMicros(kSomeDay + 123456);
    struct timeval tv;
    struct timezone zone = {60, 1};
    ASSERT_EQ(gettimeofday(&tv, &zone), 0);
    EXPECT_EQ(tv.tv_sec, static_cast<time_t>(kSomeDay / 1000000));
    EXPECT_EQ(tv.tv_usec, 123456);
    EXPECT_EQ(zone.tz_minuteswest, 0);
    EXPECT_EQ(zone.tz_dsttime, 0);
    EXPECT_EQ(BTime::GetMicroOfSecond(), kSomeDay + 123456);

    nvx::HoldWallClockMicros(-1500000);  // before 1970: the fraction stays positive
    ASSERT_EQ(gettimeofday(&tv, nullptr), 0);
    EXPECT_EQ(tv.tv_sec, -2);
    EXPECT_EQ(tv.tv_usec, 500000);

    nvx::ReleaseWallClock();
    nvx::SetWallClock(1893456000);
    const time_t before = nvx::WallClock();
    ASSERT_EQ(gettimeofday(&tv, nullptr), 0);
    const time_t after = nvx::WallClock();
    EXPECT_GE(tv.tv_sec, before);
    EXPECT_LE(tv.tv_sec, after);

    nvx::Reset();  // the host's own clock again
    const time_t hostBefore = time(nullptr);
    ASSERT_EQ(gettimeofday(&tv, nullptr), 0);
    EXPECT_GE(tv.tv_sec, hostBefore);
    EXPECT_LE(tv.tv_sec, time(nullptr) + 1);
}
