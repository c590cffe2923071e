// The message hub: one queue of published events, handed out by the scheduler thread "HCt".
//
// What always holds, under mutex (recursive: subscribers are called with it held and may
// publish, subscribe and unsubscribe from inside their call; lock order wheel, hub, pool: the
// scheduler takes the wheel's lock only after releasing this one, and the wheel refuses a
// thread inside a delivery):
// - events is first in, first out, and never longer than HC_MAX_QUEUED. Each entry is an
//   Event record from the pool, and its data is the hub's own copy from the pool (null when
//   length is 0); both go back to the pool once the event is handed out, or with the hub.
// - Every subscriber in localSubscribers (events above HC_LAST_BUS_EVENT) and busSubscribers
//   is in owned, exactly once, under the event it carries; the hub deletes each one once.
//   One unsubscribed while a delivery runs moves to retired and is deleted when the
//   delivery ends, since it may be the one being called.
// - A bus event has subscribers in busSubscribers exactly when it is registered with the
//   platform; its user value there is its entry in busRegistrations, which is never erased.
#include "HC.h"

#include <sched.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <stdexcept>

#include "CommonDefine.h"
#include "cbb_mempool.h"

namespace {

const int kBusWaitMs = 100;
const int kSettleMs = 1000;           // before the loop's first pass
const int kRestAfterLastMs = 100;     // after the pass that took the last queued event
const uint32_t kHeartbeatEvery = 15;  // seconds; a beat goes out when more have passed

JQ_CBB_Mempool* Pool() {
    return JQ_CBB_Mempool::GetInstance(4096);
}

}  // namespace

MsgManager* MsgManager::GetInstance() {
    static MsgManager instance;
    return &instance;
}

MsgManager::MsgManager()
    : schedThread(nullptr),
      mMsgHandle(nullptr),
      running(false),
      lastHeartbeat(0),
      lastShift(0),
      delivering(0),
      stopping(false) {
    mMsgHandle = JQ_SDK_MSG_Initialize(30, 1);
    JQ_LOG_Format(0, "mMsgHandle %p\n", mMsgHandle);
    // Checked before the scheduler starts, so a failed construction leaves no thread behind.
    if (mMsgHandle == nullptr) {
        throw std::runtime_error("init failed!");
    }
    try {
        // The scheduler uses these until the hub's destructor has joined it. Making them now,
        // before the hub itself is complete, has them destroyed after it at process exit.
        Pool();
        TimeWheel::GetInstance();
        BTime::GetInstance();
        schedThread = new std::thread(&MsgManager::SchedThreadEntry, this);
    } catch (...) {
        JQ_SDK_MSG_Uninitialize(mMsgHandle);
        throw;
    }
}

MsgManager::~MsgManager() {
    {
        std::lock_guard<std::mutex> lock(stateMutex);
        stopping = true;
        running.store(false);
    }
    stateChanged.notify_all();
    if (schedThread != nullptr) {
        // A subscriber that ends the process runs this on the scheduler thread itself.
        if (schedThread->get_id() == std::this_thread::get_id()) {
            schedThread->detach();
        } else if (schedThread->joinable()) {
            schedThread->join();
        }
        delete schedThread;
        schedThread = nullptr;
    }
    if (mMsgHandle != nullptr) {
        JQ_SDK_MSG_Uninitialize(mMsgHandle);
    }
    std::lock_guard<TruckRecursiveMutex> lock(mutex);
    for (Event* ev : events) {
        FreeEvent(ev);
    }
    events.clear();
    for (Subscriber* subscriber : owned) {
        delete subscriber;
    }
    for (Subscriber* subscriber : retired) {
        delete subscriber;
    }
}

void MsgManager::SchedThreadEntry() {
    TRUCK_THREAD_INFO_PRINT("HCt");
    const long processors = sysconf(_SC_NPROCESSORS_CONF);
    if (processors > 1 && processors <= CPU_SETSIZE) {
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(static_cast<int>(processors - 1), &set);
        pthread_setaffinity_np(pthread_self(), sizeof(set), &set);
    }
    schedule();
}

bool MsgManager::Rest(int milliseconds) {
    std::unique_lock<std::mutex> lock(stateMutex);
    stateChanged.wait_for(lock, std::chrono::milliseconds(milliseconds), [this] { return stopping; });
    return !stopping;
}

uint32_t MsgManager::StampSeconds() const {
    return static_cast<uint32_t>(BTime::GetInstance()->stampMillis.load() / 1000);
}

int MsgManager::schedule() {
    if (!Rest(kSettleMs)) {
        return 0;
    }
    {
        std::lock_guard<std::mutex> lock(stateMutex);
        if (stopping) {
            return 0;
        }
        running.store(true);
    }
    while (running.load()) {
        size_t waiting = 0;
        {
            std::lock_guard<TruckRecursiveMutex> lock(mutex);
            waiting = events.size();
            if (waiting > 0) {
                Event* ev = events.front();
                events.pop_front();
                TRUCK_LOG(3,
                          "handle %p, ev %p, sesssion %d, event %#x, response %d, data %p, length %d, "
                          "source %#x\n",
                          mMsgHandle, static_cast<void*>(ev), ev->session, ev->event, ev->type != 0 ? 1 : 0,
                          static_cast<void*>(ev->data), ev->length, ev->source);
                Dispatch(ev);
            }
        }
        JQ_SDK_MSG_WaitForEvent(mMsgHandle, kBusWaitMs);
        const uint32_t now = StampSeconds();
        if (now - lastHeartbeat > kHeartbeatEvery) {
            TRUCK_LOG(0, "HC Feed Watch-Dog\n");
            lastHeartbeat = now;
            JQ_SDK_MSG_SendHeartbeat(mMsgHandle);
        }
        ShiftWheel(now);
        if (waiting == 1) {
            Rest(kRestAfterLastMs);
        }
    }
    return 0;
}

void MsgManager::ShiftWheel(uint32_t now) {
    uint32_t due = now - lastShift;
    lastShift = now;
    for (; due > 0; --due) {
        // A timer's exception must not end the scheduler: the rest of the wheel still has to run.
        try {
            TimeWheel::GetInstance()->TimerShift();
        } catch (const std::exception& e) {
            TRUCK_LOG(0, "TimerShift: %s\n", e.what());
        } catch (...) {
            TRUCK_LOG(0, "TimerShift: unknown exception\n");
        }
    }
}

void MsgManager::Dispatch(Event* ev) {
    TRUCK_CHECK(mutex.HeldByThisThread());
    // Whatever a delivery throws, the record and its copy go back to the pool.
    try {
        if (ev->event > HC_LAST_BUS_EVENT) {
            CallSubscribers(localSubscribers, ev->event, ev->data, ev->length);
        } else if (ev->type == MSG_TYPE_RESPONSE) {
            JQ_SDK_MSG_Response(mMsgHandle, ev->session, ev->event, ev->data, ev->length, ev->source);
        } else if (ev->type == MSG_TYPE_LOCAL) {
            CallSubscribers(busSubscribers, ev->event, ev->data, ev->length);
        } else {
            JQ_SDK_MSG_Send(mMsgHandle, ev->session, ev->event, ev->type != 0 ? 1 : 0, ev->data, ev->length,
                            ev->source);
        }
    } catch (const std::exception& e) {
        TRUCK_LOG(0, "event %#x: %s\n", ev->event, e.what());
    }
    FreeEvent(ev);
}

void MsgManager::CallSubscribers(const SubscriberMap& subscribers, int event, const char* data, int length) {
    TRUCK_CHECK(mutex.HeldByThisThread());
    // A call may subscribe (the map may rehash) or unsubscribe, so the delivery walks a copy
    // and skips whoever left meanwhile; a subscriber that joins during it waits for the next.
    std::vector<Subscriber*> called;
    auto range = subscribers.equal_range(event);
    for (auto it = range.first; it != range.second; ++it) {
        called.push_back(it->second);
    }
    ++delivering;
    CHubDeliveryScope inDelivery;  // the wheel refuses this thread until the delivery ends
    for (Subscriber* subscriber : called) {
        if (owned.count(subscriber) != 0 && subscriber->event == event) {
            Call(subscriber, data, length);
        }
    }
    if (--delivering == 0) {
        for (Subscriber* subscriber : retired) {
            delete subscriber;
        }
        retired.clear();
    }
}

void MsgManager::Call(Subscriber* subscriber, const char* data, int length) {
    // One subscriber's exception must not cost the others their delivery, nor the hub its
    // scheduler.
    try {
        if (subscriber->fn != nullptr) {
            subscriber->fn(data, length, nullptr);
        } else if (subscriber->callback) {
            subscriber->callback(data, length);
        }
    } catch (const std::exception& e) {
        TRUCK_LOG(0, "subscriber of event %#x: %s\n", subscriber->event, e.what());
    } catch (...) {
        TRUCK_LOG(0, "subscriber of event %#x: unknown exception\n", subscriber->event);
    }
}

void MsgManager::BusCallback(const char* data, int length, void* user) {
    auto* registration = static_cast<BusRegistration*>(user);
    if (registration != nullptr && registration->hub != nullptr) {
        registration->hub->do_callback(data, length, user);
    }
}

void MsgManager::do_callback(const char* data, int length, void* user) {
    const auto* registration = static_cast<const BusRegistration*>(user);
    if (registration == nullptr) {
        return;
    }
    std::lock_guard<TruckRecursiveMutex> lock(mutex);
    CallSubscribers(busSubscribers, registration->event, data, length);
}

int MsgManager::Subscribe(int event, Subscriber* subscriber) {
    if (subscriber == nullptr) {
        return -1;
    }
    std::lock_guard<TruckRecursiveMutex> lock(mutex);
    // Taking one the hub already holds would have it deleted twice.
    if (owned.count(subscriber) != 0 ||
        std::find(retired.begin(), retired.end(), subscriber) != retired.end()) {
        return -1;
    }
    subscriber->event = event;
    owned.insert(subscriber);
    if (event > HC_LAST_BUS_EVENT) {
        localSubscribers.emplace(event, subscriber);
        return 0;
    }
    if (busSubscribers.count(event) == 0) {
        BusRegistration& registration = busRegistrations[event];
        registration.hub = this;
        registration.event = event;
        JQ_SDK_MSG_Register(mMsgHandle, event, BusCallback, &registration);
    }
    busSubscribers.emplace(event, subscriber);
    return 0;
}

int MsgManager::Subscribe(int event, void (*fn)(const char*, int, void*)) {
    if (fn == nullptr) {
        return -1;
    }
    Subscriber* subscriber = new Subscriber;
    subscriber->tid = pthread_self();
    subscriber->event = event;
    subscriber->key = reinterpret_cast<void*>(fn);
    subscriber->fn = fn;
    if (Subscribe(event, subscriber) != 0) {
        delete subscriber;
        return -1;
    }
    return 0;
}

int MsgManager::UnSubscribe(int event, void* key) {
    const pthread_t self = pthread_self();
    std::lock_guard<TruckRecursiveMutex> lock(mutex);
    SubscriberMap& subscribers = event > HC_LAST_BUS_EVENT ? localSubscribers : busSubscribers;
    auto range = subscribers.equal_range(event);
    for (auto it = range.first; it != range.second;) {
        Subscriber* subscriber = it->second;
        if (pthread_equal(subscriber->tid, self) && subscriber->key == key) {
            it = subscribers.erase(it);
            Retire(subscriber);
        } else {
            ++it;
        }
    }
    if (event <= HC_LAST_BUS_EVENT && subscribers.count(event) == 0) {
        JQ_SDK_MSG_Unregister(mMsgHandle, event);
    }
    return 0;
}

void MsgManager::Retire(Subscriber* subscriber) {
    TRUCK_CHECK(mutex.HeldByThisThread());
    owned.erase(subscriber);
    if (delivering > 0) {
        retired.push_back(subscriber);
        return;
    }
    delete subscriber;
}

int MsgManager::Publish(int session, int event, const char* data, int length, MSG_TYPE_E type, int source) {
    std::lock_guard<TruckRecursiveMutex> lock(mutex);
    if (event > HC_LAST_BUS_EVENT && localSubscribers.count(event) == 0) {
        return 0;
    }
    if (event < HC_FIRST_EVENT || event > HC_LAST_EVENT || length < 0) {
        TRUCK_LOG(0, "HC-param invalid!! [event %#x, length %d]\n", event, length);
        return -1;
    }
    // The publisher has outrun the scheduler: no more pool memory for it.
    if (events.size() >= HC_MAX_QUEUED) {
        TRUCK_LOG(1, "Publish [%#x] fail! queue full!\n", event);
        return -1;
    }
    Event* ev = static_cast<Event*>(Pool()->JQ_CBB_Alloc(sizeof(Event), false));
    if (ev == nullptr) {
        TRUCK_LOG(0, "Publish [%#x] fail! leak of memory!\n", event);
        return -1;
    }
    ev->session = session;
    ev->event = event;
    ev->data = nullptr;
    ev->length = length;
    ev->source = source;
    ev->type = type;
    if (length > 0) {
        ev->data = static_cast<char*>(Pool()->JQ_CBB_Alloc(static_cast<unsigned int>(length), false));
        if (ev->data == nullptr) {
            TRUCK_LOG(0, "Publish [%#x] fail! Mempool Alloc fail!\n", event);
            Pool()->JQ_CBB_Free(ev);
            return -1;
        }
        // Without data the copy is zeros rather than what the pool's memory held before.
        if (data != nullptr) {
            memcpy(ev->data, data, static_cast<size_t>(length));
        } else {
            memset(ev->data, 0, static_cast<size_t>(length));
        }
    }
    events.push_back(ev);
    TRUCK_LOG(3, "handle %p, ev %p, sesssion %d, event %#x, data %p, length %d, source %#x, events size %d\n",
              mMsgHandle, static_cast<void*>(ev), session, event, static_cast<void*>(ev->data), length,
              source, static_cast<int>(events.size()));
    return 0;
}

void MsgManager::FreeEvent(Event* ev) {
    TRUCK_CHECK(mutex.HeldByThisThread());
    if (ev->data != nullptr && ev->length > 0) {
        Pool()->JQ_CBB_Free(ev->data);
    }
    Pool()->JQ_CBB_Free(ev);
}
