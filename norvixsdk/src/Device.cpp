// Device profile, injected failures, call counters, wall clock and system root.
#include "Device.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <new>

#include "JQ_LOG.h"
#include "SimClock.h"

namespace nvx {
namespace {

struct CallFaults {
    int throws = 0;
    int failures = 0;
    bool gateClosed = false;
    int atGate = 0;
};

struct DeviceState {
    std::mutex mutex;
    DeviceProfile profile;
    std::map<std::string, uint64_t> calls;
    std::map<std::string, CallFaults> faults;
    std::condition_variable gate;  // a gate opened, or a call came to one
};

DeviceState& State() {
    // Never destroyed: detached platform threads may still log while the process exits.
    static DeviceState* state = new DeviceState;
    return *state;
}

// The device clock is kept as an offset from the host's clock, so it runs at real speed. An
// atomic rather than under the state's mutex: gettimeofday reads it on every call.
// The device clock is the host's real-time clock moved by this many microseconds. Kept to the
// microsecond, so that the device's seconds turn over a whole number of seconds after the
// clock was set, not on the host's own second boundaries: two runs that set the clock at the
// same moment of their run see their seconds turn at the same moments.
std::atomic<int64_t> g_wallOffsetMicros{0};

int64_t HostMicros() {
    if (detail::SimOn()) {
        return static_cast<int64_t>(detail::SimNowMs()) * 1000;
    }
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

std::atomic<bool> g_zoneMovesClock{false};
std::atomic<bool> g_globalInitFails{false};
std::atomic<bool> g_basicInitFails{false};

const std::chrono::steady_clock::time_point g_origin = std::chrono::steady_clock::now();

}  // namespace

namespace detail {

uint64_t ElapsedMs() {
    if (SimOn()) {
        return SimElapsedMs();
    }
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - g_origin)
            .count());
}

bool CountCall(const char* operation) {
    DeviceState& s = State();
    std::unique_lock<std::mutex> lock(s.mutex);
    ++s.calls[operation];
    auto found = s.faults.find(operation);
    if (found == s.faults.end()) {
        return false;
    }
    // Map entries stay where they are while the gate is waited at: nothing erases them.
    CallFaults& faults = found->second;
    if (faults.gateClosed) {
        ++faults.atGate;
        NotifyAll(s.gate);
        WaitMs(
            s.gate, lock, kWaitEndless, [&faults] { return !faults.gateClosed; }, operation);
        --faults.atGate;
    }
    if (faults.throws > 0) {
        --faults.throws;
        throw std::bad_alloc();
    }
    if (faults.failures > 0) {
        --faults.failures;
        return true;
    }
    return false;
}

int64_t DeviceMicros() {
    return HostMicros() + g_wallOffsetMicros.load();
}

void ShiftWallClock(int64_t seconds) {
    g_wallOffsetMicros.fetch_add(seconds * 1000000);
}

void RebaseWallClock(int64_t fromMicros, int64_t toMicros) {
    g_wallOffsetMicros.fetch_add(fromMicros - toMicros);
}

bool LocalTimeFollowsZone() {
    return g_zoneMovesClock.load();
}

bool GlobalInitFails() {
    return g_globalInitFails.load();
}
bool BasicInitFails() {
    return g_basicInitFails.load();
}

}  // namespace detail

void SetDeviceProfile(const DeviceProfile& profile) {
    DeviceState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.profile = profile;
}

DeviceProfile GetDeviceProfile() {
    DeviceState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.profile;
}

void SetGlobalInitFails(bool fails) {
    g_globalInitFails.store(fails);
}
void SetBasicInitFails(bool fails) {
    g_basicInitFails.store(fails);
}

void SetSystemRoot(const std::string& dir) {
    if (dir.empty()) {
        unsetenv("TRUCK_SYSROOT");
        return;
    }
    setenv("TRUCK_SYSROOT", dir.c_str(), 1);
}

std::string SystemRoot() {
    const char* root = getenv("TRUCK_SYSROOT");
    return root != nullptr ? root : "";
}

std::string ResolveDevicePath(const char* devicePath) {
    std::string path = SystemRoot();
    while (!path.empty() && path.back() == '/') {
        path.pop_back();
    }
    return path + (devicePath != nullptr ? devicePath : "");
}

bool MakeFolders(const std::string& dir, mode_t mode) {
    for (size_t at = 1; at <= dir.size(); ++at) {
        if (at != dir.size() && dir[at] != '/') {
            continue;
        }
        const std::string prefix = dir.substr(0, at);
        if (mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST) {
            return false;
        }
    }
    return true;
}

void SetWallClock(int64_t seconds) {
    g_wallOffsetMicros.store(seconds * 1000000 - HostMicros());
}

void SetLocalTimeFollowsZone(bool follows) {
    g_zoneMovesClock.store(follows);
}

int64_t WallClock() {
    const int64_t micros = detail::DeviceMicros();
    // Whole seconds, rounded down also before 1970.
    return micros / 1000000 - (micros % 1000000 < 0 ? 1 : 0);
}

uint64_t CallCount(const std::string& operation) {
    DeviceState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.calls.find(operation);
    return it == s.calls.end() ? 0 : it->second;
}

void ThrowBadAllocIn(const std::string& operation, int count) {
    DeviceState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.faults[operation].throws = count;
}

void FailCalls(const std::string& operation, int count) {
    DeviceState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.faults[operation].failures = count;
}

void CloseGate(const std::string& operation) {
    DeviceState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.faults[operation].gateClosed = true;
}

void OpenGate(const std::string& operation) {
    DeviceState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.faults[operation].gateClosed = false;
    detail::NotifyAll(s.gate);
}

bool WaitForCallAtGate(const std::string& operation, int timeoutMs) {
    DeviceState& s = State();
    std::unique_lock<std::mutex> lock(s.mutex);
    CallFaults& faults = s.faults[operation];
    return detail::WaitMs(
        s.gate, lock, timeoutMs, [&faults] { return faults.atGate > 0; }, "WaitForCallAtGate");
}

void Reset() {
    {
        DeviceState& s = State();
        std::lock_guard<std::mutex> lock(s.mutex);
        s.profile = DeviceProfile();
        s.calls.clear();
        for (auto& entry : s.faults) {
            entry.second = CallFaults{0, 0, false, entry.second.atGate};
        }
        detail::NotifyAll(s.gate);
    }
    g_wallOffsetMicros.store(0);
    g_zoneMovesClock.store(false);
    g_globalInitFails.store(false);
    g_basicInitFails.store(false);
    detail::ResetBus();
    detail::ResetLog();
    detail::ResetThreads();
    detail::ResetIdentity();
    detail::ResetStorage();
    detail::ResetPeripheral();
    detail::ResetParamStore();
}

}  // namespace nvx
