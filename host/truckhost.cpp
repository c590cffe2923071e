// truckhost: does what the recorder's host service process does with a service plug-in:
// dlopen it, find load/start/stop by their plain names, drive it, and report.
#include <dlfcn.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <limits>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "HostScript.h"
#include "HostView.h"
#include "MediaSide.h"
#include "NvxControl.h"

namespace {

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
    std::string sysroot = TRUCK_DEMO_SYSROOT;
    bool sysrootGiven = false;
    std::string paramStore;  // empty: see InitialParamStore
    std::string busLog;
    double duration = -1;  // seconds; negative: until SIGINT/SIGTERM
    int logLevel = 2;
    bool startTimeGiven = false;
    int64_t startTime = 0;  // seconds since 1970, no zone
    std::vector<truckhost::ScriptStep> script;
    std::string framesDir;
    std::vector<int> channels;  // empty: channel 0
    int frameWidth = 1920, frameHeight = 1080;
};

volatile sig_atomic_t g_stopRequested = 0;

void OnSignal(int) {
    g_stopRequested = 1;
}

void Usage(FILE* out) {
    fprintf(out,
            "usage: truckhost [options]\n"
            "  --plugin PATH      service plug-in to load (default: libtruckservice.so beside truckhost)\n"
            "  --sysroot DIR      folder that stands for the device's / (default: the bundled demo device)\n"
            "  --duration SECONDS run that long, then stop (default: until SIGINT or SIGTERM)\n"
            "  --log-level N      platform log lines up to level N go to standard error (0..4, default 2)\n"
            "  --param-store FILE start from this parameter store (default: the demo store with the\n"
            "                     demo device, else the store of the given device folder)\n"
            "  --bus-log FILE     write every bus message sent, every parameter write and every script\n"
            "                     step run, one JSON object per line\n"
            "  --start-time YYYY-MM-DDTHH:MM:SS\n"
            "                     the device's wall clock at start, without a zone (default: the\n"
            "                     machine's clock); it runs on at real speed\n"
            "  --script FILE      inject the timed steps of FILE while the plug-in runs: a JSON array of\n"
            "                     {\"at_ms\": N, \"kind\": K, ...}, N ms after the host started (the clock\n"
            "                     of --duration); steps due at the end of --duration or later do not run.\n"
            "                     Kinds and their members:\n"
            "                       speed   speed (u32), unit (u8): bus event 0x118A\n"
            "                       swipe   text: a card-swipe notification, bus event 0x4004\n"
            "                       bus     event, hex: any payload to the handlers of an event\n"
            "                       io      text: a device-signal record, e.g.\n"
            "                               {\"SIGNAL\":{\"TURN\":{\"SOURCE\":0,\"VALUE\":1}}}\n"
            "                       can     hex: a record of the vehicle-bus port\n"
            "                       param   doc (object or string): {\"PARAMETER\":{\"MDVR\":{...}}},\n"
            "                               merged into the store and notified\n"
            "                       clock   set (YYYY-MM-DDTHH:MM:SS): the wall clock jumps there\n"
            "                       storage result (int), path: a storage report\n"
            "                     A malformed script is refused before start, naming the step (from 1).\n"
            "                     Steps run are logged to --bus-log and, at --log-level 3 or more, to\n"
            "                     standard error\n"
            "  --frames DIR       write PNG frames of what the media side would draw: one per second\n"
            "                     of the run and one at exit, DIR/ch<N>_<second>.png and DIR/ch<N>_exit.png\n"
            "  --channel N        a channel to draw (from 0; repeat or list as 0,4; default 0)\n"
            "  --frame-size WxH   size of the frames (default 1920x1080, the size overlay positions\n"
            "                     are meant for; others scale them)\n"
            "  --version          print the plug-in's version line, read from its file, and exit\n"
            "  --help             this text\n"
            "On a terminal, standard output shows a status panel of the media side, redrawn in place,\n"
            "with the platform log lines of --log-level at its foot; elsewhere it prints one line per\n"
            "change of what the media side shows.\n");
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

// Reads and checks the whole script before anything starts; false with a message.
bool ReadScript(const std::string& path, Options& options) {
    std::string text;
    FILE* file = fopen(path.c_str(), "rb");
    bool read = file != nullptr;
    if (read) {
        char chunk[4096];
        for (size_t n; (n = fread(chunk, 1, sizeof(chunk), file)) > 0;) {
            text.append(chunk, n);
        }
        read = ferror(file) == 0;
        fclose(file);
    }
    if (!read) {
        fprintf(stderr, "truckhost: cannot read the script '%s'\n", path.c_str());
        return false;
    }
    truckhost::ParsedScript parsed = truckhost::ParseScript(text);
    if (!parsed.error.empty()) {
        fprintf(stderr, "truckhost: script %s: %s\n", path.c_str(), parsed.error.c_str());
        return false;
    }
    options.script = std::move(parsed.steps);
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

// The plug-in's version line, "truckservice <version> (<commit>)", found in the file's bytes as
// `strings` finds it on a device: the module is not loaded, so a module for another
// architecture answers too.
bool ReadPluginVersion(const std::string& path, std::string& line) {
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr) {
        return false;
    }
    std::string bytes;
    char chunk[65536];
    for (size_t n; (n = fread(chunk, 1, sizeof(chunk), file)) > 0;) {
        bytes.append(chunk, n);
    }
    fclose(file);
    // Other texts of the module start with the same word ("truckservice pass"); the line's
    // version starts with a digit.
    static const std::string kPrefix = "truckservice ";
    for (size_t at = bytes.find(kPrefix); at != std::string::npos; at = bytes.find(kPrefix, at + 1)) {
        const size_t after = at + kPrefix.size();
        if (after < bytes.size() && bytes[after] >= '0' && bytes[after] <= '9') {
            line = bytes.substr(at, bytes.find('\0', at) - at);
            return true;
        }
    }
    return false;
}

// Returns 0, 1 for --help, or 2 with a message for a bad option.
int ParseOptions(int argc, char** argv, Options& options) {
    options.plugin = BesideSelf("libtruckservice.so");
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            return 1;
        }
        if (arg == "--version") {
            options.showVersion = true;
            continue;
        }
        const bool hasValue = i + 1 < argc;
        if (arg != "--plugin" && arg != "--sysroot" && arg != "--duration" && arg != "--log-level" &&
            arg != "--bus-log" && arg != "--param-store" && arg != "--start-time" && arg != "--script" &&
            arg != "--frames" && arg != "--channel" && arg != "--frame-size") {
            fprintf(stderr, "truckhost: unknown option '%s' (see --help)\n", arg.c_str());
            return 2;
        }
        if (!hasValue) {
            fprintf(stderr, "truckhost: option '%s' needs a value\n", arg.c_str());
            return 2;
        }
        const std::string value = argv[++i];
        char* end = nullptr;
        if (arg == "--plugin") {
            options.plugin = value;
        } else if (arg == "--sysroot") {
            options.sysroot = value;
            options.sysrootGiven = true;
        } else if (arg == "--param-store") {
            if (access(value.c_str(), R_OK) != 0) {
                fprintf(stderr, "truckhost: cannot read the parameter store '%s'\n", value.c_str());
                return 2;
            }
            options.paramStore = value;
        } else if (arg == "--bus-log") {
            options.busLog = value;
        } else if (arg == "--start-time") {
            if (!truckhost::ParseDeviceTime(value, options.startTime)) {
                fprintf(stderr,
                        "truckhost: --start-time takes YYYY-MM-DDTHH:MM:SS (1970 to 2099), not '%s'\n",
                        value.c_str());
                return 2;
            }
            options.startTimeGiven = true;
        } else if (arg == "--frames") {
            options.framesDir = value;
        } else if (arg == "--channel") {
            if (!ParseChannels(value, options.channels)) {
                fprintf(stderr,
                        "truckhost: --channel takes channel numbers 0 to %d, as N or N,M,..., not '%s'\n",
                        media::kMaxChannels - 1, value.c_str());
                return 2;
            }
        } else if (arg == "--frame-size") {
            if (!ParseFrameSize(value, options.frameWidth, options.frameHeight)) {
                fprintf(stderr, "truckhost: --frame-size takes WxH, each 16 to 8192, not '%s'\n",
                        value.c_str());
                return 2;
            }
        } else if (arg == "--script") {
            if (!ReadScript(value, options)) {
                return 2;
            }
        } else if (arg == "--duration") {
            options.duration = strtod(value.c_str(), &end);
            if (end == value.c_str() || *end != '\0' || !(options.duration >= 0)) {
                fprintf(stderr, "truckhost: --duration takes a number of seconds, not '%s'\n", value.c_str());
                return 2;
            }
        } else {
            long level = strtol(value.c_str(), &end, 10);
            if (end == value.c_str() || *end != '\0' || level < 0 || level > 4) {
                fprintf(stderr, "truckhost: --log-level takes 0 to 4, not '%s'\n", value.c_str());
                return 2;
            }
            options.logLevel = static_cast<int>(level);
        }
    }
    return 0;
}

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

void AppendHex(std::string& out, const std::vector<uint8_t>& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    out.reserve(out.size() + bytes.size() * 2);
    for (uint8_t b : bytes) {
        out.push_back(kDigits[b >> 4]);
        out.push_back(kDigits[b & 0x0f]);
    }
}

void AppendJsonString(std::string& out, const std::string& text) {
    out.push_back('"');
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out.push_back('\\');
            out.push_back(static_cast<char>(c));
        } else if (c < 0x20) {
            char escaped[8];
            snprintf(escaped, sizeof(escaped), "\\u%04x", c);
            out += escaped;
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
    out.push_back('"');
}

// One JSON object per line for every message the plug-in sends and every parameter write.
class BusLog {
public:
    bool Open(const std::string& path) {
        m_file = fopen(path.c_str(), "w");
        return m_file != nullptr;
    }
    ~BusLog() {
        if (m_file != nullptr) {
            fclose(m_file);
        }
    }
    void Write(uint64_t tMs, const nvx::BusMessage& message) {
        std::string line = "{\"t_ms\": " + std::to_string(tMs) + ", \"kind\": \"bus\", \"client\": ";
        AppendJsonString(line, message.client);
        line += ", \"source\": " + std::to_string(message.source) +
                ", \"event\": " + std::to_string(message.event) +
                ", \"len\": " + std::to_string(message.payload.size()) + ", \"hex\": \"";
        AppendHex(line, message.payload);
        line += "\"}\n";
        Put(line);
    }
    // `source` is the step's own compact JSON.
    void WriteStep(uint64_t tMs, size_t number, const std::string& source) {
        Put("{\"t_ms\": " + std::to_string(tMs) +
            ", \"kind\": \"script\", \"step\": " + std::to_string(number) + ", \"do\": " + source + "}\n");
    }
    void WriteParameter(uint64_t tMs, const std::string& text) {
        std::string line = "{\"t_ms\": " + std::to_string(tMs) + ", \"kind\": \"param_set\", \"text\": ";
        AppendJsonString(line, text);
        line += "}\n";
        Put(line);
    }

private:
    void Put(const std::string& line) {
        std::lock_guard<std::mutex> lock(m_mutex);
        fputs(line.c_str(), m_file);
        fflush(m_file);
    }

    std::mutex m_mutex;
    FILE* m_file = nullptr;
};

}  // namespace

int main(int argc, char** argv) {
    Options options;
    int parsed = ParseOptions(argc, argv, options);
    if (parsed == 1) {
        Usage(stdout);
        return 0;
    }
    if (parsed != 0) {
        return 2;
    }
    if (options.showVersion) {
        std::string line;
        if (!ReadPluginVersion(options.plugin, line)) {
            fprintf(stderr, "truckhost: no version line in plug-in '%s'\n", options.plugin.c_str());
            return 2;
        }
        printf("%s\n", line.c_str());
        return 0;
    }

    nvx::SetLogLevel(options.logLevel);
    nvx::SetSystemRoot(options.sysroot);
    nvx::SetParamStoreSource(InitialParamStore(options));
    // The simulated recorder boots with its hard disk mounted.
    nvx::SetStorageMount(0, "/mnt/hd1");
    if (options.startTimeGiven) {
        nvx::SetWallClock(options.startTime);
    }
    const auto started = std::chrono::steady_clock::now();
    auto sinceStart = [&started] {
        return static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started)
                .count());
    };

    BusLog busLog;
    const bool logBus = !options.busLog.empty();
    if (logBus && !busLog.Open(options.busLog)) {
        fprintf(stderr, "truckhost: cannot write the bus log '%s'\n", options.busLog.c_str());
        return 2;
    }
    // The media side sees exactly what leaves the plug-in on the bus, as the recorder's media
    // process would.
    media::MediaSide mediaSide;
    truckhost::ViewOptions viewOptions;
    viewOptions.panel = isatty(STDOUT_FILENO) != 0;
    viewOptions.framesDir = options.framesDir;
    if (!options.channels.empty()) {
        viewOptions.channels = options.channels;
    }
    viewOptions.width = options.frameWidth;
    viewOptions.height = options.frameHeight;
    truckhost::HostView view(mediaSide, viewOptions, sinceStart);
    std::string viewError;
    if (!view.Prepare(viewError)) {
        fprintf(stderr, "truckhost: %s\n", viewError.c_str());
        return 2;
    }
    nvx::SetSendObserver([&](const nvx::BusMessage& m) {
        const uint64_t now = sinceStart();
        if (logBus) {
            busLog.Write(now, m);
        }
        mediaSide.OnBusMessage(now, m.event, m.payload.data(), m.payload.size());
    });
    nvx::SetParamWriteObserver([&](const std::string& text) {
        const uint64_t now = sinceStart();
        if (logBus) {
            busLog.WriteParameter(now, text);
        }
        mediaSide.OnParameterWrite(now, text);
    });
    // A time-zone change moves the simulated device's local time, as the recorder's own
    // date-time service does.
    nvx::SetLocalTimeFollowsZone(true);

    void* module = dlopen(options.plugin.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        fprintf(stderr, "truckhost: cannot load plug-in '%s': %s\n", options.plugin.c_str(), dlerror());
        return 2;
    }
    auto load = reinterpret_cast<LoadFn>(dlsym(module, "JQ_SDK_Service_Load"));
    auto start = reinterpret_cast<RunFn>(dlsym(module, "JQ_SDK_Service_Start"));
    auto stop = reinterpret_cast<RunFn>(dlsym(module, "JQ_SDK_Service_Stop"));
    if (load == nullptr || start == nullptr || stop == nullptr) {
        fprintf(stderr, "truckhost: plug-in '%s' lacks %s\n", options.plugin.c_str(),
                load == nullptr    ? "JQ_SDK_Service_Load"
                : start == nullptr ? "JQ_SDK_Service_Start"
                                   : "JQ_SDK_Service_Stop");
        return 2;
    }

    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = OnSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    HostServiceAttr attr;
    memset(&attr, 0xff, sizeof(attr));
    int rc = load(&attr);
    attr.name[31] = '\0';
    attr.type[31] = '\0';
    printf("load: %d, service \"%s\", type \"%s\"\n", rc, attr.name, attr.type);

    // The block must outlive stop: the plug-in keeps its address while it runs.
    static HostServiceParam param;
    const int startRc = start(&param);
    printf("start: %d\n", startRc);
    fflush(stdout);
    if (startRc == 0) {
        // The panel owns the terminal while it runs: platform log lines go to its foot. A
        // failed start keeps its lines on standard error, where they stay readable.
        if (viewOptions.panel) {
            const int shownLevel = options.logLevel;
            nvx::SetLogObserver([&view, shownLevel](const nvx::LogLine& line) {
                if (line.level <= shownLevel) {
                    view.OnLog(line.level, line.text);
                }
            });
            nvx::SetLogLevel(-1);
        }
        view.Start();
        // Steps are written to the logs before they run: what the plug-in sends in answer
        // comes after its cause.
        truckhost::ScriptTimeline timeline;
        if (!options.script.empty()) {
            const double durationMs = options.duration * 1000.0;
            const uint64_t endMs = options.duration < 0 || durationMs >= 1e18
                                       ? std::numeric_limits<uint64_t>::max()
                                       : static_cast<uint64_t>(durationMs);
            // By value: the steps run on the timeline's thread after this block has closed.
            const bool logStderr = options.logLevel >= 3 && !viewOptions.panel;
            timeline.Start(options.script, started, endMs, [&, logStderr](const truckhost::ScriptStep& step) {
                const uint64_t now = sinceStart();
                if (logBus) {
                    busLog.WriteStep(now, step.number, step.source);
                }
                if (logStderr) {
                    fprintf(stderr, "truckhost: %llu ms: script step %zu: %s\n",
                            static_cast<unsigned long long>(now), step.number, step.source.c_str());
                }
                view.OnStep(step.source);
                truckhost::RunStep(step);
            });
        }
        while (g_stopRequested == 0 &&
               (options.duration < 0 || static_cast<double>(sinceStart()) < options.duration * 1000.0)) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        // Nothing is injected into a plug-in that is stopping.
        timeline.Stop();
        rc = stop(&param);
        view.Stop();
        if (viewOptions.panel) {
            nvx::SetLogObserver(nullptr);
            nvx::SetLogLevel(options.logLevel);
        }
        printf("stop: %d, ucRunning %u\n", rc, static_cast<unsigned>(param.running.load()));
    }
    // Platform threads that outlived stop must end before the process tears itself down;
    // one that does not is a fault of the plug-in, reported without running destructors
    // under it.
    if (!nvx::WaitForThreadsToEnd(5000)) {
        fprintf(stderr, "truckhost: %d plug-in thread(s) still running after stop\n", nvx::RunningThreads());
        fflush(stdout);
        _exit(3);
    }
    nvx::SetSendObserver(nullptr);
    nvx::SetParamWriteObserver(nullptr);
    fflush(stdout);
    return startRc == 0 ? 0 : 1;
}
