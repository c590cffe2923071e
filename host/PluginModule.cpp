#include "PluginModule.h"

#include <dlfcn.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <chrono>
#include <thread>

#include "HostOptions.h"
#include "HostText.h"
#include "NvxControl.h"
#include "TruckVersion.h"

namespace truckhost {

bool ReadPluginVersion(const std::string& path, std::string& line, std::string& error) {
    std::string bytes;
    if (!ReadWholeFile(path, "plug-in", bytes, error)) {
        return false;
    }
    // Another text of the module may start with the same word; the line's version starts with
    // a digit.
    static const std::string kPrefix = "truckservice ";
    for (size_t at = bytes.find(kPrefix); at != std::string::npos; at = bytes.find(kPrefix, at + 1)) {
        const size_t after = at + kPrefix.size();
        if (after < bytes.size() && bytes[after] >= '0' && bytes[after] <= '9') {
            line = bytes.substr(at, bytes.find('\0', at) - at);
            return true;
        }
    }
    error = "no version line in the plug-in '" + path + "'";
    return false;
}

int PrintVersions(const std::string& plugin) {
    // The host is built from the same checkout as the module it ships with.
    printf("truckhost%s\n", TRUCK_VERSION_LINE + strlen("truckservice"));
    std::string line, error;
    if (!ReadPluginVersion(plugin, line, error)) {
        fprintf(stderr, "truckhost: %s\n", error.c_str());
        return kExitRefused;
    }
    printf("%s\n", line.c_str());
    return kExitOk;
}

HostServiceParam PluginService::m_param;

bool PluginService::Open(const std::string& path, std::string& error) {
    // A name without a slash would send dlopen down the library path, to another file of
    // that name or to none: the user means the file in the current folder.
    const std::string file = path.find('/') == std::string::npos ? "./" + path : path;
    m_module = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (m_module == nullptr) {
        error = "cannot load plug-in '" + path + "': " + dlerror();
        return false;
    }
    m_load = reinterpret_cast<LoadFn>(dlsym(m_module, "JQ_SDK_Service_Load"));
    m_start = reinterpret_cast<RunFn>(dlsym(m_module, "JQ_SDK_Service_Start"));
    m_stop = reinterpret_cast<RunFn>(dlsym(m_module, "JQ_SDK_Service_Stop"));
    const char* missing = m_load == nullptr    ? "JQ_SDK_Service_Load"
                          : m_start == nullptr ? "JQ_SDK_Service_Start"
                          : m_stop == nullptr  ? "JQ_SDK_Service_Stop"
                                               : nullptr;
    if (missing != nullptr) {
        error = "plug-in '" + path + "' lacks " + missing;
        return false;
    }
    return true;
}

void PluginService::Load() {
    HostServiceAttr attr;
    memset(&attr, 0xff, sizeof(attr));
    const int rc = m_load(&attr);
    attr.name[31] = '\0';
    attr.type[31] = '\0';
    Status("load: %d, service \"%s\", type \"%s\"\n", rc, attr.name, attr.type);
}

int PluginService::Start() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return StartLocked();
}

int PluginService::Stop() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return StopLocked();
}

bool PluginService::Restart(uint64_t gapMs, const std::function<void()>& stopped) {
    std::lock_guard<std::mutex> lock(m_mutex);
    StopLocked();
    stopped();
    if (nvx::SimClockIsOn()) {
        // The caller is the runner that drives the device: the pause is device time.
        nvx::SimSleepUntil(nvx::SimNowMs() + gapMs);
    } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(gapMs));
    }
    return StartLocked() == 0;
}

void PluginService::HoldStatusLines(bool hold) {
    std::lock_guard<std::mutex> lock(m_statusMutex);
    m_holdStatus = hold;
    if (!hold) {
        for (const std::string& line : m_heldStatus) {
            fputs(line.c_str(), stderr);
        }
        m_heldStatus.clear();
    }
}

void PluginService::Status(const char* format, ...) {
    char line[256];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof(line), format, args);
    va_end(args);
    std::lock_guard<std::mutex> lock(m_statusMutex);
    if (m_holdStatus) {
        m_heldStatus.push_back(line);
    } else {
        fputs(line, stderr);
    }
}

int PluginService::StartLocked() {
    const int rc = m_start(&m_param);
    Status("start: %d\n", rc);
    m_running = rc == 0;
    return rc;
}

int PluginService::StopLocked() {
    if (!m_running) {
        return 0;
    }
    const int rc = m_stop(&m_param);
    Status("stop: %d, ucRunning %u\n", rc, static_cast<unsigned>(m_param.running.load()));
    m_running = false;
    return rc;
}

}  // namespace truckhost
