// The whole plug-in on the demo device, on the simulated clock: how many device seconds a wall
// second buys, and what the plug-in's own threads spend per device second. A plug-in that gets
// busier shows in both, as a slower simulation and as more processor time per device second.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <string>

#include "CommonDefine.h"
#include "NvxControl.h"
#include "TruckServiceManage.h"

namespace {

// As the host starts a simulated run: some time after boot, at a fixed date.
constexpr uint64_t kStartTickMs = 60000;
constexpr int64_t kStartWall = 1772956785;  // 2026-03-08 07:59:45 UTC, the demo drive's
constexpr int kSpeedEvent = 0x118A;

// A copy of the demo device: the device rewrites files under its root.
class DemoDevice {
public:
    DemoDevice() {
        char name[] = "/tmp/truck_bench_sim.XXXXXX";
        if (mkdtemp(name) == nullptr) {
            return;
        }
        std::error_code error;
        std::filesystem::copy(TRUCK_DEMO_SYSROOT, name, std::filesystem::copy_options::recursive, error);
        if (!error) {
            m_root = name;
        }
    }
    ~DemoDevice() {
        std::error_code error;
        if (!m_root.empty()) {
            std::filesystem::remove_all(m_root, error);
        }
    }
    DemoDevice(const DemoDevice&) = delete;
    DemoDevice& operator=(const DemoDevice&) = delete;
    const std::string& root() const { return m_root; }

private:
    std::string m_root;
};

struct CpuSeconds {
    double user = 0;
    double system = 0;
};

// Processor seconds of the threads the plug-in started: every thread of this process but the
// benchmark's own and the stand-in's ("nvx-*"). Read while they run; a stop ends them. The
// system part is mostly the turns handed between threads, which the device does not pay; the
// user part is the plug-in's own work, with a little of the clock's.
CpuSeconds PluginCpuSeconds() {
    const double tick = static_cast<double>(sysconf(_SC_CLK_TCK));
    const long self = static_cast<long>(getpid());
    CpuSeconds seconds;
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) {
        return seconds;
    }
    while (const dirent* entry = readdir(tasks)) {
        const long tid = strtol(entry->d_name, nullptr, 10);
        if (tid <= 0 || tid == self) {
            continue;
        }
        char path[64];
        snprintf(path, sizeof(path), "/proc/self/task/%ld/stat", tid);
        FILE* file = fopen(path, "r");
        if (file == nullptr) {
            continue;
        }
        char text[512] = {0};
        const size_t got = fread(text, 1, sizeof(text) - 1, file);
        fclose(file);
        text[got] = '\0';
        const char* open = strchr(text, '(');
        const char* close = strrchr(text, ')');
        if (open == nullptr || close == nullptr || strncmp(open + 1, "nvx-", 4) == 0) {
            continue;
        }
        // After the name: state, then fields 4 to 13, then utime and stime.
        unsigned long long utime = 0, stime = 0;
        if (sscanf(close + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &utime, &stime) == 2) {
            seconds.user += static_cast<double>(utime) / tick;
            seconds.system += static_cast<double>(stime) / tick;
        }
    }
    closedir(tasks);
    return seconds;
}

// A speed and its unit as the bus delivers them: unit at byte 20, speed at 24.
void SendSpeed(uint32_t speed) {
    unsigned char notification[28] = {0};
    notification[20] = 1;
    TruckPutLE32(notification + 24, speed);
    nvx::InjectBusEvent(kSpeedEvent, notification, sizeof(notification));
}

// Device seconds as the argument; a new speed every device second, as on a drive.
void BM_SimDemoDevice(benchmark::State& state) {
    const uint64_t seconds = static_cast<uint64_t>(state.range(0));
    DemoDevice device;
    if (device.root().empty()) {
        state.SkipWithError("no copy of the demo device");
        return;
    }
    // As the host runs the simulated clock; the benchmarks after this one get their cores back.
    cpu_set_t cores;
    const bool known = sched_getaffinity(0, sizeof(cores), &cores) == 0;
    nvx::SimKeepToOneCore();
    double deviceSeconds = 0;
    CpuSeconds plugin;
    // What the plug-in sent, to see that the run did the work it is timed for.
    std::atomic<uint64_t> sent{0};
    for (auto _ : state) {
        nvx::Reset();
        nvx::SetLogLevel(-1);
        nvx::SetSystemRoot(device.root());
        nvx::SetParamStoreSource(TRUCK_DEMO_PARAM_STORE);
        nvx::SetStorageMount(0, "/mnt/hd1");
        nvx::SimClockOn(kStartTickMs);
        nvx::SetWallClock(kStartWall);
        nvx::SetLocalTimeFollowsZone(true);
        nvx::SetSendObserver([&sent](const nvx::BusMessage&) { sent.fetch_add(1); });
        tag_ServiceParam param;
        param.ucRunning.store(0);
        if (JQ_SDK_Service_Start(&param) != 0) {
            nvx::SimClockOff();
            state.SkipWithError("the service did not start");
            return;
        }
        for (uint64_t s = 1; s <= seconds; ++s) {
            SendSpeed(static_cast<uint32_t>((s * 7) % 120));
            nvx::SimSleepUntil(kStartTickMs + s * 1000);
        }
        const CpuSeconds run = PluginCpuSeconds();
        plugin.user += run.user;
        plugin.system += run.system;
        JQ_SDK_Service_Stop(&param);
        nvx::SimClockOff();
        nvx::WaitForThreadsToEnd(10000);
        nvx::SetSendObserver(nullptr);
        deviceSeconds += static_cast<double>(seconds);
    }
    nvx::SetSystemRoot("");
    if (known) {
        sched_setaffinity(0, sizeof(cores), &cores);
    }
    state.counters["device_s"] = benchmark::Counter(deviceSeconds, benchmark::Counter::kIsRate);
    const double perDeviceSecond = 1000.0 / std::max(deviceSeconds, 1.0);
    state.counters["plugin_user_ms_per_device_s"] = plugin.user * perDeviceSecond;
    state.counters["plugin_sys_ms_per_device_s"] = plugin.system * perDeviceSecond;
    state.counters["sent_per_device_s"] = static_cast<double>(sent.load()) / std::max(deviceSeconds, 1.0);
}
BENCHMARK(BM_SimDemoDevice)->Arg(3600)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace
