// The hub's publish-to-delivery for local events, against a bare mutex-and-condition queue to
// a consumer thread doing the same work (copy in, call the subscriber, free), in one run.
//
// Each delivered event publishes the next one from inside its call, keeping 64 in flight, and
// the benchmark's thread counts deliveries: one iteration is one event through the queue. The
// bus waits are instant from before the hub is built and while a run lasts, and each run
// starts after one warm-up event, so no iteration takes up a 100 ms wait. Fed from another thread instead,
// the hub would measure its lock's hand-over rather than its work: with an instant bus wait the scheduler
// takes the lock again before a waiting publisher wakes, and then rests 100 ms once the queue is down to its
// last event. "Dropped" is a publish of a local event nobody subscribed to.
#include <stdint.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include "HC.h"
#include "NvxControl.h"

namespace {

const int kEvent = 0x10700;
const int kInFlight = 64;

// Deliveries, and whether each one should publish the next.
struct Feed {
    std::atomic<uint64_t> published{0};
    std::atomic<uint64_t> delivered{0};
    std::atomic<bool> feeding{false};
    std::vector<char> payload;

    // The benchmark's thread: one iteration per delivery.
    void Measure(benchmark::State& state) {
        uint64_t seen = delivered.load();
        for (auto _ : state) {
            while (delivered.load() == seen) {
                std::this_thread::yield();
            }
            ++seen;
        }
        state.SetItemsProcessed(state.iterations());
    }
    // Stops feeding and waits for the last events in flight, so that nothing reads the
    // payload any more: a relay counts its delivery only after its publish has copied it.
    void Drain() {
        feeding.store(false);
        while (delivered.load() != published.load()) {
            std::this_thread::yield();
        }
    }
};

struct QuietAndInstant {
    QuietAndInstant() {
        nvx::SetLogLevel(-1);
        nvx::SetBusWaitsInstant(true);
    }
};

struct HubBench {
    QuietAndInstant setup;  // before the hub, whose constructor logs and whose loop then starts
    MsgManager hub;
    Feed feed;

    HubBench() {
        auto* relay = new Subscriber;
        relay->callback = [this](const char* data, int length) {
            benchmark::DoNotOptimize(data);
            benchmark::DoNotOptimize(length);
            if (feed.feeding.load()) {
                Publish();
            }
            feed.delivered.fetch_add(1);
        };
        hub.Subscribe(kEvent, relay);
        // The first event waits out the scheduler's settling second, before any measurement.
        Publish();
        feed.Drain();
    }
    void Publish() {
        feed.published.fetch_add(1);
        hub.Publish(0, kEvent, feed.payload.data(), static_cast<int>(feed.payload.size()), MSG_TYPE_SEND, 0);
    }
    static HubBench& Get() {
        static HubBench bench;
        return bench;
    }
};

struct PlainQueue {
    std::mutex mutex;
    std::condition_variable arrived;
    std::deque<std::vector<char>> queue;
    bool stop = false;
    Feed feed;
    std::thread consumer;

    explicit PlainQueue(size_t length) {
        feed.payload.assign(length, 'p');
        feed.feeding.store(true);
        for (int i = 0; i < kInFlight; ++i) {
            queue.emplace_back(feed.payload);
        }
        consumer = std::thread([this] { Consume(); });
    }
    ~PlainQueue() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stop = true;
        }
        arrived.notify_one();
        consumer.join();
    }
    void Consume() {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            arrived.wait(lock, [this] { return stop || !queue.empty(); });
            if (stop) {
                return;
            }
            std::vector<char> item = std::move(queue.front());
            queue.pop_front();
            lock.unlock();
            benchmark::DoNotOptimize(item.data());
            feed.delivered.fetch_add(1);
            lock.lock();
            queue.emplace_back(feed.payload.begin(), feed.payload.end());
        }
    }
};

void BM_HubPublishToDelivery(benchmark::State& state) {
    HubBench& bench = HubBench::Get();
    bench.feed.payload.assign(static_cast<size_t>(state.range(0)), 'p');
    nvx::SetBusWaitsInstant(true);
    // The scheduler may be inside a 100 ms wait begun before the line above: this event
    // waits it out.
    bench.Publish();
    bench.feed.Drain();
    bench.feed.feeding.store(true);
    for (int i = 0; i < kInFlight; ++i) {
        bench.Publish();
    }
    bench.feed.Measure(state);
    bench.feed.Drain();
    // Back to the 100 ms waits, so that the idle scheduler does not spin through the others.
    nvx::SetBusWaitsInstant(false);
}

void BM_PlainQueuePublishToDelivery(benchmark::State& state) {
    PlainQueue queue(static_cast<size_t>(state.range(0)));
    queue.feed.Measure(state);
}

void BM_HubPublishDropped(benchmark::State& state) {
    MsgManager& hub = HubBench::Get().hub;
    for (auto _ : state) {
        benchmark::DoNotOptimize(hub.Publish(0, kEvent + 1, "x", 1, MSG_TYPE_SEND, 0));
    }
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_HubPublishToDelivery)->Arg(16)->Arg(1024)->UseRealTime();
BENCHMARK(BM_PlainQueuePublishToDelivery)->Arg(16)->Arg(1024)->UseRealTime();
BENCHMARK(BM_HubPublishDropped);
