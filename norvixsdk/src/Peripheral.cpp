// Device signals and the vehicle-bus (CAN) port: the monitors that follow them and the two
// platform threads, one for each, that deliver every record.
//
// What always holds, for each of the two channels (see DeliveryChannel.h for the thread): each
// queued delivery names one user, the callback that user has registered now and its own copy
// of the record. A withdrawn user has no monitor and no queued delivery, and once its
// withdrawal has returned the channel's thread is not calling it. A callback may register,
// replace or withdraw any monitor, its own included.
#include <string.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <type_traits>

#include "DeliveryChannel.h"
#include "Device.h"
#include "JQ_SDK_Basic.h"
#include "JQ_SDK_Device.h"

namespace nvx {
namespace {

using Callback = void (*)(const char* data, int length, void* user, void* reserved);
static_assert(std::is_same<Callback, JQ_SDK_DeviceDataCallback>::value, "one callback shape");
static_assert(std::is_same<Callback, JQ_SDK_PeripheralCallback>::value, "one callback shape");

struct Delivery {
    Callback callback = nullptr;
    void* user = nullptr;
    int length = 0;
    // Exactly `length` bytes, so that a callback reading past the record is caught; null for
    // a record injected without data, which is handed on as a null pointer.
    std::unique_ptr<char[]> bytes;

    void Run() { callback(bytes.get(), length, user, nullptr); }
};

struct Channel {
    explicit Channel(const char* name) : delivery(name) {}
    detail::DeliveryChannel<Delivery> delivery;
    std::map<void*, Callback> monitors;  // by user, under delivery.mutex
};

// Never destroyed, see Device.cpp.
Channel& Signals() {
    static Channel* channel = new Channel("nvx-devsignal");
    return *channel;
}

Channel& CanPort() {
    static Channel* channel = new Channel("nvx-can");
    return *channel;
}

int Monitor(Channel& c, Callback callback, void* user) {
    std::unique_lock<std::mutex> lock(c.delivery.mutex);
    if (callback == nullptr) {
        c.monitors.erase(user);
        c.delivery.Drop(user, lock);
        return 0;
    }
    c.monitors[user] = callback;
    // Records still queued for this user go to the callback it has now: a replaced callback
    // gets nothing more that was queued after its replacement returned.
    for (Delivery& delivery : c.delivery.Queue()) {
        if (delivery.user == user) {
            delivery.callback = callback;
        }
    }
    return 0;
}

// A copy of the record for every monitor.
void Inject(Channel& c, const void* data, size_t length) {
    std::lock_guard<std::mutex> lock(c.delivery.mutex);
    for (const auto& monitor : c.monitors) {
        Delivery delivery{monitor.second, monitor.first, static_cast<int>(length), nullptr};
        if (data != nullptr) {
            // new char[0] too, rather than a null pointer: an empty record still has an address,
            // and reading from it is still caught.
            delivery.bytes.reset(new char[length]);
            memcpy(delivery.bytes.get(), data, length);
        }
        c.delivery.Enqueue(std::move(delivery));
    }
}

int MonitorCount(Channel& c) {
    std::lock_guard<std::mutex> lock(c.delivery.mutex);
    return static_cast<int>(c.monitors.size());
}

void ResetChannel(Channel& c) {
    std::unique_lock<std::mutex> lock(c.delivery.mutex);
    c.monitors.clear();
    // A fresh device has no record on its way to a test that has ended.
    c.delivery.DropAll(lock);
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
    const bool signalsIdle = Signals().delivery.WaitIdle(deadline);
    return CanPort().delivery.WaitIdle(deadline) && signalsIdle;
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
