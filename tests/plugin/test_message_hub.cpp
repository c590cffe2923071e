// The message hub inside the simulated device: local delivery, the bus both ways, many
// threads and subscribers that change subscriptions from inside their call, the bound on its
// queue, its meeting with the timer wheel, the pace it takes from the timestamp clock and its
// lifecycle.
#include <pthread.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <memory>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "HC.h"
#include "MsgClientManage.h"
#include "RefusedMalloc.h"
#include "TestSupport.h"
#include "TruckServiceManage.h"

namespace {

// Raised once by one thread, waited for by another.
struct Flag {
    std::mutex mutex;
    std::condition_variable changed;
    bool raised = false;

    void Raise() {
        std::lock_guard<std::mutex> lock(mutex);
        raised = true;
        changed.notify_all();
    }
    bool Wait() {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::milliseconds(kGenerousMs), [&] { return raised; });
    }
    void WaitForever() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return raised; });
    }
};

// Raises a flag when the test ends, however it ends. Declared after the hub, it frees a
// subscriber held on the flag before the hub's destructor waits to join the scheduler.
struct RaiseOnExit {
    Flag& flag;
    ~RaiseOnExit() { flag.Raise(); }
};

// What a subscriber received, and on which thread.
struct Inbox {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> texts, threads;
    int nullData = 0, withUser = 0;

    void Put(const char* data, int length, void* user = nullptr) {
        std::lock_guard<std::mutex> lock(mutex);
        texts.emplace_back(data != nullptr ? std::string(data, static_cast<size_t>(length)) : std::string());
        threads.push_back(ThreadName());
        nullData += data == nullptr ? 1 : 0;
        withUser += user != nullptr ? 1 : 0;
        changed.notify_all();
    }
    void OnEvent(const char* data, int length) { Put(data, length); }
    bool WaitFor(size_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::milliseconds(kGenerousMs),
                                [&] { return texts.size() >= count; });
    }
    size_t Count() {
        std::lock_guard<std::mutex> lock(mutex);
        return texts.size();
    }
};

Inbox* g_fnInbox = nullptr;
void FnSubscriber(const char* data, int length, void* user) {
    g_fnInbox->Put(data, length, user);
}

Subscriber* InboxSubscriber(Inbox& inbox) {
    auto* subscriber = new Subscriber;
    subscriber->key = &inbox;
    subscriber->callback = [&inbox](const char* data, int length) { inbox.Put(data, length); };
    return subscriber;
}

class Hub : public DeviceTest {
protected:
    // Waits until the scheduler has begun `passes` more passes; each waits for the bus once.
    static bool WaitForPasses(uint64_t passes) {
        const uint64_t target = nvx::CallCount("JQ_SDK_MSG_WaitForEvent") + passes;
        return Eventually([&] { return nvx::CallCount("JQ_SDK_MSG_WaitForEvent") >= target; });
    }
    // The hub's traces (level 3) of `func`, with the addresses of handle, record and data as P.
    static std::vector<std::string> Traces(const std::string& func) {
        std::vector<std::string> traces;
        for (const nvx::LogLine& l : nvx::CapturedLogs()) {
            if (l.func == func && l.level == 3 && l.module == "TRUCK" &&
                l.file == "truck_TruckCBB/CM/src/HC") {
                traces.push_back(
                    std::regex_replace(l.text, std::regex("(handle|ev|data) 0x[0-9a-f]+"), "$1 P"));
            }
        }
        return traces;
    }
    static unsigned int PoolLive() { return JQ_CBB_Mempool::GetInstance(4096)->GetAddressMapSize(); }
};

}  // namespace

TEST_F(Hub, LocalEventsReachEverySubscriberInOrderAsTheHubsOwnCopyAndBadInputIsRefused) {
    nvx::SetBusWaitsInstant(true);
    const auto made = std::chrono::steady_clock::now();
    MsgManager hub;
    Inbox fnInbox, callbackInbox, top;
    g_fnInbox = &fnInbox;
    // Without a subscriber a local event is dropped before its number is looked at.
    EXPECT_EQ(hub.Publish(1, 0x10100, "lost", 4, MSG_TYPE_SEND, 0), 0);
    EXPECT_EQ(hub.Publish(1, 0x7FFFFFFF, "lost", 4, MSG_TYPE_SEND, 0), 0);
    EXPECT_TRUE(Traces("Publish").empty()) << "nothing is queued";

    ASSERT_EQ(hub.Subscribe(0x10100, FnSubscriber), 0);
    ASSERT_EQ(hub.Subscribe(0x10100, InboxSubscriber(callbackInbox)), 0);
    EXPECT_EQ(nvx::CallCount("JQ_SDK_MSG_Register"), 0u) << "local events are not the bus's";
    const unsigned int poolBefore = PoolLive();
    char payload[] = "first";
    ASSERT_EQ(hub.Publish(1, 0x10100, payload, 5, MSG_TYPE_SEND, 0), 0);
    memset(payload, 'X', 5);  // the hub delivers its own copy
    ASSERT_EQ(hub.Publish(2, 0x10100, payload, 0, MSG_TYPE_SEND, 0), 0);
    ASSERT_EQ(hub.Publish(3, 0x10100, "third", 5, MSG_TYPE_RESPONSE, 0), 0);
    ASSERT_EQ(hub.Publish(4, 0x10100, nullptr, 2, MSG_TYPE_SEND, 0), 0);
    ASSERT_TRUE(fnInbox.WaitFor(4));
    ASSERT_TRUE(callbackInbox.WaitFor(4));
    EXPECT_GE(std::chrono::steady_clock::now() - made, std::chrono::seconds(1))
        << "the scheduler settles first";
    const std::vector<std::string> expected{"first", "", "third", std::string(2, '\0')};
    EXPECT_EQ(fnInbox.texts, expected);
    EXPECT_EQ(callbackInbox.texts, expected);
    EXPECT_EQ(fnInbox.nullData, 1) << "a length of 0 delivers no data";
    EXPECT_EQ(fnInbox.withUser, 0);
    EXPECT_EQ(fnInbox.threads[0], "HCt");
    EXPECT_EQ(nvx::BusWaitTimeouts(nvx::kMsgHandleClient), std::set<int>{100})
        << "each pass waits for the bus";
    EXPECT_TRUE(Eventually([&] { return PoolLive() == poolBefore; })) << "records and copies go back";
    EXPECT_EQ(hub.Publish(5, 0x10100, payload, 3110401, MSG_TYPE_SEND, 0), -1) << "the pool has no such copy";
    EXPECT_TRUE(Logged("TRUCK", 0, "Publish [0x10100] fail! Mempool Alloc fail!\n"));
    EXPECT_EQ(PoolLive(), poolBefore) << "the record went back";
    if (RefusingMalloc()) {  // not even a record
        JQ_CBB_Mempool& pool = *JQ_CBB_Mempool::GetInstance(4096);
        testing::internal::CaptureStderr();
        void* fillers = FillPool(pool);
        const unsigned int filled = PoolLive();
        EXPECT_EQ(hub.Publish(6, 0x10100, payload, 1, MSG_TYPE_SEND, 0), -1);
        EXPECT_EQ(PoolLive(), filled);
        FreeFillers(pool, fillers);
        testing::internal::GetCapturedStderr();
        EXPECT_TRUE(Logged("TRUCK", 0, "Publish [0x10100] fail! leak of memory!\n"));
    }

    EXPECT_EQ(hub.Publish(0, 0xFFF, "abc", 3, MSG_TYPE_SEND, 0), -1);
    EXPECT_TRUE(Logged("TRUCK", 0, "HC-param invalid!! [event 0xfff, length 3]\n"));
    ASSERT_EQ(hub.Subscribe(0x7FFFFFFF, InboxSubscriber(top)), 0);
    ASSERT_EQ(hub.Subscribe(0x7FFFFFFE, InboxSubscriber(top)), 0);
    EXPECT_EQ(hub.Publish(0, 0x7FFFFFFF, "abc", 3, MSG_TYPE_SEND, 0), -1);
    EXPECT_TRUE(Logged("TRUCK", 0, "HC-param invalid!! [event 0x7fffffff, length 3]\n"));
    EXPECT_EQ(hub.Publish(0, 0x7FFFFFFE, "top", 3, MSG_TYPE_SEND, 0), 0);
    EXPECT_EQ(hub.Publish(0, 0x2000, "abc", -1, MSG_TYPE_SEND, 0), -1);
    Subscriber* twice = InboxSubscriber(fnInbox);
    ASSERT_EQ(hub.Subscribe(0x10201, twice), 0);
    EXPECT_EQ(hub.Subscribe(0x10202, twice), -1) << "the hub would delete it twice";
    EXPECT_EQ(hub.Subscribe(0x10202, static_cast<Subscriber*>(nullptr)), -1);
    EXPECT_EQ(hub.Subscribe(0x10202, static_cast<void (*)(const char*, int, void*)>(nullptr)), -1);
    EXPECT_EQ(nvx::ClientDepthAsked(nvx::kMsgHandleClient), 30u) << "the hub's bus handle";

    ASSERT_EQ(hub.Subscribe(0x10200, FnSubscriber), 0);
    std::thread([&] { hub.UnSubscribe(0x10200, reinterpret_cast<void*>(FnSubscriber)); }).join();
    ASSERT_EQ(hub.Publish(0, 0x10200, "kept", 4, MSG_TYPE_SEND, 0), 0);
    ASSERT_TRUE(fnInbox.WaitFor(5));
    hub.UnSubscribe(0x10200, reinterpret_cast<void*>(FnSubscriber));
    ASSERT_EQ(hub.Publish(0, 0x10200, "gone", 4, MSG_TYPE_SEND, 0), 0);
    EXPECT_TRUE(top.WaitFor(1));
    EXPECT_EQ(top.texts, std::vector<std::string>{"top"});
    EXPECT_EQ(Traces("Publish").size(), 6u);
}

TEST_F(Hub, BusEventsGoOutByTypeAndComeInThroughOneRegistrationPerEvent) {
    nvx::SetBusWaitsInstant(true);
    MsgManager hub;
    CMsgClientManage listener("listener", 30, nullptr);
    Inbox remote, local, first, second, again;
    listener.MSGEventRegister(1, 0x3001, &remote, &Inbox::OnEvent);
    ASSERT_EQ(hub.Subscribe(0x3002, InboxSubscriber(local)), 0);

    // Sessions 5 to 11: every type on one event, a local delivery, the lowest and highest bus events.
    const int events[] = {0x3001, 0x3001, 0x3001, 0x3002, 0x3001, 0x1000, 0x100FF};
    // The numbers callers put in the type: 0 send, 1 request, 2 response, 3 local.
    const int types[] = {0, 1, 2, 3, 7, 0, 1};
    std::vector<std::string> traces;
    for (int i = 0; i < 7; ++i) {
        const std::string text = "m" + std::to_string(i);
        EXPECT_EQ(hub.Publish(5 + i, events[i], text.data(), 2, static_cast<MSG_TYPE_E>(types[i]), 0x11 + i),
                  0);
        char trace[128];
        snprintf(trace, sizeof(trace),
                 "handle P, ev P, sesssion %d, event %#x, response %d, data P, length 2, source %#x\n", 5 + i,
                 events[i], types[i] != 0 ? 1 : 0, 0x11 + i);
        traces.push_back(trace);
    }
    ASSERT_TRUE(nvx::WaitForSent([](const nvx::BusMessage& m) { return m.session == 11; }, kGenerousMs));
    EXPECT_EQ(Traces("schedule"), traces);
    const std::vector<nvx::BusMessage> sent = nvx::SentMessages();
    ASSERT_EQ(sent.size(), 6u) << "the local one stays in the process";
    for (size_t i = 0; i < sent.size(); ++i) {
        const int at = static_cast<int>(i < 3 ? i : i + 1);
        EXPECT_EQ(
            std::make_tuple(sent[i].session, sent[i].event, sent[i].flag, sent[i].response, sent[i].source),
            std::make_tuple(5 + at, events[at], at == 2 ? 0 : types[at] != 0, at == 2, 0x11u + at));
    }
    EXPECT_EQ(local.texts, std::vector<std::string>{"m3"});
    EXPECT_EQ(listener.MSGWaitForEvent(0), 4);
    EXPECT_EQ(remote.texts, (std::vector<std::string>{"m0", "m1", "m2", "m4"}));

    // Bus messages in: one registration for the event, made with its first subscriber; the
    // highest bus event is one.
    ASSERT_EQ(hub.Subscribe(0x100FF, InboxSubscriber(first)), 0);
    ASSERT_EQ(hub.Subscribe(0x100FF, InboxSubscriber(second)), 0);
    EXPECT_EQ(nvx::CallCount("JQ_SDK_MSG_Register"), 2u);
    EXPECT_EQ(nvx::InjectBusEvent(0x100FF, "in", 2), 1);
    CMsgClientManage sender("sender", 30, nullptr);
    sender.MSGSendMessage(0, 0x100FF, 0, "cm", 2, 1);
    ASSERT_TRUE(first.WaitFor(2));
    ASSERT_TRUE(second.WaitFor(2));
    EXPECT_EQ(first.texts, (std::vector<std::string>{"in", "cm"}));

    // The first subscriber goes; the registration that was made with it carries on.
    hub.UnSubscribe(0x100FF, &first);
    EXPECT_EQ(nvx::CallCount("JQ_SDK_MSG_Unregister"), 0u);
    EXPECT_EQ(nvx::InjectBusEvent(0x100FF, "after", 5), 1);
    ASSERT_TRUE(second.WaitFor(3));
    ASSERT_TRUE(WaitForPasses(2));
    EXPECT_EQ(first.Count(), 2u);

    hub.UnSubscribe(0x100FF, &second);
    EXPECT_EQ(nvx::CallCount("JQ_SDK_MSG_Unregister"), 1u);
    EXPECT_EQ(nvx::InjectBusEvent(0x100FF, "gone", 4), 0);
    hub.UnSubscribe(0x4002, &second);  // none to remove: unregistered all the same
    EXPECT_EQ(nvx::CallCount("JQ_SDK_MSG_Unregister"), 2u);
    ASSERT_EQ(hub.Subscribe(0x100FF, InboxSubscriber(again)), 0);
    EXPECT_EQ(nvx::InjectBusEvent(0x100FF, "back", 4), 1);
    EXPECT_TRUE(again.WaitFor(1));

    // One that leaves from inside its own call is deleted as soon as that delivery ends.
    auto token = std::make_shared<int>(0);
    const std::weak_ptr<int> held = token;
    auto* leaving = new Subscriber;
    leaving->key = leaving;
    leaving->callback = [&hub, leaving, token](const char*, int) {
        leaving->tid = pthread_self();  // the scheduler's thread removes it
        hub.UnSubscribe(0x3003, leaving);
    };
    token.reset();
    ASSERT_EQ(hub.Subscribe(0x3003, leaving), 0);
    EXPECT_EQ(nvx::InjectBusEvent(0x3003, "bye", 3), 1);
    EXPECT_TRUE(Eventually([&] { return held.expired(); }));
}

TEST_F(Hub, StressPublishersOnSeveralThreadsWithSubscribersThatChurnFromTheirCall) {
    nvx::StopLogCapture();  // the hub logs every event twice
    nvx::SetBusWaitsInstant(true);
    MsgManager hub;
    const int relayEvent = 0x10401, onceEvent = 0x10403, kThreads = 4, kRelayed = 600;
    std::atomic<int> sent{0}, relayed{0}, onceCalls{0};

    // Each relayed event subscribes, from the scheduler thread, a one-shot subscriber and
    // publishes to it. The one-shot removes itself and then still uses what its call holds.
    Subscriber* relay = new Subscriber;
    relay->callback = [&](const char* data, int length) {
        ++relayed;
        auto* once = new Subscriber;
        once->key = once;
        std::atomic<int>* calls = &onceCalls;
        once->callback = [&hub, once, calls, onceEvent](const char*, int) {
            hub.UnSubscribe(onceEvent, once);
            ++*calls;
        };
        hub.Subscribe(onceEvent, once);
        hub.Publish(0, onceEvent, data, length, MSG_TYPE_SEND, 0);
    };
    ASSERT_EQ(hub.Subscribe(relayEvent, relay), 0);

    std::vector<std::thread> publishers;
    for (int t = 0; t < kThreads; ++t) {
        publishers.emplace_back([&, t] {
            for (int i = 0; i < kRelayed; ++i) {
                // Well inside the queue's bound, which would refuse the relay's own publishes.
                while (sent.load() - relayed.load() >= 256) {
                    std::this_thread::yield();
                }
                ++sent;
                const std::string text = std::to_string(t) + ":" + std::to_string(i);
                // A subscription of this thread that comes and goes while deliveries run.
                hub.Subscribe(relayEvent, new Subscriber);
                hub.Publish(t, relayEvent, text.data(), static_cast<int>(text.size()), MSG_TYPE_SEND, 0);
                hub.UnSubscribe(relayEvent, nullptr);
            }
        });
    }
    for (std::thread& publisher : publishers) {
        publisher.join();
    }
    const int total = kThreads * kRelayed;
    EXPECT_TRUE(Eventually([&] { return onceCalls.load() == total; }, 120000));
    EXPECT_EQ(onceCalls.load(), total) << "each one-shot subscriber is called exactly once";
}

TEST_F(Hub, HeartbeatAndWheelCountTimestampSecondsFromZeroNotTheWallClock) {
    int64_t wall = 1767323045000000;
    nvx::HoldWallClockMicros(wall);
    BTime* clock = BTime::GetInstance();  // made now, under a held wall clock: it stays at 0
    ASSERT_TRUE(Eventually([&] { return clock->running.load(); }));  // its first reading is taken
    if (clock->stampMicros.load() >= 1000000) {
        GTEST_SKIP() << "the clock has counted already: run this test in a process of its own";
    }
    // Moves the timestamp to `second` in steps the clock accepts.
    auto advanceTo = [&](uint64_t second) {
        for (uint64_t stamp = clock->stampMicros.load(); stamp < second * 1000000;) {
            const uint64_t step = std::min<uint64_t>(500000, second * 1000000 - stamp);
            wall += static_cast<int64_t>(step);
            stamp += step;
            nvx::HoldWallClockMicros(wall);
            ASSERT_TRUE(Eventually([&] { return clock->stampMicros.load() == stamp; }));
        }
    };
    TimeWheel* wheel = TimeWheel::GetInstance();
    const uint32_t shifts0 = wheel->GetCurrent();
    auto shifts = [&] { return wheel->GetCurrent() - shifts0; };

    // Ten seconds before the hub exists still count for its first pass.
    advanceTo(10);
    Flag entered, released;
    MsgManager hub;
    RaiseOnExit releaser{released};
    ASSERT_TRUE(WaitForPasses(2));  // the second begins once the first has shifted
    EXPECT_EQ(shifts(), 10u);
    const auto passesFrom = std::chrono::steady_clock::now();
    ASSERT_TRUE(WaitForPasses(3));
    EXPECT_GE(std::chrono::steady_clock::now() - passesFrom, std::chrono::milliseconds(200))
        << "100 ms a wait";
    advanceTo(15);
    wall += 999999;  // one step short of the sixteenth second
    nvx::HoldWallClockMicros(wall);
    ASSERT_TRUE(Eventually([&] { return clock->stampMicros.load() == 16 * 1000000 - 1; }));
    ASSERT_TRUE(WaitForPasses(2));
    EXPECT_EQ(nvx::WatchdogFeedCount(nvx::kMsgHandleClient), 0u);
    EXPECT_EQ(shifts(), 15u);

    advanceTo(16);
    EXPECT_TRUE(nvx::WaitForWatchdogFeeds(nvx::kMsgHandleClient, 1, kGenerousMs));
    EXPECT_TRUE(Logged("TRUCK", 0, "HC Feed Watch-Dog\n"));
    advanceTo(31);
    ASSERT_TRUE(WaitForPasses(2));
    EXPECT_EQ(nvx::WatchdogFeedCount(nvx::kMsgHandleClient), 1u);
    advanceTo(32);
    EXPECT_TRUE(nvx::WaitForWatchdogFeeds(nvx::kMsgHandleClient, 2, kGenerousMs));
    EXPECT_TRUE(Eventually([&] { return shifts() == 32u; })) << "the beat goes out before the shifts";

    // A pass held up in a subscriber for three timestamp seconds shifts three times at its end.
    Subscriber* slow = new Subscriber;
    slow->callback = [&](const char*, int) {
        entered.Raise();
        released.WaitForever();
    };
    hub.Subscribe(0x10500, slow);
    hub.Publish(0, 0x10500, nullptr, 0, MSG_TYPE_SEND, 0);
    ASSERT_TRUE(entered.Wait());
    advanceTo(35);
    released.Raise();
    EXPECT_TRUE(Eventually([&] { return shifts() == 35u; }));
    ASSERT_TRUE(WaitForPasses(2));
    EXPECT_EQ(shifts(), 35u);
}

// The queue is filled from inside a delivery, so the scheduler takes nothing off it meanwhile.
TEST_F(Hub, APublisherThatOutrunsTheSchedulerIsRefusedAndASubscriberCannotReachTheWheel) {
    nvx::SetBusWaitsInstant(true);
    MsgManager hub;
    std::atomic<size_t> delivered{0};
    std::vector<int> results;  // the filler's, until `filled`
    Flag filled;
    std::chrono::steady_clock::time_point lastAt;
    uint64_t passesAt = 0;
    auto* counter = new Subscriber;
    counter->callback = [&](const char*, int) {
        lastAt = std::chrono::steady_clock::now();
        passesAt = nvx::CallCount("JQ_SDK_MSG_WaitForEvent");
        ++delivered;
    };
    ASSERT_EQ(hub.Subscribe(0x10801, counter), 0);
    auto* filler = new Subscriber;
    filler->callback = [&](const char*, int) {
        for (size_t i = 0; i <= HC_MAX_QUEUED; ++i) {
            results.push_back(hub.Publish(7, 0x10801, "e", 1, MSG_TYPE_SEND, 0x21));
        }
        filled.Raise();
    };
    ASSERT_EQ(hub.Subscribe(0x10800, filler), 0);
    ASSERT_EQ(hub.Publish(0, 0x10800, nullptr, 0, MSG_TYPE_SEND, 0), 0);
    ASSERT_TRUE(filled.Wait());
    EXPECT_EQ(std::count(results.begin(), results.end(), 0), 1024);
    EXPECT_EQ(results.back(), -1);
    EXPECT_TRUE(Logged("TRUCK", 1, "Publish [0x10801] fail! queue full!\n") &&
                !Logged("TRUCK", 0, "Publish [0x10801] fail! leak of memory!\n"));
    // Each queued event is traced with the queue's length, the one that started the delivery
    // first; it had been taken off the queue before the filler ran.
    const std::vector<std::string> traces = Traces("Publish");
    ASSERT_EQ(traces.size(), HC_MAX_QUEUED + 1);
    EXPECT_EQ(traces[0],
              "handle P, ev P, sesssion 0, event 0x10800, data (nil), length 0, source 0, events size 1\n");
    for (size_t i = 1; i <= HC_MAX_QUEUED; ++i) {
        ASSERT_EQ(traces[i],
                  "handle P, ev P, sesssion 7, event 0x10801, data P, length 1, source 0x21, events size " +
                      std::to_string(i) + "\n");
    }
    EXPECT_TRUE(Eventually([&] { return delivered.load() == HC_MAX_QUEUED; }));
    // Only the pass that took the last one rests before the next, though the bus answers at once.
    EXPECT_TRUE(Eventually([&] { return nvx::CallCount("JQ_SDK_MSG_WaitForEvent") >= passesAt + 2; }));
    EXPECT_GE(std::chrono::steady_clock::now() - lastAt, std::chrono::milliseconds(100));

    // A subscriber runs under the hub's lock and a timer under the wheel's: one reaching for
    // the wheel while the other publishes would leave both waiting for good.
    TimeWheel wheel;
    Flag subscriberIn, timerIn, shifted;
    bool refused = false;
    auto* subscriber = new Subscriber;
    subscriber->callback = [&](const char*, int) {
        subscriberIn.Raise();
        timerIn.Wait();
        refused = wheel.AddTimer(0, 1, [] {}) == nullptr;
    };
    ASSERT_EQ(hub.Subscribe(0x10900, subscriber), 0);
    wheel.AddTimer(0, 1, [&] {
        timerIn.Raise();
        subscriberIn.Wait();
        hub.Publish(0, 0x10901, "t", 1, MSG_TYPE_SEND, 0);
    });
    ASSERT_EQ(hub.Publish(0, 0x10900, nullptr, 0, MSG_TYPE_SEND, 0), 0);
    std::thread shifter([&] {
        wheel.TimerShift();
        shifted.Raise();
    });
    if (!shifted.Wait()) {
        fprintf(stderr, "the hub and the wheel wait for each other's lock for good\n");
        _exit(1);  // nothing could end either thread, nor the hub's destructor
    }
    shifter.join();
    EXPECT_TRUE(refused) << "the wheel refuses a thread inside a hub delivery";
    EXPECT_TRUE(Logged("TRUCK", 0, "AddTimer refused inside a hub delivery\n"));
}

TEST_F(Hub, AFailedConstructionLeavesNoThreadAndAnEarlyDestructionJoinsTheScheduler) {
    nvx::SetMsgInitFails(true);
    try {
        MsgManager hub;
        ADD_FAILURE() << "constructed without a message handle";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "init failed!");
    }
    char nullText[32];
    snprintf(nullText, sizeof(nullText), "mMsgHandle %p\n", static_cast<void*>(nullptr));
    EXPECT_TRUE(Logged("", 0, nullText));
    EXPECT_TRUE(ThreadsNamed("HCt", 0));

    nvx::SetMsgInitFails(false);
    const unsigned int poolBefore = PoolLive();
    Inbox never;
    for (int i = 0; i < 20; ++i) {
        MsgManager hub;  // gone long before its loop would begin, its queue undelivered
        hub.Subscribe(0x10100, InboxSubscriber(never));
        hub.Publish(0, 0x10100, "queued", 6, MSG_TYPE_SEND, 0);
    }
    EXPECT_EQ(PoolLive(), poolBefore) << "the records and copies went back to the pool";
    EXPECT_EQ(never.Count(), 0u);
    EXPECT_TRUE(ThreadsNamed("HCt", 0));
    EXPECT_EQ(nvx::CallCount("JQ_SDK_MSG_WaitForEvent"), 0u);
    EXPECT_EQ(nvx::CallCount("JQ_SDK_MSG_Uninitialize"), 20u);
}

// In a process of its own: the service runs without the hub's threads, the first GetInstance
// starts them (the scheduler pinned to the last processor), and exit ends them.
static int SingletonLifeInAFreshProcess() {
    tag_ServiceParam param;
    param.ucRunning.store(0);
    if (JQ_SDK_Service_Start(&param) != 0 || !nvx::WaitForWatchdogFeeds("truckbusiness.02", 3, kGenerousMs) ||
        CountThreads("HCt") + CountThreads("BTime") != 0) {
        return 1;
    }
    JQ_SDK_Service_Stop(&param);
    if (MsgManager::GetInstance() != MsgManager::GetInstance() ||
        !Eventually([] { return CountThreads("HCt") == 1 && CountThreads("BTime") == 1; })) {
        return 2;
    }
    // The scheduler names itself before it pins itself to the last processor, so the pin is
    // waited for: a slow machine (or an emulator) can show the name first.
    const long processors = sysconf(_SC_NPROCESSORS_CONF);
    const bool pinned = Eventually([processors] {
        for (const auto& task : Tasks()) {
            cpu_set_t set;
            if (task.second == "HCt" && processors > 1 &&
                (sched_getaffinity(task.first, sizeof(set), &set) != 0 || CPU_COUNT(&set) != 1 ||
                 !CPU_ISSET(processors - 1, &set))) {
                return false;
            }
        }
        return true;
    });
    return pinned ? 0 : 3;
}

TEST_F(Hub, TheSingletonsThreadsStartWithTheFirstUseAndEndWithTheProcess) {
#if defined(__arm__)
    // Re-executing the binary fails where it runs under user-mode emulation; forking needs a
    // process in which no earlier test has made the singletons, as ctest gives each test.
    if (CountThreads("BTime") != 0) {
        GTEST_SKIP() << "the singletons exist already: run this test in a process of its own";
    }
    GTEST_FLAG_SET(death_test_style, "fast");
#else
    GTEST_FLAG_SET(death_test_style, "threadsafe");
#endif
    EXPECT_EXIT(exit(SingletonLifeInAFreshProcess()), testing::ExitedWithCode(0), "");
}
