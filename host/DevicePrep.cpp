#include "DevicePrep.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include <json/json.h>

#include "HostText.h"

namespace truckhost {

Device::~Device() {
    if (!tempStore.empty()) {
        unlink(tempStore.c_str());
    }
}

namespace {

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
    if (!ReadRecording(options.replay, device.recording, error)) {
        return false;
    }
    const RunInfo& run = device.recording.run;
    ParsedScript parsed = ParseScript(device.recording.scriptText);
    if (!parsed.error.empty()) {
        error = "replay " + options.replay + ": the recorded script: " + parsed.error;
        return false;
    }
    options.script = std::move(parsed.steps);
    if (options.clockGiven && options.simClock != run.simClock) {
        error = std::string("--replay runs on the recorded clock (") + (run.simClock ? "sim" : "real") +
                "); it takes no --clock " + (options.simClock ? "sim" : "real");
        return false;
    }
    options.simClock = run.simClock;
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
            error = std::string("cannot write the replay's parameter store: ") + strerror(errno);
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

}  // namespace

bool PrepareDevice(Options& options, Device& device, std::string& error) {
    if (!options.replay.empty() && !TakeRecording(options, device, error)) {
        return false;
    }
    struct stat info;
    if (stat(options.sysroot.c_str(), &info) != 0) {
        error = "--sysroot '" + options.sysroot + "': " + strerror(errno);
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
        if (!ReadWholeFile(store, "parameter store", text, error)) {
            return false;
        }
        if (!ReadJson(text, doc, reason)) {
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

std::string NothingDrawnReason(const std::string& sysroot) {
    std::string text, error;
    Json::Value config;
    const std::string path = sysroot + "/usr/local/cfg/truckbusiness.jsn";
    if (!ReadWholeFile(path, "business configuration", text, error) || !ReadJson(text, config, error) ||
        !config.isObject() || !config["BUSINESS_CONFIG"].isArray()) {
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
    if (!ReadJson(nvx::ParamStoreText(), store, error) || !store.isObject()) {
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

}  // namespace truckhost
