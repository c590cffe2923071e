// The bus record: when a replay agrees with its recording (the slack in time, repeats, the end,
// clock texts a second apart), the decoded fields of hand-made messages, and a log written and
// read back.
#include <gtest/gtest.h>
#include <json/json.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "BusRecord.h"
#include "OsdRecords.h"

namespace {

using osd::Bytes;
using truckhost::RecordedMessage;
constexpr int kOverlay = 0x1210, kIoTurn = 0x401E;

void Put(Bytes& b, size_t at, uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) {
        b[at + i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

Bytes Overlay(uint8_t kind, uint32_t mask, uint16_t x, uint16_t y, uint8_t font, const char* text) {
    const std::string shown = text != nullptr ? text : "";
    return osd::OverlayRecord(mask, kind, text != nullptr ? &shown : nullptr, x, y, font);
}

RecordedMessage Speed(uint64_t t, const char* text) {
    return {t, kOverlay, Overlay(2, 1, 10, 20, 16, text), "truckosd"};
}
RecordedMessage Clock(uint64_t t, const char* text, uint16_t x = 10) {
    return {t, kOverlay, Overlay(0, 1, x, 40, 16, text), "truckosd"};
}
RecordedMessage Turn(uint64_t t, uint8_t state) {
    return {t, kIoTurn, {state}, "truckosd"};
}

bool Parse(const std::string& text, Json::Value& value) {
    std::istringstream in(text);
    return Json::parseFromStream(Json::CharReaderBuilder(), in, &value, nullptr);
}

bool Agree(const std::vector<RecordedMessage>& recorded, const std::vector<RecordedMessage>& replayed,
           uint64_t endMs = 10000) {
    std::string difference;
    return truckhost::CompareRecordings(recorded, replayed, endMs, difference);
}

// A recording of the simulated clock: the same messages at the same millisecond from the same
// client, in order, up to the end compared; the first difference told decoded.
TEST(BusRecord, CompareExactly) {
    const std::vector<RecordedMessage> run = {Clock(1000, "10:00:01"), Speed(1000, "50 km/h"), Turn(2000, 1)};
    std::string difference;
    EXPECT_TRUE(truckhost::CompareExactly(run, run, 10000, difference));
    std::vector<RecordedMessage> other = run;
    other[2].tMs = 2001;
    EXPECT_FALSE(truckhost::CompareExactly(run, other, 10000, difference)) << "a millisecond late";
    EXPECT_TRUE(truckhost::CompareExactly(run, other, 2000, difference)) << "past the end compared";
    other = run;
    other[2].client = "truckbusiness.02";
    EXPECT_FALSE(truckhost::CompareExactly(run, other, 10000, difference)) << "from another client";
    EXPECT_FALSE(truckhost::CompareExactly(run, {run[1], run[0], run[2]}, 10000, difference))
        << "out of order";
    other = run;
    other[1] = Speed(1000, "51 km/h");
    EXPECT_FALSE(truckhost::CompareExactly(run, other, 10000, difference));
    EXPECT_EQ(difference.rfind("message 2: recorded event 0x1210 (overlay) ", 0), 0u) << difference;
    EXPECT_NE(difference.find("\"text\":\"50 km/h\""), std::string::npos) << difference;
    EXPECT_NE(difference.find("\"text\":\"51 km/h\",\"x\":10,\"y\":20} from truckosd at 1000 ms"),
              std::string::npos)
        << difference;
    EXPECT_FALSE(truckhost::CompareExactly(run, {run[0], run[1]}, 10000, difference));
    EXPECT_NE(difference.find("the replay sent nothing more"), std::string::npos) << difference;
}

TEST(BusRecord, TimeTextsWithinASecond) {
    using truckhost::TimeTextsWithinASecond;
    EXPECT_TRUE(TimeTextsWithinASecond("03/08/2026 01:59:58", "03/08/2026 01:59:58"));
    EXPECT_TRUE(TimeTextsWithinASecond("03/08/2026 01:59:58", "03/08/2026 01:59:59"));
    EXPECT_TRUE(TimeTextsWithinASecond("03/08/2026 02:00:00", "03/08/2026 01:59:59"));
    EXPECT_FALSE(TimeTextsWithinASecond("03/08/2026 01:59:57", "03/08/2026 01:59:59"));
    EXPECT_TRUE(TimeTextsWithinASecond("03/08/2026 11:59:59 AM", "03/08/2026 12:00:00 PM"));
    EXPECT_TRUE(TimeTextsWithinASecond("2026-01-02 00:00:00", "2026-01-01 23:59:59"));
    EXPECT_FALSE(TimeTextsWithinASecond("2026-01-01 10:00:00", "2026-01-02 10:00:01"));
    EXPECT_FALSE(TimeTextsWithinASecond("10:00:00 AM", "10:00:01 PM"));
    // Twelve hours apart is not a second, on either clock.
    EXPECT_FALSE(TimeTextsWithinASecond("2026-01-01 13:00:00", "2026-01-01 01:00:01"));
    EXPECT_FALSE(TimeTextsWithinASecond("2026-01-01 11:59:59", "2026-01-01 00:00:00"));
    EXPECT_FALSE(TimeTextsWithinASecond("03/08/2026 11:59:59 AM", "03/08/2026 12:00:00 AM"));
    EXPECT_FALSE(TimeTextsWithinASecond("50 km/h", "51 km/h"));
}

TEST(BusRecord, CompareRecordings) {
    const std::vector<RecordedMessage> run = {Clock(1000, "2026-01-01 00:00:01"), Speed(1000, "50 km/h"),
                                              Turn(2000, 1)};
    EXPECT_TRUE(Agree(run, run));
    // Up to the slack late or early, either way round.
    EXPECT_TRUE(Agree({Speed(1000, "A")}, {Speed(1600, "A")}));
    EXPECT_FALSE(Agree({Speed(1000, "A")}, {Speed(1601, "A")}));
    EXPECT_TRUE(Agree({Speed(1600, "A")}, {Speed(1000, "A")}));
    EXPECT_FALSE(Agree({Speed(1601, "A")}, {Speed(1000, "A")}));

    std::string difference;
    EXPECT_FALSE(
        truckhost::CompareRecordings({Speed(1000, "50 km/h")}, {Speed(1000, "60 km/h")}, 10000, difference));
    EXPECT_EQ(difference.rfind("overlay of kind 2 (speed): recorded \"50 km/h\"", 0), 0u) << difference;
    EXPECT_NE(difference.find("the replay sent \"60 km/h\""), std::string::npos) << difference;
    EXPECT_EQ(difference.find("0012"), std::string::npos) << "told in hex: " << difference;

    // Repeats of a state are one state; a state that comes back is another.
    EXPECT_TRUE(Agree({Speed(1000, "A"), Speed(2000, "A"), Speed(3000, "A"), Speed(4000, "B")},
                      {Speed(1000, "A"), Speed(4000, "B")}));
    const std::vector<RecordedMessage> aba = {Speed(1000, "A"), Speed(2000, "B"), Speed(3000, "A")};
    const std::vector<RecordedMessage> ab(aba.begin(), aba.begin() + 2);
    EXPECT_FALSE(Agree(aba, ab));
    EXPECT_FALSE(Agree(ab, aba));
    // A state that lasted no longer than the slack may be missing from either run; a longer one
    // may not.
    EXPECT_TRUE(
        Agree({Speed(1000, "A"), Speed(1500, "B"), Speed(2100, "C")}, {Speed(1000, "A"), Speed(2100, "C")}));
    EXPECT_TRUE(
        Agree({Speed(1000, "A"), Speed(2100, "C")}, {Speed(1000, "A"), Speed(1500, "B"), Speed(2100, "C")}));
    EXPECT_FALSE(
        Agree({Speed(1000, "A"), Speed(1499, "B"), Speed(2100, "C")}, {Speed(1000, "A"), Speed(2100, "C")}));
    // Near the end either run may stop short.
    EXPECT_TRUE(Agree({Speed(1000, "A"), Speed(9400, "B")}, {Speed(1000, "A")}));
    EXPECT_TRUE(Agree({Speed(1000, "A")}, {Speed(1000, "A"), Speed(9400, "B")}));
    EXPECT_FALSE(Agree({Speed(1000, "A"), Speed(9399, "B")}, {Speed(1000, "A")}));

    // The replay's clock a second ahead still agrees; two seconds, a stopped clock or another place
    // do not.
    EXPECT_TRUE(Agree({Clock(1000, "2026-01-01 00:00:01"), Clock(2000, "2026-01-01 00:00:02")},
                      {Clock(1000, "2026-01-01 00:00:02"), Clock(2000, "2026-01-01 00:00:03")}));
    EXPECT_FALSE(Agree({Clock(1000, "2026-01-01 00:00:01")}, {Clock(1000, "2026-01-01 00:00:03")}));
    EXPECT_FALSE(Agree({Clock(1000, "2026-01-01 00:00:01"), Clock(2000, "2026-01-01 00:00:02")},
                       {Clock(1000, "2026-01-01 00:00:01")}));
    EXPECT_FALSE(Agree({Clock(1000, "2026-01-01 00:00:01")}, {Clock(1000, "2026-01-01 00:00:02", 11)}));

    // Other messages count one by one, byte for byte.
    EXPECT_FALSE(Agree({Turn(1000, 1), Turn(3000, 1)}, {Turn(1000, 1)}));
    EXPECT_FALSE(Agree({Turn(1000, 1), Turn(1300, 1)}, {Turn(1000, 1)}));
    EXPECT_FALSE(Agree({Turn(1000, 1)}, {Turn(1000, 1), Turn(1300, 1)}));
    EXPECT_FALSE(Agree({Turn(1000, 1)}, {Turn(1000, 2)}));

    // The earliest difference is told, whatever its item and direction.
    EXPECT_FALSE(truckhost::CompareRecordings({Turn(5000, 1), Speed(1000, "A")},
                                              {Speed(1000, "A"), Speed(3000, "C")}, 10000, difference));
    EXPECT_EQ(difference.rfind("overlay of kind 2 (speed): the replay sent \"C\"", 0), 0u) << difference;
}

// The name and the fields as one line, keys in order.
std::string Decoded(int event, const Bytes& payload) {
    Json::Value fields;
    const std::string name = truckhost::DecodeBusMessage(event, payload, fields);
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return name + " " + Json::writeString(builder, fields);
}

TEST(BusRecord, DecodeBusMessage) {
    EXPECT_EQ(Decoded(kOverlay, Overlay(6, 0x10005, 0x0102, 0x0304, 24, "88 km/h")),
              R"(overlay {"font":24,"kind":6,"mask":65541,"text":"88 km/h","x":258,"y":772})");
    EXPECT_EQ(Decoded(kOverlay, Overlay(2, 1, 0, 0, 0, nullptr)),
              R"(overlay {"font":0,"kind":2,"mask":1,"text":null,"x":0,"y":0})");
    Bytes card(212, 'Z');
    Put(card, 128, 70000, 4);
    Put(card, 132, 5, 4);
    memcpy(&card[136], "A1234", 6);
    EXPECT_EQ(Decoded(0x1263, card), R"(card_record {"text":"A1234","x":70000,"y":5})");
    EXPECT_EQ(Decoded(kIoTurn, {3}), R"(io_turn {"state":3,"turn":"left+right"})");
    EXPECT_EQ(Decoded(0x402F, {1, 0, 0, 0, 2, 0, 0, 0}), R"(dst_state {"shift":2,"state":1})");

    // Two log records; the second's text fills its 128 bytes with no terminator.
    Bytes batch(8 + 2 * 236, 'x');
    Put(batch, 0, 0xC, 4);
    Put(batch, 4, 2, 4);
    const uint8_t stamps[2][6] = {{26, 3, 8, 1, 2, 3}, {25, 12, 31, 23, 59, 59}};
    for (size_t i = 0; i < 2; ++i) {
        memcpy(&batch[8 + i * 236], stamps[i], 6);
    }
    memcpy(&batch[8 + 12], "power on", 9);
    memset(&batch[8 + 236 + 12], 'b', 128);
    EXPECT_EQ(Decoded(0x1134, batch),
              R"(system_log {"group_mask":12,"records":[{"text":"power on","time":"2026-03-08 01:02:03"},)"
              R"({"text":")" +
                  std::string(128, 'b') + R"(","time":"2025-12-31 23:59:59"}]})");
    Put(batch, 4, 3, 4);
    EXPECT_EQ(Decoded(0x1134, batch).rfind(R"(system_log {"problem":")", 0), 0u) << Decoded(0x1134, batch);
    EXPECT_EQ(Decoded(0x9999, {1, 2}), " {}");
}

TEST(BusRecord, LogWrittenAndReadBack) {
    const std::string path = testing::TempDir() + "bus_record_" + std::to_string(getpid()) + ".log";
    truckhost::RunInfo run;
    run.startTime = 1767229323;  // 2026-01-01T01:02:03
    run.sysroot = "/tmp/sysroot";
    run.device = {31, 2, 8, 2, "NVX9"};
    run.plugin = "truckservice";
    run.version = "1.2.3";
    run.paramsText = R"({"osd": {"speed": true, "font": 24}})";
    const Bytes overlay = Overlay(2, 1, 10, 20, 16, "50 km/h");
    {
        truckhost::BusLogWriter writer;
        std::string error;
        ASSERT_TRUE(writer.Open(path, error)) << error;
        writer.WriteRun(run);
        writer.WriteStep(5, 1, R"({"at_ms":5,"kind":"clock","set":"2026-01-01T00:00:00"})");
        nvx::BusMessage m;
        m.client = "osd";
        m.event = kOverlay;
        m.payload = overlay;
        writer.WriteBus(120, m);
        writer.WriteParameter(200, "osd.speed=false");
        writer.WriteEnd(400, 0);
        m.event = 0x9999;
        m.payload = {0xff, 0x00, 0xa5};
        writer.WriteBus(450, m);  // a stop's last message, after the run's end
    }
    truckhost::Recording rec;
    std::string error;
    ASSERT_TRUE(truckhost::ReadRecording(path, rec, error)) << error;
    auto told = [](const truckhost::RunInfo& r) {
        return std::tie(r.startTime, r.sysroot, r.device.productType, r.device.systemType,
                        r.device.videoInNum, r.device.videoIpNum, r.device.serialNumber, r.plugin, r.version);
    };
    EXPECT_EQ(told(rec.run), told(run));
    Json::Value params, script;
    ASSERT_TRUE(Parse(rec.run.paramsText, params)) << rec.run.paramsText;
    EXPECT_EQ(params["osd"]["font"].asInt64(), 24);
    EXPECT_TRUE(params["osd"]["speed"].asBool());
    ASSERT_TRUE(Parse(rec.scriptText, script)) << rec.scriptText;
    ASSERT_TRUE(script.isArray() && script.size() == 1) << rec.scriptText;
    EXPECT_EQ(script[0]["set"].asString(), "2026-01-01T00:00:00");
    EXPECT_EQ(rec.endMs, 400u);
    ASSERT_EQ(rec.messages.size(), 2u);
    auto message = [](const RecordedMessage& m) { return std::make_tuple(m.tMs, m.event, m.payload); };
    EXPECT_EQ(message(rec.messages[0]), message({120, kOverlay, overlay, ""}));
    EXPECT_EQ(message(rec.messages[1]), message({450, 0x9999, {0xff, 0x00, 0xa5}, ""}));

    // A line whose fields no longer tell what its hex says was edited: refused, with its number.
    std::stringstream written;
    written << std::ifstream(path).rdbuf();
    std::string edited = written.str();
    const size_t text = edited.find(R"("text":"50 km/h")");
    ASSERT_NE(text, std::string::npos) << edited;
    std::ofstream(path + ".edited") << edited.replace(text + 8, 2, "60");
    EXPECT_FALSE(truckhost::ReadRecording(path + ".edited", rec, error));
    EXPECT_EQ(error, "recording " + path + ".edited: line 3: the fields do not match the hex");
    unlink((path + ".edited").c_str());

    // Refused: a line that is not JSON, no file, a log that does not open with its run.
    std::ofstream(path, std::ios::app) << "{\"t_ms\": 460, \"kind\":\n";
    EXPECT_FALSE(truckhost::ReadRecording(path, rec, error));
    EXPECT_NE(error.find("line 7: not a line of a bus log"), std::string::npos) << error;
    EXPECT_FALSE(truckhost::ReadRecording(path + ".missing", rec, error));
    EXPECT_NE(error.find("No such file or directory"), std::string::npos) << error;
    std::ofstream(path) << "{\"t_ms\": 0, \"kind\": \"end\", \"exit\": 0}\n";
    EXPECT_FALSE(truckhost::ReadRecording(path, rec, error));
    EXPECT_NE(error.find("line 1: a bus log opens with the run"), std::string::npos) << error;
    // Members of the wrong type are refused, not thrown.
    std::ofstream(path) << "{\"t_ms\": 0, \"kind\": \"run\", \"start_time\": \"2026-01-01T00:00:00\", "
                           "\"sysroot\": \"/\", \"device\": {}, \"plugin\": {}, \"version\": []}\n"
                           "{\"t_ms\": 1, \"kind\": \"bus\", \"event\": \"x\", \"hex\": \"00\"}\n";
    EXPECT_FALSE(truckhost::ReadRecording(path, rec, error));
    EXPECT_NE(error.find("line 2: a bus message needs its event and hex"), std::string::npos) << error;
    unlink(path.c_str());
}

}  // namespace
