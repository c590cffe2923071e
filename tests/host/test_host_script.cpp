// The host's --script: the bytes each step puts on the simulated device, the scripts refused
// before the plug-in starts, and the order and timing of the steps.
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "HostScript.h"
#include "HostText.h"
#include "JQ_SDK_Device.h"
#include "MsgClientManage.h"
#include "OsdRecords.h"
#include "TestSupport.h"

namespace {

using osd::Bytes;
using truckhost::Injection;
using truckhost::ParseScript;
using truckhost::ScriptStep;

// The step of a script of one step that must be good.
ScriptStep OnlyStep(const std::string& step) {
    const truckhost::ParsedScript parsed = ParseScript("[" + step + "]");
    EXPECT_EQ(parsed.error, "") << step;
    return parsed.steps.size() == 1 ? parsed.steps[0] : ScriptStep();
}

struct Received {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> items;

    void Add(std::string item) {
        std::lock_guard<std::mutex> lock(mutex);
        items.push_back(std::move(item));
        changed.notify_all();
    }
    bool WaitFor(size_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::milliseconds(kGenerousMs),
                                [&] { return items.size() >= count; });
    }
    void OnEvent(const char* data, int length) { Add(std::string(data, static_cast<size_t>(length))); }
};

void OnSignal(const char* data, int length, void* user, void*) {
    static_cast<Received*>(user)->Add(std::string(data, static_cast<size_t>(length)));
}

using HostScriptOnDevice = DeviceTest;

}  // namespace

TEST(HostScript, SpeedAndSwipeStepsBuildTheirPayloadsByteForByte) {
    const ScriptStep speed = OnlyStep(R"({"at_ms": 0, "kind": "speed", "speed": 305419896, "unit": 2})");
    EXPECT_EQ(speed.event, 0x118A);
    EXPECT_EQ(speed.bytes, osd::Record(28, {{20, 2}, {24, 0x12345678}}));

    const ScriptStep swipe = OnlyStep(R"({"at_ms": 0, "kind": "swipe", "text": "AB"})");
    EXPECT_EQ(swipe.event, 0x4004);
    Bytes expected = osd::Record(35, {{16, 15}, {24, 160}, {28, 1}});  // a body of bytes 20..34
    expected[32] = 'A';
    expected[33] = 'B';
    EXPECT_EQ(swipe.bytes, expected);

    // A body past 16 bits of length: 70013 = 0x01117D over bytes 16, 17 and 18.
    const Bytes wide = truckhost::SwipePayload(std::string(70000, 'x'));
    ASSERT_EQ(wide.size(), 70033u);
    EXPECT_EQ(Bytes(wide.begin() + 16, wide.begin() + 20), (Bytes{0x7D, 0x11, 0x01, 0x00}));
    EXPECT_EQ(wide[70031], 'x');
    EXPECT_EQ(wide[70032], 0);
}

TEST(HostScript, RawStepsCarryTheirBytesAndValuesAsWritten) {
    const ScriptStep bus = OnlyStep(R"({"at_ms": 5, "kind": "bus", "event": 4660, "hex": "0a1B00fF"})");
    EXPECT_EQ(bus.injection, Injection::kBusEvent);
    EXPECT_EQ(bus.event, 4660);
    EXPECT_EQ(bus.bytes, (Bytes{0x0A, 0x1B, 0x00, 0xFF}));

    const ScriptStep io = OnlyStep(R"({"at_ms": 0, "kind": "io", "text": "{\"A\":1}"})");
    EXPECT_EQ(io.injection, Injection::kDevSignal);
    EXPECT_EQ(std::string(io.bytes.begin(), io.bytes.end()), "{\"A\":1}");  // no terminator

    const ScriptStep can = OnlyStep(R"({"at_ms": 0, "kind": "can", "hex": "00014000"})");
    EXPECT_EQ(can.injection, Injection::kCanRecord);
    EXPECT_EQ(can.bytes, (Bytes{0x00, 0x01, 0x40, 0x00}));

    // A document given as an object or as text reaches the store as the same compact text.
    const std::string compact = R"({"PARAMETER":{"MDVR":{"TIMEP":{"TIMEZ":"-300"}}}})";
    for (const char* doc : {R"({"PARAMETER": {"MDVR": {"TIMEP": {"TIMEZ": "-300"}}}})",
                            R"("{ \"PARAMETER\" : {\"MDVR\":{\"TIMEP\":{\"TIMEZ\":\"-300\"}}}}")"}) {
        const ScriptStep param =
            OnlyStep(std::string(R"({"at_ms": 0, "kind": "param", "doc": )") + doc + "}");
        EXPECT_EQ(param.injection, Injection::kParameters);
        EXPECT_EQ(param.text, compact);
    }

    // The step as the logs tell it: compact and ASCII, whatever bytes the script held.
    EXPECT_EQ(OnlyStep("{\"at_ms\": 0, \"kind\": \"swipe\", \"text\": \"\xC3\xA9 \xE9\"}").source,
              R"({"at_ms":0,"kind":"swipe","text":"\u00e9 \ufffd"})");

    const ScriptStep clock = OnlyStep(R"({"at_ms": 0, "kind": "clock", "set": "2026-01-02T03:04:05"})");
    EXPECT_EQ(clock.injection, Injection::kWallClock);
    EXPECT_EQ(clock.seconds, 1767323045);

    const ScriptStep storage =
        OnlyStep(R"({"at_ms": 0, "kind": "storage", "result": -10, "path": "/mnt/sd1"})");
    EXPECT_EQ(storage.injection, Injection::kStorageReport);
    EXPECT_EQ(storage.result, -10);
    EXPECT_EQ(storage.text, "/mnt/sd1");

    // A restart is the host's own step; without a gap it starts again at once.
    const ScriptStep restart = OnlyStep(R"({"at_ms": 7, "kind": "restart"})");
    EXPECT_EQ(restart.injection, Injection::kRestart);
    EXPECT_EQ(restart.gapMs, 0u);
    EXPECT_EQ(OnlyStep(R"({"at_ms": 7, "kind": "restart", "gap_ms": 600000})").gapMs, 600000u);
}

TEST(HostScript, DeviceTimesAreReadWithoutAZoneAndCalendarChecked) {
    // Past 2038 on every build, the device's time_t notwithstanding.
    const std::pair<const char*, int64_t> good[] = {
        {"1970-01-01T00:00:00", 0},          {"2024-02-29T23:59:59", 1709251199},
        {"2038-01-19T03:14:08", 2147483648}, {"2096-03-01T00:00:00", 3981398400},
        {"2099-12-31T23:59:59", 4102444799},
    };
    for (const auto& g : good) {
        int64_t seconds = -1;
        EXPECT_TRUE(truckhost::ParseDeviceTime(g.first, seconds)) << g.first;
        EXPECT_EQ(seconds, g.second) << g.first;
    }
    int64_t seconds = -1;
    for (const char* bad :
         {"2023-02-29T00:00:00", "2026-04-31T12:00:00", "2026-01-02T24:00:00", "2026-01-02T03:60:00",
          "2026-01-02T03:04:60", "2026-13-02T03:04:05", "1969-12-31T23:59:59", "2100-01-01T00:00:00",
          "2026-00-02T03:04:05", "2026-01-00T03:04:05", "2026-01-02 03:04:05", "2026-1-02T03:04:05",
          "2026-01-02T03:04:05Z", "+026-01-02T03:04:05", ""}) {
        EXPECT_FALSE(truckhost::ParseDeviceTime(bad, seconds)) << bad;
    }
}

TEST(HostScript, MalformedScriptsAreRefusedWholeNamingTheStepAndTheFault) {
    const std::string good = R"({"at_ms": 0, "kind": "io", "text": "x"}, )";
    auto second = [&good](const std::string& step) { return "[" + good + step + "]"; };
    const std::pair<std::string, std::string> cases[] = {
        {R"({"at_ms": 0})", "not a JSON array of steps"},
        {"[" + good, "not JSON: "},
        {second(R"({"at_ms": 0, "at_ms": 1, "kind": "io", "text": ""})"), "not JSON: "},
        {second("3"), "step 2: not an object"},
        {"[" + good + good + R"({"kind": "io", "text": ""}])", "step 3: at_ms is missing"},
        {second(R"({"at_ms": -1, "kind": "io", "text": ""})"),
         "step 2: at_ms must be an integer from 0 to 9223372036854775807"},
        {second(R"({"at_ms": 1.5, "kind": "io", "text": ""})"), "step 2: at_ms must be an integer"},
        {second(R"({"at_ms": "5", "kind": "io", "text": ""})"), "step 2: at_ms must be an integer"},
        {second(R"({"at_ms": 0, "kind": "jump"})"), "step 2: kind 'jump' is unknown"},
        {second(R"({"at_ms": 0, "kind": "speed", "speed": 1})"), "step 2: unit is missing"},
        {second(R"({"at_ms": 0, "kind": "speed", "speed": 1, "unit": 256})"),
         "step 2: unit must be an integer from 0 to 255"},
        {second(R"({"at_ms": 0, "kind": "speed", "speed": 4294967296, "unit": 0})"),
         "step 2: speed must be an integer from 0 to 4294967295"},
        {second(R"({"at_ms": 0, "kind": "bus", "event": -1, "hex": ""})"),
         "step 2: event must be an integer from 0 to 2147483647"},
        {second(R"({"at_ms": 0, "kind": "bus", "event": 1, "hex": "abc"})"),
         "step 2: hex must have an even number of hexadecimal digits"},
        {second(R"({"at_ms": 0, "kind": "can", "hex": "0g"})"),
         "step 2: hex has a character that is not a hexadecimal digit at 1"},
        {second(R"({"at_ms": 0, "kind": "swipe", "text": 5})"), "step 2: text must be a string"},
        {second(R"({"at_ms": 0, "kind": "param", "doc": {"MDVR": {}}})"),
         "step 2: doc has no PARAMETER.MDVR object"},
        {second(R"({"at_ms": 0, "kind": "param", "doc": "[1]"})"),
         "step 2: doc has no PARAMETER.MDVR object"},
        {second(R"({"at_ms": 0, "kind": "param", "doc": "{"})"), "step 2: doc is not JSON: "},
        {second(R"({"at_ms": 0, "kind": "clock", "set": "2026-02-30T00:00:00"})"),
         "step 2: set must be a date and time YYYY-MM-DDTHH:MM:SS the device can hold, not "
         "'2026-02-30T00:00:00'"},
        {second(R"({"at_ms": 0, "kind": "restart", "gap_ms": 600001})"),
         "step 2: gap_ms must be an integer from 0 to 600000"},
        {second(R"({"at_ms": 0, "kind": "restart", "gap_ms": "1"})"), "step 2: gap_ms must be an integer"},
        {second(R"({"at_ms": 0, "kind": "storage", "result": 2147483648, "path": ""})"),
         "step 2: result must be an integer from -2147483648 to 2147483647"},
    };
    for (const auto& [script, error] : cases) {
        const truckhost::ParsedScript parsed = ParseScript(script);
        EXPECT_EQ(parsed.error.substr(0, error.size()), error) << script;
        EXPECT_TRUE(parsed.steps.empty()) << script;
    }
}

TEST(HostScript, StepsRunByTimeTiesInFileOrderAndNoneAtOrAfterTheEnd) {
    const truckhost::ParsedScript parsed = ParseScript(R"([
        {"at_ms": 300, "kind": "io", "text": "a"}, {"at_ms": 100, "kind": "io", "text": "b"},
        {"at_ms": 300, "kind": "io", "text": "c"}, {"at_ms": 0, "kind": "io", "text": "d"},
        {"at_ms": 100, "kind": "io", "text": "e"}, {"at_ms": 400, "kind": "io", "text": "f"}])");
    ASSERT_EQ(parsed.error, "");
    Received performed;
    {
        // Every step is overdue: all but the one at the end run at once, in order.
        truckhost::ScriptTimeline timeline;
        timeline.Start(parsed.steps, std::chrono::steady_clock::now() - std::chrono::hours(1), 400,
                       [&](const ScriptStep& step) { performed.Add(std::to_string(step.number)); });
        ASSERT_TRUE(timeline.WaitUntilDone(std::chrono::milliseconds(kGenerousMs)));
    }
    EXPECT_EQ(performed.items, (std::vector<std::string>{"4", "2", "5", "1", "3"}));

    // A step an hour away does not hold up the end of the run.
    truckhost::ScriptTimeline timeline;
    timeline.Start(parsed.steps, std::chrono::steady_clock::now() + std::chrono::hours(1), UINT64_MAX,
                   [&](const ScriptStep& step) { performed.Add(std::to_string(step.number)); });
    const auto before = std::chrono::steady_clock::now();
    timeline.Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(1));
    EXPECT_EQ(performed.items.size(), 5u);
}

TEST_F(HostScriptOnDevice, StepsReachBusClientsSignalMonitorsAndTheClock) {
    CMsgClientManage client("osd", 30, nullptr);
    Received events, signals;
    const int source = static_cast<int>(client.MSGGenerateSourceId("osd"));
    ASSERT_EQ(client.MSGEventRegister(source, 0x118A, &events, &Received::OnEvent), 0);
    ASSERT_EQ(JQ_SDK_Device_MonitorDevSignalData(OnSignal, &signals, 0), 0);

    truckhost::RunStep(OnlyStep(R"({"at_ms": 0, "kind": "speed", "speed": 90, "unit": 0})"));
    truckhost::RunStep(OnlyStep(R"({"at_ms": 0, "kind": "io", "text": "on"})"));
    truckhost::RunStep(OnlyStep(R"({"at_ms": 0, "kind": "clock", "set": "2030-06-01T12:00:00"})"));

    EXPECT_EQ(client.MSGWaitForEvent(kGenerousMs), 1);
    ASSERT_EQ(events.items.size(), 1u);
    EXPECT_EQ(events.items[0].size(), 28u);
    EXPECT_EQ(events.items[0][24], 90);
    ASSERT_TRUE(signals.WaitFor(1));
    EXPECT_EQ(signals.items[0], "on");
    const time_t set = 1906545600;  // 2030-06-01 12:00:00
    EXPECT_GE(nvx::WallClock(), set);
    EXPECT_LE(nvx::WallClock(), set + 5);
    JQ_SDK_Device_MonitorDevSignalData(nullptr, &signals, 0);
}
