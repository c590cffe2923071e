// The timestamp clock against a wall clock the test holds and steps.
#include <atomic>
#include <string>
#include <thread>
#include <tuple>

#include "HC.h"
#include "TestSupport.h"

namespace {

using Timestamp = DeviceTest;

const int64_t kSomeDay = 1767323045000000;  // 2026-01-02 03:04:05 in microseconds

// Holds the wall clock `step` further on and waits until `clock` has sampled it.
void Step(BTime& clock, int64_t& wall, int64_t step) {
    wall += step;
    nvx::HoldWallClockMicros(wall);
    ASSERT_TRUE(Eventually([&] { return clock.wallMicros.load() == static_cast<uint64_t>(wall); }));
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
    std::atomic<bool> named{false}, sample{false};  // the thread waits as it names itself
    nvx::SetLogObserver([&](const nvx::LogLine& l) {
        while (l.text.find("name = BTime,") != std::string::npos && !sample) {
            named = true;
            std::this_thread::yield();
        }
    });
    {
        BTime clock;
        const bool wasNamed = Eventually([&] { return named.load(); });
        const auto before =
            std::make_tuple(clock.running.load(), clock.stampMicros.load(), clock.stampMillis.load(),
                            clock.wallMicros.load(), clock.wallMillis.load());
        sample = true;
        nvx::SetLogObserver(nullptr);
        EXPECT_TRUE(wasNamed);
        const uint64_t held = static_cast<uint64_t>(wall);
        EXPECT_EQ(std::make_tuple(false, 0ull, 0ull, held, held / 1000), before) << "as constructed";
        ASSERT_TRUE(Eventually([&] { return clock.running.load(); }));
        EXPECT_EQ(CountThreads("BTime"), 1);
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
    EXPECT_TRUE(ThreadsNamed("BTime", 0));
}
