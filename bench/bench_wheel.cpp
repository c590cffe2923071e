// The timer wheel against a plain binary-heap timer, with 10, 1 000 and 100 000 timers
// pending. Both run a timer interval + 1 ticks after it was added and hold the same bound
// member call in a std::function. The setup files N timers due on ticks 1 .. N; each
// iteration adds one due N + 1 ticks on and advances one tick, which expires exactly one
// timer, so N stay pending.
#include <stdint.h>

#include <functional>
#include <queue>
#include <vector>

#include <benchmark/benchmark.h>

#include "HCTimeWheel.h"

namespace {

struct Target {
    int64_t hits = 0;
    void Tick() { ++hits; }
};

class HeapTimers {
public:
    void Add(int interval, std::function<void()> call) {
        m_queue.push({m_now + static_cast<uint64_t>(interval) + 1, m_sequence++, std::move(call)});
    }
    void Shift() {
        ++m_now;
        while (!m_queue.empty() && m_queue.top().due <= m_now) {
            // top() is const; the entry is popped at once, so taking its call is safe.
            std::function<void()> call = std::move(const_cast<Entry&>(m_queue.top()).call);
            m_queue.pop();
            call();
        }
    }

private:
    struct Entry {
        uint64_t due;
        uint64_t sequence;  // keeps timers of one tick in the order they were added
        std::function<void()> call;
    };
    struct Later {
        bool operator()(const Entry& a, const Entry& b) const {
            return a.due != b.due ? a.due > b.due : a.sequence > b.sequence;
        }
    };
    std::priority_queue<Entry, std::vector<Entry>, Later> m_queue;
    uint64_t m_now = 0;
    uint64_t m_sequence = 0;
};

void BM_WheelAddExpire(benchmark::State& state) {
    const int pending = static_cast<int>(state.range(0));
    TimeWheel wheel;
    Target target;
    for (int i = 0; i < pending; ++i) {
        wheel.AddTimer(i, 1, &Target::Tick, &target);
    }
    for (auto _ : state) {
        wheel.AddTimer(pending, 1, &Target::Tick, &target);
        wheel.TimerShift();
    }
    if (target.hits != static_cast<int64_t>(state.iterations())) {
        state.SkipWithError("not one expiry per tick");
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_HeapAddExpire(benchmark::State& state) {
    const int pending = static_cast<int>(state.range(0));
    HeapTimers timers;
    Target target;
    for (int i = 0; i < pending; ++i) {
        timers.Add(i, std::bind(&Target::Tick, &target));
    }
    for (auto _ : state) {
        timers.Add(pending, std::bind(&Target::Tick, &target));
        timers.Shift();
    }
    if (target.hits != static_cast<int64_t>(state.iterations())) {
        state.SkipWithError("not one expiry per tick");
    }
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_WheelAddExpire)->Arg(10)->Arg(1000)->Arg(100000);
BENCHMARK(BM_HeapAddExpire)->Arg(10)->Arg(1000)->Arg(100000);
