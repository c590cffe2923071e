// The real shared module, loaded with dlopen and driven through its three entry points the
// way the recorder's host process drives it.
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>

#include "TestSupport.h"

namespace {

// The host's own view of the records (not the plug-in's headers).
struct HostAttr {
    char bytes[64];
};
struct HostParam {
    unsigned char reserved0;
    std::atomic<unsigned char> running;
    unsigned char reserved[30];
};
typedef int (*LoadFn)(HostAttr*);
typedef int (*RunFn)(HostParam*);

class PluginModule : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        m_module = dlopen(TRUCK_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(m_module, nullptr) << dlerror();
        load = reinterpret_cast<LoadFn>(dlsym(m_module, "JQ_SDK_Service_Load"));
        start = reinterpret_cast<RunFn>(dlsym(m_module, "JQ_SDK_Service_Start"));
        stop = reinterpret_cast<RunFn>(dlsym(m_module, "JQ_SDK_Service_Stop"));
        ASSERT_TRUE(load != nullptr && start != nullptr && stop != nullptr);
    }
    // The module stays loaded: a host never unloads a service plug-in while the process runs.
    void* m_module = nullptr;
    LoadFn load = nullptr;
    RunFn start = nullptr;
    RunFn stop = nullptr;
};

}  // namespace

TEST_F(PluginModule, ExportsOnlyTheThreeEntryPoints) {
    FILE* pipe = popen("nm -D --defined-only " TRUCK_PLUGIN_PATH, "r");
    ASSERT_NE(pipe, nullptr);
    std::set<std::string> names;
    char line[512];
    while (fgets(line, sizeof(line), pipe) != nullptr) {
        char name[400];
        if (sscanf(line, "%*s %*s %399s", name) == 1) {
            names.insert(name);
        }
    }
    ASSERT_EQ(pclose(pipe), 0);
    EXPECT_EQ(names,
              (std::set<std::string>{"JQ_SDK_Service_Load", "JQ_SDK_Service_Start", "JQ_SDK_Service_Stop"}));
}

TEST_F(PluginModule, LoadReportsNameAndTypeInZeroPaddedFields) {
    EXPECT_EQ(load(nullptr), 0);
    HostAttr attr;
    memset(&attr, 0xAB, sizeof(attr));
    ASSERT_EQ(load(&attr), 0);
    const std::string name = "trukservice";
    const std::string type = "business";
    EXPECT_EQ(std::string(attr.bytes, name.size()), name);
    EXPECT_EQ(std::string(attr.bytes + 32, type.size()), type);
    for (size_t i = name.size(); i < 32; ++i) {
        EXPECT_EQ(attr.bytes[i], 0) << "name padding at " << i;
    }
    for (size_t i = 32 + type.size(); i < 64; ++i) {
        EXPECT_EQ(attr.bytes[i], 0) << "type padding at " << i;
    }
}

TEST_F(PluginModule, StartThenStopLeavesItNotRunning) {
    HostParam param;
    param.reserved0 = 0x5A;
    param.running.store(0);
    ASSERT_EQ(start(&param), 0);
    for (int i = 0; i < kGenerousMs / 5 && param.running.load() != 1; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(param.running.load(), 1);
    EXPECT_EQ(stop(&param), 0);
    EXPECT_EQ(param.running.load(), 0);
    EXPECT_EQ(param.reserved0, 0x5A) << "the host's other bytes are not touched";
    EXPECT_EQ(stop(&param), 0);
    EXPECT_EQ(nvx::CallCount("JQ_SDK_Global_Deinitialize"), 1u);
}
