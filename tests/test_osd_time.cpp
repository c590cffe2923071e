// The date/time line: its formats, the offset of UTC mode with the GMT label of the Seven
// line, and the business's own daylight-saving rule with the state message it announces.
#include <stdio.h>

#include <sstream>
#include <string>
#include <vector>

#include "OsdFixture.h"
#include "TruckOsdService.h"

using namespace osd;

namespace {

// Second Sunday of March 02:30:15 standard time to first Sunday of November 02:00 daylight time.
const char kNorthern[] = R"({"SW":1,"DSTM":1,"DSTS":1,"SMON":2,"SWEEK":2,"SH":2,"SM":30,"SS":15,"EMON":10,)"
                         R"("EWEEK":1,"EH":2})";

class OsdTime : public OsdBusiness {
protected:
    OsdTime() : OsdBusiness("truck_osd_time") {}
    // Each step changes the time group and/or the clock, then waits for the line it gives.
    struct Step {
        const char* timep;
        time_t clock;
        const char* shown;
    };
    void Walk(const std::vector<Step>& steps) {
        for (const Step& step : steps) {
            if (step.timep != nullptr) {
                ASSERT_EQ(nvx::SetParameterDocument(Doc(std::string(R"("TIMEP":)") + step.timep)), 0);
            }
            if (step.clock != 0) {
                nvx::SetWallClock(step.clock);
            }
            EXPECT_TRUE(WaitLike(kTime, step.shown)) << step.shown;
        }
    }
};

// "YYYY-MM-DD hh:mm:ss" of this century.
tagDateTime Date(const std::string& text) {
    tagDateTime d = {};
    EXPECT_EQ(sscanf(text.c_str(), "20%hhu-%hhu-%hhu %hhu:%hhu:%hhu", &d.ucYear, &d.ucMonth, &d.ucDay,
                     &d.ucHour, &d.ucMinute, &d.ucSecond),
              6);
    return d;
}

}  // namespace

TEST_F(OsdTime, DateFormatsAndTheTwelveHourClockAroundMidnightAndNoon) {
    nvx::SetWallClock(Clock(2024, 7, 3, 0, 5, 9));
    Start(Doc(R"("TIMEP":{"TIMEZ":"480","DATEM":0,"TIMEM":1},)" + std::string(kEosd)));
    Walk({{nullptr, 0, "07/03/2024 12:05:## AM"},
          {nullptr, Clock(2024, 7, 3, 12, 0, 0), "07/03/2024 12:00:## PM"},
          {nullptr, Clock(2024, 7, 3, 13, 30, 0), "07/03/2024 01:30:## PM"},
          {R"({"DATEM":2})", Clock(2024, 7, 3, 11, 59, 0), "03/07/2024 11:59:## AM"},
          {R"({"DATEM":1,"TIMEM":0})", Clock(2024, 7, 3, 13, 31, 0), "2024-07-03 13:31:##"},
          {R"({"DATEM":7})", Clock(2024, 12, 31, 0, 7, 0), "2024-12-31 00:07:##"}});
}

TEST_F(OsdTime, UtcModeShowsTheClockPlusTheExtraOffsetAndLabelsTheInputsOnly) {
    nvx::SetWallClock(Clock(2024, 7, 3, 2, 0, 5));
    Start(Doc(R"("TIMEP":{"TIMEZ":"0","TIMEZEX":"-330","DATEM":1},)" + std::string(kEosd)));
    // The label goes to the four analog inputs; the two IP channels after them get an empty line.
    EXPECT_TRUE(
        WaitOverlay(kSeven, [](const Overlay& o) { return o.text == "GMT-05:30" && o.mask == 0x0F; }));
    EXPECT_TRUE(
        WaitOverlay(kSeven, [](const Overlay& o) { return o.mask == 0x30 && !o.cancel && o.text.empty(); }));
    Walk({{nullptr, 0, "2024-07-02 20:30:##"},
          {R"({"TIMEZEX":"570"})", 0, "2024-07-03 11:30:##"},
          {R"({"TIMEZEX":"-30"})", 0, "2024-07-03 01:30:##"},
          // ENU 0 turns UTC mode off although TIMEZ is 0, ENU 1 on although it is not.
          {R"({"ENU":0})", 0, "2024-07-03 02:00:##"},
          {R"({"TIMEZ":"-300","TIMEZEX":"600","ENU":1})", 0, "2024-07-03 12:00:##"}});
    for (const char* label : {"GMT+09:30", "GMT+00:00", "GMT+10:00"}) {
        EXPECT_TRUE(WaitOverlay(kSeven, [&](const Overlay& o) { return o.text == label && o.mask == 0x0F; }))
            << label;
    }
    EXPECT_TRUE(WaitOverlay(kSeven, [](const Overlay& o) { return o.text == "GMT+00:00" && o.mask == 0x3F; }))
        << "outside UTC mode the label goes to every channel";
}

TEST_F(OsdTime, DaylightSavingStartsAndEndsAtTheExactInstantsOfEachRule) {
    Json::Value noParam;
    char name[] = "truckosd_rules";
    CTruckOsdService rules(manage, manage->basic_get_msg_client(), 7, name, 0, noParam);
    // Moments "+YYYY-MM-DD hh:mm:ss" lie in daylight-saving time, "-YYYY-MM-DD hh:mm:ss" do not.
    auto expect = [&rules](const std::string& timep, const std::string& moments) {
        rules.TimeParamParse(Parse(timep));
        std::istringstream in(moments);
        for (std::string day, time; in >> day >> time;) {
            EXPECT_EQ(rules.IsDateTimeInDst(Date(day.substr(1) + " " + time)), day[0] == '+')
                << timep << " at " << day << " " << time;
        }
    };
    auto seconds = [](int month, int day, int hour) {
        return std::to_string(Clock(2024, month, day, hour, 0, 0));
    };
    const std::string utc1 = R"({"TIMEZ":"0","TIMEZEX":"60","LDST":)";
    // Week rule: the start in standard time, the end in daylight time, each year its own days.
    expect(utc1 + kNorthern + "}",
           "-2024-03-10 02:30:14 +2024-03-10 02:30:15 +2024-11-03 00:59:59 -2024-11-03 01:00:00 "
           "-2025-03-09 02:30:14 +2025-03-09 02:30:15");
    EXPECT_FALSE(rules.CheckDstCriticalCondition(Date("2024-07-01 12:00:00")));
    // Week 5 is the last such day; a southern period wraps over the new year.
    expect(utc1 + R"({"SW":1,"DSTM":1,"DSTS":1,"SMON":2,"SWEEK":5,"SH":2,"EMON":9,"EWEEK":5,"EH":3}})",
           "-2024-03-24 12:00:00 -2024-03-31 01:59:59 +2024-03-31 02:00:00 +2024-10-27 01:59:59 "
           "-2024-10-27 02:00:00");
    expect(utc1 + R"({"SW":1,"DSTM":1,"DSTS":1,"SMON":9,"SWEEK":1,"SH":2,"EMON":3,"EWEEK":1,"EH":3}})",
           "+2024-01-15 12:00:00 +2024-04-07 01:59:59 -2024-04-07 02:00:00 -2024-10-06 01:59:59 "
           "+2024-10-06 02:00:00 +2024-12-31 23:59:59");
    // Absolute times are UTC seconds moved by the active offset; the end is in daylight time.
    expect(R"({"TIMEZ":"0","TIMEZEX":"-330","LDST":{"SW":1,"DSTM":2,"DSTS":1,"STARTTIME":)" +
               seconds(3, 31, 1) + R"(,"ENDTIME":)" + seconds(10, 27, 1) + "}}",
           "-2024-03-30 19:29:59 +2024-03-30 19:30:00 +2024-10-26 18:29:59 -2024-10-26 18:30:00");
    // No rule: switched off, or a mode that is neither; and none when the system clock does it.
    for (const char* ldst : {R"({"SW":0,"DSTM":1,)", R"({"SW":1,"DSTM":0,)", R"({"SW":1,"DSTM":3,)"}) {
        expect(utc1 + ldst + R"("DSTS":1,"SWEEK":1,"EMON":11,"EWEEK":5,"EH":23}})", "-2024-07-01 12:00:00");
        EXPECT_TRUE(rules.CheckDstCriticalCondition(Date("2024-07-01 12:00:00")));
    }
    rules.TimeParamParse(Parse(utc1 + kNorthern + R"(,"DST":{"SW":1}})"));
    EXPECT_TRUE(rules.CheckDstCriticalCondition(Date("2024-07-01 12:00:00")));
}

TEST_F(OsdTime, TheTimeLineMovesAtTheRuleInstantsAndAnnouncesEachChangeOnce) {
    nvx::SetWallClock(Clock(2024, 3, 10, 0, 30, 5));
    Start(Doc(R"("TIMEP":{"TIMEZ":"0","TIMEZEX":"60","DATEM":1,"LDST":)" + std::string(kNorthern) + "}," +
              kEosd));
    // UTC + 1 h: the rule starts at 01:30:15 UTC and ends at 00:00 UTC.
    Walk({{nullptr, 0, "2024-03-10 01:30:##"},
          {nullptr, Clock(2024, 3, 10, 1, 30, 15), "2024-03-10 03:30:##"},
          {nullptr, Clock(2024, 11, 2, 23, 30, 0), "2024-11-03 01:30:##"},
          {nullptr, Clock(2024, 11, 3, 0, 0, 0), "2024-11-03 01:00:##"}});
    ASSERT_EQ(nvx::SetParameterDocument(Doc(R"("TIMEP":{"LDST":{"DSTS":2}})")), 0);  // the state stays
    EXPECT_TRUE(nvx::WaitForSent(
        [](const nvx::BusMessage& m) { return m.event == kEventDstState && m.payload == DstState(1, 2); },
        kGenerousMs));
    ASSERT_TRUE(WaitCycles(2));
    // The shift at the first cycle, then each change once.
    EXPECT_EQ(Payloads(kEventDstState),
              (std::vector<Bytes>{DstState(1, 1), DstState(0, 1), DstState(1, 1), DstState(1, 2)}));
}
