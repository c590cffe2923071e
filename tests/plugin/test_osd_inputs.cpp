// What the device hands the OSD business: speed notifications on the bus, turn signals from the
// IO inputs (JSON text, signal thread) and the vehicle bus (J1939 records, CAN thread), card
// swipes on the bus; and the records among them that must be refused.
#include <tuple>

#include "OsdFixture.h"
#include "RefusedAllocations.h"

using namespace osd;

namespace {

// Where a swipe leaves the Seven line: 410, 90 in font 2.
const char kSevenAt[] = R"("EOSD":[{"TFS":2,"COSD":[{"X":410,"Y":90,"EN":1}]}])";

class OsdInputs : public OsdBusiness {
protected:
    OsdInputs() : OsdBusiness("truck_osd_inputs") {}
    static Bytes Cut(Bytes b, size_t size) { return b.resize(size), b; }
};

}  // namespace

TEST_F(OsdInputs, SpeedUnitAndTurnMarksFromBothSourcesCombineAndBadRecordsAreRefused) {
    auto business = Direct();
    // Channel masks: 2^n - 1, none for no channel, bit 31 never set.
    for (const auto& [count, mask] :
         {std::pair<int, int>{-1, 0}, {0, 0}, {1, 1}, {30, 0x3FFFFFFF}, {31, 0x7FFFFFFF}, {32, 0x7FFFFFFF}}) {
        EXPECT_EQ(business->GetVideoChannalMask(count), mask) << count;
    }
    business->OSDDataSendSpeed();  // nothing heard yet
    EXPECT_EQ(Last(kSpeed).text, "0KM/H");
    // 0 a speed, 1 a signal text (with the IO state it announces), 2 a J1939 record; the line shown.
    const std::tuple<int, Bytes, std::string, const char*> steps[] = {
        {0, Speed(63, 0), "", "63KM/H"},
        {0, Speed(63, 1), "", "63MPH"},
        {0, Speed(64, 2), "", "64MPH"},
        {1, {1}, Turn(0, 1), "64MPH (L)"},
        {2, Can(2), "", "64MPH (L R)"},
        {1, {0}, Turn(0, 0), "64MPH (R)"},
        {0, Speed(120, 0), "", "120KM/H (R)"},
        {2, Can(3), "", "120KM/H"},  // the vehicle bus knows 1 and 2 only
        {1, {3}, Turn(0, 259), "120KM/H (L R)"},
        {1, {0}, Turn(1, 2), "120KM/H"},  // the state of another source is none
        {2, Can(1), "", "120KM/H (L)"},
        {1, {1}, Turn(0, 1), "120KM/H (L)"},     // both sources left: one mark
        {2, Can(2, 0x4002), "", "120KM/H (L)"},  // another event leaves the state
        {1, {2}, R"({"SIGNAL":{"TURN":{"SOURCE":"io","VALUE":2}}})", "120KM/H (L R)"},
        {1, {4}, Turn(0, 4), ""},  // an unknown state blanks the line
        {1, {0}, R"({"SIGNAL":{"TURN":{"VALUE":2}}})", "120KM/H (L)"},
        {1, {2}, Turn(0, 2), "120KM/H (L R)"},
        {1, {0}, "{\"SIGNAL\":", "120KM/H (L)"},
        // Nested deeper than any signal record, however commented: refused before the signal
        // thread's stack is spent.
        {1,
         {0},
         R"(/*"*/{"SIGNAL":{"TURN":{"SOURCE":0,"VALUE":2,"PAD":)" + std::string(100, '[') +
             std::string(100, ']') + R"(}}}/*"*/)",
         "120KM/H (L)"},
        {0, Cut(Speed(99, 1), 27), "", "120KM/H (L)"}};  // too short for the value
    for (const auto& [source, record, signal, shown] : steps) {
        nvx::ClearSentMessages();
        const char* data = reinterpret_cast<const char*>(record.data());
        if (source == 0) {
            business->OnUpdateSpeedInfo(data, static_cast<int>(record.size()));
        } else if (source == 2) {
            business->OnUpdateJ1939DataInfo(data, static_cast<unsigned int>(record.size()));
        } else {
            business->OnUpdateIoUseInfo(signal.data(), static_cast<int>(signal.size()));
            EXPECT_EQ(Payloads(kEventIoTurn), std::vector<Bytes>{record}) << signal;
        }
        business->OSDDataSendSpeed();
        const Overlay line = Last(kSpeed);
        EXPECT_TRUE(line.text == shown && !line.cancel && line.mask == 0x3F && line.x == 0 && line.y == 0)
            << "'" << shown << "' got '" << line.text << "'";
    }
    // Refused, each with a log but the speed: nothing changes, nothing is announced.
    nvx::ClearSentMessages();
    const Bytes can = Cut(Can(2), 21);
    const char* record = reinterpret_cast<const char*>(can.data());
    business->OnUpdateSpeedInfo(nullptr, 28);
    business->OnUpdateJ1939DataInfo(record, 19);
    // One byte is a record to refuse, not a call.
    CallbackCanTruckOsdServiceEvent(record, 1, business->LiveToken(), nullptr);
    EXPECT_TRUE(Logged("TRUCK", 0, "j1939 data info length error\n") &&
                !Logged("TRUCK", 0, "Param handle failed, len = 1\n"));
    const std::tuple<const char*, int, void*> bad[] = {
        {record, 0, business->LiveToken()}, {nullptr, 20, business->LiveToken()}, {record, 21, nullptr}};
    for (const auto& [data, size, to] : bad) {
        CallbackCanTruckOsdServiceEvent(data, size, to, nullptr);
        CTruckOsdService::MonitorIoUseInfo(data, size, to, nullptr);
        const std::string length = std::to_string(size) + "\n";
        EXPECT_TRUE(Logged("TRUCK", 0, "Param handle failed, len = " + length)) << length;
        EXPECT_TRUE(Logged("TRUCK", 0, "Param handle failed, length = " + length)) << length;
    }
    auto alone = Direct(0, false);  // no bus client: nothing to register with
    const uint64_t asked = nvx::CallCount("JQ_SDK_Global_GetParameter");
    EXPECT_TRUE(alone->RegisterMessage() == -1 && alone->UnregisterMessage() == -1 &&
                alone->business_init() == 0 && alone->business_uninit() == 0);
    // The groups are asked for at once, not at the first retry; the lines go out twice a second.
    EXPECT_TRUE(nvx::CallCount("JQ_SDK_Global_GetParameter") == asked + 1 &&
                alone->business_get_cycle_time() == 500);
    // Card swipes are taken by the two card readers alone, and let go of with the speed.
    for (const uint32_t customer : {42u, 43u, 44u, 45u}) {
        auto reader = Direct(customer);
        reader->RegisterMessage();
        EXPECT_EQ(Inject(kEventSwipe, Swipe("")) * 2 + Inject(kEventSpeed, Speed(1, 0)),
                  customer == 43 || customer == 44 ? 3 : 1)
            << customer;
        reader->UnregisterMessage();
        EXPECT_EQ(Inject(kEventSwipe, Swipe("")) + Inject(kEventSpeed, Speed(1, 0)), 0) << customer;
    }
    business->OSDDataSendSpeed();
    EXPECT_EQ(Last(kSpeed).text, "120KM/H (L)");
    EXPECT_TRUE(Payloads(kEventIoTurn).empty());
    for (const char* text :
         {"nDataLen = 20 uiEventId= 16385 len=8 \n", "nDataLen = 20 uiEventId= 16386 len=8 \n",
          "m_OBDturnState = 0 \n", "m_OBDturnState = 2 \n", "CallbackCanTruckOsdServiceEvent\n",
          "m_IOturnState = 2,m_OBDturnState = 1 \n"}) {
        EXPECT_TRUE(Logged("TRUCK", 3, text)) << text;
    }
    EXPECT_TRUE(Logged("TRUCK", 0, "turnState,m_turnState = 259 \n") &&
                Logged("TRUCK", 0, "ConvertStringToJson faile.\n"));
}

TEST_F(OsdInputs, ASwipeIsCheckedFieldByFieldAndBoundedByItsPayload) {
    auto business = Direct(43);
    Apply(*business, Doc(kSevenAt));
    std::string gb = "x", utf8 = "x";  // the same two ideographs in GB2312 and one in UTF-8
    std::string gbOnly;                // ideographs alone, the first of them with a UTF-8 lead byte
    std::string gbLeads = "x";         // ideographs whose every third byte is a UTF-8 lead byte
    std::string gbEdges = "x";         // ideographs of the last lead and the last trail byte
    for (int i = 0; i < 34; ++i) {
        gb += "\xB0\xA1\xD6\xD0";
        utf8 += "\xE4\xB8\xAD";
        gbOnly += "\xC4\xE3\xBA\xC3";
        gbLeads += "\xE4\xC4\xE3";
        gbEdges += "\xF7\xFE\xF7\xFE";
    }
    const std::tuple<Bytes, bool, std::string> rows[] = {
        {Swipe(std::string("DRIVER 0042\0TAIL", 16)), true, "DRIVER 0042"},
        {Swipe("ANNA"), true, "ANNA"},  // no terminator: the payload's end
        {Swipe(std::string(100, 'x')), true, std::string(72, 'x')},
        // The cut never splits a character: the euro sign would straddle byte 72.
        {Swipe(std::string(70, 'x') + "\xE2\x82\xAC yy"), true, std::string(70, 'x')},
        // Byte 72 would be a GB2312 lead byte; read as GB2312 the UTF-8 one would end at 71.
        {Swipe(gb), true, gb.substr(0, 71)},
        {Swipe(utf8), true, utf8.substr(0, 70)},
        {Swipe(gbOnly), true, gbOnly.substr(0, 72)},
        {Swipe(gbLeads), true, gbLeads.substr(0, 71)},  // no continuation bytes: not UTF-8
        {Swipe(gbEdges), true, gbEdges.substr(0, 71)},
        {Cut(Swipe("BAD"), 19), false, ""},
        {Cut(Swipe("BAD"), 28), false, ""},
        {Cut(Swipe("BAD"), 29), true, ""},
        {Swipe("BAD", 160, 0, 7), false, ""},
        {Swipe("BAD", 160, 0, 0x800007), false, ""},  // the top bit is not in the length
        {Swipe("BODY", 160, 0, 0x800008), true, "BODY"},
        {Swipe("HIGH", 160, 0, 0x7F0000), true, "HIGH"},
        {Swipe("MID", 160, 0, 0x100), true, "MID"},
        {Swipe("BAD", 160, 1), false, ""},
        {Swipe("BAD", 161), false, ""},
        {Swipe("BAD", 0xA0 + 0x100), false, ""},
        {Swipe("ABSENT", 160, 0, 8, 0), true, ""},
        {Swipe("ABSENT", 160, 0, 8, 2), true, ""}};
    for (const auto& [swipe, taken, shown] : rows) {
        nvx::ClearSentMessages();
        business->OnSwipeInfoNotify(reinterpret_cast<const char*>(swipe.data()),
                                    static_cast<int>(swipe.size()));
        const std::vector<Overlay> seven = Overlays(kSeven);
        const std::vector<Bytes> cards = Payloads(kEventCardText);
        ASSERT_TRUE(seven.size() == (taken ? 1u : 0u) && cards.size() == seven.size()) << shown;
        if (taken) {
            EXPECT_EQ(nvx::SentMessages().back().event, kEventCardText);  // after the line
            // The label's channels are never set on card readers.
            EXPECT_TRUE(seven[0].text == shown && !seven[0].cancel && seven[0].mask == 0 &&
                        seven[0].x == 410 && seven[0].y == 90 && seven[0].font == 2);
            EXPECT_EQ(cards[0], CardRecord(410, 90, shown));
        }
    }
    // Switching the line off cancels it where it was (on no channel: card readers have no label);
    // a swipe then blanks the line and the record, and shows once switched on.
    nvx::ClearSentMessages();
    Apply(*business, Doc(R"("EOSD":[{"COSD":[{"EN":0}]}])"));
    const Overlay off = Last(kSeven);
    EXPECT_TRUE(Overlays(kSeven).size() == 1u && off.cancel && off.mask == 0 && off.x == 410 && off.y == 90 &&
                off.font == 2);
    nvx::ClearSentMessages();
    const Bytes hidden = Swipe("HIDDEN");
    business->OnSwipeInfoNotify(reinterpret_cast<const char*>(hidden.data()),
                                static_cast<int>(hidden.size()));
    EXPECT_TRUE(Last(kSeven).text.empty() && !Last(kSeven).cancel);
    EXPECT_EQ(Payloads(kEventCardText), std::vector<Bytes>{CardRecord(410, 90, "")});
    Apply(*business, Doc(R"("EOSD":[{"COSD":[{"EN":1}]}])"));
    EXPECT_EQ(Last(kSeven).text, "HIDDEN");
    business->OnSwipeInfoNotify(nullptr, 40);
    EXPECT_EQ(Overlays(kSeven).size(), 2u);
    business->OSDDataSendSeven(std::string(300, 'x'));  // cut to what the 8-bit text size counts
    EXPECT_EQ(Last(kSeven).text, std::string(254, 'x'));

    // The other card reader shows the swipe without the record; on both the zone leaves the line.
    auto other = Direct(44);
    other->OnSwipeInfoNotify(reinterpret_cast<const char*>(hidden.data()), static_cast<int>(hidden.size()));
    EXPECT_TRUE(Last(kSeven).text.empty() && Payloads(kEventCardText).size() == 1u);
    const size_t lines = Overlays(kSeven).size();
    Apply(*business, Doc(R"("TIMEP":{"TIMEZ":"480"})"));
    Apply(*other, Doc(R"("TIMEP":{"TIMEZ":"480"})"));
    EXPECT_EQ(Overlays(kSeven).size(), lines);
}

TEST_F(OsdInputs, ACardReaderTakesSwipesAndSpeedsFromTheBusUntilItStops) {
    Start(Doc(R"("TIMEP":{"TIMEZ":"480"},)" + std::string(kEosd)), "CUSTOMER_133036");
    ASSERT_TRUE(
        WaitOverlay(kTime, [](const Overlay&) { return true; }));  // registered before its first cycle
    EXPECT_EQ(Inject(kEventSwipe, Swipe("DRIVER 0042")) + Inject(kEventSpeed, Speed(63, 1)), 2);
    EXPECT_TRUE(WaitText(kSeven, "DRIVER 0042") && WaitText(kSpeed, "63MPH"));
    const Bytes card = CardRecord(400, 80, "DRIVER 0042");
    EXPECT_TRUE(nvx::WaitForSent([&](const nvx::BusMessage& m) { return m.payload == card; }, kGenerousMs));
    StopManager([] { EXPECT_EQ(Inject(kEventSwipe, Swipe("LATE")) + Inject(kEventSpeed, Speed(1, 0)), 0); });
}

TEST_F(OsdInputs, AnOverlayWithoutMemoryIsLoggedWithItsTextAndNotSent) {
    auto business = Direct();
    Apply(*business, Doc(R"("TIMEP":{"TIMEZ":"480","LDST":{"DSTS":1}})"));
    nvx::ClearSentMessages();
    g_refusedAllocations.store(3);  // the three overlay records, not the shift's announcement
    business->OSDDataSendTime();
    business->OSDDataSendSeven("DRIVER 0042");
    business->OSDDataDeleteIPCSeven("gone");
    EXPECT_EQ(g_refusedAllocations.load(), 0);
    EXPECT_TRUE(Payloads(kEventOverlay).empty() &&
                Payloads(kEventDstState) == std::vector<Bytes>{DstState(1, 1)});
    const std::vector<nvx::LogLine> logs = nvx::CapturedLogs();
    EXPECT_TRUE(std::any_of(logs.begin(), logs.end(), [](const nvx::LogLine& line) {
        return line.level == 0 && Like(line.text, "malloc osd data error, timestr = ##/##/#### ##:##:##\n");
    }));
    EXPECT_TRUE(Logged("TRUCK", 0, "new osddata failed\n") && Logged("TRUCK", 0, "malloc OSDData failed\n"));
}
