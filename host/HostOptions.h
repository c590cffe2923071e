// The host's command line. One table in HostOptions.cpp gives each option its argument, its
// --help text and the handler that reads it; ParseOptions then refuses what the options say
// together (a --check without a --replay, a replay given what its recording fixes).
#ifndef TRUCK_HOST_HOSTOPTIONS_H
#define TRUCK_HOST_HOSTOPTIONS_H

#include <stdint.h>

#include <string>
#include <vector>

#include "HostScript.h"

namespace truckhost {

// Exit statuses, as --help lists them.
constexpr int kExitOk = 0;
constexpr int kExitRunFailed = 1;  // start failed, a frame could not be written, a replay differs
constexpr int kExitRefused = 2;    // bad option or file, refused before start
constexpr int kExitThreadsLeft = 3;

struct Options {
    std::string plugin;  // default: libtruckservice.so beside truckhost
    bool showVersion = false;
    bool showHelp = false;
    std::string sysroot;  // default: the bundled demo device
    bool sysrootGiven = false;
    std::string deviceFile;  // empty: device.json in the system root, when there
    std::string paramStore;  // empty: the store of the system root, or the demo store beside it
    std::string busLog;
    double duration = -1;  // seconds; negative: until SIGINT/SIGTERM
    int logLevel = 2;
    bool startTimeGiven = false;
    int64_t startTime = 0;  // seconds since 1970, no zone
    bool scriptGiven = false;
    std::vector<ScriptStep> script;
    std::string replay;
    bool check = false;
    std::string framesDir;
    std::vector<int> channels;  // empty: channel 0
    int frameWidth = 1920, frameHeight = 1080;
    std::string summary;
    bool stats = false;
    // The device's clock: the machine's, or the simulated one that runs as fast as the plug-in
    // allows and the same on every run.
    bool simClock = false;
    bool clockGiven = false;
};

// Fills `options` from the command line, defaults first. -1 to go on, else the exit status:
// 0 after --help, 2 with a message on standard error for a bad option.
int ParseOptions(int argc, char** argv, Options& options);

}  // namespace truckhost

#endif
