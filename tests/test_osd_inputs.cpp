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
};

Bytes Cut(Bytes b, size_t size) {
    b.resize(size);
    return b;
}

}  // namespace

TEST_F(OsdInputs, SpeedUnitAndTurnMarksFromBothSourcesCombineAndBadRecordsAreRefused) {
    StartAs("CUSTOMER_1302");
    EXPECT_EQ(Inject(kEventSwipe, Swipe("CARD")), 0) << "no card reader on this customer";
    struct Step {
        int event;     // bus event, or 0 for a signal text, 1 for a CAN record
        Bytes record;  // for a signal text, the IO state it announces
        std::string signal;
        const char* shown;
    };
    const Step steps[] = {
        {kEventSpeed, Speed(63, 0), "", "63KM/H"},
        {kEventSpeed, Speed(63, 1), "", "63MPH"},
        {0, {1}, Turn(0, 1), "63MPH (L)"},
        {1, Can(2), "", "63MPH (L R)"},
        {0, {0}, Turn(0, 0), "63MPH (R)"},
        {kEventSpeed, Speed(120, 0), "", "120KM/H (R)"},
        {1, Can(3), "", "120KM/H"},  // the vehicle bus knows 1 and 2 only
        {0, {3}, Turn(0, 3), "120KM/H (L R)"},
        {0, {0}, Turn(1, 2), "120KM/H"},  // the state of another source is none
        {1, Can(1), "", "120KM/H (L)"},
        {0, {2}, Turn(0, 2), "120KM/H (L R)"},
        {0, {4}, Turn(0, 4), ""},  // an unknown state blanks the line
        {0, {0}, "{\"SIGNAL\":", "120KM/H (L)"},
    };
    for (const Step& step : steps) {
        nvx::ClearSentMessages();
        if (step.event > 1) {
            EXPECT_EQ(Inject(step.event, step.record), 1);
        } else if (step.event == 1) {
            InjectCan(step.record);
        } else {
            InjectSignal(step.signal);
            EXPECT_TRUE(WaitSent(kEventIoTurn, [&](const Bytes& b) { return b == step.record; }))
                << step.signal;
        }
        EXPECT_TRUE(WaitOverlay(kSpeed,
                                [&](const Overlay& o) {
                                    return !o.cancel && o.text == step.shown && o.mask == 0x3F &&
                                           o.x == 900 && o.y == 40 && o.font == 2;
                                }))
            << "'" << step.shown << "'";
    }

    // Too short for what is read, another J1939 event, or empty: nothing changes.
    ASSERT_TRUE(nvx::WaitForPeripheralIdle(kGenerousMs));
    nvx::ClearSentMessages();
    EXPECT_EQ(Inject(kEventSpeed, Cut(Speed(99, 1), 27)), 1);
    EXPECT_EQ(nvx::InjectBusEvent(kEventSpeed, nullptr, 0), 1);
    for (const Bytes& can : {Cut(Can(2), 19), Can(2, 0x4002), Bytes()}) {
        InjectCan(can);
    }
    nvx::InjectDevSignal(nullptr, 0);
    nvx::InjectDevSignal("", 0);
    ASSERT_TRUE(nvx::WaitForPeripheralIdle(kGenerousMs));
    ASSERT_TRUE(WaitCycles(2));
    for (const Overlay& line : Overlays(kSpeed)) {
        EXPECT_EQ(line.text, "120KM/H (L)");
    }
    EXPECT_TRUE(Payloads(kEventIoTurn).empty()) << "an empty signal announces nothing";
}

TEST_F(OsdInputs, AProductWithoutSpeedLineStillSendsTheTime) {
    config.uiProductType = 113;
    StartAs("CUSTOMER_NORMAL");
    ASSERT_TRUE(WaitCycles(2));
    EXPECT_TRUE(Overlays(kSpeed).empty());
}

TEST_F(OsdInputs, CardReaderWithRecordShowsTheSwipeBoundedByItsPayload) {
    StartAs("CUSTOMER_133036");
    EXPECT_EQ(Inject(kEventSwipe, Swipe(std::string("DRIVER 0042\0TAIL", 16))), 1);
    EXPECT_TRUE(WaitOverlay(kSeven, [](const Overlay& o) {
        return o.text == "DRIVER 0042" && o.mask == 0 && o.x == 400 && o.y == 80 && o.font == 2;
    })) << "the label's channels are never set on card readers";
    EXPECT_TRUE(WaitCard("DRIVER 0042"));
    std::string accented = "A";
    for (int i = 0; i < 50; ++i) {
        accented += "\xC3\xA9";
    }
    // Without a terminator the payload's end bounds the text; all is cut to 72 bytes, and not
    // inside a character.
    const std::pair<std::string, std::string> texts[] = {{"ANNA", "ANNA"},
                                                         {std::string(100, 'x'), std::string(72, 'x')},
                                                         {accented + '\0', accented.substr(0, 71)}};
    for (const auto& text : texts) {
        Inject(kEventSwipe, Swipe(text.first));
        EXPECT_TRUE(WaitText(kSeven, text.second)) << text.second;
        EXPECT_TRUE(WaitCard(text.second)) << text.second;
    }

    // Refused: too short for the fields read, a body under 8, a status, another record type.
    nvx::ClearSentMessages();
    for (const Bytes& bytes : {Cut(Swipe("BAD"), 19), Cut(Swipe("BAD"), 28), Swipe("BAD", 160, 0, 7),
                               Swipe("BAD", 160, 1), Swipe("BAD", 161)}) {
        EXPECT_EQ(Inject(kEventSwipe, bytes), 1);
    }
    Inject(kEventSwipe, Swipe("MARK", 160, 0, 0x800008));  // the top bit is not in the length
    ASSERT_TRUE(WaitCard("MARK"));
    EXPECT_EQ(Overlays(kSeven).size(), 1u);
    EXPECT_EQ(Payloads(kEventCardText).size(), 1u);

    Inject(kEventSwipe, Swipe("IGNORED", 160, 0, 8, 0));  // no text present: blanked
    EXPECT_TRUE(WaitText(kSeven, ""));
    EXPECT_TRUE(WaitCard(""));
    // Switched off, a swipe blanks the line and the record, and shows once switched on.
    ASSERT_EQ(nvx::SetParameterDocument(Doc(R"("EOSD":[{"COSD":[{"EN":0}]}])")), 0);
    ASSERT_TRUE(WaitOverlay(kSeven, [](const Overlay& o) { return o.cancel; }));
    nvx::ClearSentMessages();
    Inject(kEventSwipe, Swipe("HIDDEN"));
    EXPECT_TRUE(WaitText(kSeven, ""));
    EXPECT_TRUE(WaitCard(""));
    ASSERT_EQ(nvx::SetParameterDocument(Doc(R"("EOSD":[{"COSD":[{"EN":1}]}])")), 0);
    EXPECT_TRUE(WaitText(kSeven, "HIDDEN"));
    // The time-zone group leaves the line to the swipes.
    nvx::ClearSentMessages();
    ASSERT_EQ(nvx::SetParameterDocument(Doc(R"("TIMEP":{"DATEM":2})")), 0);
    EXPECT_TRUE(WaitLike(kTime, "##/##/20## ##:##:##"));
    EXPECT_TRUE(Overlays(kSeven).empty());
}

TEST_F(OsdInputs, CardReaderWithoutRecordOnlyShowsTheSwipe) {
    StartAs("CUSTOMER_52074");
    EXPECT_EQ(Inject(kEventSwipe, Swipe("ONE")), 1);
    Inject(kEventSwipe, Swipe("TWO"));
    EXPECT_TRUE(WaitText(kSeven, "TWO"));  // the first is done with
    EXPECT_TRUE(WaitText(kSeven, "ONE"));
    EXPECT_TRUE(Payloads(kEventCardText).empty());
}
