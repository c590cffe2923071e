// The OSD business and the parameter store: nothing is overlaid before both groups are in, a
// document's positions reach the lines, and switching the watermark on rewrites the layout.
// Only the last test names the watermark switch: the first one a process sees only sets.
#include <mutex>

#include "HCTimeWheel.h"
#include "OsdFixture.h"

using namespace osd;

namespace {

const char kTimep[] = R"("TIMEP":{"TIMEZ":"480","DATEM":1},)";
// Every position and the font distinct, so that no two can be mistaken for each other.
const char kPlaces[] =
    R"("EOSD":[{"TX":101,"TY":21,"TFS":3,"SX":901,"SY":41,"COSD":[{"X":401,"Y":81,"EN":1}]}])";

std::string Places(int sevenX, int time, int sy) {
    return "m_OSDX_Seven = " + std::to_string(sevenX) +
           ", m_OSDY_Seven = 81, m_OSD_EN = 1,\tm_OSDX_Time = " + std::to_string(time) +
           ", m_OSDY_Time = 21, m_ucFontSize:3, m_OSDX_Speed = 901, m_OSDY_Speed = " + std::to_string(sy) +
           "\n";
}

class OsdParams : public OsdBusiness {
protected:
    OsdParams() : OsdBusiness("truck_osd_params") {}
    void TearDown() override {
        OsdBusiness::TearDown();
        nvx::SetParamWriteObserver(nullptr);
    }
    std::mutex m_mutex;
    std::vector<std::pair<std::string, uint32_t>> m_writes;  // with the wheel's slot at each
};

}  // namespace

TEST_F(OsdParams, TheCycleWaitsForBothGroupsRetriesEveryTwoSecondsAndShiftsTheWheelOnceASecond) {
    auto business = Direct();
    auto requests = [] { return nvx::CallCount("JQ_SDK_Global_GetParameter"); };
    // A clock far from any earlier cycle's stamps: the first call is taken as the last request.
    const unsigned long long t0 = 1ULL << 40;
    business->business_cycle_running(t0);
    uint64_t asked = requests();
    // The time of each call, and whether it asks again (pending) or shifts the wheel (running).
    // While pending the wheel stands still, however long.
    const uint32_t still = TimeWheel::GetInstance()->GetCurrent();
    const std::pair<unsigned long long, bool> pending[] = {
        {1999, false}, {2000, true}, {3999, false}, {4000, true}};
    for (const auto& [at, asks] : pending) {
        business->business_cycle_running(t0 + at);
        EXPECT_EQ(requests(), asked + asks) << at;
        asked = requests();
    }
    EXPECT_EQ(TimeWheel::GetInstance()->GetCurrent(), still);
    for (const char* eosd : {R"("EOSD":{"TX":5})", R"("EOSD":[])"}) {  // the positions not yet
        Apply(*business, Doc(std::string(kTimep) + eosd));
    }
    business->business_cycle_running(t0 + 6000);
    EXPECT_EQ(requests(), ++asked);
    auto eosdOnly = Direct();  // the other way round: the positions alone do not start it either
    Apply(*eosdOnly, Doc(kPlaces));
    eosdOnly->business_cycle_running(t0 + 6001);
    EXPECT_TRUE(Overlays(kTime).empty() && Overlays(kSpeed).empty());

    // The first node alone, its time group first: the label is cancelled (still off), then shown.
    nvx::ClearSentMessages();
    const std::string both = Doc(R"("TIMEP":{"TIMEZ":"-300"},)" + std::string(kPlaces)),
                      next = Doc(R"("EOSD":[{"TX":7}])");
    std::vector<AsynCallbackParaNode_t> nodes{{both.data(), static_cast<int>(both.size()), 0},
                                              {next.data(), static_cast<int>(next.size()), 0}};
    business->OSDEventHandle(nodes);
    const std::vector<Overlay> seven = Overlays(kSeven);
    ASSERT_EQ(seven.size(), 2u);
    EXPECT_TRUE(seven[0].cancel && seven[0].mask == 0x3F && seven[0].x == 400 && seven[0].y == 80);
    EXPECT_TRUE(seven[1].text == "GMT-05:00" && seven[1].mask == 0x3F && seven[1].x == 401 &&
                seven[1].y == 81 && seven[1].font == 3);
    EXPECT_TRUE(Logged("TRUCK", 1, Places(401, 101, 41)));
    const std::pair<unsigned long long, bool> running[] = {{10000, true},  {10999, false}, {11000, true},
                                                           {11500, false}, {11999, false}, {12000, true}};
    for (const auto& [at, shifts] : running) {
        const uint32_t slot = TimeWheel::GetInstance()->GetCurrent();
        business->business_cycle_running(t0 + at);
        EXPECT_EQ(TimeWheel::GetInstance()->GetCurrent() != slot, shifts) << at;
    }
    EXPECT_EQ(requests(), asked);
    EXPECT_TRUE(Overlays(kTime).size() == 6u && Overlays(kSpeed).size() == 6u);
    const std::vector<Bytes> lines = Payloads(kEventOverlay);  // each cycle the time, then the speed
    EXPECT_TRUE(DecodeOverlay(lines[lines.size() - 2]).kind == kTime &&
                DecodeOverlay(lines.back()).kind == kSpeed);
    const Overlay time = Last(kTime), speed = Last(kSpeed);
    EXPECT_TRUE(time.mask == 0x3F && time.x == 101 && time.y == 21 && time.font == 3);
    EXPECT_TRUE(speed.mask == 0x3F && speed.x == 901 && speed.y == 41 && speed.font == 3);
    business->m_productType = 113;  // no speed line, the time line all the same
    business->business_cycle_running(t0 + 12500);
    EXPECT_TRUE(Overlays(kTime).size() == 7u && Overlays(kSpeed).size() == 6u);

    // A member that is not a number reads as 0; without "COSD" the rest is taken, the absent kept.
    Apply(*business, Doc(R"("EOSD":[{"TX":102,"COSD":[{"X":"left"}]}])"));
    Apply(*business, Doc(R"("EOSD":[{"SY":42}])"));
    EXPECT_TRUE(Logged("TRUCK", 1, Places(0, 102, 42)));
    Apply(*business, "{\"P");
    EXPECT_TRUE(Logged("TRUCK", 0, "parse param json error, length = 3\n"));
    for (const int length : {5, 0}) {  // no text, or none of it
        nodes = {{length == 0 ? "{}" : nullptr, length, 0}};
        business->OSDEventHandle(nodes);
        EXPECT_TRUE(Logged("TRUCK", 0, "parse param error, length = " + std::to_string(length) + "\n"));
    }
}

TEST_F(OsdParams, SwitchingTheWatermarkOnWritesTheNormalThenTheWatermarkLayout) {
    nvx::SetParamWriteObserver([this](const std::string& text) {
        const uint32_t slot = TimeWheel::GetInstance()->GetCurrent();
        std::lock_guard<std::mutex> lock(m_mutex);
        m_writes.emplace_back(text, slot);
    });
    Start(Doc(kTimep + std::string(R"("EOSD":[{"TX":100,"COSD":[{"X":400,"Y":80,"EN":1}]}])")));
    ASSERT_TRUE(WaitOverlay(kTime, [](const Overlay& o) { return o.x == 100; }));
    const std::string groups = R"({"EOSD":"?","TIMEP":"?"})";
    EXPECT_EQ(nvx::ParamGetRequests().at(0), R"({"PARAMETER":{"MDVR":)" + groups + "}}\n");
    EXPECT_EQ(nvx::ParamListenRequests().at(0), groups + "\n");
    EXPECT_TRUE(
        Logged("TRUCK", 1, "m_videoInNum = 4, m_videoIpNum = 2, m_customerType = 0, m_productType = 20\n"));
    EXPECT_EQ(Inject(kEventSwipe, Swipe("NOT A CARD READER")), 0);
    // The first switch seen (the start had none) only sets; then off (a text reads as 0), not 1,
    // on: the switching document's positions are not taken, the layouts' follow.
    const std::string docs[] = {
        Doc(R"("EOSD":[{"WME":1,"TX":101}])"), Doc(R"("EOSD":[{"WME":"1","TX":102}])"),
        Doc(R"("EOSD":[{"WME":2,"TX":103}])"), Doc(R"("EOSD":[{"WME":1,"TX":777,"COSD":[{"X":777}]}])")};
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(nvx::SetParameterDocument(docs[i]), 0);
        ASSERT_TRUE(i == 3 || WaitOverlay(kTime, [i](const Overlay& o) { return o.x == 101 + i; }));
    }
    EXPECT_TRUE(WaitOverlay(kTime, [](const Overlay& o) { return o.x == 250 && o.y == 768; }));
    for (const char* change : {"isFirst:1, m_ucWaterEn:[0]->[1].\n", "isFirst:0, m_ucWaterEn:[1]->[0].\n",
                               "isFirst:0, m_ucWaterEn:[0]->[2].\n", "isFirst:0, m_ucWaterEn:[2]->[1].\n"}) {
        EXPECT_TRUE(Logged("TRUCK", 1, change)) << change;
    }

    // The store's notices of the layouts write nothing more.
    std::lock_guard<std::mutex> lock(m_mutex);
    ASSERT_EQ(m_writes.size(), 6u);
    EXPECT_EQ(
        Parse(m_writes[4].first),
        Parse(Doc(R"("EOSD":[{"COSD":[{"X":400,"Y":80},{"X":15,"Y":380}],"DX":30,"DY":180,"GX":35,)"
                  R"("GY":700,"NX":30,"NY":105,"SX":1024,"SY":30,"TX":300,"TY":30,"VX":30,"VY":35}])")));
    EXPECT_EQ(
        Parse(m_writes[5].first),
        Parse(Doc(R"("EOSD":[{"COSD":[{"X":180,"Y":768},{"X":1024,"Y":768}],"DX":465,"DY":768,"GX":0,)"
                  R"("GY":768,"NX":545,"NY":768,"SX":610,"SY":768,"TX":250,"TY":768,"VX":385,"VY":768}])")));
    // A timer of interval 1 runs on the second shift after it was filed.
    EXPECT_EQ(m_writes[5].second - m_writes[4].second, 2u);
    for (const nvx::BusMessage& m : nvx::SentMessages()) {
        const bool line = m.event == kEventOverlay;
        EXPECT_TRUE(!line || (m.source == nvx::SourceIdOf("truckosd") && m.flag == 0 &&
                              DecodeOverlay(m.payload).x != 777));
    }
}

// A notification the business's queue refuses (full) is not lost for good: the business's next
// cycle asks the store for both groups again, once.
TEST_F(OsdParams, ANotificationTheQueueRefusesIsAskedForAgainOnTheNextCycle) {
    auto business = Direct();
    const std::string doc = Doc(kTimep + std::string(kPlaces));
    Apply(*business, doc);  // nothing pending: the cycle's own retry stays out of the count
    OSDParamCallback(doc.data(), 0, business->LiveToken(), nullptr);  // dropped, not queued
    OSDParamCallback(nullptr, 5, business->LiveToken(), nullptr);
    for (int i = 0; i < 1024; ++i) {
        OSDParamCallback(doc.data(), static_cast<int>(doc.size()), business->LiveToken(), nullptr);
    }
    EXPECT_FALSE(Logged("TRUCK", 1, "osd param notification lost, request again\n"));
    OSDParamCallback(doc.data(), static_cast<int>(doc.size()), business->LiveToken(), nullptr);
    EXPECT_TRUE(Logged("TRUCK", 1, "osd param notification lost, request again\n"));
    const size_t asked = nvx::ParamGetRequests().size();
    business->business_cycle_running(1000);
    business->business_cycle_running(1500);
    EXPECT_EQ(nvx::ParamGetRequests().size(), asked + 1);
}

// The platform's callbacks into a business hold no lock while they call out: a bus send that
// blocks in one of them (here the signal thread's turn announcement) leaves the others free.
// And a business made again is reached only by its own registrations.
TEST_F(OsdParams, CallbacksDoNotWaitForEachOtherAndReachOnlyTheirOwnBusiness) {
    auto business = Direct();
    nvx::CloseGate("MSGSendMessage");
    const std::string turn = Turn(0, 1);
    std::thread signal([&] {
        CTruckOsdService::MonitorIoUseInfo(turn.data(), static_cast<int>(turn.size()), business->LiveToken(),
                                           nullptr);
    });
    ASSERT_TRUE(nvx::WaitForCallAtGate("MSGSendMessage", kGenerousMs));
    EXPECT_TRUE(Logged("TRUCK", 3, "CallbackCanTruckOsdServiceEvent\n"));  // the signal's own trace
    const Bytes can = Can(2);
    std::thread bus([&] {
        CallbackCanTruckOsdServiceEvent(reinterpret_cast<const char*>(can.data()),
                                        static_cast<int>(can.size()), business->LiveToken(), nullptr);
    });
    EXPECT_TRUE(Eventually([&] { return business->m_OBDturnState.load() == 2; }))
        << "the CAN callback waited for the blocked signal callback";
    nvx::OpenGate("MSGSendMessage");
    signal.join();
    bus.join();

    // The first business's signal monitor stays after it; the next one, likely at the same
    // address, gets nothing through it, and exactly one call through its own.
    business->RegisterMessage();
    business->business_uninit();
    business.reset();
    business = Direct();
    for (int registered = 0; registered < 2; ++registered) {
        nvx::ClearSentMessages();
        nvx::InjectDevSignal(turn.data(), turn.size());
        ASSERT_TRUE(nvx::WaitForPeripheralIdle(kGenerousMs));
        EXPECT_EQ(Payloads(kEventIoTurn).size(), static_cast<size_t>(registered)) << registered;
        business->RegisterMessage();
    }
    business->business_uninit();
}
