// The timer wheel: on which shift a timer runs and how often, what a timer's call may do to
// the wheel, where a node's memory goes, and adds from one thread while another shifts.
#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "HCTimeWheel.h"
#include "RefusedMalloc.h"

namespace {

typedef std::vector<uint32_t> Shifts;

// The shifts of `wheel`, counted from when the recorder was made, on which a timer ran. A
// call runs inside its shift, after the shift count has moved on.
class RunRecorder {
public:
    explicit RunRecorder(TimeWheel& wheel) : m_wheel(wheel), m_start(wheel.GetCurrent()) {}
    void Ran() { m_runs.push_back(m_wheel.GetCurrent() - m_start); }
    const Shifts& Runs() const { return m_runs; }

private:
    TimeWheel& m_wheel;
    uint32_t m_start;
    Shifts m_runs;
};

void Shift(TimeWheel& wheel, int count) {
    for (int i = 0; i < count; ++i) {
        wheel.TimerShift();
    }
}

unsigned int PoolLiveCount() {
    return JQ_CBB_Mempool::GetInstance(4096)->GetAddressMapSize();
}

}  // namespace

TEST(TimerWheelSchedule, ATimerRunsIntervalPlusOneShiftsApartAsOftenAsAskedThenLeavesThePool) {
    TimeWheel wheel;
    Shift(wheel, 5);  // the slot a timer lands in depends on the shifts already done
    const unsigned int poolBefore = PoolLiveCount();
    RunRecorder oneShot(wheel), periodic(wheel), longWait(wheel), zero(wheel), negative(wheel),
        unsignedInterval(wheel);
    wheel.AddTimer(1, 1, &RunRecorder::Ran, &oneShot);
    wheel.AddTimer(3, 3, &RunRecorder::Ran, &periodic);
    CTimerNode* node = wheel.AddTimer(20, 1, &RunRecorder::Ran, &longWait);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->m_iRounds, 1);  // one whole lap, then 4 slots on
    EXPECT_EQ(wheel.GetSlotPendingCount(5 + 4), 1u);
    wheel.AddTimer(0, 0, &RunRecorder::Ran, &zero);       // times below 1: once
    wheel.AddTimer(2, -7, &RunRecorder::Ran, &negative);  // likewise
    node = wheel.AddTimer(-1, 1, &RunRecorder::Ran, &unsignedInterval);
    EXPECT_EQ(node->m_iRounds, static_cast<int>(0xFFFFFFFFu / 16));
    EXPECT_EQ(PoolLiveCount(), poolBefore + 6);

    Shift(wheel, 40);
    EXPECT_EQ(oneShot.Runs(), Shifts({2}));
    EXPECT_EQ(periodic.Runs(), Shifts({4, 8, 12}));
    EXPECT_EQ(longWait.Runs(), Shifts({21}));
    EXPECT_EQ(zero.Runs(), Shifts({1}));
    EXPECT_EQ(negative.Runs(), Shifts({3}));
    EXPECT_TRUE(unsignedInterval.Runs().empty());
    EXPECT_EQ(wheel.GetPendingCount(), 1u);
    EXPECT_EQ(PoolLiveCount(), poolBefore + 1) << "every retired node is back in the pool";
}

TEST(TimerWheelSchedule, IntervalsThatLeaveFifteenModSixteenRunOncePerDueShift) {
    TimeWheel wheel;
    RunRecorder fifteen(wheel), thirtyOne(wheel), later(wheel);
    wheel.AddTimer(15, 3, &RunRecorder::Ran, &fifteen);
    wheel.AddTimer(31, 2, &RunRecorder::Ran, &thirtyOne);  // shares the slot, a lap behind
    Shift(wheel, 3);
    wheel.AddTimer(15, 2, &RunRecorder::Ran, &later);
    Shift(wheel, 80);
    EXPECT_EQ(fifteen.Runs(), Shifts({16, 32, 48}));
    EXPECT_EQ(thirtyOne.Runs(), Shifts({32, 64}));
    EXPECT_EQ(later.Runs(), Shifts({19, 35}));
    EXPECT_EQ(wheel.GetPendingCount(), 0u);
}

TEST(TimerWheelSchedule, WithoutPoolMemoryNoTimerIsAdded) {
    if (!RefusingMalloc()) {
        GTEST_SKIP() << "the sanitizer's allocator cannot be made to refuse";
    }
    TimeWheel wheel;
    int ran = 0;
    JQ_CBB_Mempool& pool = *JQ_CBB_Mempool::GetInstance(4096);
    testing::internal::CaptureStderr();  // the pool says it has no memory
    void* fillers = FillPool(pool);
    const CTimerNode* node = wheel.AddTimer(0, 1, [&] { ++ran; });
    testing::internal::GetCapturedStderr();
    FreeFillers(pool, fillers);
    EXPECT_EQ(node, nullptr);
    EXPECT_EQ(wheel.GetPendingCount(), 0u);
    Shift(wheel, 17);
    EXPECT_EQ(ran, 0);
}

TEST(TimerWheelCalls, ATimersCallMayAddTimersAndShiftWithoutAnythingRunningTwice) {
    TimeWheel wheel;
    RunRecorder next(wheel), lapLater(wheel), chained(wheel);
    int shifting = 0;
    // Interval 0 from inside a call runs on the next shift; interval 15 lands in the slot
    // being walked and runs a full lap later.
    wheel.AddTimer(0, 1, [&] {
        wheel.AddTimer(0, 1, &RunRecorder::Ran, &next);
        wheel.AddTimer(15, 1, &RunRecorder::Ran, &lapLater);
    });
    // Shifts asked for inside a call all happen, after the walk that made the call.
    wheel.AddTimer(2, 2, [&] {
        ++shifting;
        Shift(wheel, 2);
        wheel.AddTimer(0, 1, &RunRecorder::Ran, &chained);
    });
    Shift(wheel, 3);
    EXPECT_EQ(shifting, 1);
    EXPECT_EQ(wheel.GetCurrent(), 5u);
    EXPECT_EQ(chained.Runs(), Shifts({4}));  // in the first deferred shift
    Shift(wheel, 25);
    EXPECT_EQ(shifting, 2);  // on shift 6: three after its first run, deferred shifts counted
    EXPECT_EQ(next.Runs(), Shifts({2}));
    EXPECT_EQ(lapLater.Runs(), Shifts({17}));
    EXPECT_EQ(chained.Runs(), Shifts({4, 7}));
    EXPECT_EQ(wheel.GetCurrent(), 32u);
    EXPECT_EQ(wheel.GetPendingCount(), 0u);
}

TEST(TimerWheelCalls, AThrowingCallStaysInPlaceAndCostsNeitherTheTimersBehindItNorAskedShifts) {
    TimeWheel wheel;
    RunRecorder behind(wheel);
    int calls = 0;
    wheel.AddTimer(0, 1, [&] { wheel.TimerShift(); });  // done once this walk has ended
    wheel.AddTimer(0, 1, [&] {
        if (++calls == 1) {
            throw std::runtime_error("first run fails");
        }
    });
    wheel.AddTimer(0, 1, &RunRecorder::Ran, &behind);
    EXPECT_THROW(wheel.TimerShift(), std::runtime_error);
    EXPECT_EQ(behind.Runs(), Shifts({1}));
    EXPECT_EQ(wheel.GetCurrent(), 2u) << "the shift asked for is done before the exception leaves";
    wheel.TimerShift();
    EXPECT_EQ(wheel.GetCurrent(), 3u) << "and is not done again by the next call";
    EXPECT_EQ(wheel.GetPendingCount(), 1u);
    CTimerNode* fromOther = nullptr;  // a lock still held would block this thread for good
    std::thread other([&] { fromOther = wheel.AddTimer(0, 1, [] {}); });
    other.join();
    EXPECT_NE(fromOther, nullptr);
    Shift(wheel, 16);  // the failed one is due again a lap later
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(wheel.GetPendingCount(), 0u);
}

TEST(TimerWheelOwnership, DestroyingTheWheelDropsWaitingTimersAndReleasesWhatTheyHold) {
    const unsigned int poolBefore = PoolLiveCount();
    auto held = std::make_shared<int>(1);
    int ran = 0;
    {
        TimeWheel wheel;
        for (int i = 0; i < 200; ++i) {
            wheel.AddTimer(i, 3, [held, &ran] { ran += *held; });
        }
        EXPECT_EQ(held.use_count(), 201);
    }
    EXPECT_EQ(ran, 0);
    EXPECT_EQ(held.use_count(), 1);
    EXPECT_EQ(PoolLiveCount(), poolBefore);
}

TEST(TimerWheelThreads, AddsFromAnotherThreadWhileShiftingAreEachRunExactlyOnce) {
    TimeWheel wheel;
    const unsigned int poolBefore = PoolLiveCount();
    const int kTimers = 20000;
    std::vector<std::atomic<int>> runs(kTimers);
    std::atomic<bool> addsDone(false);
    std::thread adder([&] {
        for (int i = 0; i < kTimers; ++i) {
            EXPECT_NE(wheel.AddTimer(i % 40, 1, [&runs, i] { runs[i].fetch_add(1); }), nullptr);
        }
        addsDone = true;
    });
    while (!addsDone) {
        wheel.TimerShift();
    }
    adder.join();
    Shift(wheel, 41);  // the longest interval, and one
    for (int i = 0; i < kTimers; ++i) {
        ASSERT_EQ(runs[i].load(), 1) << "timer " << i;
    }
    EXPECT_EQ(wheel.GetPendingCount(), 0u);
    EXPECT_EQ(PoolLiveCount(), poolBefore);
}
