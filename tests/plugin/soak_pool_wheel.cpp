// Long runs that show the pool's footprint (blocks, large records, address map) stops growing
// once a workload has reached its steady state: ten million timers through the system's
// wheel, and ten million events in the hub's allocation pattern.
#include <stdint.h>
#include <string.h>

#include <deque>
#include <vector>

#include <gtest/gtest.h>

#include "HCTimeWheel.h"
#include "PoolFootprint.h"

namespace {

const int kTotal = 10000000;
const int kWarmUp = 100000;

// The hub's event record as laid out on this target.
struct EventRecord {
    int32_t session;
    int32_t event;
    char* data;
    int32_t length;
    int32_t source;
    int32_t type;
};

}  // namespace

TEST(SoakPoolWheel, TenMillionTimersAddedAndRetiredLeaveThePoolNoLarger) {
    TimeWheel* wheel = TimeWheel::GetInstance();
    JQ_CBB_Mempool* pool = JQ_CBB_Mempool::GetInstance(4096);
    const unsigned int liveBefore = pool->GetAddressMapSize();
    int64_t runs = 0, expectedRuns = 0;
    PoolFootprint early;
    // Four timers per shift, one-shot and periodic, intervals below and beyond one lap. The
    // pattern repeats every 192 timers, so the set of pending timers settles long before the
    // warm-up ends.
    for (int added = 0; added < kTotal;) {
        for (int k = 0; k < 4; ++k, ++added) {
            ASSERT_NE(wheel->AddTimer(added % 64, 1 + added % 3, [&runs] { ++runs; }), nullptr);
            expectedRuns += 1 + added % 3;
        }
        wheel->TimerShift();
        if (added == kWarmUp) {
            early = MeasurePool();
        }
    }
    for (int i = 0; i < 64 * 3; ++i) {
        wheel->TimerShift();
    }
    EXPECT_EQ(runs, expectedRuns);
    EXPECT_EQ(wheel->GetPendingCount(), 0u);
    EXPECT_EQ(pool->GetAddressMapSize(), liveBefore);
    ExpectNoLarger(MeasurePool(), early);
}

TEST(SoakPoolWheel, TenMillionEventsInTheHubsPatternLeaveThePoolNoLarger) {
    JQ_CBB_Mempool* pool = JQ_CBB_Mempool::GetInstance(4096);
    const unsigned int liveBefore = pool->GetAddressMapSize();
    // None, small records, either side of the block threshold, a full system-log batch (50
    // records of 236 bytes and its header), 64 KiB.
    const int kLengths[] = {0, 1, 7, 24, 100, 236, 512, 3000, 4071, 4072, 8 + 236 * 50, 65536};
    std::vector<char> source(65536);
    for (size_t i = 0; i < source.size(); ++i) {
        source[i] = static_cast<char>(i * 7);
    }
    std::deque<EventRecord*> queue;
    PoolFootprint early;
    int delivered = 0;
    for (int published = 0; published < kTotal; ++published) {
        auto* record = static_cast<EventRecord*>(pool->JQ_CBB_Alloc(sizeof(EventRecord), false));
        ASSERT_NE(record, nullptr);
        const int length = kLengths[published % 12];
        *record = {published, 0x10100, nullptr, length, 0x55, 3};
        if (length > 0) {
            record->data = static_cast<char*>(pool->JQ_CBB_Alloc(static_cast<unsigned int>(length), false));
            ASSERT_NE(record->data, nullptr);
            memcpy(record->data, source.data(), static_cast<size_t>(length));
        }
        queue.push_back(record);
        // Delivery in order, the queue swelling to 40 and draining. The pattern repeats every
        // 4920 events, well inside the warm-up, so growth after it would be a leak.
        while (queue.size() > static_cast<size_t>((published / 120) % 41)) {
            EventRecord* event = queue.front();
            queue.pop_front();
            if (event->length > 0) {
                ASSERT_EQ(event->data[event->length - 1], source[event->length - 1]);
            }
            pool->JQ_CBB_Free(event->data);
            pool->JQ_CBB_Free(event);
            if (++delivered == kWarmUp) {
                early = MeasurePool();
            }
        }
    }
    for (EventRecord* event : queue) {
        pool->JQ_CBB_Free(event->data);
        pool->JQ_CBB_Free(event);
    }
    EXPECT_LE(pool->GetAddressMapSize(), liveBefore + 6);  // the idle large records
    ExpectNoLarger(MeasurePool(), early);
}
