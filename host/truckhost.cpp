// truckhost: does what the recorder's host service process does with a service plug-in:
// dlopen it, find load/start/stop by their plain names, drive it, and report.
//
// main() reads as set-up, run, report; each job has its file:
//   HostOptions    the option table, --help, what the options say together
//   PluginModule   the plug-in's version line, the module loaded and its lifecycle
//   DevicePrep     the simulated device's identity and store, a replay's recording
//   HostRun        the device, logs, views and plug-in wired up; the run loop
//   HostReport     the end of a run: threads, replay check, summary, exit status
// and the host's libraries beside them: HostScript (--script), BusRecord (--bus-log,
// --replay), MediaSide and HostView (what the media side shows), RunSummary (--summary),
// HostText (JSON, hex, dates, files), BusEvents.h (the bus events the host knows).
#include <stdio.h>

#include <string>

#include "DevicePrep.h"
#include "HostOptions.h"
#include "HostRun.h"
#include "PluginModule.h"

int main(int argc, char** argv) {
    using namespace truckhost;
    Options options;
    const int parsed = ParseOptions(argc, argv, options);
    if (parsed >= 0) {
        return parsed;
    }
    if (options.showVersion) {
        return PrintVersions(options.plugin);
    }
    Device device;
    std::string error;
    if (!PrepareDevice(options, device, error)) {
        fprintf(stderr, "truckhost: %s\n", error.c_str());
        return kExitRefused;
    }
    HostRun run(options, device);
    if (!run.SetUp(error)) {
        fprintf(stderr, "truckhost: %s\n", error.c_str());
        return kExitRefused;
    }
    return run.Report(run.Run());
}
