// Global-parameter and basic-device SDK entry points of the simulated device.
#include <string.h>

#include <atomic>
#include <mutex>

#include "Device.h"
#include "JQ_LOG.h"
#include "JQ_SDK_Basic.h"
#include "JQ_SDK_Global.h"

namespace {

std::mutex g_mutex;
tagGlobalConfig g_config;  // guarded by g_mutex while filled; stays valid for the process
bool g_initialised = false;

// The basic SDK's handle only has to be a distinct non-null pointer.
int g_basicHandleStorage = 0;
std::atomic<int> g_basicUsers{0};

}  // namespace

tagGlobalConfig* JQ_SDK_Global_Initialize(const char* path) {
    nvx::detail::CountCall("JQ_SDK_Global_Initialize");
    if (path == nullptr || nvx::detail::GlobalInitFails()) {
        NVX_LOG(0, "global parameter initialisation failed [%s]\n", path != nullptr ? path : "(null)");
        return nullptr;
    }
    const nvx::DeviceProfile profile = nvx::GetDeviceProfile();
    nvx::detail::LoadParamStore(path);
    std::lock_guard<std::mutex> lock(g_mutex);
    memset(&g_config, 0, sizeof(g_config));
    g_config.uiProductType = profile.productType;
    g_config.uiSystemType = profile.systemType;
    g_config.usVideoInNum = profile.videoInNum;
    g_config.usVideoIpNum = profile.videoIpNum;
    g_initialised = true;
    return &g_config;
}

int JQ_SDK_Global_StartService(tagGlobalConfig* config) {
    nvx::detail::CountCall("JQ_SDK_Global_StartService");
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        if (config != &g_config || !g_initialised) {
            return -1;
        }
    }
    nvx::detail::StartWatchdogMonitor();
    return 0;
}

int JQ_SDK_Global_Deinitialize(void) {
    nvx::detail::CountCall("JQ_SDK_Global_Deinitialize");
    nvx::detail::StopWatchdogMonitor();
    nvx::detail::StopParamStore();
    std::lock_guard<std::mutex> lock(g_mutex);
    g_initialised = false;
    return 0;
}

JQ_BASIC_HANDLE JQ_SDK_Basic_Initialize(int /*reserved0*/, int /*reserved1*/) {
    nvx::detail::CountCall("JQ_SDK_Basic_Initialize");
    if (nvx::detail::BasicInitFails()) {
        return nullptr;
    }
    ++g_basicUsers;
    return &g_basicHandleStorage;
}

int JQ_SDK_Basic_Deinitialize(JQ_BASIC_HANDLE handle) {
    nvx::detail::CountCall("JQ_SDK_Basic_Deinitialize");
    if (handle != &g_basicHandleStorage) {
        return -1;
    }
    --g_basicUsers;
    return 0;
}
