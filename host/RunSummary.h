// What a run of the host cost, per thread, and what it sent: the --summary file and the
// --stats table. The firmware team reads it to see what each thread of the plug-in costs on
// the device (the main cycle wakes about 20 times a second, a business on its own thread
// about 10), beside the simulated device's threads and the host's own.
//
// ThreadSampler reads every thread of this process from /proc at an interval. Each thread is
// kept apart by its tid and start time (a plug-in restarted in the same process brings new
// threads of the old names, and the kernel may hand an old tid out again), with its first and
// last counters. One mutex guards the records; /proc is read without it.
#ifndef TRUCK_HOST_RUNSUMMARY_H
#define TRUCK_HOST_RUNSUMMARY_H

#include <stdint.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace truckhost {

struct ThreadFigures {
    // The last name the thread was seen with; one of a later run (NextRun()) that is not the
    // host's with "#<run>" after it.
    std::string name;
    std::string owner;            // ThreadOwner of the name as seen
    double wakeupsPerSecond = 0;  // times it blocked and was woken (voluntary switches)
    double cpuPercent = 0;        // of one core
    double seconds = 0;           // the thread's observed life: birth or first sample, to its last sample
    // With a device clock (simulated): the same over the device seconds of its life, which
    // begins at the last sample before its birth.
    double deviceSeconds = 0;
    double wakeupsPerDeviceSecond = 0;
    double cpuMsPerDeviceSecond = 0;
};

// "stand-in" for the simulated device's threads (nvx-*), "host" for truckhost and host-*,
// "plug-in" for anything else.
const char* ThreadOwner(const std::string& name);

class ThreadSampler {
public:
    // A thread that ends between two samples loses what it did after the earlier one; a
    // short interval keeps that loss small, and a read of every thread costs well under a
    // millisecond.
    static constexpr std::chrono::milliseconds kDefaultInterval{200};

    ThreadSampler() = default;
    ~ThreadSampler() { Stop(); }
    ThreadSampler(const ThreadSampler&) = delete;
    ThreadSampler& operator=(const ThreadSampler&) = delete;

    // Device seconds since the run began; read with each sample, from the sampling thread.
    using DeviceClock = std::function<double()>;

    // Takes the first sample, then samples on a thread "host-sampler". Threads alive now count
    // from this first sample, threads born later from their birth. Once per sampler. With a
    // device clock each thread's figures are also told per device second.
    void Start(std::chrono::milliseconds interval = kDefaultInterval, DeviceClock deviceClock = nullptr);
    // One last sample, then the sampling thread ends. Figures() stay readable.
    void Stop();
    // A sample in the caller's thread, e.g. just before stopping the plug-in, so that threads
    // about to end keep their figures up to that moment.
    void SampleNow();
    // The plug-in was stopped and is about to start again: threads first seen by a sample
    // taken from now on are of the next run, numbered from 2, and named "<name>#<run>" unless
    // they are the host's.
    void NextRun();
    // One entry per thread seen, in the order they were first seen.
    std::vector<ThreadFigures> Figures() const;

private:
    struct Reading;
    struct Observed {
        size_t order = 0;  // first seen
        int run = 1;
        std::string name;
        double from = 0;  // seconds since boot
        uint64_t firstTicks = 0, firstWakeups = 0;
        double last = 0;
        double deviceFrom = 0, deviceLast = 0;
        uint64_t lastTicks = 0, lastWakeups = 0;
    };

    static bool ReadThread(int tid, Reading& r);
    void Run(std::chrono::milliseconds interval);
    void Merge(const std::vector<Reading>& readings, int run, double device);

    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_started = false;
    bool m_stopping = false;
    bool m_sampled = false;                                  // the first sample is in
    int m_run = 1;                                           // counted on by NextRun()
    DeviceClock m_deviceClock;                               // set before the sampling thread
    double m_lastDevice = 0;                                 // of the latest sample merged
    std::map<std::pair<int, uint64_t>, Observed> m_threads;  // (tid, start time in ticks)
    std::thread m_sampler;
};

// The process at the end of a device day of a run on the simulated clock.
struct DaySample {
    int day = 0;  // from 1
    uint64_t rssKb = 0;
    uint64_t heapBytes = 0;  // in use: small blocks and mapped ones
    int threads = 0;
    int fds = 0;
    std::map<int, uint64_t> messages;  // bus event -> messages sent that day
};

// The process's own figures now; messages and day left to the caller. Fields it cannot read
// stay 0.
DaySample SampleProcess();

struct RunSummary {
    int exitStatus = 0;
    double seconds = 0;
    std::vector<ThreadFigures> threads;
    std::map<int, uint64_t> messages;  // bus event -> messages sent
    uint64_t frames = 0;
    uint64_t overlaps = 0;
    // "sim" when the device ran on the simulated clock: `seconds` are then device seconds, and
    // the wall seconds they took are told beside them with the ratio.
    std::string clock;
    double wallSeconds = 0;
    std::vector<DaySample> days;
};

// The processor time of the plug-in's threads per device second of the run, in ms.
double PluginCpuMsPerDeviceSecond(const RunSummary& summary);

// One JSON object: {"exit", "seconds", "threads": [{"name", "owner", "wakeups_per_s",
// "cpu_percent"}], "messages": {"0x1210": N, ...}, "frames", "overlaps"}, and on the simulated
// clock "clock": "sim", "wall_seconds", "device_per_wall" (device seconds per wall second),
// "plugin_cpu_ms_per_device_s" and "days": [{"day", "rss_kb", "heap_bytes", "threads", "fds",
// "messages"}], each thread's figures then being "wakeups_per_device_s" and
// "cpu_ms_per_device_s".
std::string SummaryJson(const RunSummary& summary);
// The same as an aligned table for a terminal, one thread a line.
std::string StatsTable(const RunSummary& summary);
// Writes SummaryJson to path; on failure false, with the path and the reason in error.
bool WriteSummaryFile(const std::string& path, const RunSummary& summary, std::string& error);

}  // namespace truckhost

#endif
