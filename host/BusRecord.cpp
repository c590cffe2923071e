#include "BusRecord.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <regex>

#include "BusEvents.h"
#include "HostText.h"
#include "MediaDecode.h"

namespace truckhost {

namespace {

constexpr size_t kLogRecordSize = 236;
constexpr size_t kLogTextOffset = 12, kLogTextSize = 128;

uint32_t U32At(const std::vector<uint8_t>& bytes, size_t at) {
    return static_cast<uint32_t>(bytes[at]) | static_cast<uint32_t>(bytes[at + 1]) << 8 |
           static_cast<uint32_t>(bytes[at + 2]) << 16 | static_cast<uint32_t>(bytes[at + 3]) << 24;
}

// The batch of log records: u32 group mask, u32 count, then 236-byte records with the time
// stamp at 0 (year of the century, month, day, hour, minute, second) and the text at 12.
bool DecodeSystemLog(const std::vector<uint8_t>& p, Json::Value& fields, std::string& problem) {
    if (p.size() < 8 || (p.size() - 8) % kLogRecordSize != 0 ||
        U32At(p, 4) != (p.size() - 8) / kLogRecordSize) {
        problem = "a log batch of " + std::to_string(p.size()) + " bytes";
        return false;
    }
    fields["group_mask"] = U32At(p, 0);
    Json::Value& records = fields["records"] = Json::Value(Json::arrayValue);
    for (size_t at = 8; at < p.size(); at += kLogRecordSize) {
        char stamp[32];
        snprintf(stamp, sizeof(stamp), "20%02u-%02u-%02u %02u:%02u:%02u", p[at], p[at + 1], p[at + 2],
                 p[at + 3], p[at + 4], p[at + 5]);
        const char* text = reinterpret_cast<const char*>(&p[at + kLogTextOffset]);
        Json::Value record;
        record["time"] = stamp;
        record["text"] = media::Printable(std::string(text, strnlen(text, kLogTextSize)));
        records.append(record);
    }
    return true;
}

}  // namespace

std::string DecodeBusMessage(int event, const std::vector<uint8_t>& payload, Json::Value& fields) {
    fields = Json::Value(Json::objectValue);
    std::string problem;
    std::string name;
    bool read = false;
    if (event == busevent::kOverlay) {
        name = "overlay";
        media::Overlay o;
        if ((read = media::DecodeOverlay(payload.data(), payload.size(), o, problem))) {
            fields["kind"] = o.kind;
            fields["mask"] = o.mask;
            fields["x"] = o.x;
            fields["y"] = o.y;
            fields["font"] = o.fontSize;
            // An overlay without text takes its item off the channels of the mask.
            fields["text"] = o.hasText ? Json::Value(media::Printable(o.text)) : Json::Value();
        }
    } else if (event == busevent::kCardRecord) {
        name = "card_record";
        media::CardRecord card;
        if ((read = media::DecodeCardRecord(payload.data(), payload.size(), card, problem))) {
            fields["x"] = card.x;
            fields["y"] = card.y;
            fields["text"] = media::Printable(card.text);
        }
    } else if (event == busevent::kIoTurn) {
        name = "io_turn";
        uint8_t state = 0;
        if ((read = media::DecodeIoTurn(payload.data(), payload.size(), state, problem))) {
            fields["state"] = state;
            fields["turn"] = media::TurnName(state);
        }
    } else if (event == busevent::kDstState) {
        name = "dst_state";
        media::DstState dst;
        if ((read = media::DecodeDstState(payload.data(), payload.size(), dst, problem))) {
            fields["state"] = dst.state;
            fields["shift"] = dst.shiftHours;
        }
    } else if (event == busevent::kSystemLog) {
        name = "system_log";
        read = DecodeSystemLog(payload, fields, problem);
    }
    if (!name.empty() && !read) {
        fields = Json::Value(Json::objectValue);
        fields["problem"] = problem;
    }
    return name;
}

BusLogWriter::~BusLogWriter() {
    if (m_file != nullptr) {
        fclose(m_file);
    }
}

bool BusLogWriter::Open(const std::string& path, std::string& error) {
    m_file = fopen(path.c_str(), "w");
    if (m_file == nullptr) {
        error = "cannot write the bus log '" + path + "': " + strerror(errno);
        return false;
    }
    return true;
}

void BusLogWriter::WriteRun(const RunInfo& run) {
    Json::Value device;
    device["product_type"] = run.device.productType;
    device["system_type"] = run.device.systemType;
    device["video_inputs"] = run.device.videoInNum;
    device["ip_channels"] = run.device.videoIpNum;
    device["serial_number"] = run.device.serialNumber;
    // The store as a document of its own, so that the log stays one object per line; it was
    // checked to be JSON before the run.
    Json::Value params;
    std::string ignored;
    if (run.paramsText.empty() || !ReadJson(run.paramsText, params, ignored)) {
        params = Json::Value();
    }
    Put("{\"t_ms\": 0, \"kind\": \"run\", \"start_time\": " +
        Compact(Json::Value(DeviceTimeText(run.startTime))) + ", \"clock\": \"" +
        (run.simClock ? "sim" : "real") + "\", \"sysroot\": " + Compact(Json::Value(run.sysroot)) +
        ", \"device\": " + Compact(device) + ", \"plugin\": " + Compact(Json::Value(run.plugin)) +
        ", \"version\": " + Compact(Json::Value(run.version)) + ", \"params\": " + Compact(params) + "}\n");
}

void BusLogWriter::WriteBus(uint64_t tMs, const nvx::BusMessage& message) {
    std::string line = "{\"t_ms\": " + std::to_string(tMs) +
                       ", \"kind\": \"bus\", \"client\": " + Compact(Json::Value(message.client)) +
                       ", \"source\": " + std::to_string(message.source) +
                       ", \"event\": " + std::to_string(message.event) +
                       ", \"len\": " + std::to_string(message.payload.size()) + ", \"hex\": \"" +
                       HexText(message.payload) + "\"";
    Json::Value fields;
    const std::string name = DecodeBusMessage(message.event, message.payload, fields);
    if (!name.empty()) {
        line += ", \"name\": \"" + name + "\", \"fields\": " + Compact(fields);
    }
    Put(line + "}\n");
}

void BusLogWriter::WriteParameter(uint64_t tMs, const std::string& text) {
    Put("{\"t_ms\": " + std::to_string(tMs) +
        ", \"kind\": \"param_set\", \"text\": " + Compact(Json::Value(text)) + "}\n");
}

void BusLogWriter::WriteStep(uint64_t tMs, size_t number, const std::string& source) {
    Put("{\"t_ms\": " + std::to_string(tMs) + ", \"kind\": \"script\", \"step\": " + std::to_string(number) +
        ", \"do\": " + source + "}\n");
}

void BusLogWriter::WriteEnd(uint64_t tMs, int exitStatus) {
    Put("{\"t_ms\": " + std::to_string(tMs) + ", \"kind\": \"end\", \"exit\": " + std::to_string(exitStatus) +
        "}\n");
}

void BusLogWriter::Put(const std::string& line) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_file != nullptr) {
        fputs(line.c_str(), m_file);
        fflush(m_file);
    }
}

namespace {

bool ReadRun(const Json::Value& line, RunInfo& run, std::string& error) {
    const Json::Value& device = line["device"];
    if (!line["start_time"].isString() || !line["sysroot"].isString() || !device.isObject()) {
        error = "the run line lacks its start_time, sysroot or device";
        return false;
    }
    const std::string start = line["start_time"].asString();
    if (!ParseDeviceTime(start, run.startTime)) {
        error = "the run's start_time '" + start + "' is not YYYY-MM-DDTHH:MM:SS of 1970 to 2099";
        return false;
    }
    const std::string clock = line["clock"].isString() ? line["clock"].asString() : "real";
    if (clock != "sim" && clock != "real") {
        error = "the run's clock '" + clock + "' is neither sim nor real";
        return false;
    }
    run.simClock = clock == "sim";
    run.sysroot = line["sysroot"].asString();
    std::string reason;
    if (!nvx::ParseDeviceProfile(device, run.device, reason)) {
        error = "the run's device: " + reason;
        return false;
    }
    run.plugin = line["plugin"].isString() ? line["plugin"].asString() : std::string();
    run.version = line["version"].isString() ? line["version"].asString() : std::string();
    if (line["params"].isObject()) {
        run.paramsText = Compact(line["params"]) + "\n";
    }
    return true;
}

}  // namespace

bool ReadRecording(const std::string& path, Recording& out, std::string& error) {
    std::ifstream file(path);
    if (!file) {
        error = "cannot read the recording '" + path + "': " + strerror(errno);
        return false;
    }
    Recording recording;
    std::string steps;
    std::string text;
    size_t number = 0;
    bool ended = false;
    while (std::getline(file, text)) {
        ++number;
        const std::string where = "recording " + path + ": line " + std::to_string(number) + ": ";
        Json::Value line;
        std::string reason;
        if (!ReadJson(text, line, reason) || !line.isObject() || !line["t_ms"].isUInt64() ||
            !line["kind"].isString()) {
            error = where + "not a line of a bus log";
            return false;
        }
        const uint64_t tMs = line["t_ms"].asUInt64();
        const std::string kind = line["kind"].asString();
        if (number == 1) {
            if (kind != "run") {
                error = where + "a bus log opens with the run (\"kind\": \"run\")";
                return false;
            }
            if (!ReadRun(line, recording.run, reason)) {
                error = where + reason;
                return false;
            }
            continue;
        }
        if (!ended) {
            recording.endMs = std::max(recording.endMs, tMs);
        }
        if (kind == "bus") {
            RecordedMessage message;
            message.tMs = tMs;
            if (!line["event"].isInt() || !line["hex"].isString() ||
                !FromHex(line["hex"].asString(), message.payload)) {
                error = where + "a bus message needs its event and hex";
                return false;
            }
            message.event = line["event"].asInt();
            message.client = line["client"].isString() ? line["client"].asString() : "";
            // The check compares the bytes alone: a line whose fields tell another story than
            // its hex was edited by hand, and would pass for what it does not test.
            Json::Value fields;
            const std::string name = DecodeBusMessage(message.event, message.payload, fields);
            if ((line.isMember("name") && line["name"] != Json::Value(name)) ||
                (line.isMember("fields") && Compact(line["fields"]) != Compact(fields))) {
                error = where + "the fields do not match the hex";
                return false;
            }
            recording.messages.push_back(std::move(message));
        } else if (kind == "script") {
            steps += (steps.empty() ? "" : ",\n") + Compact(line["do"]);
        } else if (kind == "end") {
            // The run's own end: a stop's last messages come after it.
            recording.endMs = tMs;
            ended = true;
        }
    }
    if (number == 0) {
        error = "recording " + path + " is empty";
        return false;
    }
    recording.scriptText = "[" + steps + "]";
    out = std::move(recording);
    return true;
}

bool TimeTextsWithinASecond(const std::string& a, const std::string& b) {
    if (a == b) {
        return true;
    }
    static const std::regex kClock("([0-9]{1,2}):([0-9]{2}):([0-9]{2})");
    std::smatch ma, mb;
    if (!std::regex_search(a, ma, kClock) || !std::regex_search(b, mb, kClock)) {
        return false;
    }
    // A 12-hour clock turns over at noon and midnight, a 24-hour one at midnight; at the turn
    // the date or the AM/PM mark changes with it.
    const std::string mark = ma.suffix().str().substr(0, 3);
    const bool twelveHour = mark == " AM" || mark == " PM";
    const int period = twelveHour ? 43200 : 86400;
    auto seconds = [twelveHour](const std::smatch& m) {
        return (std::stoi(m[1]) % (twelveHour ? 12 : 24)) * 3600 + std::stoi(m[2]) * 60 + std::stoi(m[3]);
    };
    const int sa = seconds(ma), sb = seconds(mb);
    const int step = ((sb - sa) % period + period) % period;
    if (step != 1 && step != period - 1) {
        return false;
    }
    const bool sameAround = ma.prefix().str() == mb.prefix().str() && ma.suffix().str() == mb.suffix().str();
    const bool turnsOver = std::min(sa, sb) == 0 && std::max(sa, sb) == period - 1;
    return turnsOver ? !sameAround : sameAround;
}

namespace {

// What is compared of one message, and how it is told in a difference.
struct Entry {
    uint64_t tMs = 0;
    std::string state;  // compared as it is; a time item's text apart
    std::string timeText;
    bool isTime = false;
    std::string told;
    uint64_t lastedMs = UINT64_MAX;  // an overlay state's time until the next one of its item
};

bool Same(const Entry& a, const Entry& b) {
    return a.state == b.state && a.isTime == b.isTime &&
           (!a.isTime || TimeTextsWithinASecond(a.timeText, b.timeText));
}

// Overlay items keyed by their kind, every other message by its event. An overlay's state is
// its channel mask, position, font and text, and only changes of state count; every other
// message counts, byte for byte.
std::map<std::string, std::vector<Entry>> Sequences(const std::vector<RecordedMessage>& messages) {
    std::map<std::string, std::vector<Entry>> sequences;
    for (const RecordedMessage& m : messages) {
        Json::Value fields;
        const std::string name = DecodeBusMessage(m.event, m.payload, fields);
        Entry entry;
        entry.tMs = m.tMs;
        if (name == "overlay" && !fields.isMember("problem")) {
            const unsigned kind = fields["kind"].asUInt();
            const std::string key = "overlay of kind " + std::to_string(kind) + " (" +
                                    media::KindName(static_cast<uint8_t>(kind)) + ")";
            const std::string place = "mask " + std::to_string(fields["mask"].asUInt()) + " at " +
                                      std::to_string(fields["x"].asUInt()) + "," +
                                      std::to_string(fields["y"].asUInt()) + " font " +
                                      std::to_string(fields["font"].asUInt());
            entry.isTime = kind == media::kKindTime && fields["text"].isString();
            // The text is compared as sent; the decoded one is for telling.
            entry.state = place + (fields["text"].isNull() ? " removed" : "");
            if (entry.isTime) {
                entry.timeText = fields["text"].asString();
            } else {
                entry.state += " " + HexText(m.payload);
            }
            entry.told =
                (fields["text"].isNull() ? std::string("(removed)") : Compact(fields["text"])) + ", " + place;
            std::vector<Entry>& sequence = sequences[key];
            if (sequence.empty() || sequence.back().state != entry.state ||
                sequence.back().timeText != entry.timeText) {
                sequence.push_back(entry);
            }
            continue;
        }
        char event[16];
        snprintf(event, sizeof(event), "0x%04X", static_cast<unsigned>(m.event));
        entry.state = HexText(m.payload);
        entry.told = name.empty() ? entry.state : Compact(fields);
        sequences[std::string("event ") + event + (name.empty() ? "" : " (" + name + ")")].push_back(entry);
    }
    for (auto& item : sequences) {
        if (item.first.compare(0, 8, "overlay ") != 0) {
            continue;
        }
        for (size_t i = 0; i + 1 < item.second.size(); ++i) {
            item.second[i].lastedMs = item.second[i + 1].tMs - item.second[i].tMs;
        }
    }
    return sequences;
}

std::string At(const Entry& e) {
    return e.told + " at " + std::to_string(e.tMs) + " ms";
}

// Each entry of `from` must find its like in `in`, in order and within the slack; entries
// within the slack of the end may be missing. The first that does not, with its time.
bool FirstUnmatched(const std::vector<Entry>& from, const std::vector<Entry>& in, uint64_t endMs,
                    size_t& index) {
    size_t next = 0;
    for (size_t i = 0; i < from.size(); ++i) {
        const Entry& e = from[i];
        size_t j = next;
        while (j < in.size() && in[j].tMs + kSlackMs < e.tMs) {
            ++j;
        }
        bool found = false;
        for (size_t k = j; k < in.size() && in[k].tMs <= e.tMs + kSlackMs; ++k) {
            if (Same(e, in[k])) {
                // One time text may answer two that were a second off; any other state answers once.
                next = e.isTime ? k : k + 1;
                found = true;
                break;
            }
        }
        // A state that lasted no longer than the slack may fall between two cycles of the
        // other run: a step that lands just before its cycle in one run and just after in the
        // other shows one state fewer there.
        if (!found && e.tMs + kSlackMs < endMs && e.lastedMs > kSlackMs) {
            index = i;
            return true;
        }
    }
    return false;
}

// A message as the exact check tells it: what it is, and its decoded fields.
std::string Told(const RecordedMessage& m) {
    Json::Value fields;
    const std::string name = DecodeBusMessage(m.event, m.payload, fields);
    char event[16];
    snprintf(event, sizeof(event), "0x%04X", static_cast<unsigned>(m.event));
    return std::string("event ") + event +
           (name.empty() ? " " + HexText(m.payload) : " (" + name + ") " + Compact(fields)) + " from " +
           (m.client.empty() ? std::string("?") : m.client) + " at " + std::to_string(m.tMs) + " ms";
}

bool SameMessage(const RecordedMessage& a, const RecordedMessage& b) {
    return a.tMs == b.tMs && a.event == b.event && a.payload == b.payload && a.client == b.client;
}

}  // namespace

bool CompareExactly(const std::vector<RecordedMessage>& recorded,
                    const std::vector<RecordedMessage>& replayed, uint64_t endMs, std::string& difference) {
    auto before = [endMs](const std::vector<RecordedMessage>& all) {
        std::vector<const RecordedMessage*> kept;
        for (const RecordedMessage& m : all) {
            if (m.tMs < endMs) {
                kept.push_back(&m);
            }
        }
        return kept;
    };
    const auto expected = before(recorded);
    const auto got = before(replayed);
    for (size_t i = 0; i < expected.size() || i < got.size(); ++i) {
        if (i < expected.size() && i < got.size() && SameMessage(*expected[i], *got[i])) {
            continue;
        }
        difference = "message " + std::to_string(i + 1) + ": recorded " +
                     (i < expected.size() ? Told(*expected[i]) : std::string("nothing more")) +
                     "; the replay sent " + (i < got.size() ? Told(*got[i]) : std::string("nothing more"));
        return false;
    }
    return true;
}

bool CompareRecordings(const std::vector<RecordedMessage>& recorded,
                       const std::vector<RecordedMessage>& replayed, uint64_t endMs,
                       std::string& difference) {
    const auto expected = Sequences(recorded);
    const auto got = Sequences(replayed);
    bool differs = false;
    uint64_t firstAt = 0;
    // Both directions: a state the replay lacks, and one it adds. The earliest is told, with
    // the other side's state nearest in time.
    auto check = [&](const std::map<std::string, std::vector<Entry>>& from,
                     const std::map<std::string, std::vector<Entry>>& in, const char* fromName,
                     const char* inName) {
        static const std::vector<Entry> kNone;
        for (const auto& item : from) {
            const auto other = in.find(item.first);
            const std::vector<Entry>& others = other == in.end() ? kNone : other->second;
            size_t index = 0;
            if (!FirstUnmatched(item.second, others, endMs, index)) {
                continue;
            }
            const Entry& e = item.second[index];
            if (differs && e.tMs >= firstAt) {
                continue;
            }
            const Entry* nearest = nullptr;
            for (const Entry& o : others) {
                const uint64_t d = o.tMs > e.tMs ? o.tMs - e.tMs : e.tMs - o.tMs;
                if (nearest == nullptr ||
                    d < (nearest->tMs > e.tMs ? nearest->tMs - e.tMs : e.tMs - nearest->tMs)) {
                    nearest = &o;
                }
            }
            differs = true;
            firstAt = e.tMs;
            difference = item.first + ": " + fromName + " " + At(e) + "; " + inName +
                         (nearest == nullptr ? std::string(" nothing") : " " + At(*nearest)) + " (nearest)";
        }
    };
    check(expected, got, "recorded", "the replay sent");
    check(got, expected, "the replay sent", "the recording has");
    return !differs;
}

}  // namespace truckhost
