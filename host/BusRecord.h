// The bus log as a record of a run, and a run played again from it.
//
// The log is one JSON object per line: first the run itself (start time, system root, device
// identity, plug-in and its version, the parameter store it started from), then every bus
// message the plug-in sent, decoded where this side knows the message, every parameter write,
// every script step run, and at exit the run's end. A replay reads the run and its steps back;
// the check compares what the plug-in sends on the replay with what the log recorded, with
// the slack two runs of one device need: their clocks start within a second of each other and
// their threads are scheduled apart.
#ifndef TRUCK_HOST_BUSRECORD_H
#define TRUCK_HOST_BUSRECORD_H

#include <stdint.h>
#include <stdio.h>

#include <mutex>
#include <string>
#include <vector>

#include <json/json.h>

#include "NvxControl.h"

namespace truckhost {

struct RunInfo {
    int64_t startTime = 0;  // the device's wall clock at start, seconds since 1970, no zone
    bool simClock = false;  // the device ran on the simulated clock (a log without "clock": real)
    std::string sysroot;
    nvx::DeviceProfile device;
    std::string plugin;
    std::string version;     // the plug-in's version line; empty when it has none
    std::string paramsText;  // the parameter store the device started from; empty: none
};

struct RecordedMessage {
    uint64_t tMs = 0;  // the host's milliseconds since start
    int event = 0;
    std::vector<uint8_t> payload;
    std::string client;  // the bus client that sent it
};

struct Recording {
    RunInfo run;
    std::string scriptText;  // the steps run, as a script: a JSON array of the steps as written
    uint64_t endMs = 0;      // the recorded run's length
    std::vector<RecordedMessage> messages;
};

// The name of a message the plug-in sends ("overlay", "card_record", "io_turn", "dst_state",
// "system_log"), or "" for another event; with `fields` its decoded fields, or a "problem"
// when its bytes cannot be read as that message.
std::string DecodeBusMessage(int event, const std::vector<uint8_t>& payload, Json::Value& fields);

// Writes the log; every line is flushed at once, so a run that is killed leaves what it did.
// Any thread.
class BusLogWriter {
public:
    BusLogWriter() = default;
    ~BusLogWriter();
    BusLogWriter(const BusLogWriter&) = delete;
    BusLogWriter& operator=(const BusLogWriter&) = delete;

    bool Open(const std::string& path, std::string& error);
    void WriteRun(const RunInfo& run);
    void WriteBus(uint64_t tMs, const nvx::BusMessage& message);
    void WriteParameter(uint64_t tMs, const std::string& text);
    // `source` is the step's own compact JSON.
    void WriteStep(uint64_t tMs, size_t number, const std::string& source);
    void WriteEnd(uint64_t tMs, int exitStatus);

private:
    void Put(const std::string& line);

    std::mutex m_mutex;
    FILE* m_file = nullptr;
};

// False with the reason (the system's for a file that cannot be read, else the line) for a
// file that is not such a log, or one with a bus message whose name or fields are not what its
// hex decodes to.
bool ReadRecording(const std::string& path, Recording& out, std::string& error);

// Agreement of a replay with its recording. Overlays are compared per item kind as the
// sequence of distinct states (channel mask, position, font size, text); every other message
// per event, message by message. A state or message may come up to kSlackMs earlier or later
// than recorded; a date-time text may be one second off (the two clocks' phases differ); an
// overlay state that lasted no longer than kSlackMs, and what either run sent within kSlackMs
// of the recorded end, may be missing from the other. False with
// the first difference in time, told in decoded form.
constexpr uint64_t kSlackMs = 600;
bool CompareRecordings(const std::vector<RecordedMessage>& recorded,
                       const std::vector<RecordedMessage>& replayed, uint64_t endMs, std::string& difference);

// Agreement of a replay with a recording made on the simulated clock, where two runs of one
// device are the same run: every message of every client at the same device millisecond with
// the same bytes, in the same order, up to (not including) endMs. False with the first
// difference, both sides decoded.
bool CompareExactly(const std::vector<RecordedMessage>& recorded,
                    const std::vector<RecordedMessage>& replayed, uint64_t endMs, std::string& difference);

// True when two date-time texts are the same or one second apart: the same text around an
// "H:MM:SS" one second apart (of the day, or of the half day when " AM" or " PM" follows),
// or, across midnight (and noon on a 12-hour clock), texts whose date or mark turned over too.
bool TimeTextsWithinASecond(const std::string& a, const std::string& b);

}  // namespace truckhost

#endif
