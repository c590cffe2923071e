// The real hub for as many events as fit in a few seconds, the bus waits made instant: every
// event arrives whole, and the pool's footprint (blocks, large records, address map) after
// them all is no larger than after the first 100 000.
#include <stdint.h>
#include <string.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include <gtest/gtest.h>

#include "HC.h"
#include "NvxControl.h"
#include "PoolFootprint.h"

namespace {

const int kEvent = 0x10600;
const uint64_t kMostEvents = 10000000;
const uint64_t kWarmUp = 100000;
const auto kRunFor = std::chrono::seconds(4);
// Enough queued that the scheduler never rests. The subscriber publishes the next events
// from inside its call: a publisher on another thread would mostly wait for the hub's lock,
// which the scheduler takes again at once when the bus wait returns at once.
const uint64_t kInFlight = 64;

// Lengths from none through one either side of the pool's large threshold, and every 97th a
// large payload, so that large records are made and reused all along. The event's number is
// in its first bytes, and the rest is its low byte.
std::vector<char> PayloadOf(uint64_t sequence) {
    static const size_t kLengths[] = {0, 4, 13, 64, 200, 1000, 4071};
    std::vector<char> payload(sequence % 97 == 0 ? 5000 : kLengths[sequence % 7],
                              static_cast<char>(sequence));
    if (payload.size() >= sizeof(sequence)) {
        memcpy(payload.data(), &sequence, sizeof(sequence));
    }
    return payload;
}

}  // namespace

TEST(HubSoak, EventsArriveWholeAndThePoolStaysBounded) {
    nvx::Reset();
    nvx::SetLogLevel(-1);
    nvx::SetBusWaitsInstant(true);
    uint64_t published = 0, delivered = 0, damaged = 0;  // the scheduler's, until `finished`
    PoolFootprint early;
    std::mutex mutex;
    std::condition_variable changed;
    bool finished = false;
    {
        MsgManager hub;
        const auto deadline = std::chrono::steady_clock::now() + kRunFor;
        auto publishNext = [&] {
            const std::vector<char> payload = PayloadOf(published++);
            EXPECT_EQ(
                hub.Publish(0, kEvent, payload.data(), static_cast<int>(payload.size()), MSG_TYPE_SEND, 0),
                0);
        };
        auto* checker = new Subscriber;
        checker->callback = [&](const char* data, int length) {
            // Delivery is in order, so the count says which event this is.
            const std::vector<char> expected = PayloadOf(delivered++);
            const bool whole =
                length == static_cast<int>(expected.size()) &&
                (length == 0 ? data == nullptr : memcmp(data, expected.data(), expected.size()) == 0);
            damaged += whole ? 0 : 1;
            if (delivered == kWarmUp) {
                early = MeasurePool();
            }
            if (published < kMostEvents && std::chrono::steady_clock::now() < deadline) {
                publishNext();
                if (published < kInFlight) {
                    publishNext();  // the queue grows by one per delivery up to its depth
                }
            } else if (delivered == published) {
                std::lock_guard<std::mutex> lock(mutex);
                finished = true;
                changed.notify_all();
            }
        };
        ASSERT_EQ(hub.Subscribe(kEvent, checker), 0);
        publishNext();
        std::unique_lock<std::mutex> lock(mutex);
        ASSERT_TRUE(changed.wait_for(lock, kRunFor + std::chrono::seconds(60), [&] { return finished; }));
    }
    nvx::SetBusWaitsInstant(false);
    EXPECT_EQ(damaged, 0u);
    printf("hub soak: %llu events in about %lld s\n", static_cast<unsigned long long>(published),
           static_cast<long long>(kRunFor.count()));
    if (!early.measured) {
        GTEST_SKIP() << "fewer than " << kWarmUp << " events fit the run on this machine";
    }
    ExpectNoLarger(MeasurePool(), early);
}
