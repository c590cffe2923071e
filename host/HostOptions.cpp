#include "HostOptions.h"

#include <getopt.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "HostText.h"
#include "MediaSide.h"

namespace truckhost {

namespace {

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

// The options, one table: each with its argument, its help and the handler that reads it.

using Handler = bool (*)(const std::string& value, Options& options, std::string& error);

struct OptionSpec {
    const char* name;
    const char* argument;  // nullptr: a switch
    const char* help;
    Handler handle;
};

// The handlers of a value kept as given and of a switch.
template <std::string Options::*field>
bool Keep(const std::string& value, Options& options, std::string&) {
    options.*field = value;
    return true;
}

template <bool Options::*flag>
bool Switch(const std::string&, Options& options, std::string&) {
    options.*flag = true;
    return true;
}

bool ReadScriptFile(const std::string& path, Options& options, std::string& error) {
    std::string text;
    if (!ReadWholeFile(path, "script", text, error)) {
        return false;
    }
    ParsedScript parsed = ParseScript(text);
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
     Keep<&Options::plugin>},
    {"sysroot", "DIR", "folder that stands for the device's / (default: the bundled demo device)",
     [](const std::string& v, Options& o, std::string&) {
         o.sysroot = v;
         o.sysrootGiven = true;
         return true;
     }},
    {"device", "FILE",
     "the device's identity: {\"product_type\", \"system_type\", \"video_inputs\", \"ip_channels\",\n"
     "\"serial_number\"}, every key optional (default: device.json in the --sysroot folder, if there)",
     Keep<&Options::deviceFile>},
    {"param-store", "FILE",
     "start from this parameter store (default: the demo store with the demo device, else the\n"
     "store of the given device folder)",
     Keep<&Options::paramStore>},
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
         if (!ParseDeviceTime(v, o.startTime)) {
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
     Keep<&Options::replay>},
    {"check", nullptr,
     "with --replay: compare what the plug-in sends with what FILE recorded; exit 0 when they\n"
     "agree, 1 with the first difference",
     Switch<&Options::check>},
    {"bus-log", "FILE",
     "record the run: a first line with the device, then every bus message sent (decoded),\n"
     "parameter write and script step, one JSON object per line",
     Keep<&Options::busLog>},
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
     Keep<&Options::framesDir>},
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
     Keep<&Options::summary>},
    {"stats", nullptr, "print the same as a table on standard error at exit", Switch<&Options::stats>},
    {"clock", "sim|real",
     "the device's clock: real (default) runs on the machine's; sim runs device time as fast as\n"
     "the plug-in allows, the same on every run (--duration, at_ms, gap_ms, t_ms, frames count it)",
     [](const std::string& v, Options& o, std::string& error) {
         if (v != "sim" && v != "real") {
             error = "--clock takes sim or real, not '" + v + "'";
             return false;
         }
         o.simClock = v == "sim";
         o.clockGiven = true;
         return true;
     }},
    {"version", nullptr, "print truckhost's version and the plug-in's, read from its file, and exit",
     Switch<&Options::showVersion>},
    {"help", nullptr, "this text", Switch<&Options::showHelp>},
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
    fprintf(out, "\n%s%s%s", kScriptHelpHead, ScriptKindsHelp().c_str(), kScriptHelpTail);
}

}  // namespace

int ParseOptions(int argc, char** argv, Options& options) {
    options.plugin = BesideSelf("libtruckservice.so");
    options.sysroot = TRUCK_DEMO_SYSROOT;
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

}  // namespace truckhost
