// Device signals and the vehicle-bus (CAN) port: the monitors that follow them and the two
// platform threads, one for each, that deliver every record.
//
// What always holds, for each of the two channels: its mutex guards every field. Each queued
// delivery names one user, the callback that user has registered now and its own copy of the
// record. A withdrawn user has no monitor and no queued delivery, and once its withdrawal has
// returned the channel's thread is not calling it. Callbacks run on that thread with no lock
// held, so a callback may register, replace or withdraw any monitor, its own included. The
// channels are never destroyed: a thread is started on the first record of its channel and
// idles on a condition variable for the rest of the process, so nothing has to join it.
#include <string.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <type_traits>

#include "Device.h"
#include "JQ_SDK_Basic.h"
#include "JQ_SDK_Device.h"

namespace nvx {
namespace {

using Callback = void (*)(const char* data, int length, void* user, void* reserved);
static_assert(std::is_same<Callback, JQ_SDK_DeviceDataCallback>::value, "one callback shape");
static_assert(std::is_same<Callback, JQ_SDK_PeripheralCallback>::value, "one callback shape");

struct Delivery {
    Callback callback;
    void* user;
    int length;
    // Exactly `length` bytes, so that a callback reading past the record is caught; null for
    // a record injected without data, which is handed on as a null pointer.
    std::unique_ptr<char[]> bytes;
};

struct Channel {
    std::mutex mutex;
    std::condition_variable work;  // the queue gained a delivery
    std::condition_variable done;  // a delivery ended
    std::deque<Delivery> queue;
    std::map<void*, Callback> monitors;  // by user
    bool delivering = false;
    void* deliveringUser = nullptr;  // meaningful while delivering
    bool started = false;
    std::thread::id threadId;
};

// Never destroyed, see Device.cpp.
Channel& Signals() {
    static Channel* channel = new Channel;
    return *channel;
}

Channel& CanPort() {
    static Channel* channel = new Channel;
    return *channel;
}

void DeliverLoop(Channel* c) {
    std::unique_lock<std::mutex> lock(c->mutex);
    for (;;) {
        c->work.wait(lock, [c] { return !c->queue.empty(); });
        Delivery delivery = std::move(c->queue.front());
        c->queue.pop_front();
        c->delivering = true;
        c->deliveringUser = delivery.user;
        lock.unlock();

        delivery.callback(delivery.bytes.get(), delivery.length, delivery.user, nullptr);
        delivery.bytes.reset();

        lock.lock();
        c->delivering = false;
        c->deliveringUser = nullptr;
        c->done.notify_all();
    }
}

// Called with the mutex held: a copy of the record for every monitor.
void EnqueueForMonitors(Channel& c, const void* data, size_t length) {
    if (c.monitors.empty()) {
        return;
    }
    if (!c.started) {
        std::thread worker(DeliverLoop, &c);
        c.threadId = worker.get_id();
        worker.detach();
        c.started = true;
    }
    for (const auto& monitor : c.monitors) {
        Delivery delivery{monitor.second, monitor.first, static_cast<int>(length), nullptr};
        if (data != nullptr) {
            // new char[0] too, rather than a null pointer: an empty record still has an address,
            // and reading from it is still caught.
            delivery.bytes.reset(new char[length]);
            memcpy(delivery.bytes.get(), data, length);
        }
        c.queue.push_back(std::move(delivery));
    }
    c.work.notify_one();
}

bool OnChannelThread(const Channel& c) {
    return c.started && std::this_thread::get_id() == c.threadId;
}

// Called with the lock held. A callback that waits for its own call to end would wait for
// ever: on the channel's thread there is nothing to wait for but that call.
void WaitUntilNotDelivering(Channel& c, std::unique_lock<std::mutex>& lock, bool anyUser, void* user) {
    if (OnChannelThread(c)) {
        return;
    }
    c.done.wait(lock, [&] { return !c.delivering || (!anyUser && c.deliveringUser != user); });
}

int Monitor(Channel& c, Callback callback, void* user) {
    std::unique_lock<std::mutex> lock(c.mutex);
    if (callback == nullptr) {
        c.monitors.erase(user);
        for (auto it = c.queue.begin(); it != c.queue.end();) {
            it = it->user == user ? c.queue.erase(it) : it + 1;
        }
        WaitUntilNotDelivering(c, lock, false, user);
        return 0;
    }
    c.monitors[user] = callback;
    // Records still queued for this user go to the callback it has now: a replaced callback
    // gets nothing more that was queued after its replacement returned.
    for (Delivery& delivery : c.queue) {
        if (delivery.user == user) {
            delivery.callback = callback;
        }
    }
    return 0;
}

void Inject(Channel& c, const void* data, size_t length) {
    std::lock_guard<std::mutex> lock(c.mutex);
    EnqueueForMonitors(c, data, length);
}

bool WaitForIdle(Channel& c, std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(c.mutex);
    if (OnChannelThread(c)) {
        return c.queue.empty();
    }
    return c.done.wait_until(lock, deadline, [&c] { return c.queue.empty() && !c.delivering; });
}

int MonitorCount(Channel& c) {
    std::lock_guard<std::mutex> lock(c.mutex);
    return static_cast<int>(c.monitors.size());
}

void ResetChannel(Channel& c) {
    std::unique_lock<std::mutex> lock(c.mutex);
    c.monitors.clear();
    c.queue.clear();
    // A fresh device has no record on its way to a test that has ended.
    WaitUntilNotDelivering(c, lock, true, nullptr);
}

}  // namespace

void InjectDevSignal(const void* data, size_t length) {
    Inject(Signals(), data, length);
}

void InjectCanRecord(const void* data, size_t length) {
    Inject(CanPort(), data, length);
}

bool WaitForPeripheralIdle(int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    const bool signalsIdle = WaitForIdle(Signals(), deadline);
    return WaitForIdle(CanPort(), deadline) && signalsIdle;
}

int DevSignalMonitorCount() {
    return MonitorCount(Signals());
}

int CanPortMonitorCount() {
    return MonitorCount(CanPort());
}

namespace detail {
void ResetPeripheral() {
    ResetChannel(Signals());
    ResetChannel(CanPort());
}
}  // namespace detail

}  // namespace nvx

int JQ_SDK_Device_MonitorDevSignalData(JQ_SDK_DeviceDataCallback callback, void* user, int /*reserved*/) {
    nvx::detail::CountCall("JQ_SDK_Device_MonitorDevSignalData");
    return nvx::Monitor(nvx::Signals(), callback, user);
}

int JQ_SDK_Basic_Peripheral_MonitorCanPortEvent(JQ_BASIC_HANDLE handle, JQ_SDK_PeripheralCallback callback,
                                                void* user, int /*reserved*/) {
    nvx::detail::CountCall("JQ_SDK_Basic_Peripheral_MonitorCanPortEvent");
    if (handle == nullptr) {
        return -1;
    }
    return nvx::Monitor(nvx::CanPort(), callback, user);
}
