// truckhost: does what the recorder's host service process does with a service plug-in:
// dlopen it, find load/start/stop by their plain names, drive it, and report.
//
// main() reads as set-up (options, the simulated device, the views), run (the plug-in under
// the script or a recorded run), report (exit status, summary, replay check).
#include <dlfcn.h>
#include <errno.h>
#include <getopt.h>
#include <limits.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <json/json.h>

#include "BusRecord.h"
#include "HostScript.h"
#include "HostText.h"
#include "HostView.h"
#include "MediaSide.h"
#include "NvxControl.h"
#include "RunSummary.h"
#include "TruckVersion.h"

namespace {

// Exit statuses, as --help lists them.
constexpr int kExitOk = 0;
constexpr int kExitRunFailed = 1;  // start failed, a frame could not be written, a replay differs
constexpr int kExitRefused = 2;    // bad option or file, refused before start
constexpr int kExitThreadsLeft = 3;

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

typedef int (*LoadFn)(HostServiceAttr*);
typedef int (*RunFn)(HostServiceParam*);

struct Options {
    std::string plugin;
    bool showVersion = false;
    bool showHelp = false;
    std::string sysroot = TRUCK_DEMO_SYSROOT;
    bool sysrootGiven = false;
    std::string deviceFile;  // empty: device.json in the system root, when there
    std::string paramStore;  // empty: see InitialParamStore
    std::string busLog;
    double duration = -1;  // seconds; negative: until SIGINT/SIGTERM
    int logLevel = 2;
    bool startTimeGiven = false;
    int64_t startTime = 0;  // seconds since 1970, no zone
    bool scriptGiven = false;
    std::vector<truckhost::ScriptStep> script;
    std::string replay;
    bool check = false;
    std::string framesDir;
    std::vector<int> channels;  // empty: channel 0
    int frameWidth = 1920, frameHeight = 1080;
    std::string summary;
    bool stats = false;
};

volatile sig_atomic_t g_stopRequested = 0;

void OnSignal(int) {
    g_stopRequested = 1;
}

std::string SystemReason() {
    return strerror(errno);
}

std::string BesideSelf(const char* file) {
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n <= 0) {
        return file;
    }
    self[n] = '\0';
    std::string dir(self);
    size_t slash = dir.rfind('/');
    return (slash == std::string::npos ? std::string(".") : dir.substr(0, slash)) + "/" + file;
}

// ---- the options: one table, each with its argument, help and handler ----

using Handler = bool (*)(const std::string& value, Options& options, std::string& error);

struct OptionSpec {
    const char* name;
    const char* argument;  // nullptr: a switch
    const char* help;
    Handler handle;
};

bool ReadScriptFile(const std::string& path, Options& options, std::string& error) {
    std::string text;
    if (!truckhost::ReadWholeFile(path, "script", text, error)) {
        return false;
    }
    truckhost::ParsedScript parsed = truckhost::ParseScript(text);
    if (!parsed.error.empty()) {
        error = "script " + path + ": " + parsed.error;
        return false;
    }
    options.script = std::move(parsed.steps);
    options.scriptGiven = true;
    return true;
}

bool ParseChannels(const std::string& text, std::vector<int>& channels) {
    size_t at = 0;
    while (at <= text.size()) {
        const size_t comma = std::min(text.find(',', at), text.size());
        const std::string part = text.substr(at, comma - at);
        char* end = nullptr;
        const long ch = strtol(part.c_str(), &end, 10);
        if (part.empty() || *end != '\0' || ch < 0 || ch >= media::kMaxChannels) {
            return false;
        }
        if (std::find(channels.begin(), channels.end(), ch) == channels.end()) {
            channels.push_back(static_cast<int>(ch));
        }
        at = comma + 1;
    }
    return true;
}

bool ParseFrameSize(const std::string& text, int& width, int& height) {
    char* end = nullptr;
    const long w = strtol(text.c_str(), &end, 10);
    if (end == text.c_str() || (*end != 'x' && *end != 'X')) {
        return false;
    }
    const char* second = end + 1;
    const long h = strtol(second, &end, 10);
    if (end == second || *end != '\0' || w < 16 || w > 8192 || h < 16 || h > 8192) {
        return false;
    }
    width = static_cast<int>(w);
    height = static_cast<int>(h);
    return true;
}

const OptionSpec kOptions[] = {
    {"plugin", "PATH", "service plug-in to load (default: libtruckservice.so beside truckhost)",
     [](const std::string& v, Options& o, std::string&) {
         o.plugin = v;
         return true;
     }},
    {"sysroot", "DIR", "folder that stands for the device's / (default: the bundled demo device)",
     [](const std::string& v, Options& o, std::string&) {
         o.sysroot = v;
         o.sysrootGiven = true;
         return true;
     }},
    {"device", "FILE",
     "the device's identity: {\"product_type\", \"system_type\", \"video_inputs\", \"ip_channels\",\n"
     "\"serial_number\"}, every key optional (default: device.json in the --sysroot folder, if there)",
     [](const std::string& v, Options& o, std::string&) {
         o.deviceFile = v;
         return true;
     }},
    {"param-store", "FILE",
     "start from this parameter store (default: the demo store with the demo device, else the\n"
     "store of the given device folder)",
     [](const std::string& v, Options& o, std::string&) {
         o.paramStore = v;
         return true;
     }},
    {"duration", "SECONDS", "run that long, then stop (default: until SIGINT or SIGTERM)",
     [](const std::string& v, Options& o, std::string& error) {
         char* end = nullptr;
         o.duration = strtod(v.c_str(), &end);
         if (end == v.c_str() || *end != '\0' || !(o.duration >= 0)) {
             error = "--duration takes a number of seconds, not '" + v + "'";
             return false;
         }
         return true;
     }},
    {"start-time", "YYYY-MM-DDTHH:MM:SS",
     "the device's wall clock at start, without a zone, 1970 to 2099 (default: the machine's\n"
     "clock); it runs on at real speed",
     [](const std::string& v, Options& o, std::string& error) {
         if (!truckhost::ParseDeviceTime(v, o.startTime)) {
             error = "--start-time takes YYYY-MM-DDTHH:MM:SS (1970 to 2099), not '" + v + "'";
             return false;
         }
         o.startTimeGiven = true;
         return true;
     }},
    {"script", "FILE", "inject the timed steps of FILE while the plug-in runs (see below)", ReadScriptFile},
    {"replay", "FILE",
     "run the device, parameter store, clock and script steps that the bus log FILE recorded, at\n"
     "their times and for as long (so it takes no --sysroot, --device, --param-store, --start-time\n"
     "or --script; a shorter --duration is compared over the span it ran)",
     [](const std::string& v, Options& o, std::string&) {
         o.replay = v;
         return true;
     }},
    {"check", nullptr,
     "with --replay: compare what the plug-in sends with what FILE recorded; exit 0 when they\n"
     "agree, 1 with the first difference",
     [](const std::string&, Options& o, std::string&) {
         o.check = true;
         return true;
     }},
    {"bus-log", "FILE",
     "record the run: a first line with the device, then every bus message sent (decoded),\n"
     "parameter write and script step, one JSON object per line",
     [](const std::string& v, Options& o, std::string&) {
         o.busLog = v;
         return true;
     }},
    {"log-level", "N", "platform log lines up to level N go to standard error (0..4, default 2)",
     [](const std::string& v, Options& o, std::string& error) {
         char* end = nullptr;
         const long level = strtol(v.c_str(), &end, 10);
         if (end == v.c_str() || *end != '\0' || level < 0 || level > 4) {
             error = "--log-level takes 0 to 4, not '" + v + "'";
             return false;
         }
         o.logLevel = static_cast<int>(level);
         return true;
     }},
    {"frames", "DIR",
     "write PNG frames of what the media side would draw: one per second of the run and one at\n"
     "exit, DIR/ch<N>_<second>.png and DIR/ch<N>_exit.png (earlier frames there are removed)",
     [](const std::string& v, Options& o, std::string&) {
         o.framesDir = v;
         return true;
     }},
    {"channel", "N", "a channel to draw, from 0 (repeat or list as 0,4; default 0)",
     [](const std::string& v, Options& o, std::string& error) {
         if (!ParseChannels(v, o.channels)) {
             error = "--channel takes channel numbers 0 to " + std::to_string(media::kMaxChannels - 1) +
                     ", as N or N,M,..., not '" + v + "'";
             return false;
         }
         return true;
     }},
    {"frame-size", "WxH",
     "size of the frames (default 1920x1080, the size overlay positions are meant for; others\n"
     "scale them)",
     [](const std::string& v, Options& o, std::string& error) {
         if (!ParseFrameSize(v, o.frameWidth, o.frameHeight)) {
             error = "--frame-size takes WxH, each 16 to 8192, not '" + v + "'";
             return false;
         }
         return true;
     }},
    {"summary", "FILE",
     "write one JSON object at exit: exit status, seconds, each thread's wakeups and processor\n"
     "time, messages sent by event, frames and overlaps",
     [](const std::string& v, Options& o, std::string&) {
         o.summary = v;
         return true;
     }},
    {"stats", nullptr, "print the same as a table on standard error at exit",
     [](const std::string&, Options& o, std::string&) {
         o.stats = true;
         return true;
     }},
    {"version", nullptr, "print truckhost's version and the plug-in's, read from its file, and exit",
     [](const std::string&, Options& o, std::string&) {
         o.showVersion = true;
         return true;
     }},
    {"help", nullptr, "this text",
     [](const std::string&, Options& o, std::string&) {
         o.showHelp = true;
         return true;
     }},
};

// Around the script's kinds, which their table in HostScript.cpp lists.
const char kScriptHelpHead[] =
    "A script is a JSON array of {\"at_ms\": N, \"kind\": K, ...}, run N ms after the host started\n"
    "(the clock of --duration); steps due at the end of --duration or later do not run. Kinds:\n";
const char kScriptHelpTail[] =
    "A malformed script is refused before start, naming the step (from 1).\n"
    "\n"
    "On a terminal, standard output shows a status panel of the media side, redrawn in place,\n"
    "with the platform log lines of --log-level at its foot; elsewhere it prints one line per\n"
    "change of what the media side shows. Status lines (load, start, stop) go to standard error.\n"
    "\n"
    "Exit status:\n"
    "  0  the run ended and stopped cleanly (with --check: the replay agrees)\n"
    "  1  the plug-in did not start (also after a restart step), a frame could not be\n"
    "     written, or the replay differs\n"
    "  2  a bad option or an unusable file, refused before start\n"
    "  3  a plug-in thread still ran 5 s after stop\n";

void Usage(FILE* out) {
    fprintf(out, "usage: truckhost [options]   (--opt value or --opt=value)\n");
    for (const OptionSpec& option : kOptions) {
        std::string head =
            std::string("  --") + option.name + (option.argument ? std::string(" ") + option.argument : "");
        const std::string indent(22, ' ');
        std::string help = option.help;
        for (size_t at = help.find('\n'); at != std::string::npos; at = help.find('\n', at + 1)) {
            help.insert(at + 1, indent);
        }
        if (head.size() + 1 > indent.size()) {
            fprintf(out, "%s\n%s%s\n", head.c_str(), indent.c_str(), help.c_str());
        } else {
            fprintf(out, "%-22s%s\n", head.c_str(), help.c_str());
        }
    }
    fprintf(out, "\n%s%s%s", kScriptHelpHead, truckhost::ScriptKindsHelp().c_str(), kScriptHelpTail);
}

// -1 to go on, else the exit status (0 after --help, 2 with a message for a bad option).
int ParseOptions(int argc, char** argv, Options& options) {
    options.plugin = BesideSelf("libtruckservice.so");
    constexpr size_t kCount = sizeof(kOptions) / sizeof(kOptions[0]);
    struct option longOptions[kCount + 1];
    for (size_t i = 0; i < kCount; ++i) {
        longOptions[i] = {kOptions[i].name, kOptions[i].argument ? required_argument : no_argument, nullptr,
                          static_cast<int>(i)};
    }
    longOptions[kCount] = {nullptr, 0, nullptr, 0};
    opterr = 0;
    optind = 1;
    // '+': the first word that is not an option ends them, and is refused below; ':' tells a
    // missing value from an unknown option.
    for (;;) {
        const int previous = optind;
        const int index = getopt_long(argc, argv, "+:h", longOptions, nullptr);
        if (index == -1) {
            break;
        }
        const char* word = argv[std::min(previous, argc - 1)];
        if (index == 'h') {
            options.showHelp = true;
            continue;
        }
        if (index == '?') {
            fprintf(stderr, "truckhost: unknown option '%s' (see --help)\n", word);
            return kExitRefused;
        }
        if (index == ':') {
            fprintf(stderr, "truckhost: option '%s' needs a value\n", word);
            return kExitRefused;
        }
        std::string error;
        if (!kOptions[index].handle(optarg ? optarg : "", options, error)) {
            fprintf(stderr, "truckhost: %s\n", error.c_str());
            return kExitRefused;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "truckhost: unexpected argument '%s' (see --help)\n", argv[optind]);
        return kExitRefused;
    }
    if (options.showHelp) {
        Usage(stdout);
        return kExitOk;
    }
    if (options.check && options.replay.empty()) {
        fprintf(stderr, "truckhost: --check compares a replay: give --replay FILE\n");
        return kExitRefused;
    }
    // What the recording fixes cannot be given again: the replay would not be the run recorded.
    const std::pair<bool, const char*> fixedByRecording[] = {
        {options.sysrootGiven, "system root; it takes no --sysroot"},
        {!options.deviceFile.empty(), "identity; it takes no --device"},
        {!options.paramStore.empty(), "parameter store; it takes no --param-store"},
        {options.startTimeGiven, "start time; it takes no --start-time"},
        {options.scriptGiven, "steps; it takes no --script"},
    };
    for (const auto& fixed : fixedByRecording) {
        if (!options.replay.empty() && fixed.first) {
            fprintf(stderr, "truckhost: --replay runs the recorded %s\n", fixed.second);
            return kExitRefused;
        }
    }
    return -1;
}

// The plug-in's version line, "truckservice <version> (<commit>)", found in the file's bytes as
// `strings` finds it on a device: the module is not loaded, so a module for another
// architecture answers too.
bool ReadPluginVersion(const std::string& path, std::string& line, std::string& error) {
    std::string bytes;
    if (!truckhost::ReadWholeFile(path, "plug-in", bytes, error)) {
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

int PrintVersions(const Options& options) {
    // The host is built from the same checkout as the module it ships with.
    printf("truckhost%s\n", TRUCK_VERSION_LINE + strlen("truckservice"));
    std::string line, error;
    if (!ReadPluginVersion(options.plugin, line, error)) {
        fprintf(stderr, "truckhost: %s\n", error.c_str());
        return kExitRefused;
    }
    printf("%s\n", line.c_str());
    return kExitOk;
}

// ---- the simulated device ----

struct Device {
    nvx::DeviceProfile profile;
    std::string paramStore;      // the file the store starts from; empty: the device's own
    std::string paramStoreText;  // its text as it was at start, for the record
    std::string tempStore;       // a replay's store, removed at exit
    truckhost::Recording recording;
    ~Device() {
        if (!tempStore.empty()) {
            unlink(tempStore.c_str());
        }
    }
};

// The store the device starts from. The live store is the device's own file under the
// system root, which the device rewrites; the bundled demo folder is part of the repository,
// so its run starts from a copy kept outside it. A device folder given by the user brings
// its own store.
std::string InitialParamStore(const Options& options) {
    if (!options.paramStore.empty()) {
        return options.paramStore;
    }
    return options.sysrootGiven ? std::string() : std::string(TRUCK_DEMO_PARAM_STORE);
}

// A recorded run stands in for the options it recorded (the command line gives none of them).
bool TakeRecording(Options& options, Device& device, std::string& error) {
    if (!truckhost::ReadRecording(options.replay, device.recording, error)) {
        return false;
    }
    const truckhost::RunInfo& run = device.recording.run;
    truckhost::ParsedScript parsed = truckhost::ParseScript(device.recording.scriptText);
    if (!parsed.error.empty()) {
        error = "replay " + options.replay + ": the recorded script: " + parsed.error;
        return false;
    }
    options.script = std::move(parsed.steps);
    options.sysroot = run.sysroot;
    options.sysrootGiven = true;
    options.startTime = run.startTime;
    options.startTimeGiven = true;
    if (options.duration < 0) {
        options.duration = static_cast<double>(device.recording.endMs) / 1000.0;
    }
    device.profile = run.device;
    if (!run.paramsText.empty()) {
        char name[] = "/tmp/truckhost-replay-XXXXXX";
        const int fd = mkstemp(name);
        if (fd < 0 || write(fd, run.paramsText.data(), run.paramsText.size()) !=
                          static_cast<ssize_t>(run.paramsText.size())) {
            error = std::string("cannot write the replay's parameter store: ") + SystemReason();
            if (fd >= 0) {
                close(fd);
                unlink(name);
            }
            return false;
        }
        close(fd);
        device.tempStore = name;
        options.paramStore = name;
    }
    return true;
}

// Everything the device needs is checked here, before the plug-in starts.
bool PrepareDevice(Options& options, Device& device, std::string& error) {
    if (!options.replay.empty() && !TakeRecording(options, device, error)) {
        return false;
    }
    struct stat info;
    if (stat(options.sysroot.c_str(), &info) != 0) {
        error = "--sysroot '" + options.sysroot + "': " + SystemReason();
        return false;
    }
    if (!S_ISDIR(info.st_mode)) {
        error = "--sysroot '" + options.sysroot + "' is not a folder";
        return false;
    }
    if (options.replay.empty()) {
        const std::string identity =
            options.deviceFile.empty() ? options.sysroot + "/device.json" : options.deviceFile;
        // The device folder's own identity file is optional; one named on the command line is not.
        const bool present = access(identity.c_str(), F_OK) == 0;
        if ((present || !options.deviceFile.empty()) &&
            !nvx::ReadDeviceProfile(identity, device.profile, error)) {
            error = "device " + error;
            return false;
        }
    }
    const int channels = device.profile.videoInNum + device.profile.videoIpNum;
    for (int ch : options.channels) {
        if (ch >= channels) {
            error = "--channel " + std::to_string(ch) + ": the device has " + std::to_string(channels) +
                    " channel(s)" + (channels > 0 ? " (0 to " + std::to_string(channels - 1) + ")" : "");
            return false;
        }
    }
    device.paramStore = InitialParamStore(options);
    const std::string store =
        device.paramStore.empty() ? options.sysroot + "/mnt/tmpfs/global.bsn" : device.paramStore;
    // A device folder without a store starts with an empty one; a store that is there must be
    // one the device can read.
    if (!device.paramStore.empty() || access(store.c_str(), F_OK) == 0) {
        std::string text;
        Json::Value doc;
        std::string reason;
        if (!truckhost::ReadWholeFile(store, "parameter store", text, error)) {
            return false;
        }
        if (!truckhost::ReadJson(text, doc, reason)) {
            error = "parameter store '" + store + "' is not JSON: " + reason;
            return false;
        }
        if (!doc.isObject() || !doc["PARAMETER"].isObject() || !doc["PARAMETER"]["MDVR"].isObject()) {
            error = "parameter store '" + store + "' has no PARAMETER.MDVR object";
            return false;
        }
        device.paramStoreText = text;
    }
    return true;
}

// Why nothing is drawn, when the device's own files say; empty when they do not.
std::string NothingDrawnReason(const std::string& sysroot) {
    std::string text, error;
    Json::Value config;
    const std::string path = sysroot + "/usr/local/cfg/truckbusiness.jsn";
    if (!truckhost::ReadWholeFile(path, "business configuration", text, error) ||
        !truckhost::ReadJson(text, config, error) || !config.isObject() ||
        !config["BUSINESS_CONFIG"].isArray()) {
        return "nothing drawn: the device's business configuration cannot be read";
    }
    bool drawing = false;
    for (const Json::Value& business : config["BUSINESS_CONFIG"]) {
        // The OSD business (id 7) is the one that draws.
        drawing = drawing || (business.isObject() && business["BUSINESS_ENABLE"] == "true" &&
                              business["BUSINESS_ID"].isIntegral() && business["BUSINESS_ID"].asInt64() == 7);
    }
    if (!drawing) {
        return "nothing drawn: the device has no enabled business that draws (the OSD business, id 7)";
    }
    Json::Value store;
    if (!truckhost::ReadJson(nvx::ParamStoreText(), store, error) || !store.isObject()) {
        return "nothing drawn: the parameter store cannot be read";
    }
    const Json::Value& groups = store["PARAMETER"]["MDVR"];
    for (const char* group : {"TIMEP", "EOSD"}) {
        if (!groups.isObject() || !groups.isMember(group)) {
            return std::string("nothing drawn: the parameter store has no ") + group + " group";
        }
    }
    return "";
}

// ---- the plug-in's lifecycle, as a recorder's host drives it ----

class PluginService {
public:
    bool Open(const std::string& path, std::string& error) {
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

    void Load() {
        HostServiceAttr attr;
        memset(&attr, 0xff, sizeof(attr));
        const int rc = m_load(&attr);
        attr.name[31] = '\0';
        attr.type[31] = '\0';
        Status("load: %d, service \"%s\", type \"%s\"\n", rc, attr.name, attr.type);
    }

    int Start() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return StartLocked();
    }

    // Stops a running plug-in; the result of stop, or 0 when it was not running.
    int Stop() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return StopLocked();
    }

    // As a recorder's host restarts a service: stop, a pause, start; `stopped` is called in
    // between. False when the start failed.
    bool Restart(uint64_t gapMs, const std::function<void()>& stopped) {
        std::lock_guard<std::mutex> lock(m_mutex);
        StopLocked();
        stopped();
        std::this_thread::sleep_for(std::chrono::milliseconds(gapMs));
        return StartLocked() == 0;
    }

    // A panel redraws the whole terminal in place, over anything else written there: while it
    // runs the status lines wait, and come out in order once it is left.
    void HoldStatusLines(bool hold) {
        std::lock_guard<std::mutex> lock(m_statusMutex);
        m_holdStatus = hold;
        if (!hold) {
            for (const std::string& line : m_heldStatus) {
                fputs(line.c_str(), stderr);
            }
            m_heldStatus.clear();
        }
    }

private:
    void Status(const char* format, ...) __attribute__((format(printf, 2, 3))) {
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

    int StartLocked() {
        const int rc = m_start(&m_param);
        Status("start: %d\n", rc);
        m_running = rc == 0;
        return rc;
    }

    int StopLocked() {
        if (!m_running) {
            return 0;
        }
        const int rc = m_stop(&m_param);
        Status("stop: %d, ucRunning %u\n", rc, static_cast<unsigned>(m_param.running.load()));
        m_running = false;
        return rc;
    }

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

HostServiceParam PluginService::m_param;

// ---- one run ----

struct RunResult {
    int status = kExitOk;
    std::string failure;  // printed on standard error
};

class HostRun {
public:
    HostRun(const Options& options, const Device& device)
        : m_options(options),
          m_device(device),
          m_started(std::chrono::steady_clock::now()),
          m_view(m_media, ViewOptionsOf(options), [this] { return SinceStart(); }) {}

    int Execute() {
        std::string error;
        if (!SetUp(error)) {
            fprintf(stderr, "truckhost: %s\n", error.c_str());
            return kExitRefused;
        }
        m_sampling = !m_options.summary.empty() || m_options.stats;
        if (m_sampling) {
            m_sampler.Start();
        }
        RunResult result = Run();
        return Report(result);
    }

private:
    static truckhost::ViewOptions ViewOptionsOf(const Options& options) {
        truckhost::ViewOptions view;
        view.panel = isatty(STDOUT_FILENO) != 0;
        view.framesDir = options.framesDir;
        if (!options.channels.empty()) {
            view.channels = options.channels;
        }
        view.width = options.frameWidth;
        view.height = options.frameHeight;
        return view;
    }

    uint64_t SinceStart() const {
        return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                         std::chrono::steady_clock::now() - m_started)
                                         .count());
    }

    bool SetUp(std::string& error) {
        nvx::SetLogLevel(m_options.logLevel);
        nvx::SetSystemRoot(m_options.sysroot);
        nvx::SetDeviceProfile(m_device.profile);
        nvx::SetParamStoreSource(m_device.paramStore);
        // The simulated recorder boots with its hard disk mounted.
        nvx::SetStorageMount(0, "/mnt/hd1");
        // Set also when not given: the device's seconds then turn a whole number of seconds
        // after this moment, in a run and in its replay alike.
        nvx::SetWallClock(m_options.startTimeGiven ? m_options.startTime : nvx::WallClock());
        // A time-zone change moves the simulated device's local time, as the recorder's own
        // date-time service does.
        nvx::SetLocalTimeFollowsZone(true);
        if (!m_options.busLog.empty() && !OpenBusLog(error)) {
            return false;
        }
        if (!m_view.Prepare(error)) {
            return false;
        }
        // The media side sees exactly what leaves the plug-in on the bus, as the recorder's
        // media process would.
        nvx::SetSendObserver([this](const nvx::BusMessage& m) {
            const uint64_t now = SinceStart();
            if (m_logBus) {
                m_busLog.WriteBus(now, m);
            }
            {
                std::lock_guard<std::mutex> lock(m_sentMutex);
                ++m_messageCounts[m.event];
                if (m_options.check) {
                    m_sent.push_back(truckhost::RecordedMessage{now, m.event, m.payload});
                }
            }
            m_media.OnBusMessage(now, m.event, m.payload.data(), m.payload.size());
        });
        nvx::SetParamWriteObserver([this](const std::string& text) {
            const uint64_t now = SinceStart();
            if (m_logBus) {
                m_busLog.WriteParameter(now, text);
            }
            m_media.OnParameterWrite(now, text);
        });
        if (!m_plugin.Open(m_options.plugin, error)) {
            return false;
        }
        struct sigaction action;
        memset(&action, 0, sizeof(action));
        action.sa_handler = OnSignal;
        sigaction(SIGINT, &action, nullptr);
        sigaction(SIGTERM, &action, nullptr);
        return true;
    }

    bool OpenBusLog(std::string& error) {
        if (!m_busLog.Open(m_options.busLog, error)) {
            return false;
        }
        m_logBus = true;
        truckhost::RunInfo run;
        // The clock as it stands now, given or not, so that a replay starts from the same second.
        run.startTime = nvx::WallClock();
        run.sysroot = m_options.sysroot;
        run.device = m_device.profile;
        run.plugin = m_options.plugin;
        std::string ignored;
        ReadPluginVersion(m_options.plugin, run.version, ignored);
        run.paramsText = m_device.paramStoreText;
        m_busLog.WriteRun(run);
        return true;
    }

    RunResult Run() {
        RunResult result;
        // The panel owns the terminal while it runs: status lines wait for its end, platform
        // log lines go to its foot. A failed start keeps its lines on standard error, where
        // they stay readable.
        const bool panel = isatty(STDOUT_FILENO) != 0;
        m_plugin.HoldStatusLines(panel);
        m_plugin.Load();
        const int startRc = m_plugin.Start();
        if (startRc != 0) {
            m_plugin.HoldStatusLines(false);
            result.status = kExitRunFailed;
            return result;
        }
        if (panel) {
            const int shownLevel = m_options.logLevel;
            nvx::SetLogObserver([this, shownLevel](const nvx::LogLine& line) {
                if (line.level <= shownLevel) {
                    m_view.OnLog(line.level, line.text);
                }
            });
            nvx::SetLogLevel(-1);
        }
        m_view.Start();
        StartScript(panel);
        uint64_t nextNoteMs = 0;
        std::string framesFailure;
        while (g_stopRequested == 0 && !Ended() && !m_restartFailed) {
            if (m_view.FramesFailed(framesFailure)) {
                break;
            }
            if (SinceStart() >= nextNoteMs) {
                UpdateNote();
                nextNoteMs = SinceStart() + 1000;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        // Nothing is injected into a plug-in that is stopping.
        m_timeline.Stop();
        SampleThreads();
        m_plugin.Stop();
        m_view.Stop();
        m_plugin.HoldStatusLines(false);
        if (panel) {
            nvx::SetLogObserver(nullptr);
            nvx::SetLogLevel(m_options.logLevel);
        }
        if (!framesFailure.empty() || m_view.FramesFailed(framesFailure)) {
            result.status = kExitRunFailed;
            result.failure = framesFailure;
        }
        if (m_restartFailed) {
            result.status = kExitRunFailed;
            result.failure = "the plug-in did not start again after the script's restart";
        }
        return result;
    }

    bool Ended() const {
        return m_options.duration >= 0 && static_cast<double>(SinceStart()) >= m_options.duration * 1000.0;
    }

    void StartScript(bool panel) {
        if (m_options.script.empty()) {
            return;
        }
        const double durationMs = m_options.duration * 1000.0;
        const uint64_t endMs = m_options.duration < 0 || durationMs >= 1e18
                                   ? std::numeric_limits<uint64_t>::max()
                                   : static_cast<uint64_t>(durationMs);
        const bool logStderr = m_options.logLevel >= 3 && !panel;
        // Steps are written to the logs before they run: what the plug-in sends in answer
        // comes after its cause.
        m_timeline.Start(
            m_options.script, m_started, endMs, [this, logStderr](const truckhost::ScriptStep& step) {
                const uint64_t now = SinceStart();
                if (m_logBus) {
                    m_busLog.WriteStep(now, step.number, step.source);
                }
                if (logStderr) {
                    fprintf(stderr, "truckhost: %llu ms: script step %zu: %s\n",
                            static_cast<unsigned long long>(now), step.number, step.source.c_str());
                }
                m_view.OnStep(step.source);
                if (step.injection == truckhost::Injection::kRestart) {
                    // The stopping run's threads keep their figures up to the stop; the next
                    // run's threads are told apart by its number.
                    SampleThreads();
                    if (!m_plugin.Restart(step.gapMs, [this] {
                            if (m_sampling) {
                                m_sampler.NextRun();
                            }
                        })) {
                        m_restartFailed = true;
                    }
                    return;
                }
                truckhost::RunStep(step);
            });
    }

    // The plug-in's threads end at a stop: their last figures are taken just before it.
    void SampleThreads() {
        if (m_sampling) {
            m_sampler.SampleNow();
        }
    }

    // Said while nothing is drawn and the device's files tell why.
    void UpdateNote() {
        const media::Snapshot snapshot = m_media.Take();
        bool drawn = snapshot.hasCard;
        for (const auto& channel : snapshot.channels) {
            drawn = drawn || !channel.second.empty();
        }
        m_view.SetNote(drawn ? std::string() : NothingDrawnReason(m_options.sysroot));
    }

    int Report(RunResult result) {
        // Platform threads that outlived stop must end before the process tears itself down;
        // one that does not is a fault of the plug-in, reported without running destructors
        // under it.
        const bool threadsEnded = nvx::WaitForThreadsToEnd(5000);
        nvx::SetSendObserver(nullptr);
        nvx::SetParamWriteObserver(nullptr);
        if (!result.failure.empty()) {
            fprintf(stderr, "truckhost: %s\n", result.failure.c_str());
        }
        if (result.status == kExitOk && m_options.check) {
            // A shorter run is compared over the span it replayed: past its end the recording
            // has what the replay never got to send.
            const uint64_t recordedMs = m_device.recording.endMs;
            const double durationMs = m_options.duration * 1000.0;
            const uint64_t comparedMs =
                durationMs < static_cast<double>(recordedMs) ? static_cast<uint64_t>(durationMs) : recordedMs;
            if (comparedMs < recordedMs) {
                fprintf(stderr, "truckhost: comparing the first %llu ms of the recording's %llu ms\n",
                        static_cast<unsigned long long>(comparedMs),
                        static_cast<unsigned long long>(recordedMs));
            }
            std::string difference;
            std::lock_guard<std::mutex> lock(m_sentMutex);
            if (truckhost::CompareRecordings(m_device.recording.messages, m_sent, comparedMs, difference)) {
                fprintf(stderr, "truckhost: the replay agrees with %s\n", m_options.replay.c_str());
            } else {
                fprintf(stderr, "truckhost: the replay differs from %s: %s\n", m_options.replay.c_str(),
                        difference.c_str());
                result.status = kExitRunFailed;
            }
        }
        if (!threadsEnded) {
            fprintf(stderr, "truckhost: %d plug-in thread(s) still running after stop\n",
                    nvx::RunningThreads());
            result.status = kExitThreadsLeft;
        }
        WriteSummary(result.status);
        if (m_logBus) {
            m_busLog.WriteEnd(SinceStart(), result.status);
        }
        fflush(stdout);
        fflush(stderr);
        if (!threadsEnded) {
            _exit(result.status);
        }
        return result.status;
    }

    void WriteSummary(int status) {
        if (!m_sampling) {
            return;
        }
        m_sampler.Stop();
        truckhost::RunSummary summary;
        summary.exitStatus = status;
        summary.seconds = static_cast<double>(SinceStart()) / 1000.0;
        summary.threads = m_sampler.Figures();
        {
            std::lock_guard<std::mutex> lock(m_sentMutex);
            summary.messages = m_messageCounts;
        }
        summary.frames = m_view.FramesWritten();
        summary.overlaps = m_media.Take().overlapsSeen;
        if (m_options.stats) {
            fputs(truckhost::StatsTable(summary).c_str(), stderr);
        }
        std::string error;
        if (!m_options.summary.empty() && !truckhost::WriteSummaryFile(m_options.summary, summary, error)) {
            fprintf(stderr, "truckhost: %s\n", error.c_str());
        }
    }

    const Options& m_options;
    const Device& m_device;
    const std::chrono::steady_clock::time_point m_started;
    media::MediaSide m_media;
    truckhost::HostView m_view;
    truckhost::BusLogWriter m_busLog;
    bool m_logBus = false;
    PluginService m_plugin;
    truckhost::ScriptTimeline m_timeline;
    truckhost::ThreadSampler m_sampler;
    bool m_sampling = false;
    std::atomic<bool> m_restartFailed{false};  // set on the script's thread
    std::mutex m_sentMutex;                    // guards the two below
    std::map<int, uint64_t> m_messageCounts;
    std::vector<truckhost::RecordedMessage> m_sent;  // with --check
};

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const int parsed = ParseOptions(argc, argv, options);
    if (parsed >= 0) {
        return parsed;
    }
    if (options.showVersion) {
        return PrintVersions(options);
    }
    Device device;
    std::string error;
    if (!PrepareDevice(options, device, error)) {
        fprintf(stderr, "truckhost: %s\n", error.c_str());
        return kExitRefused;
    }
    HostRun run(options, device);
    return run.Execute();
}
