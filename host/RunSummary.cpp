#include "RunSummary.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>

#include "HostText.h"

namespace truckhost {

// One thread's counters as read from /proc at `at` (seconds since boot).
struct ThreadSampler::Reading {
    int tid = 0;
    std::string name;
    uint64_t startTicks = 0;  // clock ticks since boot
    uint64_t cpuTicks = 0;    // utime + stime
    uint64_t wakeups = 0;
    double at = 0;
};

namespace {

double TicksPerSecond() {
    static const double ticks = static_cast<double>(sysconf(_SC_CLK_TCK));
    return ticks;
}

// The clock of the start times in /proc: both count the time suspended.
double SecondsSinceBoot() {
    timespec ts{};
    clock_gettime(CLOCK_BOOTTIME, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

bool ReadSmallFile(const std::string& path, std::string& text) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    text.clear();
    char buf[4096];
    ssize_t got;
    while ((got = read(fd, buf, sizeof buf)) > 0) {
        text.append(buf, static_cast<size_t>(got));
    }
    close(fd);
    return got == 0 && !text.empty();
}

// The name may hold spaces and parentheses of its own, so the fields after it are counted from
// the last ')': 3 the state letter, 14 utime, 15 stime, 22 starttime.
bool ParseStat(const std::string& stat, std::string& name, uint64_t& cpuTicks, uint64_t& startTicks) {
    size_t nameStart = stat.find('(');
    size_t nameEnd = stat.rfind(')');
    if (nameStart == std::string::npos || nameEnd == std::string::npos || nameEnd < nameStart) {
        return false;
    }
    name = stat.substr(nameStart + 1, nameEnd - nameStart - 1);
    uint64_t field[23] = {};
    int i = 3;
    for (const char* p = stat.c_str() + nameEnd + 1; i <= 22 && p != nullptr; ++i, p = strchr(p + 1, ' ')) {
        field[i] = strtoull(p + 1, nullptr, 10);  // the state letter reads as 0
    }
    if (i <= 22) {
        return false;
    }
    cpuTicks = field[14] + field[15];
    startTicks = field[22];
    return true;
}

// A wakeup is a voluntary switch: the thread gave up the processor to wait (a poll, a condition
// variable, a sleep) and something woke it, which is what a cycle costs on the device. A
// non-voluntary switch is a preemption while it still had work: it measures how crowded the
// processor was, differs between this desk and the device, and is left out.
constexpr char kWakeupsKey[] = "\nvoluntary_ctxt_switches:";

// The number after `key` ("\nName:") in a /proc status text.
bool StatusNumber(const std::string& status, const char* key, uint64_t& out) {
    const size_t at = status.find(key);
    if (at == std::string::npos) {
        return false;
    }
    out = strtoull(status.c_str() + at + strlen(key), nullptr, 10);
    return true;
}

}  // namespace

bool ThreadSampler::ReadThread(int tid, Reading& r) {
    const std::string dir = "/proc/self/task/" + std::to_string(tid);
    std::string text;
    if (!ReadSmallFile(dir + "/stat", text) || !ParseStat(text, r.name, r.cpuTicks, r.startTicks)) {
        return false;
    }
    if (!ReadSmallFile(dir + "/status", text) || !StatusNumber(text, kWakeupsKey, r.wakeups)) {
        return false;
    }
    r.tid = tid;
    r.at = SecondsSinceBoot();
    return true;
}

namespace {

std::string Fixed(double value, int decimals) {
    if (!std::isfinite(value)) {
        value = 0;
    }
    char buf[64];
    auto res = std::to_chars(buf, buf + sizeof buf, value, std::chars_format::fixed, decimals);
    return res.ec == std::errc() ? std::string(buf, res.ptr) : "0";
}

std::string EventKey(int event) {
    char buf[16];
    snprintf(buf, sizeof buf, "0x%04X", static_cast<unsigned>(event));
    return buf;
}

}  // namespace

const char* ThreadOwner(const std::string& name) {
    if (name.compare(0, 4, "nvx-") == 0) {
        return "stand-in";
    }
    if (name == "truckhost" || name.compare(0, 5, "host-") == 0) {
        return "host";
    }
    return "plug-in";
}

void ThreadSampler::Start(std::chrono::milliseconds interval, DeviceClock deviceClock) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_started) {
            return;
        }
        m_started = true;
        m_deviceClock = std::move(deviceClock);
    }
    SampleNow();
    m_sampler = std::thread([this, interval] { Run(interval); });
}

void ThreadSampler::Stop() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    if (m_sampler.joinable()) {
        m_sampler.join();
    }
}

void ThreadSampler::Run(std::chrono::milliseconds interval) {
    prctl(PR_SET_NAME, "host-sampler", 0, 0, 0);
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        bool stopping = m_wake.wait_for(lock, interval, [this] { return m_stopping; });
        lock.unlock();
        SampleNow();
        if (stopping) {
            return;
        }
        lock.lock();
    }
}

void ThreadSampler::NextRun() {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_run;
}

void ThreadSampler::SampleNow() {
    // The run is read as the listing begins: a listing begun before NextRun() credits the
    // threads it finds first to the run before, however late it is merged.
    int run = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        run = m_run;
    }
    std::vector<Reading> readings;
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) {
        return;
    }
    while (dirent* entry = readdir(dir)) {
        int tid = atoi(entry->d_name);
        Reading r;
        // A thread that ended since the listing is simply not in this sample.
        if (tid > 0 && ReadThread(tid, r)) {
            readings.push_back(std::move(r));
        }
    }
    closedir(dir);
    // Read once the counters are: the device time they reached is at most this.
    Merge(readings, run, m_deviceClock ? m_deviceClock() : 0);
}

void ThreadSampler::Merge(const std::vector<Reading>& readings, int run, double device) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const bool first = !m_sampled;
    m_sampled = true;
    // /proc tells a thread's birth on the machine's clock only: one born since the latest
    // sample counts its device time from that sample, on the simulated clock a few hundred
    // device seconds early at most.
    const double bornAfter = m_lastDevice;
    m_lastDevice = std::max(m_lastDevice, device);
    for (const Reading& r : readings) {
        auto it = m_threads.find({r.tid, r.startTicks});
        if (it == m_threads.end()) {
            Observed o;
            o.order = m_threads.size();
            o.run = run;
            o.deviceFrom = first ? device : bornAfter;
            if (first) {
                o.from = r.at;
                o.firstTicks = r.cpuTicks;
                o.firstWakeups = r.wakeups;
            } else {
                o.from = static_cast<double>(r.startTicks) / TicksPerSecond();
            }
            it = m_threads.emplace(std::make_pair(r.tid, r.startTicks), o).first;
        } else if (r.at <= it->second.last) {
            continue;  // SampleNow() and the sampler raced; the newer reading is in already
        }
        Observed& o = it->second;
        o.name = r.name;
        o.last = r.at;
        o.deviceLast = std::max(o.deviceLast, device);
        o.lastTicks = r.cpuTicks;
        o.lastWakeups = r.wakeups;
    }
}

std::vector<ThreadFigures> ThreadSampler::Figures() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<ThreadFigures> figures(m_threads.size());
    for (const auto& [key, o] : m_threads) {
        ThreadFigures& f = figures[o.order];
        f.owner = ThreadOwner(o.name);
        // The host's own threads live through a restart; the others come anew with each run.
        f.name = o.run > 1 && f.owner != std::string("host") ? o.name + "#" + std::to_string(o.run) : o.name;
        f.seconds = std::max(0.0, o.last - o.from);
        if (f.seconds > 0) {
            f.wakeupsPerSecond = static_cast<double>(o.lastWakeups - o.firstWakeups) / f.seconds;
            f.cpuPercent =
                100.0 * static_cast<double>(o.lastTicks - o.firstTicks) / TicksPerSecond() / f.seconds;
        }
        f.deviceSeconds = std::max(0.0, o.deviceLast - o.deviceFrom);
        if (f.deviceSeconds > 0) {
            f.wakeupsPerDeviceSecond = static_cast<double>(o.lastWakeups - o.firstWakeups) / f.deviceSeconds;
            f.cpuMsPerDeviceSecond =
                1000.0 * static_cast<double>(o.lastTicks - o.firstTicks) / TicksPerSecond() / f.deviceSeconds;
        }
    }
    return figures;
}

namespace {

// Entries of a /proc folder, "." and ".." left out.
int CountEntries(const char* path) {
    DIR* dir = opendir(path);
    if (dir == nullptr) {
        return 0;
    }
    int count = 0;
    while (dirent* entry = readdir(dir)) {
        count += entry->d_name[0] != '.';
    }
    closedir(dir);
    return count;
}

}  // namespace

DaySample SampleProcess() {
    DaySample sample;
    std::string status;
    if (ReadSmallFile("/proc/self/status", status)) {
        StatusNumber(status, "\nVmRSS:", sample.rssKb);
    }
#if defined(__GLIBC__) && (__GLIBC__ > 2 || __GLIBC_MINOR__ >= 33)
    const struct mallinfo2 heap = mallinfo2();
    sample.heapBytes = heap.uordblks + heap.hblkhd;
#endif
    sample.threads = CountEntries("/proc/self/task");
    sample.fds = CountEntries("/proc/self/fd") - 1;  // the listing's own
    return sample;
}

double PluginCpuMsPerDeviceSecond(const RunSummary& s) {
    double ms = 0;
    for (const ThreadFigures& t : s.threads) {
        if (t.owner == "plug-in") {
            ms += t.cpuMsPerDeviceSecond * t.deviceSeconds;
        }
    }
    return s.seconds > 0 ? ms / s.seconds : 0;
}

namespace {

std::string MessagesJson(const std::map<int, uint64_t>& messages) {
    std::string out = "{";
    for (const auto& [event, count] : messages) {
        out += (out.size() == 1 ? "\"" : ", \"") + EventKey(event) + "\": " + std::to_string(count);
    }
    return out + "}";
}

std::string MessagesText(const std::map<int, uint64_t>& messages) {
    std::string out;
    for (const auto& [event, count] : messages) {
        out += " " + EventKey(event) + " " + std::to_string(count);
    }
    return messages.empty() ? " none" : out;
}

// A run too short for the machine's clock to see counts as a millisecond.
double DevicePerWall(const RunSummary& s) {
    return s.seconds / std::max(s.wallSeconds, 0.001);
}

}  // namespace

std::string SummaryJson(const RunSummary& s) {
    std::string out = "{\"exit\": " + std::to_string(s.exitStatus) + ", \"seconds\": " + Fixed(s.seconds, 2) +
                      ", \"threads\": [";
    for (size_t i = 0; i < s.threads.size(); ++i) {
        const ThreadFigures& t = s.threads[i];
        out += (i == 0 ? "" : ", ");
        // Thread names are whatever a thread set, quotes, control bytes and a UTF-8 sequence cut
        // short at 15 bytes included.
        out += "{\"name\": " + Compact(Json::Value(t.name)) + ", \"owner\": " + Compact(Json::Value(t.owner));
        // A wall second of the simulated clock is thousands of device seconds, and as many as
        // the machine happens to allow.
        out += s.clock.empty() ? ", \"wakeups_per_s\": " + Fixed(t.wakeupsPerSecond, 1) +
                                     ", \"cpu_percent\": " + Fixed(t.cpuPercent, 2) + "}"
                               : ", \"wakeups_per_device_s\": " + Fixed(t.wakeupsPerDeviceSecond, 1) +
                                     ", \"cpu_ms_per_device_s\": " + Fixed(t.cpuMsPerDeviceSecond, 4) + "}";
    }
    out += "], \"messages\": " + MessagesJson(s.messages) + ", \"frames\": " + std::to_string(s.frames) +
           ", \"overlaps\": " + std::to_string(s.overlaps);
    if (!s.clock.empty()) {
        out += ", \"clock\": " + Compact(Json::Value(s.clock)) +
               ", \"wall_seconds\": " + Fixed(s.wallSeconds, 3) +
               ", \"device_per_wall\": " + Fixed(DevicePerWall(s), 1) +
               ", \"plugin_cpu_ms_per_device_s\": " + Fixed(PluginCpuMsPerDeviceSecond(s), 4) +
               ", \"days\": [";
        for (const DaySample& d : s.days) {
            out += (&d == s.days.data() ? "{\"day\": " : ", {\"day\": ") + std::to_string(d.day) +
                   ", \"rss_kb\": " + std::to_string(d.rssKb) +
                   ", \"heap_bytes\": " + std::to_string(d.heapBytes) +
                   ", \"threads\": " + std::to_string(d.threads) + ", \"fds\": " + std::to_string(d.fds) +
                   ", \"messages\": " + MessagesJson(d.messages) + "}";
        }
        out += "]";
    }
    return out + "}\n";
}

std::string StatsTable(const RunSummary& s) {
    int nameWidth = 6;
    for (const ThreadFigures& t : s.threads) {
        nameWidth = std::max(nameWidth, static_cast<int>(t.name.size()));
    }
    std::string out;
    char line[256];
    const bool sim = !s.clock.empty();
    const char* wakeups = sim ? "wakeups/dev s" : "wakeups/s";
    const char* cpu = sim ? "cpu ms/dev s" : "cpu %";
    const int wakeupsWidth = static_cast<int>(strlen(wakeups)), cpuWidth = sim ? 12 : 6;
    snprintf(line, sizeof line, "%-*s  %-8s  %*s  %*s\n", nameWidth, "thread", "owner", wakeupsWidth, wakeups,
             cpuWidth, cpu);
    out += line;
    for (const ThreadFigures& t : s.threads) {
        snprintf(line, sizeof line, "%-*s  %-8s  %*s  %*s\n", nameWidth, t.name.c_str(), t.owner.c_str(),
                 wakeupsWidth, Fixed(sim ? t.wakeupsPerDeviceSecond : t.wakeupsPerSecond, 1).c_str(),
                 cpuWidth, (sim ? Fixed(t.cpuMsPerDeviceSecond, 4) : Fixed(t.cpuPercent, 2)).c_str());
        out += line;
    }
    out += "messages:" + MessagesText(s.messages) + "\n";
    out += "frames: " + std::to_string(s.frames) + "  overlaps: " + std::to_string(s.overlaps) +
           "  exit: " + std::to_string(s.exitStatus) + " after " + Fixed(s.seconds, 1) + " s\n";
    for (const DaySample& d : s.days) {
        out += "day " + std::to_string(d.day) + ": rss " + std::to_string(d.rssKb) + " kB  heap " +
               std::to_string(d.heapBytes) + " B  threads " + std::to_string(d.threads) + "  fds " +
               std::to_string(d.fds) + "  messages" + MessagesText(d.messages) + "\n";
    }
    // The clock's line stays the last: scripts read the ratio from it.
    if (sim) {
        out += "plug-in: " + Fixed(PluginCpuMsPerDeviceSecond(s), 4) + " ms of processor per device second\n";
        out += "clock: " + s.clock + "  device " + Fixed(s.seconds, 1) + " s  wall " +
               Fixed(s.wallSeconds, 3) + " s  " + Fixed(DevicePerWall(s), 1) + " device s per wall s\n";
    }
    return out;
}

bool WriteSummaryFile(const std::string& path, const RunSummary& summary, std::string& error) {
    const std::string json = SummaryJson(summary);
    FILE* f = fopen(path.c_str(), "w");
    if (f == nullptr) {
        error = "cannot write the summary '" + path + "': " + strerror(errno);
        return false;
    }
    bool ok = fwrite(json.data(), 1, json.size(), f) == json.size();
    int writeErrno = errno;
    if (fclose(f) != 0 && ok) {
        ok = false;
        writeErrno = errno;
    }
    if (!ok) {
        error = "cannot write the summary '" + path + "': " + strerror(writeErrno);
    }
    return ok;
}

}  // namespace truckhost
