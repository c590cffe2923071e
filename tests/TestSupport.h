// Shared fixtures for the suites that drive the plug-in inside the simulated device.
#ifndef TRUCK_TESTS_TESTSUPPORT_H
#define TRUCK_TESTS_TESTSUPPORT_H

#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/prctl.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "NvxControl.h"

// Bounds for waits whose length is not the point of the test.
constexpr int kGenerousMs = 10000;

// Polls a condition that has no wait of its own, up to a generous bound. It pauses by the
// machine's clock with poll, which the simulated device clock does not take, so that on that
// clock the device's time stands still while a test waits for something of the machine's.
template <class Pred>
bool Eventually(Pred pred, int timeoutMs = kGenerousMs) {
    for (int pauses = timeoutMs / 2; !pred(); --pauses) {
        if (pauses <= 0) {
            return false;
        }
        poll(nullptr, 0, 2);
    }
    return true;
}

// The name of the calling thread.
inline std::string ThreadName() {
    char name[17] = {0};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    return name;
}

// Thread id and name of every thread of the process.
inline std::vector<std::pair<int, std::string>> Tasks() {
    std::vector<std::pair<int, std::string>> tasks;
    DIR* dir = opendir("/proc/self/task");
    for (const dirent* entry = readdir(dir); entry != nullptr; entry = readdir(dir)) {
        std::string name;
        std::getline(std::ifstream(std::string("/proc/self/task/") + entry->d_name + "/comm"), name);
        tasks.emplace_back(atoi(entry->d_name), name);
    }
    closedir(dir);
    return tasks;
}

inline int CountThreads(const std::string& name) {
    const auto tasks = Tasks();
    return static_cast<int>(
        std::count_if(tasks.begin(), tasks.end(), [&](const auto& t) { return t.second == name; }));
}

// Whether `expected` threads carry the name once every joined thread has gone. The device build's
// tests run under user-mode emulation, where a joined thread's host thread can outlive the join
// for a moment, still listed; there the listing is read again within a bound. Natively a join
// ends the listing at once.
inline bool ThreadsNamed(const std::string& name, int expected) {
#if defined(__arm__)
    return Eventually([&] { return CountThreads(name) == expected; });
#else
    return CountThreads(name) == expected;
#endif
}

// Descriptors the process holds open, for the tests that pin a file closed.
inline int OpenDescriptors() {
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (readdir(dir) != nullptr) {
        ++count;
    }
    closedir(dir);
    return count;
}

// A folder of its own under /tmp ("/tmp/PREFIX.XXXXXX"), removed with everything in it when
// the object goes; path() is empty when the folder could not be made.
class TempFolder {
public:
    explicit TempFolder(const std::string& prefix) {
        std::string name = "/tmp/" + prefix + ".XXXXXX";
        if (mkdtemp(name.data()) != nullptr) {
            m_path = name;
        }
    }
    ~TempFolder() {
        if (!m_path.empty()) {
            std::error_code error;
            std::filesystem::remove_all(m_path, error);
            EXPECT_FALSE(error) << "removing " << m_path << ": " << error.message();
        }
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

// A fresh simulated device for each test, quiet on stderr, with every log line captured.
class DeviceTest : public ::testing::Test {
protected:
    void SetUp() override {
        nvx::Reset();
        nvx::SetLogLevel(-1);
        nvx::StartLogCapture();
    }
    void TearDown() override {
        // Nothing of a test may still run when the next one starts.
        EXPECT_TRUE(nvx::WaitForThreadsToEnd(kGenerousMs));
        nvx::StopLogCapture();
    }

    static bool Logged(const std::string& module, int level, const std::string& text) {
        for (const nvx::LogLine& line : nvx::CapturedLogs()) {
            if (line.module == module && line.level == level && line.text == text) {
                return true;
            }
        }
        return false;
    }
};

// A device on the simulated clock from tick kSimStartMs. The test's own thread is the driver:
// it holds the turn whenever the others wait.
constexpr uint64_t kSimStartMs = 5000;
class SimDeviceTest : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        nvx::SimClockOn(kSimStartMs);
    }
    void TearDown() override {
        nvx::SimClockOff();
        DeviceTest::TearDown();
    }
};

#endif
