#include "HostScript.h"

#include <ctype.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>

#include <algorithm>
#include <limits>
#include <utility>

#include <json/json.h>

#include "BusEvents.h"
#include "HostText.h"
#include "NvxControl.h"

namespace truckhost {

namespace {

// Strict: a step that names a member twice has no one meaning. The reader's message is one
// line of words: "Line 2, Column 1 Missing ...".
bool ReadScriptJson(const std::string& text, Json::Value& root, std::string& error) {
    return ReadJson(text, root, error, true, " ");
}

void PutLe32(std::vector<uint8_t>& bytes, size_t at, uint32_t value) {
    for (size_t i = 0; i < 4; ++i) {
        bytes[at + i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

// Reads the members of one step; the first problem is kept for the message.
class StepMembers {
public:
    explicit StepMembers(const Json::Value& step) : m_step(step) {}

    const std::string& problem() const { return m_problem; }

    bool Fail(std::string problem) {
        m_problem = std::move(problem);
        return false;
    }

    bool Integer(const char* name, int64_t min, int64_t max, int64_t& out) {
        const Json::Value* value = Find(name);
        if (value == nullptr) {
            return false;
        }
        // Only integers as written: 1.0 or 1e3 is a real number to the reader.
        const bool isInt = value->type() == Json::intValue;
        const bool isUInt = value->type() == Json::uintValue &&
                            value->asUInt64() <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
        if ((isInt || isUInt) && value->asInt64() >= min && value->asInt64() <= max) {
            out = value->asInt64();
            return true;
        }
        return Fail(std::string(name) + " must be an integer from " + std::to_string(min) + " to " +
                    std::to_string(max));
    }

    bool Text(const char* name, std::string& out) {
        const Json::Value* value = Find(name);
        if (value == nullptr) {
            return false;
        }
        if (!value->isString()) {
            return Fail(std::string(name) + " must be a string");
        }
        out = value->asString();
        return true;
    }

    bool Hex(const char* name, std::vector<uint8_t>& out) {
        std::string text;
        if (!Text(name, text)) {
            return false;
        }
        if (text.size() % 2 != 0) {
            return Fail(std::string(name) + " must have an even number of hexadecimal digits");
        }
        out.clear();
        for (size_t i = 0; i < text.size(); i += 2) {
            const int high = HexDigit(text[i]);
            const int low = HexDigit(text[i + 1]);
            if (high < 0 || low < 0) {
                return Fail(std::string(name) + " has a character that is not a hexadecimal digit at " +
                            std::to_string(high < 0 ? i : i + 1));
            }
            out.push_back(static_cast<uint8_t>(high << 4 | low));
        }
        return true;
    }

    bool Time(const char* name, int64_t& out) {
        std::string text;
        if (!Text(name, text)) {
            return false;
        }
        if (!ParseDeviceTime(text, out)) {
            return Fail(std::string(name) +
                        " must be a date and time YYYY-MM-DDTHH:MM:SS the device can hold, not '" + text +
                        "'");
        }
        return true;
    }

    bool Document(const char* name, std::string& out) {
        const Json::Value* value = Find(name);
        if (value == nullptr) {
            return false;
        }
        Json::Value parsed;
        std::string errors;
        if (value->isString()) {
            if (!ReadScriptJson(value->asString(), parsed, errors)) {
                return Fail(std::string(name) + " is not JSON: " + errors);
            }
            value = &parsed;
        } else if (!value->isObject()) {
            return Fail(std::string(name) + " must be an object or a string");
        }
        // In this order: a const lookup in anything but an object throws.
        if (!value->isObject() || !(*value)["PARAMETER"].isObject() ||
            !(*value)["PARAMETER"]["MDVR"].isObject()) {
            return Fail(std::string(name) + " has no PARAMETER.MDVR object");
        }
        out = Compact(*value);
        return true;
    }

private:
    const Json::Value* Find(const char* name) {
        const Json::Value* value = m_step.find(name, name + strlen(name));
        if (value == nullptr) {
            Fail(std::string(name) + " is missing");
        }
        return value;
    }

    const Json::Value& m_step;
    std::string m_problem;
};

// Fills `out` from `step`; false with the problem in `members`.
bool ReadStep(const Json::Value& step, StepMembers& members, ScriptStep& out) {
    int64_t atMs = 0;
    std::string kind;
    if (!members.Integer("at_ms", 0, std::numeric_limits<int64_t>::max(), atMs) ||
        !members.Text("kind", kind)) {
        return false;
    }
    out.atMs = static_cast<uint64_t>(atMs);
    out.source = Compact(step);
    int64_t number = 0;
    int64_t unit = 0;
    std::string text;
    if (kind == "speed") {
        if (!members.Integer("speed", 0, 0xFFFFFFFF, number) || !members.Integer("unit", 0, 0xFF, unit)) {
            return false;
        }
        out.event = busevent::kSpeed;
        out.bytes = SpeedPayload(static_cast<uint32_t>(number), static_cast<uint8_t>(unit));
        return true;
    }
    if (kind == "swipe") {
        if (!members.Text("text", text)) {
            return false;
        }
        if (text.size() > kMaxSwipeText) {
            return members.Fail("text is longer than " + std::to_string(kMaxSwipeText) + " bytes");
        }
        out.event = busevent::kSwipe;
        out.bytes = SwipePayload(text);
        return true;
    }
    if (kind == "bus") {
        if (!members.Integer("event", 0, std::numeric_limits<int>::max(), number) ||
            !members.Hex("hex", out.bytes)) {
            return false;
        }
        out.event = static_cast<int>(number);
        return true;
    }
    if (kind == "io") {
        out.injection = Injection::kDevSignal;
        if (!members.Text("text", text)) {
            return false;
        }
        out.bytes.assign(text.begin(), text.end());
        return true;
    }
    if (kind == "can") {
        out.injection = Injection::kCanRecord;
        return members.Hex("hex", out.bytes);
    }
    if (kind == "param") {
        out.injection = Injection::kParameters;
        return members.Document("doc", out.text);
    }
    if (kind == "clock") {
        out.injection = Injection::kWallClock;
        return members.Time("set", out.seconds);
    }
    if (kind == "storage") {
        out.injection = Injection::kStorageReport;
        if (!members.Integer("result", std::numeric_limits<int32_t>::min(),
                             std::numeric_limits<int32_t>::max(), number) ||
            !members.Text("path", out.text)) {
            return false;
        }
        out.result = static_cast<int32_t>(number);
        return true;
    }
    if (kind == "restart") {
        out.injection = Injection::kRestart;
        if (step.isMember("gap_ms")) {
            if (!members.Integer("gap_ms", 0, kMaxRestartGapMs, number)) {
                return false;
            }
            out.gapMs = static_cast<uint64_t>(number);
        }
        return true;
    }
    return members.Fail("kind '" + kind + "' is unknown");
}

}  // namespace

ParsedScript ParseScript(const std::string& text) {
    ParsedScript parsed;
    Json::Value root;
    std::string errors;
    if (!ReadScriptJson(text, root, errors)) {
        parsed.error = "not JSON: " + errors;
        return parsed;
    }
    if (!root.isArray()) {
        parsed.error = "not a JSON array of steps";
        return parsed;
    }
    for (Json::ArrayIndex i = 0; i < root.size(); ++i) {
        const std::string where = "step " + std::to_string(i + 1) + ": ";
        const Json::Value& step = root[i];
        if (!step.isObject()) {
            parsed.error = where + "not an object";
            break;
        }
        ScriptStep read;
        read.number = i + 1;
        StepMembers members(step);
        if (!ReadStep(step, members, read)) {
            parsed.error = where + members.problem();
            break;
        }
        parsed.steps.push_back(std::move(read));
    }
    if (!parsed.error.empty()) {
        parsed.steps.clear();
        return parsed;
    }
    std::stable_sort(parsed.steps.begin(), parsed.steps.end(),
                     [](const ScriptStep& a, const ScriptStep& b) { return a.atMs < b.atMs; });
    return parsed;
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// Counted on 64 bits rather than through gmtime_r: the device build's time_t ends in 2038,
// and the device clock runs to 2099.
std::string DeviceTimeText(int64_t seconds, char separator) {
    if (seconds < 0) {
        return "?";
    }
    // Days from 0000-03-01, whose years put the leap day at their end; 400 years hold 146097 days.
    const int64_t days = seconds / 86400 + 719468;
    const int64_t inDay = seconds % 86400;
    const int64_t era = days / 146097;
    const int64_t dayOfEra = days % 146097;
    const int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int64_t monthFromMarch = (5 * dayOfYear + 2) / 153;
    const int64_t month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
    const int64_t year = era * 400 + yearOfEra + (month <= 2 ? 1 : 0);
    char text[48];
    snprintf(text, sizeof(text), "%04lld-%02lld-%02lld%c%02lld:%02lld:%02lld", static_cast<long long>(year),
             static_cast<long long>(month),
             static_cast<long long>(dayOfYear - (153 * monthFromMarch + 2) / 5 + 1), separator,
             static_cast<long long>(inDay / 3600), static_cast<long long>(inDay / 60 % 60),
             static_cast<long long>(inDay % 60));
    return text;
}

bool ParseDeviceTime(const std::string& text, int64_t& seconds) {
    static const char kShape[] = "dddd-dd-ddTdd:dd:dd";
    if (text.size() != sizeof(kShape) - 1) {
        return false;
    }
    for (size_t i = 0; i < text.size(); ++i) {
        const bool digit = isdigit(static_cast<unsigned char>(text[i])) != 0;
        if (kShape[i] == 'd' ? !digit : text[i] != kShape[i]) {
            return false;
        }
    }
    auto field = [&text](size_t at, size_t length) { return atoi(text.substr(at, length).c_str()); };
    const int year = field(0, 4);
    const int month = field(5, 2);
    const int day = field(8, 2);
    const int hour = field(11, 2);
    const int minute = field(14, 2);
    const int second = field(17, 2);
    // Counted here on 64 bits, not through timegm: the device build's time_t ends in 2038, and
    // the device's records run to 2099.
    static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    if (year < 1970 || year > 2099 || month < 1 || month > 12 || day < 1 ||
        day > kDays[month - 1] + (month == 2 && leap ? 1 : 0) || hour > 23 || minute > 59 || second > 59) {
        return false;
    }
    // Counting years from 1 March puts the leap day at a year's end; 1970-03-01 is day 59, and
    // every fourth year from 1972 to 2096 is a leap year.
    const int64_t marchYear = month > 2 ? year : year - 1;
    const int64_t days = 59 + (marchYear - 1970) * 365 + (marchYear - 1968) / 4 +
                         (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    seconds = days * 86400 + int64_t{hour} * 3600 + minute * 60 + second;
    return true;
}

std::vector<uint8_t> SpeedPayload(uint32_t speed, uint8_t unit) {
    std::vector<uint8_t> payload(28, 0);
    payload[20] = unit;
    PutLe32(payload, 24, speed);
    return payload;
}

std::vector<uint8_t> SwipePayload(const std::string& text) {
    // Header, status, record type, a text flag and three spare bytes, the text, its terminator.
    std::vector<uint8_t> payload(32 + text.size() + 1, 0);
    // The length counts the body from byte 20 on; with its 12 fixed bytes it is never below
    // the minimum of 8 a reader expects.
    const uint32_t body = static_cast<uint32_t>(payload.size() - 20);
    payload[16] = static_cast<uint8_t>(body);
    payload[17] = static_cast<uint8_t>(body >> 8);
    payload[18] = static_cast<uint8_t>((body >> 16) & 0x7F);
    PutLe32(payload, 20, 0);    // status: read
    PutLe32(payload, 24, 160);  // record type: card swipe
    payload[28] = 1;            // text present
    std::copy(text.begin(), text.end(), payload.begin() + 32);
    return payload;
}

void RunStep(const ScriptStep& step) {
    switch (step.injection) {
        case Injection::kBusEvent:
            nvx::InjectBusEvent(step.event, step.bytes.data(), step.bytes.size());
            break;
        case Injection::kDevSignal:
            nvx::InjectDevSignal(step.bytes.data(), step.bytes.size());
            break;
        case Injection::kCanRecord:
            nvx::InjectCanRecord(step.bytes.data(), step.bytes.size());
            break;
        case Injection::kParameters:
            nvx::SetParameterDocument(step.text);
            break;
        case Injection::kWallClock:
            nvx::SetWallClock(step.seconds);
            break;
        case Injection::kStorageReport:
            nvx::InjectStorageReport(step.result, step.text);
            break;
        case Injection::kRestart:
            break;
    }
}

void ScriptTimeline::Start(std::vector<ScriptStep> steps, std::chrono::steady_clock::time_point origin,
                           uint64_t endMs, Perform perform) {
    m_steps = std::move(steps);
    m_origin = origin;
    m_endMs = endMs;
    m_perform = std::move(perform);
    m_thread = std::thread(&ScriptTimeline::Run, this);
}

void ScriptTimeline::Stop() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

bool ScriptTimeline::WaitUntilDone(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_wake.wait_for(lock, timeout, [this] { return m_done; });
}

void ScriptTimeline::Run() {
    prctl(PR_SET_NAME, "host-script", 0, 0, 0);
    // A century keeps the deadline inside the clock's range for any at_ms.
    constexpr uint64_t kFarMs = 100ULL * 366 * 24 * 3600 * 1000;
    for (const ScriptStep& step : m_steps) {
        if (step.atMs >= m_endMs) {
            break;
        }
        const auto due = m_origin + std::chrono::milliseconds(std::min(step.atMs, kFarMs));
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            if (m_wake.wait_until(lock, due, [this] { return m_stopping; })) {
                break;
            }
        }
        m_perform(step);
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_done = true;
    m_wake.notify_all();
}

}  // namespace truckhost
