// Storage service: the mount path it answers, the monitors that follow its changes, and the
// storage thread that delivers every report.
//
// What always holds: the service's mutex guards every field. Each queued delivery names one
// callback, one user and its own copy of the report. A withdrawn user has no monitor and no
// queued delivery, and once its withdrawal has returned the storage thread is not calling
// it. Callbacks run on the storage thread with no lock held, so a callback may call any
// storage operation. The service is never destroyed: its thread is started on first use and
// idles on a condition variable for the rest of the process, so nothing has to join it.
#include <string.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "Device.h"
#include "JQ_SDK_Storage.h"

namespace nvx {
namespace {

struct Delivery {
    JQ_SDK_StorageCallback callback;
    void* user;
    bool nullData;  // an injected report without data is handed on as a null pointer
    int length;
    std::vector<char> bytes;
};

struct StorageService {
    std::mutex mutex;
    std::condition_variable work;  // the queue gained a delivery
    std::condition_variable done;  // a delivery ended
    std::deque<Delivery> queue;
    std::map<void*, JQ_SDK_StorageCallback> monitors;  // by user
    tag_fuseMntPathAck mount;
    bool delivering = false;
    void* deliveringUser = nullptr;  // meaningful while delivering
    bool started = false;
    std::thread::id threadId;
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

void DeliverLoop() {
    StorageService& s = Service();
    std::unique_lock<std::mutex> lock(s.mutex);
    for (;;) {
        s.work.wait(lock, [&s] { return !s.queue.empty(); });
        Delivery delivery = std::move(s.queue.front());
        s.queue.pop_front();
        s.delivering = true;
        s.deliveringUser = delivery.user;
        lock.unlock();

        static char empty = 0;
        void* data = delivery.nullData ? nullptr : delivery.bytes.empty() ? &empty : delivery.bytes.data();
        delivery.callback(data, delivery.length, delivery.user);
        delivery.bytes.clear();

        lock.lock();
        s.delivering = false;
        s.deliveringUser = nullptr;
        s.done.notify_all();
    }
}

// Called with the mutex held.
void Enqueue(StorageService& s, Delivery delivery) {
    if (!s.started) {
        std::thread worker(DeliverLoop);
        s.threadId = worker.get_id();
        worker.detach();
        s.started = true;
    }
    s.queue.push_back(std::move(delivery));
    s.work.notify_one();
}

// Called with the mutex held: a report for every monitor.
void EnqueueForMonitors(StorageService& s, const void* data, size_t length) {
    for (const auto& monitor : s.monitors) {
        Enqueue(s, MakeDelivery(monitor.second, monitor.first, data, length));
    }
}

bool OnStorageThread(const StorageService& s) {
    return s.started && std::this_thread::get_id() == s.threadId;
}

// Called with the lock held. A callback that waits for its own call to end would wait for
// ever: on the storage thread there is nothing to wait for but that call.
void WaitUntilNotDelivering(StorageService& s, std::unique_lock<std::mutex>& lock, bool anyUser, void* user) {
    if (OnStorageThread(s)) {
        return;
    }
    s.done.wait(lock, [&] { return !s.delivering || (!anyUser && s.deliveringUser != user); });
}

int Withdraw(void* user) {
    StorageService& s = Service();
    std::unique_lock<std::mutex> lock(s.mutex);
    s.monitors.erase(user);
    for (auto it = s.queue.begin(); it != s.queue.end();) {
        it = it->user == user ? s.queue.erase(it) : it + 1;
    }
    WaitUntilNotDelivering(s, lock, false, user);
    return 0;
}

}  // namespace

void SetStorageMount(int32_t result, const std::string& path) {
    StorageService& s = Service();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.mount = MakeReport(result, path);
}

void InjectStorageReport(int32_t result, const std::string& path) {
    StorageService& s = Service();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.mount = MakeReport(result, path);
    EnqueueForMonitors(s, &s.mount, sizeof(s.mount));
}

void InjectStorageRaw(const void* data, size_t length) {
    StorageService& s = Service();
    std::lock_guard<std::mutex> lock(s.mutex);
    EnqueueForMonitors(s, data, length);
}

bool WaitForStorageIdle(int timeoutMs) {
    StorageService& s = Service();
    std::unique_lock<std::mutex> lock(s.mutex);
    if (OnStorageThread(s)) {
        return s.queue.empty();
    }
    return s.done.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                           [&s] { return s.queue.empty() && !s.delivering; });
}

namespace detail {
void ResetStorage() {
    StorageService& s = Service();
    std::unique_lock<std::mutex> lock(s.mutex);
    s.monitors.clear();
    s.queue.clear();
    SetNoMount(s.mount);
    // A fresh device has no report on its way to a test that has ended.
    WaitUntilNotDelivering(s, lock, true, nullptr);
}
}  // namespace detail

}  // namespace nvx

int JQ_SDK_Storage_GetFuseMntPath(JQ_SDK_StorageCallback callback, void* user, int /*reserved*/) {
    nvx::detail::CountCall("JQ_SDK_Storage_GetFuseMntPath");
    if (callback == nullptr) {
        return -1;
    }
    nvx::StorageService& s = nvx::Service();
    std::lock_guard<std::mutex> lock(s.mutex);
    nvx::Enqueue(s, nvx::MakeDelivery(callback, user, &s.mount, sizeof(s.mount)));
    return 0;
}

int JQ_SDK_Storage_MonitorFuseStatus(JQ_SDK_StorageCallback callback, void* user, int /*reserved*/) {
    nvx::detail::CountCall("JQ_SDK_Storage_MonitorFuseStatus");
    if (callback == nullptr) {
        return nvx::Withdraw(user);
    }
    nvx::StorageService& s = nvx::Service();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.monitors[user] = callback;
    return 0;
}
