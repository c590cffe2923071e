// The device's identity file, device.json: what a recorder of a given product variant reports
// in its global configuration block. Read once before start by whoever plays the device.
#include <errno.h>
#include <string.h>

#include <fstream>
#include <limits>
#include <sstream>

#include <json/json.h>

#include "NvxControl.h"

namespace nvx {
namespace {

// An unsigned member within `max`; absent leaves `out` alone.
bool ReadUnsigned(const Json::Value& doc, const char* key, uint64_t max, uint64_t& out, std::string& error) {
    if (!doc.isMember(key)) {
        return true;
    }
    const Json::Value& v = doc[key];
    // isUInt64 alone takes 3.0 and rejects nothing a reader would call a count.
    if (!v.isIntegral() || !v.isUInt64() || v.asUInt64() > max) {
        error = std::string("\"") + key + "\" must be a whole number from 0 to " + std::to_string(max);
        return false;
    }
    out = v.asUInt64();
    return true;
}

}  // namespace

bool ParseDeviceProfile(const Json::Value& doc, DeviceProfile& profile, std::string& error) {
    static const char* const kKeys[] = {"product_type", "system_type", "video_inputs", "ip_channels",
                                        "serial_number"};
    for (const std::string& name : doc.getMemberNames()) {
        bool known = false;
        for (const char* key : kKeys) {
            known = known || name == key;
        }
        // A misspelt key would otherwise leave a default in place without a word.
        if (!known) {
            error = "unknown key \"" + name + "\"";
            return false;
        }
    }
    DeviceProfile read;
    uint64_t product = read.productType, system = read.systemType, inputs = read.videoInNum,
             ip = read.videoIpNum;
    const uint64_t u32 = std::numeric_limits<uint32_t>::max(), u16 = std::numeric_limits<uint16_t>::max();
    std::string what;
    if (!ReadUnsigned(doc, "product_type", u32, product, what) ||
        !ReadUnsigned(doc, "system_type", u32, system, what) ||
        !ReadUnsigned(doc, "video_inputs", u16, inputs, what) ||
        !ReadUnsigned(doc, "ip_channels", u16, ip, what)) {
        error = what;
        return false;
    }
    if (doc.isMember("serial_number")) {
        const Json::Value& serial = doc["serial_number"];
        // The platform's serial buffer holds 15 characters and its terminator.
        if (!serial.isString() || serial.asString().size() > 15) {
            error = "\"serial_number\" must be a text of at most 15 characters";
            return false;
        }
        read.serialNumber = serial.asString();
    }
    read.productType = static_cast<uint32_t>(product);
    read.systemType = static_cast<uint32_t>(system);
    read.videoInNum = static_cast<uint16_t>(inputs);
    read.videoIpNum = static_cast<uint16_t>(ip);
    profile = read;
    return true;
}

bool ReadDeviceProfile(const std::string& path, DeviceProfile& profile, std::string& error) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        error = std::string("cannot read '") + path + "': " + strerror(errno);
        return false;
    }
    std::stringstream text;
    text << file.rdbuf();
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["allowComments"] = false;
    builder["failIfExtra"] = true;
    builder["rejectDupKeys"] = true;
    Json::Value doc;
    std::string parseErrors;
    if (!Json::parseFromStream(builder, text, &doc, &parseErrors)) {
        error = "'" + path + "' is not JSON: " + parseErrors.substr(0, parseErrors.find('\n'));
        return false;
    }
    if (!doc.isObject()) {
        error = "'" + path + "' is not a JSON object";
        return false;
    }
    if (!ParseDeviceProfile(doc, profile, error)) {
        error = "'" + path + "': " + error;
        return false;
    }
    return true;
}

}  // namespace nvx
