// The date/time line: its formats, the offset of UTC mode with the GMT label of the Seven
// line, and the business's own daylight-saving rule with the state message it announces.
#include <stdio.h>

#include <sstream>
#include <tuple>

#include "OsdFixture.h"

using namespace osd;

namespace {

// 2nd Tuesday of March 02:30:15 standard to last Friday of October 03:45:50 daylight, 2 h on;
// of a weekday (18 here) only the low four bits count.
const char kNorthern[] = R"({"SW":1,"DSTM":1,"DSTS":2,"SMON":2,"SWEEK":2,"SWIND":18,"SH":2,"SM":30,"SS":15,)"
                         R"("EMON":9,"EWEEK":5,"EWIND":5,"EH":3,"EM":45,"ES":50})";

class OsdTime : public OsdBusiness {
protected:
    OsdTime() : OsdBusiness("truck_osd_time") {}
    static std::string Timep(const std::string& timep) { return Doc(R"("TIMEP":)" + timep); }
};

// "YYYY-MM-DD hh:mm:ss" of this century.
tagDateTime Date(const std::string& text) {
    tagDateTime d = {};
    sscanf(text.c_str(), "20%hhu-%hhu-%hhu %hhu:%hhu:%hhu", &d.ucYear, &d.ucMonth, &d.ucDay, &d.ucHour,
           &d.ucMinute, &d.ucSecond);
    return d;
}

}  // namespace

TEST_F(OsdTime, EveryDateFormatAndTheTwelveHourClockAroundMidnightAndNoon) {
    auto business = Direct();
    // The formats changed before the row (or none), the date, the text.
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {R"({"DATEM":0,"TIMEM":1})", "2024-07-03 00:05:09", "07/03/2024 12:05:09 AM"},
        {nullptr, "2024-07-03 11:59:59", "07/03/2024 11:59:59 AM"},
        {nullptr, "2024-07-03 12:00:00", "07/03/2024 12:00:00 PM"},
        {nullptr, "2024-12-31 23:59:59", "12/31/2024 11:59:59 PM"},
        {R"({"DATEM":2})", "2024-07-03 13:30:00", "03/07/2024 01:30:00 PM"},  // the clock's format kept
        {R"({"DATEM":"2","TIMEM":"1"})", "2024-07-03 13:30:00", "07/03/2024 13:30:00"},  // not numbers: 0
        {R"({"DATEM":1})", "2024-07-03 00:05:09", "2024-07-03 00:05:09"},
        {R"({"TIMEM":1})", "2024-07-03 00:05:09", "2024-07-03 12:05:09 AM"},  // the date's format kept
        {R"({"DATEM":3,"TIMEM":2})", "2099-01-02 13:04:05", "2099-01-02 13:04:05"}};
    char out[128];
    for (const auto& [timep, date, shown] : rows) {
        if (timep != nullptr) {
            Apply(*business, Timep(timep));
        }
        EXPECT_EQ(business->FormatTimeTxt(Date(date), out, sizeof(out)), 0);
        EXPECT_STREQ(out, shown);
    }
    EXPECT_TRUE(Logged("TRUCK", 3, "date_time_str = 07/03/2024, txt = 07/03/2024 13:30:00\n"));
    EXPECT_EQ(business->FormatTimeTxt(Date("2024-07-03 13:30:00"), out, 6), 0);
    EXPECT_STREQ(out, "2024-");
    EXPECT_EQ(business->FormatTimeTxt(Date("2024-07-03 13:30:00"), nullptr, 6), 0);
}

TEST_F(OsdTime, TheLabelAndTheOffsetOfEachZoneAndTheChannelsOfUtcMode) {
    auto business = Direct();
    Apply(*business, Doc(kEosd));
    nvx::SetWallClock(Clock(2024, 7, 3, 2, 0, 5));
    // Zone, time line, label and its channels (0x0F: UTC mode, the IP channels emptied first).
    const std::tuple<const char*, const char*, const char*, uint32_t> rows[] = {
        {R"({"TIMEZ":"480"})", "07/03/2024 02:00:##", "GMT+08:00", 0x3F},
        {R"({"TIMEZ":"-330"})", "07/03/2024 02:00:##", "GMT-05:30", 0x3F},
        {R"({"TIMEZ":"45"})", "07/03/2024 02:00:##", "GMT+00:00", 0x3F},
        {R"({"TIMEZ":"-45"})", "07/03/2024 02:00:##", "GMT+00:00", 0x3F},
        {R"({"TIMEZ":"0","TIMEZEX":"-330"})", "07/02/2024 20:30:##", "GMT-05:30", 0x0F},
        {R"({"TIMEZ":"0","TIMEZEX":"570"})", "07/03/2024 11:30:##", "GMT+09:30", 0x0F},
        {R"({"TIMEZ":"0","TIMEZEX":"-30"})", "07/03/2024 01:30:##", "GMT+00:00", 0x0F},
        {R"({"TIMEZ":"0","TIMEZEX":"59"})", "07/03/2024 02:59:##", "GMT+00:00", 0x0F},
        // ENU decides when it is a number: 0 turns UTC mode off although TIMEZ is 0.
        {R"({"TIMEZ":"0","TIMEZEX":"600","ENU":0})", "07/03/2024 02:00:##", "GMT+00:00", 0x3F},
        {R"({"TIMEZ":"0","TIMEZEX":"600","ENU":2,"LDST":{"SW":1,"DSTM":2,"DSTS":1,"ENDTIME":2000000000}})",
         "07/03/2024 02:00:##", "GMT+00:00", 0x3F},  // not UTC mode: no rule of its own either
        {R"({"TIMEZ":"-300","TIMEZEX":"600","ENU":1})", "07/03/2024 12:00:##", "GMT+10:00", 0x0F},
        {R"({"TIMEZ":"-300","TIMEZEX":"600","ENU":"1"})", "07/03/2024 02:00:##", "GMT-05:00", 0x3F},
        {R"({"TIMEZ":0,"TIMEZEX":"60"})", "07/03/2024 02:00:##", "GMT-05:00", 0x3F},  // not a text: kept
        // A zone text of no digits is 0; an ENU text leaves UTC mode to the zone.
        {R"({"TIMEZ":"zero","TIMEZEX":"60","ENU":"0"})", "07/03/2024 03:00:##", "GMT+01:00", 0x0F}};
    for (const auto& [timep, shown, label, mask] : rows) {
        nvx::ClearSentMessages();
        Apply(*business, Timep(timep));
        std::vector<Overlay> seven = Overlays(kSeven);
        ASSERT_EQ(seven.size(), mask == 0x0F ? 2u : 1u) << timep;
        EXPECT_TRUE(mask == 0x3F || (seven[0].mask == 0x30 && !seven[0].cancel && seven[0].text.empty()));
        EXPECT_TRUE(seven.back().mask == mask && seven.back().text == label) << timep;
        for (const Overlay& line : seven) {
            EXPECT_TRUE(line.x == 400 && line.y == 80 && line.font == 2) << timep;
        }
        business->OSDDataSendTime();
        EXPECT_TRUE(Like(Last(kTime).text, shown)) << timep << " shows " << Last(kTime).text;
    }
    for (const char* line : {"szTimeZone = -300, enableUtc: 0 -> 0\n", "get enu param, enableUtc: 0 -> 1\n",
                             "change m_enableUtc : 2 -> 1\n", "change m_enableUtc : 1 -> 0\n", "dst sw = 0\n",
                             "m_timeZoneParam.dstEnable = 0 , m_SystemDSTEnable = 0\n"}) {
        EXPECT_TRUE(Logged("TRUCK", 1, line)) << line;
    }
    // The zone texts are kept as they came, cut to the 15 characters their fields hold.
    Apply(*business, Timep(R"({"TIMEZ":"-300 and more text","TIMEZEX":"0123456789ABCDEFG"})"));
    EXPECT_STREQ(business->m_timeZoneParam.szTimeZone, "-300 and more t");
    EXPECT_STREQ(business->m_timeZoneParam.szTimeZoneEx, "0123456789ABCDE");
    // An empty group changes nothing; a group without the texts empties them.
    nvx::ClearSentMessages();
    Apply(*business, Timep("{}"));
    Apply(*business, Timep(R"({"DATEM":0})"));
    EXPECT_TRUE(Overlays(kSeven).size() == 1u && business->m_timeZoneParam.szTimeZone[0] == '\0' &&
                business->m_timeZoneParam.szTimeZoneEx[0] == '\0');
    EXPECT_EQ(business->m_timeZoneParam.ucValid, 1) << "a group makes the record valid";
    EXPECT_EQ(Direct()->m_timeZoneParam.ucValid, 0) << "until the first";
    // Card readers (43 and 44, not their neighbours) follow the same offset on their time line;
    // their Seven line is left to the swipes. A new business's zones are 0 until given: UTC mode.
    for (uint32_t customer : {42u, 43u, 44u, 45u}) {
        auto reader = Direct(customer);
        Apply(*reader, Doc(kEosd));
        nvx::ClearSentMessages();
        const bool card = customer == 43 || customer == 44;
        Apply(*reader, Timep(card ? R"({"TIMEZ":"0","TIMEZEX":"570"})" : R"({"DATEM":0})"));
        EXPECT_TRUE(card ? Overlays(kSeven).empty() : Last(kSeven).mask == 0x0F) << customer;
        reader->OSDDataSendTime();
        EXPECT_TRUE(Like(Last(kTime).text, card ? "07/03/2024 11:30:##" : "07/03/2024 02:00:##"))
            << customer << ": " << Last(kTime).text;
    }
}

TEST_F(OsdTime, DaylightSavingStartsAndEndsAtTheExactInstantsOfEachRule) {
    auto rules = Direct();
    // Moments "+YYYY-MM-DD hh:mm:ss" lie in daylight-saving time, "-YYYY-MM-DD hh:mm:ss" do not.
    auto expect = [&rules](const std::string& timep, const std::string& moments) {
        rules->TimeParamParse(Parse(timep));
        std::istringstream in(moments);
        for (std::string day, time; in >> day >> time;) {
            EXPECT_EQ(rules->IsDateTimeInDst(Date(day.substr(1) + " " + time)), day[0] == '+')
                << timep << " at " << day << " " << time;
        }
    };
    auto seconds = [](int month, int day, int hour) {
        return std::to_string(Clock(2024, month, day, hour, 0, 0));
    };
    const std::string utc1 = R"({"TIMEZ":"0","TIMEZEX":"60","LDST":)";
    const tagDateTime july = Date("2024-07-01 12:00:00");
    // Week rule: the start in standard time, the end in daylight time, each year its own days.
    expect(utc1 + kNorthern + "}",
           "-2024-03-12 02:30:14 +2024-03-12 02:30:15 +2024-10-25 01:45:49 -2024-10-25 01:45:50 "
           "-2025-03-11 02:30:14 +2025-03-11 02:30:15");
    EXPECT_FALSE(rules->CheckDstCriticalCondition(july));
    EXPECT_TRUE(Logged("TRUCK", 4, "before time: 24-07-01,12:00:00\n"));
    EXPECT_TRUE(Logged("TRUCK", 4, "GetDstLocalUtcTime start:2024-03-12\n"));
    EXPECT_FALSE(rules->IsDateTimeInDst(Date("2024-07-01 24:00:00")));  // a time the calendar refuses
    EXPECT_TRUE(Logged("TRUCK", 1, "JQ_SDK_DateTime_BrokenDownTimeToCalendarTime FAILED\n"));
    // A southern period wraps over the new year.
    expect(utc1 + R"({"SW":1,"DSTM":1,"DSTS":1,"SMON":9,"SWEEK":1,"SH":2,"EMON":3,"EWEEK":1,"EH":3}})",
           "+2024-01-15 12:00:00 +2024-04-07 01:59:59 -2024-04-07 02:00:00 -2024-10-06 01:59:59 "
           "+2024-10-06 02:00:00 +2024-12-31 23:59:59");
    // Absolute times are UTC seconds moved by the active offset; the end is in daylight time.
    expect(R"({"TIMEZ":"0","TIMEZEX":"-330","LDST":{"SW":1,"DSTM":2,"DSTS":2,"STARTTIME":)" +
               seconds(3, 31, 1) + R"(,"ENDTIME":)" + seconds(10, 27, 2) + "}}",
           "-2024-03-30 19:29:59 +2024-03-30 19:30:00 +2024-10-26 18:29:59 -2024-10-26 18:30:00");
    expect(utc1 + R"({"SW":1,"DSTM":2,"STARTTIME":)" + seconds(3, 31, 1) + R"(,"ENDTIME":)" +
               seconds(3, 31, 1) + "}}",
           "-2024-03-31 02:00:00");  // an empty period
    // No rule: switched off, a mode that is neither, days that the calendar refuses; and none
    // when the system clock does it.
    const std::pair<const char*, const char*> none[] = {
        {R"({"SW":"1","DSTM":1,"SWEEK":1,)", "Dst isn't enable! \n"},  // not a number: 0
        {R"({"SW":1,"DSTM":0,"SWEEK":1,)", "The dst mode:0 is invalid! \n"},
        {R"({"SW":1,"DSTM":3,"SWEEK":1,)", "The dst mode:3 is invalid! \n"},
        {R"({"SW":1,"DSTM":1,"SWEEK":0,"SWIND":2,)", "JQ_SDK_DateTime_GetDayByWeek FAILED(24)(1)(02)\n"},
        {R"({"SW":1,"DSTM":1,"SWEEK":1,"EWIND":7,)", "JQ_SDK_DateTime_GetDayByWeek FAILED(24)(11)(57)\n"},
        {R"({"SW":1,"DSTM":1,"SWEEK":1,"SH":24,)", "JQ_SDK_DateTime_BrokenDownTimeToCalendarTime FAILED\n"}};
    for (const auto& rule : none) {
        expect(utc1 + rule.first + R"("DSTS":1,"EMON":10,"EWEEK":5,"EH":23}})", "-2024-07-01 12:00:00");
        long start = 0, end = 0;
        EXPECT_TRUE(Logged("TRUCK", 1, rule.second) && rules->CheckDstCriticalCondition(july) &&
                    rules->GetDstLocalUtcTime(july, start, end) == -1)
            << rule.second;
    }
    EXPECT_TRUE(Logged("TRUCK", 1, "GetDstLocalUtcTime FAILED\n"));
    rules->TimeParamParse(Parse(utc1 + kNorthern + R"(,"DST":{"SW":1}})"));
    EXPECT_TRUE(rules->CheckDstCriticalCondition(july));
    rules->TimeParamParse(Parse(utc1 + kNorthern + "}"));  // absent, the system's switch is off again
    EXPECT_FALSE(rules->CheckDstCriticalCondition(july));
    EXPECT_TRUE(Logged("TRUCK", 1, "m_timeZoneParam.dstEnable = 1 , m_SystemDSTEnable = 0\n"));
}

TEST_F(OsdTime, TheTimeLineMovesByTheShiftInsideTheRuleAndAnnouncesEachChangeOnce) {
    auto business = Direct();
    nvx::SetWallClock(Clock(2024, 3, 12, 0, 30, 5));
    Apply(*business, Timep(R"({"TIMEZ":"480","DATEM":1})"));
    business->OSDDataSendTime();
    EXPECT_TRUE(Payloads(kEventDstState).empty()) << "no shift, no correction: nothing to announce";
    Apply(*business,
          Timep(R"({"TIMEZ":"0","TIMEZEX":"60","DATEM":1,"LDST":)" + std::string(kNorthern) + "}"));
    // UTC + 1 h: the rule starts at 01:30:15 UTC and ends at 00:45:50 UTC.
    const std::pair<time_t, const char*> steps[] = {{Clock(2024, 3, 12, 0, 30, 5), "2024-03-12 01:30:0#"},
                                                    {Clock(2024, 3, 12, 1, 30, 20), "2024-03-12 04:30:2#"},
                                                    {Clock(2024, 7, 1, 10, 0, 0), "2024-07-01 13:00:0#"},
                                                    {Clock(2024, 10, 24, 23, 45, 0), "2024-10-25 02:45:0#"},
                                                    {Clock(2024, 10, 25, 0, 46, 0), "2024-10-25 01:46:0#"},
                                                    // Before the calendar's start: the empty record.
                                                    {Clock(1999, 12, 31, 12, 0, 0), "2000-00-00 00:00:00"}};
    for (const auto& step : steps) {
        nvx::SetWallClock(step.first);
        business->OSDDataSendTime();
        const Overlay line = Last(kTime);
        EXPECT_TRUE(Like(line.text, step.second)) << line.text;
        EXPECT_TRUE(line.mask == 0x3F && line.x == 300 && line.y == 30 && line.font == 0);
    }
    Apply(*business, Timep(R"({"TIMEZ":"480","LDST":{"DSTS":3}})"));  // outside UTC mode the state stays
    business->OSDDataSendTime();
    EXPECT_EQ(Payloads(kEventDstState),
              (std::vector<Bytes>{DstState(1, 2), DstState(0, 2), DstState(1, 2), DstState(1, 3)}));
    // Each announcement goes out before the line that it comes with.
    const std::vector<nvx::BusMessage> sent = nvx::SentMessages();
    for (size_t i = 0; i < sent.size(); ++i) {
        EXPECT_TRUE(sent[i].event != kEventDstState ||
                    (i + 1 < sent.size() && DecodeOverlay(sent[i + 1].payload).kind == kTime));
    }
    for (const char* line : {"change m_enableUtc : 0 -> 0\n", "ldst state 1->1, ldst offset 0->2\n",
                             "ldst state 1->0, ldst offset 2->2\n", "ldst state 0->1, ldst offset 2->2\n",
                             "ldst state 1->1, ldst offset 2->3\n"}) {
        EXPECT_TRUE(Logged("TRUCK", 1, line)) << line;
    }
}
