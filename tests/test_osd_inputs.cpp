// What the device hands the OSD business: speed notifications on the bus, turn signals from the
// IO inputs (JSON text, signal thread) and the vehicle bus (J1939 records, CAN thread), card
// swipes on the bus; and the records among them that must be refused.
#include <string>
#include <vector>

#include "OsdFixture.h"

using namespace osd;

namespace {

class OsdInputs : public OsdBusiness {
protected:
    OsdInputs() : OsdBusiness("truck_osd_inputs") {}
    void StartAs(const std::string& customer) {
        Start(Doc(R"("TIMEP":{"TIMEZ":"480","DATEM":1},)" + std::string(kEosd)), customer);
        ASSERT_TRUE(WaitCycles(1));  // registered before its first cycle
    }
    static bool WaitSent(int event, const std::function<bool(const Bytes&)>& want) {
        return nvx::WaitForSent([&](const nvx::BusMessage& m) { return m.event == event && want(m.payload); },
                                kGenerousMs);
    }
    static bool WaitCard(const std::string& text) {
        return WaitSent(kEventCardText, [&](const Bytes& b) { return b == CardRecord(400, 80, text); });
    }
    // Where a swipe leaves the Seven line: 410, 90 in font 2.
    static constexpr const char* kSevenAt = R"("EOSD":[{"TFS":2,"COSD":[{"X":410,"Y":90,"EN":1}]}])";
};

Bytes Cut(Bytes b, size_t size) {
    b.resize(size);
    return b;
}

}  // namespace

TEST_F(OsdInputs, SpeedUnitAndTurnMarksFromBothSourcesCombineAndBadRecordsAreRefused) {
    auto business = Direct();
    void* user = business.get();
    struct Step {
        int source;    // 0 a speed notification, 1 a signal text, 2 a J1939 record
        Bytes record;  // for a signal text, the IO state it announces
        std::string signal;
        const char* shown;
    };
    const Step steps[] = {
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
        {2, Can(2, 0x4002), "", "120KM/H (L)"},  // another event leaves the state
        {1, {2}, R"({"SIGNAL":{"TURN":{"SOURCE":"io","VALUE":2}}})", "120KM/H (L R)"},
        {1, {4}, Turn(0, 4), ""},  // an unknown state blanks the line
        {1, {0}, R"({"SIGNAL":{"TURN":{"VALUE":2}}})", "120KM/H (L)"},
        {1, {2}, Turn(0, 2), "120KM/H (L R)"},
        {1, {0}, "{\"SIGNAL\":", "120KM/H (L)"},
        {0, Cut(Speed(99, 1), 27), "", "120KM/H (L)"},  // too short for the value
    };
    for (const Step& step : steps) {
        nvx::ClearSentMessages();
        const char* data = reinterpret_cast<const char*>(step.record.data());
        if (step.source == 0) {
            business->OnUpdateSpeedInfo(data, static_cast<int>(step.record.size()));
        } else if (step.source == 2) {
            CallbackCanTruckOsdServiceEvent(data, static_cast<int>(step.record.size()), user, nullptr);
        } else {
            CTruckOsdService::MonitorIoUseInfo(step.signal.data(), static_cast<int>(step.signal.size()), user,
                                               nullptr);
            EXPECT_EQ(Payloads(kEventIoTurn), std::vector<Bytes>{step.record}) << step.signal;
        }
        business->OSDDataSendSpeed();
        const Overlay line = Last(kSpeed);
        EXPECT_TRUE(line.text == step.shown && !line.cancel && line.mask == 0x3F && line.x == 0 &&
                    line.y == 0)
            << "'" << step.shown << "' got '" << line.text << "'";
    }
    for (const char* text :
         {"nDataLen = 20 uiEventId= 16385 len=8 \n", "nDataLen = 20 uiEventId= 16386 len=8 \n",
          "m_OBDturnState = 0 \n", "m_OBDturnState = 2 \n", "CallbackCanTruckOsdServiceEvent\n",
          "m_IOturnState = 2,m_OBDturnState = 1 \n"}) {
        EXPECT_TRUE(Logged("TRUCK", 3, text)) << text;
    }
    for (const char* text : {"turnState,m_turnState = 259 \n", "ConvertStringToJson faile.\n"}) {
        EXPECT_TRUE(Logged("TRUCK", 0, text)) << text;
    }

    // Refused with a log, or without one for a speed; nothing changes, nothing is announced.
    nvx::ClearSentMessages();
    const Bytes can = Can(2);
    const char* record = reinterpret_cast<const char*>(can.data());
    business->OnUpdateSpeedInfo(nullptr, 28);
    CallbackCanTruckOsdServiceEvent(record, 19, user, nullptr);
    EXPECT_TRUE(Logged("TRUCK", 0, "j1939 data info length error\n"));
    const Bytes longer = Cut(can, 21);
    const std::pair<const char*, int> bad[] = {{record, 0}, {nullptr, 20}};
    for (const auto& args : bad) {
        CallbackCanTruckOsdServiceEvent(args.first, args.second, user, nullptr);
        CTruckOsdService::MonitorIoUseInfo(args.first, args.second, user, nullptr);
    }
    CallbackCanTruckOsdServiceEvent(reinterpret_cast<const char*>(longer.data()), 21, nullptr, nullptr);
    CTruckOsdService::MonitorIoUseInfo("{}", 2, nullptr, nullptr);
    for (const int length : {0, 20, 21}) {
        EXPECT_TRUE(Logged("TRUCK", 0, "Param handle failed, len = " + std::to_string(length) + "\n"))
            << length;
    }
    for (const int length : {0, 20, 2}) {
        EXPECT_TRUE(Logged("TRUCK", 0, "Param handle failed, length = " + std::to_string(length) + "\n"))
            << length;
    }
    business->OSDDataSendSpeed();
    EXPECT_EQ(Last(kSpeed).text, "120KM/H (L)");
    EXPECT_TRUE(Payloads(kEventIoTurn).empty());
}

TEST_F(OsdInputs, TheDevicesSourcesReachTheLineUntilTheBusinessStops) {
    StartAs("CUSTOMER_1302");
    EXPECT_EQ(Inject(kEventSwipe, Swipe("CARD")), 0) << "no card reader on this customer";
    EXPECT_EQ(Inject(kEventSpeed, Speed(63, 1)), 1);
    InjectSignal(Turn(0, 1));
    EXPECT_TRUE(WaitSent(kEventIoTurn, [](const Bytes& b) { return b == Bytes{1}; }));
    InjectCan(Can(2));
    EXPECT_TRUE(WaitText(kSpeed, "63MPH (L R)"));
    StopManager([] {
        EXPECT_EQ(Inject(kEventSpeed, Speed(1, 0)), 0);
        EXPECT_EQ(nvx::CanPortMonitorCount(), 0);
    });
}

TEST_F(OsdInputs, ASwipeIsCheckedFieldByFieldAndBoundedByItsPayload) {
    auto business = Direct(43);
    Apply(*business, Doc(kSevenAt));
    struct Row {
        Bytes swipe;
        bool taken;
        std::string shown;
    };
    const Row rows[] = {
        {Swipe(std::string("DRIVER 0042\0TAIL", 16)), true, "DRIVER 0042"},
        {Swipe("ANNA"), true, "ANNA"},  // no terminator: the payload's end
        {Swipe(std::string(100, 'x')), true, std::string(72, 'x')},
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
        {Swipe("ABSENT", 160, 0, 8, 2), true, ""},
    };
    for (const Row& row : rows) {
        nvx::ClearSentMessages();
        EXPECT_EQ(Overlays(kSeven).size(), 0u);
        business->OnSwipeInfoNotify(reinterpret_cast<const char*>(row.swipe.data()),
                                    static_cast<int>(row.swipe.size()));
        const std::vector<Overlay> seven = Overlays(kSeven);
        const std::vector<Bytes> cards = Payloads(kEventCardText);
        ASSERT_EQ(seven.size(), row.taken ? 1u : 0u) << row.shown;
        ASSERT_EQ(cards.size(), row.taken ? 1u : 0u) << row.shown;
        if (row.taken) {
            // The label's channels are never set on card readers.
            EXPECT_TRUE(seven[0].text == row.shown && !seven[0].cancel && seven[0].mask == 0 &&
                        seven[0].x == 410 && seven[0].y == 90 && seven[0].font == 2);
            EXPECT_EQ(cards[0], CardRecord(410, 90, row.shown));
        }
    }
    // Switched off, a swipe blanks the line and the record, and shows once switched on.
    Apply(*business, Doc(R"("EOSD":[{"COSD":[{"EN":0}]}])"));
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
    // The text size byte counts the terminator in 8 bits: no line is longer than 254 bytes.
    business->OSDDataSendSeven(std::string(300, 'y'));
    EXPECT_EQ(Last(kSeven).text, std::string(254, 'y'));
    const std::pair<int, int> masks[] = {{-1, 0},          {0, 0},           {1, 1},
                                         {30, 0x3FFFFFFF}, {31, 0x7FFFFFFF}, {32, 0x7FFFFFFF}};
    for (const auto& mask : masks) {
        EXPECT_EQ(business->GetVideoChannalMask(mask.first), mask.second) << mask.first;
    }

    // The other card reader shows the swipe without the record.
    auto other = Direct(44);
    Apply(*other, Doc(kSevenAt));
    other->OnSwipeInfoNotify(reinterpret_cast<const char*>(hidden.data()), static_cast<int>(hidden.size()));
    EXPECT_EQ(Last(kSeven).text, "HIDDEN");
    EXPECT_EQ(Payloads(kEventCardText).size(), 1u);
}

TEST_F(OsdInputs, CardReadersTakeSwipesFromTheBusAndTheZoneLeavesTheirLine) {
    StartAs("CUSTOMER_133036");
    EXPECT_EQ(Inject(kEventSwipe, Swipe("DRIVER 0042")), 1);
    EXPECT_TRUE(WaitText(kSeven, "DRIVER 0042"));
    EXPECT_TRUE(WaitCard("DRIVER 0042"));
    nvx::ClearSentMessages();
    ASSERT_EQ(nvx::SetParameterDocument(Doc(R"("TIMEP":{"DATEM":2})")), 0);
    EXPECT_TRUE(WaitLike(kTime, "##/##/20## ##:##:##"));
    EXPECT_TRUE(Overlays(kSeven).empty());
    StopManager([] { EXPECT_EQ(Inject(kEventSwipe, Swipe("LATE")), 0); });
}

TEST_F(OsdInputs, TheOtherCardReaderTakesSwipesFromTheBus) {
    StartAs("CUSTOMER_52074");
    EXPECT_EQ(Inject(kEventSwipe, Swipe("ONE")), 1);
    EXPECT_TRUE(WaitText(kSeven, "ONE"));
    EXPECT_TRUE(Payloads(kEventCardText).empty());
}
