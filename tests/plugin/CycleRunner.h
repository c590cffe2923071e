// Runs a manager's main cycle on a platform thread, as the service object does, so that a
// test can put businesses into the manager before the cycle starts.
#ifndef TRUCK_TESTS_CYCLERUNNER_H
#define TRUCK_TESTS_CYCLERUNNER_H

#include <string.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>

#include "TestSupport.h"
#include "TruckServiceManage.h"

struct CycleRunner {
    explicit CycleRunner(const std::shared_ptr<CTruckServiceManage>& manage) {
        param.ucReserved0 = 0;
        param.ucRunning.store(0);
        manage->basic_launch_cycle(&param);
    }
    tag_ServiceParam param;
};

// The parameters of a business made by a test, which reads none; they outlive every business.
inline Json::Value& NoParam() {
    static Json::Value none;
    return none;
}

inline tagGlobalConfig MakeGlobalConfig() {
    tagGlobalConfig config;
    memset(&config, 0, sizeof(config));
    return config;
}

// A manager on a simulated device whose "/" is a temporary folder that holds "usr/local/cfg"
// and "proc"; the folder is named after the prefix a suite gives.
class ManagerOnDevice : public DeviceTest {
protected:
    explicit ManagerOnDevice(const std::string& folderPrefix) : m_device(folderPrefix) {}

    void SetUp() override {
        DeviceTest::SetUp();
        ASSERT_FALSE(m_device.path().empty());
        for (const char* folder : {"/usr/local/cfg", "/proc"}) {
            std::error_code error;
            std::filesystem::create_directories(HostPath(folder), error);
            ASSERT_FALSE(error) << folder << ": " << error.message();
        }
        nvx::SetSystemRoot(m_device.path());
        config = MakeGlobalConfig();
        manage = std::make_shared<CTruckServiceManage>(&config);
    }
    void TearDown() override {
        manage.reset();
        nvx::SetSystemRoot("");
        DeviceTest::TearDown();
    }

    // Where a path on the device lies on this machine.
    std::string HostPath(const std::string& devicePath) const { return m_device.path() + devicePath; }
    // A business configuration that enables the OSD business on a thread of its own.
    void WriteOsdOnItsOwnThread() const {
        WriteDeviceFile("/usr/local/cfg/truckbusiness.jsn",
                        R"({"BUSINESS_CONFIG":[{"BUSINESS_ENABLE":"true","BUSINESS_ID":7,)"
                        R"("BUSINESS_NAME":"truckosd","BUSINESS_THREAD":"true"}]})");
    }
    // Replaces the file at a device path with the bytes, making the folders it needs.
    void WriteDeviceFile(const std::string& devicePath, const std::string& bytes) const {
        const std::filesystem::path file = HostPath(devicePath);
        std::error_code error;
        std::filesystem::create_directories(file.parent_path(), error);
        std::ofstream(file, std::ios::binary) << bytes;
    }

    TempFolder m_device;
    tagGlobalConfig config;
    std::shared_ptr<CTruckServiceManage> manage;
};

#endif
