#include "HostScript.h"

#include <stdio.h>
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
    bool Has(const char* name) const { return m_step.isMember(name); }

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
        size_t bad = 0;
        if (FromHex(text, out, &bad)) {
            return true;
        }
        if (bad == text.size()) {
            return Fail(std::string(name) + " must have an even number of hexadecimal digits");
        }
        return Fail(std::string(name) + " has a character that is not a hexadecimal digit at " +
                    std::to_string(bad));
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

// One row a step kind: its name, how it reaches the device, its line of --help (its members,
// then what the device gets) and the reader that fills a step from its members. Parsing and
// --help both go by this table.
struct StepKind {
    const char* name;
    Injection injection;
    const char* help;
    bool (*read)(StepMembers& members, ScriptStep& out);
};

const StepKind kStepKinds[] = {
    {"speed", Injection::kBusEvent, "speed (u32), unit (u8): bus event 0x118A",
     [](StepMembers& members, ScriptStep& out) {
         int64_t speed = 0, unit = 0;
         if (!members.Integer("speed", 0, 0xFFFFFFFF, speed) || !members.Integer("unit", 0, 0xFF, unit)) {
             return false;
         }
         out.event = busevent::kSpeed;
         out.bytes = SpeedPayload(static_cast<uint32_t>(speed), static_cast<uint8_t>(unit));
         return true;
     }},
    {"swipe", Injection::kBusEvent, "text: a card-swipe notification, bus event 0x4004",
     [](StepMembers& members, ScriptStep& out) {
         std::string text;
         if (!members.Text("text", text)) {
             return false;
         }
         if (text.size() > kMaxSwipeText) {
             return members.Fail("text is longer than " + std::to_string(kMaxSwipeText) + " bytes");
         }
         out.event = busevent::kSwipe;
         out.bytes = SwipePayload(text);
         return true;
     }},
    {"bus", Injection::kBusEvent, "event, hex: any payload to the handlers of an event",
     [](StepMembers& members, ScriptStep& out) {
         int64_t event = 0;
         if (!members.Integer("event", 0, std::numeric_limits<int>::max(), event) ||
             !members.Hex("hex", out.bytes)) {
             return false;
         }
         out.event = static_cast<int>(event);
         return true;
     }},
    {"io", Injection::kDevSignal,
     "text: a device-signal record, e.g. {\"SIGNAL\":{\"TURN\":{\"SOURCE\":0,\"VALUE\":1}}}",
     [](StepMembers& members, ScriptStep& out) {
         std::string text;
         if (!members.Text("text", text)) {
             return false;
         }
         out.bytes.assign(text.begin(), text.end());
         return true;
     }},
    {"can", Injection::kCanRecord, "hex: a record of the vehicle-bus port",
     [](StepMembers& members, ScriptStep& out) { return members.Hex("hex", out.bytes); }},
    {"param", Injection::kParameters,
     "doc (object or string): {\"PARAMETER\":{\"MDVR\":{...}}}, merged and notified",
     [](StepMembers& members, ScriptStep& out) { return members.Document("doc", out.text); }},
    {"clock", Injection::kWallClock, "set (YYYY-MM-DDTHH:MM:SS): the wall clock jumps there",
     [](StepMembers& members, ScriptStep& out) { return members.Time("set", out.seconds); }},
    {"storage", Injection::kStorageReport, "result (int), path: a storage report",
     [](StepMembers& members, ScriptStep& out) {
         int64_t result = 0;
         if (!members.Integer("result", std::numeric_limits<int32_t>::min(),
                              std::numeric_limits<int32_t>::max(), result) ||
             !members.Text("path", out.text)) {
             return false;
         }
         out.result = static_cast<int32_t>(result);
         return true;
     }},
    {"restart", Injection::kRestart, "gap_ms (optional, default 0): stop the plug-in and start it again",
     [](StepMembers& members, ScriptStep& out) {
         int64_t gap = 0;
         if (members.Has("gap_ms") && !members.Integer("gap_ms", 0, kMaxRestartGapMs, gap)) {
             return false;
         }
         out.gapMs = static_cast<uint64_t>(gap);
         return true;
     }},
    {"repeat", Injection::kRepeat,
     "(none): play the steps before it again, their at_ms shifted by this one's",
     [](StepMembers& members, ScriptStep& out) {
         return out.atMs > 0 || members.Fail("at_ms of a repeat must be above 0");
     }},
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
    for (const StepKind& known : kStepKinds) {
        if (kind == known.name) {
            out.injection = known.injection;
            return known.read(members, out);
        }
    }
    return members.Fail("kind '" + kind + "' is unknown");
}

}  // namespace

std::string ScriptKindsHelp() {
    std::string help;
    for (const StepKind& kind : kStepKinds) {
        char name[16];
        snprintf(name, sizeof(name), "  %-8s ", kind.name);
        help += name + std::string(kind.help) + "\n";
    }
    return help;
}

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
        case Injection::kRepeat:
            break;
    }
}

bool ScriptCursor::Next(ScriptStep& out) {
    while (m_index < m_steps.size()) {
        const ScriptStep& step = m_steps[m_index++];
        if (step.injection == Injection::kRepeat) {
            if (m_index == 1 ||
                step.atMs > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) - m_offsetMs) {
                return false;
            }
            m_offsetMs += step.atMs;
            m_index = 0;
            continue;
        }
        out = step;
        if (m_offsetMs != 0) {
            out.atMs += m_offsetMs;
            // The log records the step as it ran: a replay of it plays the same times.
            Json::Value source;
            std::string ignored;
            if (ReadScriptJson(step.source, source, ignored)) {
                source["at_ms"] = Json::UInt64(out.atMs);
                out.source = Compact(source);
            }
        }
        return true;
    }
    return false;
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
    ScriptCursor cursor(m_steps);
    ScriptStep step;
    while (cursor.Next(step)) {
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
