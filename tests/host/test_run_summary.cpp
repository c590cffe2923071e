// The run summary: whose each thread is, the summary file as a JSON reader sees it, the thread
// sampler against threads whose blocking waits and CPU time the test knows, on the machine's
// clock and on a device clock the test moves, and what a device day's end reads of the process.
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>

#include "RunSummary.h"
#include "TestSupport.h"

namespace {

using namespace std::chrono;
using truckhost::ThreadFigures;

uint64_t VoluntarySwitches(int tid) {
    std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/status");
    std::string key;
    while (in >> key && key != "voluntary_ctxt_switches:") {
    }
    uint64_t value = 0;
    in >> value;
    return value;
}

double ThreadCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// A named thread that burns some CPU time of its own, then sleeps on a condition variable.
// Its only blocking wait is that one (the test takes the mutex only while it sleeps there), so
// a rise in its voluntary switches means it slept there again: each Wake() returns after one
// wake and one sleep, however slow the machine.
class Sleeper {
public:
    Sleeper(const char* name, double burnSeconds) : thread_([=] { Run(name, burnSeconds); }) {
        EXPECT_TRUE(Eventually([this] { return before_ != kUnset && VoluntarySwitches(tid_) > before_; }));
    }
    ~Sleeper() { End(); }
    bool Wake() {
        const uint64_t asleep = VoluntarySwitches(tid_);
        Signal([this] { ++wakes_; });
        return Eventually([&] { return VoluntarySwitches(tid_) > asleep; });
    }
    double End() {  // its own CPU time
        if (thread_.joinable()) {
            Signal([this] { quit_ = true; });
            thread_.join();
        }
        return cpu_;
    }

private:
    static constexpr uint64_t kUnset = ~uint64_t{0};
    template <typename Change>
    void Signal(Change change) {
        std::unique_lock<std::mutex> lock(mutex_);
        change();
        lock.unlock();  // woken, it must not find the mutex taken: that would be a second wait
        wake_.notify_one();
    }
    void Run(const char* name, double burnSeconds) {
        prctl(PR_SET_NAME, name, 0, 0, 0);
        for (volatile unsigned spin = 0; ThreadCpuSeconds() < burnSeconds; spin = spin + 1) {
        }
        tid_ = static_cast<int>(syscall(SYS_gettid));
        std::unique_lock<std::mutex> lock(mutex_);
        before_ = VoluntarySwitches(tid_);
        for (int seen = 0; !quit_; seen = wakes_) {
            wake_.wait(lock, [&] { return wakes_ != seen || quit_; });
        }
        cpu_ = ThreadCpuSeconds();
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    int wakes_ = 0;
    bool quit_ = false;
    std::atomic<int> tid_{0};
    std::atomic<uint64_t> before_{kUnset};
    double cpu_ = 0;
    std::thread thread_;
};

double Wakeups(const ThreadFigures& f) {
    return f.wakeupsPerSecond * f.seconds;
}

std::vector<ThreadFigures> Named(const std::vector<ThreadFigures>& all, const std::string& name) {
    std::vector<ThreadFigures> named;
    std::copy_if(all.begin(), all.end(), std::back_inserter(named), [&](auto& f) { return f.name == name; });
    return named;
}

TEST(ThreadOwner, NamePrefixesPickTheOwner) {
    const std::pair<const char*, const char*> table[] = {
        {"nvx-watchdog", "stand-in"}, {"nvx-", "stand-in"},    {"truckhost", "host"},
        {"host-sampler", "host"},     {"host-", "host"},       {"truckservice", "plug-in"},
        {"nvx", "plug-in"},           {"xnvx-a", "plug-in"},   {"truckhost2", "plug-in"},
        {"host", "plug-in"},          {"myhost-a", "plug-in"}, {"", "plug-in"},
    };
    for (const auto& [name, owner] : table) {
        EXPECT_STREQ(truckhost::ThreadOwner(name), owner) << name;
    }
}

truckhost::RunSummary Sample() {
    truckhost::RunSummary s{3, 61.257, {}, {{0x1210, 120}, {0x402F, 1}, {0xA, 7}}, 61, 2, "", 0, {}};
    s.threads = {{"truckservice", "plug-in", 20.04, 1.234, 60}, {"odd \"(x)\\", "host", 0.5, 0, 1}};
    return s;
}

TEST(RunSummary, FileReadsBackWithItsKeysTypesAndHexEvents) {
    const std::string path = testing::TempDir() + "run_summary.json";
    std::string error;
    ASSERT_TRUE(truckhost::WriteSummaryFile(path, Sample(), error)) << error;
    Json::Value v;
    std::ifstream in(path);
    ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &v, nullptr));
    using Names = std::vector<std::string>;
    EXPECT_EQ(v.getMemberNames(), (Names{"exit", "frames", "messages", "overlaps", "seconds", "threads"}));
    EXPECT_TRUE(v["exit"].isInt() && v["frames"].isUInt64() && v["overlaps"].isUInt64());
    EXPECT_EQ(v["exit"].asInt(), 3);
    EXPECT_EQ(v["frames"].asUInt64(), 61u);
    EXPECT_NEAR(v["seconds"].asDouble(), 61.26, 0.006);
    EXPECT_EQ(v["messages"].getMemberNames(), (Names{"0x000A", "0x1210", "0x402F"}));
    EXPECT_EQ(v["messages"]["0x1210"].asUInt64(), 120u);
    ASSERT_EQ(v["threads"].size(), 2u);
    const Json::Value& t = v["threads"][0];
    EXPECT_EQ(t.getMemberNames(), (Names{"cpu_percent", "name", "owner", "wakeups_per_s"}));
    EXPECT_EQ(t["owner"].asString(), "plug-in");
    EXPECT_NEAR(t["wakeups_per_s"].asDouble(), 20.0, 0.051);
    EXPECT_NEAR(t["cpu_percent"].asDouble(), 1.23, 0.0051);
    EXPECT_EQ(v["threads"][1]["name"].asString(), "odd \"(x)\\");
    EXPECT_FALSE(truckhost::WriteSummaryFile(path + ".d/none", Sample(), error));
    EXPECT_EQ(error, "cannot write the summary '" + path + ".d/none': No such file or directory");
}

TEST(RunSummary, TableAlignsThreadsAndListsTheCounts) {
    std::istringstream table(truckhost::StatsTable(Sample()));
    std::string l[5];
    for (std::string& line : l) {
        std::getline(table, line);
    }
    EXPECT_TRUE(l[1].find("plug-in") == l[0].find("owner") && l[2].find("host") == l[0].find("owner"));
    EXPECT_EQ(l[1].find("20.0") + 4, l[0].find("wakeups/s") + 9);
    EXPECT_EQ(l[3], "messages: 0x000A 7 0x1210 120 0x402F 1");
    EXPECT_EQ(l[4].rfind("frames: 61  overlaps: 2", 0), 0u) << l[4];
    EXPECT_EQ(truckhost::StatsTable(Sample()).find("clock"), std::string::npos);
}

// On the simulated clock each thread counts per device second, the plug-in's threads add up to
// its cost, and each device day is a line and an entry.
TEST(RunSummary, OnTheSimulatedClockFiguresArePerDeviceSecondAndDaysAreListed) {
    truckhost::RunSummary sim = Sample();
    sim.clock = "sim";
    sim.wallSeconds = 0.5;
    sim.threads = {{"truckservice", "plug-in", 9, 9, 1, 40, 19.96, 0.5},
                   {"osd", "plug-in", 9, 9, 1, 20, 10, 0.25},
                   {"nvx-watchdog", "stand-in", 9, 9, 1, 61, 1, 10}};
    sim.days = {{1, 20480, 1048576, 12, 9, {{0x1210, 172801}, {0x402F, 3}}}, {2, 20484, 1048580, 12, 9, {}}};
    EXPECT_NEAR(truckhost::PluginCpuMsPerDeviceSecond(sim), (0.5 * 40 + 0.25 * 20) / 61.257, 1e-12);
    const std::string json = truckhost::SummaryJson(sim);
    EXPECT_NE(
        json.find("\"owner\": \"plug-in\", \"wakeups_per_device_s\": 20.0, \"cpu_ms_per_device_s\": 0.5000}"),
        std::string::npos);  // not the wall figures, 9
    EXPECT_NE(json.find(", \"clock\": \"sim\", \"wall_seconds\": 0.500, \"device_per_wall\": 122.5, "
                        "\"plugin_cpu_ms_per_device_s\": 0.4081, \"days\": [{"),
              std::string::npos);
    Json::Value v;
    std::istringstream in(json);
    ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &v, nullptr));
    using Names = std::vector<std::string>;
    EXPECT_EQ(v["threads"][2].getMemberNames(),
              (Names{"cpu_ms_per_device_s", "name", "owner", "wakeups_per_device_s"}));
    ASSERT_EQ(v["days"].size(), 2u);
    EXPECT_EQ(v["days"][0].getMemberNames(),
              (Names{"day", "fds", "heap_bytes", "messages", "rss_kb", "threads"}));
    EXPECT_EQ(Json::writeString(Json::StreamWriterBuilder(), v["days"][0]["messages"]),
              "{\n\t\"0x1210\" : 172801,\n\t\"0x402F\" : 3\n}");
    EXPECT_TRUE(v["days"][1]["day"] == 2 && v["days"][1]["rss_kb"] == 20484 &&
                v["days"][1]["heap_bytes"] == 1048580 && v["days"][1]["threads"] == 12 &&
                v["days"][1]["fds"] == 9 && v["days"][1]["messages"].empty());
    std::istringstream table(truckhost::StatsTable(sim));
    std::vector<std::string> l;
    for (std::string line; std::getline(table, line);) {
        l.push_back(line);
    }
    ASSERT_EQ(l.size(), 10u);
    EXPECT_EQ(l[0], "thread        owner     wakeups/dev s  cpu ms/dev s");
    EXPECT_EQ(l[1], "truckservice  plug-in            20.0        0.5000");
    EXPECT_EQ(l[6],
              "day 1: rss 20480 kB  heap 1048576 B  threads 12  fds 9  messages 0x1210 172801 0x402F 3");
    EXPECT_EQ(l[7], "day 2: rss 20484 kB  heap 1048580 B  threads 12  fds 9  messages none");
    EXPECT_EQ(l[8], "plug-in: 0.4081 ms of processor per device second");
    EXPECT_EQ(l[9], "clock: sim  device 61.3 s  wall 0.500 s  122.5 device s per wall s");
}

// Wakeups are bounded by the waits the test drives, not by time: one sleep per wake, plus a
// few as the thread starts; the upper bound leaves room for a spurious wake of the condition.
TEST(ThreadSampler, CountsWakeupsAndCpuFromBirthOrFromTheFirstSample) {
    constexpr int kWakes = 25;
    Sleeper early("early", 0.2);
    auto began = steady_clock::now();
    truckhost::ThreadSampler sampler;
    std::atomic<double> device{100};
    // No sample of the interval between the first and Stop's: the probe counts from birth.
    sampler.Start(hours(1), [&] { return device.load(); });
    device = 110;
    sampler.SampleNow();  // the latest before the probe's birth: its first device second
    Sleeper probe("probe (x) 1", 0.2);
    for (int i = 0; i < kWakes; ++i) {
        ASSERT_TRUE(probe.Wake()) << i;
    }
    device = 130;
    sampler.Stop();
    double wall = duration<double>(steady_clock::now() - began).count();
    double probeCpu = probe.End();
    auto all = sampler.Figures();
    const ThreadFigures p = Named(all, "probe (x) 1").at(0), e = Named(all, "early").at(0);
    EXPECT_GE(Wakeups(p), kWakes - 0.01);
    EXPECT_LE(Wakeups(p), 2 * kWakes + 10);
    EXPECT_NEAR(p.cpuPercent / 100 * p.seconds, probeCpu, 0.04);          // clock ticks
    EXPECT_TRUE(p.seconds > 0 && p.seconds <= wall + 0.02) << p.seconds;  // birth is known to a tick
    EXPECT_LT(e.cpuPercent / 100 * e.seconds, 0.1);                       // its burn came before Start
    EXPECT_LE(e.seconds, wall);
    // The same counts over device seconds: the early thread's from the first sample.
    EXPECT_TRUE(p.deviceSeconds == 20 && e.deviceSeconds == 30) << p.deviceSeconds << " " << e.deviceSeconds;
    EXPECT_NEAR(p.wakeupsPerDeviceSecond * 20, Wakeups(p), 1e-9);
    EXPECT_NEAR(p.cpuMsPerDeviceSecond * 20 / 1000, p.cpuPercent / 100 * p.seconds, 1e-9);
    EXPECT_NEAR(e.cpuMsPerDeviceSecond * 30 / 1000, e.cpuPercent / 100 * e.seconds, 1e-9);
    EXPECT_EQ(Named(all, "host-sampler").at(0).owner, "host");
}

// Entries of a folder of /proc as the kernel lists them, counted apart from the host's way.
long Listed(const char* folder) {
    return static_cast<long>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

// What a device day's end reads of the process: one thread, one descriptor and the memory the
// test holds more.
TEST(ProcessSample, SeesAThreadADescriptorAndTouchedMemoryMore) {
    const truckhost::DaySample before = truckhost::SampleProcess();
    const long tasksBefore = Listed("/proc/self/task");
    const long fdsBefore = Listed("/proc/self/fd") - 1;  // the listing's own
    constexpr size_t kBytes = 8 << 20;
    std::unique_ptr<char[]> held(new char[kBytes]);
    memset(held.get(), 1, kBytes);
    // Mapped, never touched: the process's size, not what it holds.
    void* untouched = mmap(nullptr, 8 * kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    std::ifstream open("/proc/self/status");
    Sleeper thread("counted", 0);
    const truckhost::DaySample after = truckhost::SampleProcess();
    // The emulator and the thread sanitizer run threads of their own, some started on demand.
    EXPECT_EQ(before.threads, tasksBefore);
    EXPECT_EQ(after.threads, Listed("/proc/self/task"));
    EXPECT_GE(after.threads, before.threads + 1);
    EXPECT_EQ(before.fds, fdsBefore);
    EXPECT_EQ(after.fds, before.fds + 1);
    EXPECT_GE(after.rssKb, before.rssKb + kBytes / 1024);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // The sanitizers keep their heap apart from glibc's, and shadow what it holds.
    EXPECT_GE(after.heapBytes, before.heapBytes + kBytes);
    EXPECT_LT(after.rssKb, before.rssKb + 2 * kBytes / 1024);
#endif
    munmap(untouched, 8 * kBytes);
}

// A restarted plug-in (and the device under it) brings threads of the old names: the second
// run's carry its number.
TEST(ThreadSampler, KeepsAThreadThatEndedAndTwoOfOneNameApartByRun) {
    truckhost::ThreadSampler sampler;
    sampler.Start(milliseconds(5));
    Sleeper first("twin", 0);
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(first.Wake());
    }
    ASSERT_TRUE(Eventually([&] {
        auto seen = Named(sampler.Figures(), "twin");
        return !seen.empty() && Wakeups(seen[0]) >= 6;
    })) << "the sampler never saw the first twin's last sleep";
    first.End();
    sampler.NextRun();
    Sleeper second("twin", 0), host("host-late", 0);
    sampler.Stop();
    const auto all = sampler.Figures();
    ASSERT_EQ(Named(all, "twin").size(), 1u);
    ASSERT_EQ(Named(all, "twin#2").size(), 1u);
    EXPECT_GE(Wakeups(Named(all, "twin")[0]), 6 - 0.01);  // the one that ended
    EXPECT_LT(Wakeups(Named(all, "twin#2")[0]), 6);
    EXPECT_EQ(Named(all, "host-late").size(), 1u) << "the host's threads are not numbered";
}

}  // namespace
