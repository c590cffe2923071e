// The plug-in as a module file: its version line read from the file's bytes, and the module
// loaded and driven through its three entry points, load, start and stop, found by their plain
// names as the recorder's host service process finds them.
#ifndef TRUCK_HOST_PLUGINMODULE_H
#define TRUCK_HOST_PLUGINMODULE_H

#include <stdint.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace truckhost {

// The host's own view of the two records it shares with a plug-in.
struct HostServiceAttr {
    char name[32];
    char type[32];
};
static_assert(sizeof(HostServiceAttr) == 64, "attribute block is 64 bytes");

// Byte 1 is the plug-in's running flag, written from the plug-in's thread.
struct HostServiceParam {
    unsigned char reserved0;
    std::atomic<unsigned char> running;
    unsigned char reserved[30];
};
static_assert(sizeof(std::atomic<unsigned char>) == 1, "running flag is one byte");

// The plug-in's version line, "truckservice <version> (<commit>)", found in the file's bytes as
// `strings` finds it on a device: the module is not loaded, so a module for another
// architecture answers too.
bool ReadPluginVersion(const std::string& path, std::string& line, std::string& error);
// --version: the host's line and the plug-in's; the exit status.
int PrintVersions(const std::string& plugin);

// The plug-in's lifecycle, as a recorder's host drives it. Status lines ("load: 0, ...",
// "start: 0", "stop: 0, ucRunning 0") go to standard error.
class PluginService {
public:
    // Loads the module and finds its entry points; false with the reason.
    bool Open(const std::string& path, std::string& error);
    void Load();
    int Start();
    // Stops a running plug-in; the result of stop, or 0 when it was not running.
    int Stop();
    // As a recorder's host restarts a service: stop, a pause, start; `stopped` is called in
    // between. False when the start failed.
    bool Restart(uint64_t gapMs, const std::function<void()>& stopped);
    // A panel redraws the whole terminal in place, over anything else written there: while it
    // runs the status lines wait, and come out in order once it is left.
    void HoldStatusLines(bool hold);

private:
    using LoadFn = int (*)(HostServiceAttr*);
    using RunFn = int (*)(HostServiceParam*);

    void Status(const char* format, ...) __attribute__((format(printf, 2, 3)));
    int StartLocked();
    int StopLocked();

    void* m_module = nullptr;
    LoadFn m_load = nullptr;
    RunFn m_start = nullptr;
    RunFn m_stop = nullptr;
    std::mutex m_mutex;  // one lifecycle call at a time: the script's restart against the end of the run
    bool m_running = false;
    std::mutex m_statusMutex;  // guards the two below: a restart's lines come from the script's thread
    bool m_holdStatus = false;
    std::vector<std::string> m_heldStatus;
    // The plug-in keeps the block's address while it runs, and a stuck thread may write it
    // after stop: it lives as long as the process.
    static HostServiceParam m_param;
};

}  // namespace truckhost

#endif
