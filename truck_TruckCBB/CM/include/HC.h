// The hub and the timestamp clock of the common building blocks (the timer wheel is in
// HCTimeWheel.h). Businesses reach both through GetInstance(); nothing creates them before a
// business first asks for the hub, so their threads ("HCt", "BTime") exist only from then on.
//
// Lock order: wheel, then hub, then pool. A timer's call may publish to the hub, and the
// scheduler shifts the wheel only after releasing the hub's lock; a subscriber, which runs
// under the hub's lock, is refused by the wheel (AddTimer gives null) and cannot add a timer.
#ifndef TRUCK_HC_H
#define TRUCK_HC_H

#include <pthread.h>
#include <stdint.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "TruckLockCheck.h"
#include "HCTimeWheel.h"
#include "JQ_SDK_MSG.h"

// How the scheduler hands on a queued bus event; local events do not look at it. The type is
// fixed to int so that any number a caller puts in it is a valid value: every value not named
// here sends with the bus's response flag set.
enum MSG_TYPE_E : int {
    MSG_TYPE_SEND = 0,      // plain send on the bus
    MSG_TYPE_REQUEST = 1,   // send with the response flag
    MSG_TYPE_RESPONSE = 2,  // answer on the bus
    MSG_TYPE_LOCAL = 3,     // deliver to this process's subscribers of the bus event only
};

// One subscription. Made with new by the business; the hub owns it once Subscribe took it and
// deletes it on UnSubscribe or with the hub.
struct Subscriber {
    // Only the thread that subscribed can remove the subscription. Set by the constructing
    // thread; a business that subscribes from another thread sets it to that thread.
    pthread_t tid = pthread_self();
    int event = 0;
    void* key = nullptr;                             // what UnSubscribe looks for
    std::function<void(const char*, int)> callback;  // called with (data, length) when fn is null
    void (*fn)(const char* data, int length, void* user) = nullptr;  // called with user null
};

// Events up to this number are bus events, the ones above it local events.
const int HC_LAST_BUS_EVENT = 0x100FF;
// Publish takes events in this range only.
const int HC_FIRST_EVENT = 0x1000;
const int HC_LAST_EVENT = 0x7FFFFFFE;
// The scheduler hands out one event per pass and waits up to 100 ms for the bus after it, so a
// publisher faster than that would grow the queue, and the pool with it, without end.
const size_t HC_MAX_QUEUED = 1024;

// The in-process publish/subscribe hub. Publishers queue events from any thread; the scheduler
// thread "HCt" hands them out one per pass, in order: to the local subscribers, or to the bus
// as a send or a response. It also delivers the bus messages of subscribed bus events, feeds
// the platform heartbeat every 16 s and shifts the timer wheel once per timestamp second.
class MsgManager {
public:
    static MsgManager* GetInstance();

    // The system uses the singleton; a hub of its own suits a test or a benchmark. Throws
    // std::runtime_error("init failed!") when the platform gives no message handle, and then
    // leaves no thread behind.
    MsgManager();
    // Stops and joins the scheduler, also when its loop has not begun; queued events are
    // dropped undelivered.
    virtual ~MsgManager();
    MsgManager(const MsgManager&) = delete;
    MsgManager& operator=(const MsgManager&) = delete;

    // 0, or -1 for a null subscriber or one the hub already holds.
    int Subscribe(int event, Subscriber* subscriber);
    // 0, or -1 for a null function.
    int Subscribe(int event, void (*fn)(const char*, int, void*));
    // Removes and deletes the calling thread's subscriptions of `event` with `key`. Always 0.
    int UnSubscribe(int event, void* key);
    // Queues a copy of `length` bytes of `data` (zeros when data is null). 0, or -1 for an
    // event outside HC_FIRST_EVENT..HC_LAST_EVENT, a negative length, a queue that holds
    // HC_MAX_QUEUED events or a pool that has no memory. A local event without subscribers is
    // dropped with 0.
    int Publish(int session, int event, const char* data, int length, MSG_TYPE_E type, int source);

    // The scheduler loop; returns once the hub is being destroyed.
    int schedule();
    // A bus message of a registered event; `user` is the value given at registration.
    void do_callback(const char* data, int length, void* user);

private:
    // A queued event, in pool memory.
    struct Event {
        int32_t session;
        int32_t event;
        char* data;  // the hub's copy, null when length is 0
        int32_t length;
        int32_t source;
        MSG_TYPE_E type;
    };
    static_assert(alignof(Event) <= JQ_CBB_Mempool::mAlignment, "pool memory suits an event record");
    // The platform's user value for a registered bus event: kept until the hub goes, so that it
    // outlives every registration whatever is unsubscribed meanwhile.
    struct BusRegistration {
        MsgManager* hub;
        int event;
    };
    typedef std::unordered_multimap<int, Subscriber*> SubscriberMap;

    // The plain function the platform calls for a registered bus event.
    static void BusCallback(const char* data, int length, void* user);
    void SchedThreadEntry();
    bool Rest(int milliseconds);  // false once the hub is stopping
    uint32_t StampSeconds() const;
    void Dispatch(Event* ev);
    void CallSubscribers(const SubscriberMap& subscribers, int event, const char* data, int length);
    void Call(Subscriber* subscriber, const char* data, int length);
    void Retire(Subscriber* subscriber);
    void FreeEvent(Event* ev);
    void ShiftWheel(uint32_t now);

    SubscriberMap localSubscribers;
    SubscriberMap busSubscribers;
    std::deque<Event*> events;
    std::thread* schedThread;
    JQ_MSG_HANDLE mMsgHandle;
    TruckRecursiveMutex mutex;
    std::atomic<bool> running;
    uint32_t lastHeartbeat;  // scheduler thread only
    uint32_t lastShift;      // scheduler thread only

    // Under mutex: every subscriber the hub holds, the ones unsubscribed during a delivery (freed
    // when it ends), how deep deliveries are nested, and the registrations of bus events.
    std::unordered_set<Subscriber*> owned;
    std::vector<Subscriber*> retired;
    int delivering;
    std::map<int, BusRegistration> busRegistrations;

    // Guard the scheduler's start and its rests, so that the destructor can cut them short.
    std::mutex stateMutex;
    std::condition_variable stateChanged;
    bool stopping;
};

// A clock that counts only plausible forward steps of the wall clock: it runs at the pace of
// real time and does not jump when the device's date and time are set. The hub's scheduler
// reads stampMillis to pace the heartbeat and the wheel.
class BTime {
public:
    static BTime* GetInstance();

    // The system uses the singleton; a clock of its own suits a test.
    BTime();
    // Stops and joins the sampling thread, also before it has begun to sample.
    virtual ~BTime();
    BTime(const BTime&) = delete;
    BTime& operator=(const BTime&) = delete;

    // gettimeofday in microseconds since 1970.
    static int64_t GetMicroOfSecond();

    // One writer (the sampling thread), any readers. Each counter is one indivisible 64-bit
    // store and load, also on the 32-bit target.
    std::atomic<bool> running;  // raised by the sampling thread after its first reading
    std::thread* stampThread;
    std::atomic<uint64_t> stampMicros;  // sum of the accepted steps
    std::atomic<uint64_t> stampMillis;  // stampMicros / 1000
    std::atomic<uint64_t> wallMicros;   // latest wall-clock reading
    std::atomic<uint64_t> wallMillis;   // wallMicros / 1000

private:
    void SampleLoop();

    std::atomic<bool> stopping;
};

#endif
