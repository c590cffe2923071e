// Storage service: the mount path it answers, the monitors that follow its changes, and the
// storage thread that delivers every report.
//
// What always holds (see DeliveryChannel.h for the thread): the channel's mutex guards the
// monitors and the mount path too. Each queued delivery names one callback, one user and its
// own copy of the report. A monitor cannot be withdrawn: like the device's service, the
// stand-in keeps whatever callback it was given, a null one included, until the device resets.
#include <string.h>

#include <chrono>
#include <map>
#include <mutex>
#include <vector>

#include "DeliveryChannel.h"
#include "Device.h"
#include "JQ_SDK_Storage.h"

namespace nvx {
namespace {

struct Delivery {
    JQ_SDK_StorageCallback callback = nullptr;
    void* user = nullptr;
    bool nullData = false;  // an injected report without data is handed on as a null pointer
    int length = 0;
    std::vector<char> bytes;

    void Run() {
        static char empty = 0;
        void* data = nullData ? nullptr : bytes.empty() ? &empty : bytes.data();
        if (callback == nullptr) {
            // The device would jump to address 0 here; the stand-in says so instead.
            NVX_LOG(0, "storage monitor of user %p has a null callback\n", user);
            return;
        }
        callback(data, length, user);
    }
};

struct StorageService {
    detail::DeliveryChannel<Delivery> delivery{"nvx-storage"};
    std::map<void*, JQ_SDK_StorageCallback> monitors;  // by user
    tag_fuseMntPathAck mount;
};

void SetNoMount(tag_fuseMntPathAck& mount) {
    memset(&mount, 0, sizeof(mount));
    mount.iResult = -10;
}

StorageService& Service() {
    static StorageService* service = [] {
        StorageService* s = new StorageService;  // never destroyed, see Device.cpp
        SetNoMount(s->mount);
        return s;
    }();
    return *service;
}

// A report as the device builds it: the fields at their places, the rest of the 36 bytes
// zero, the path cut to what fits with its terminator.
tag_fuseMntPathAck MakeReport(int32_t result, const std::string& path) {
    tag_fuseMntPathAck report;
    memset(&report, 0, sizeof(report));
    report.iResult = result;
    const size_t length =
        path.size() < sizeof(report.szMntPath) - 1 ? path.size() : sizeof(report.szMntPath) - 1;
    memcpy(report.szMntPath, path.data(), length);
    return report;
}

Delivery MakeDelivery(JQ_SDK_StorageCallback callback, void* user, const void* data, size_t length) {
    Delivery delivery{callback, user, data == nullptr, static_cast<int>(length), std::vector<char>()};
    if (data != nullptr) {
        // Exactly the report's length, so that a callback reading past it is caught.
        delivery.bytes.assign(static_cast<const char*>(data), static_cast<const char*>(data) + length);
    }
    return delivery;
}

// With the mutex held: a report for every monitor.
void EnqueueForMonitors(StorageService& s, const void* data, size_t length) {
    for (const auto& monitor : s.monitors) {
        s.delivery.Enqueue(MakeDelivery(monitor.second, monitor.first, data, length));
    }
}

}  // namespace

void SetStorageMount(int32_t result, const std::string& path) {
    StorageService& s = Service();
    std::lock_guard<std::mutex> lock(s.delivery.mutex);
    s.mount = MakeReport(result, path);
}

void InjectStorageReport(int32_t result, const std::string& path) {
    StorageService& s = Service();
    std::lock_guard<std::mutex> lock(s.delivery.mutex);
    s.mount = MakeReport(result, path);
    EnqueueForMonitors(s, &s.mount, sizeof(s.mount));
}

void InjectStorageRaw(const void* data, size_t length) {
    StorageService& s = Service();
    std::lock_guard<std::mutex> lock(s.delivery.mutex);
    EnqueueForMonitors(s, data, length);
}

bool WaitForStorageIdle(int timeoutMs) {
    return Service().delivery.WaitIdle(std::chrono::steady_clock::now() +
                                       std::chrono::milliseconds(timeoutMs));
}

namespace detail {
void ResetStorage() {
    StorageService& s = Service();
    std::unique_lock<std::mutex> lock(s.delivery.mutex);
    s.monitors.clear();
    SetNoMount(s.mount);
    // A fresh device has no report on its way to a test that has ended.
    s.delivery.DropAll(lock);
}
}  // namespace detail

}  // namespace nvx

int JQ_SDK_Storage_GetFuseMntPath(JQ_SDK_StorageCallback callback, void* user, int /*reserved*/) {
    nvx::detail::CountCall("JQ_SDK_Storage_GetFuseMntPath");
    if (callback == nullptr) {
        return -1;
    }
    nvx::StorageService& s = nvx::Service();
    std::lock_guard<std::mutex> lock(s.delivery.mutex);
    s.delivery.Enqueue(nvx::MakeDelivery(callback, user, &s.mount, sizeof(s.mount)));
    return 0;
}

int JQ_SDK_Storage_MonitorFuseStatus(JQ_SDK_StorageCallback callback, void* user, int /*reserved*/) {
    nvx::detail::CountCall("JQ_SDK_Storage_MonitorFuseStatus");
    nvx::StorageService& s = nvx::Service();
    std::lock_guard<std::mutex> lock(s.delivery.mutex);
    s.monitors[user] = callback;
    return 0;
}
