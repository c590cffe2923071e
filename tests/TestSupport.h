// Shared fixtures for the suites that drive the plug-in inside the simulated device.
#ifndef TRUCK_TESTS_TESTSUPPORT_H
#define TRUCK_TESTS_TESTSUPPORT_H

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "NvxControl.h"

// Bounds for waits whose length is not the point of the test.
constexpr int kGenerousMs = 10000;

// Polls a condition that has no wait of its own, up to a generous bound.
template <class Pred>
bool Eventually(Pred pred, int timeoutMs = kGenerousMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

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

#endif
