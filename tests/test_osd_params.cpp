// The OSD business and the parameter store: nothing is overlaid before both groups are in, a
// change of positions reaches the lines at the next cycle, and switching the watermark on
// rewrites the layout. No other test here names the watermark switch: the first one a process
// sees only sets.
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "OsdFixture.h"

using namespace osd;
using std::chrono::steady_clock;

namespace {

const char kTimep[] = R"("TIMEP":{"TIMEZ":"480","DATEM":1},)";

long long Ms(steady_clock::time_point from, steady_clock::time_point to) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(to - from).count();
}

class OsdParams : public OsdBusiness {
protected:
    OsdParams() : OsdBusiness("truck_osd_params") {}
    void TearDown() override {
        OsdBusiness::TearDown();
        nvx::SetParamWriteObserver(nullptr);
    }
    std::mutex m_mutex;
    std::vector<std::pair<std::string, steady_clock::time_point>> m_writes;
};

}  // namespace

TEST_F(OsdParams, NoLineIsSentUntilBothGroupsArriveAndTheRequestIsRepeatedEveryTwoSeconds) {
    Start(Doc(std::string(kTimep) + R"("EOSD":{"TX":5})"));  // not an array: not received
    auto requests = [] { return nvx::CallCount("JQ_SDK_Global_GetParameter"); };
    ASSERT_TRUE(Eventually([&] { return requests() >= 2; }));
    const steady_clock::time_point second = steady_clock::now();
    ASSERT_TRUE(Eventually([&] { return requests() >= 3; }));
    EXPECT_GE(Ms(second, steady_clock::now()), 1900);
    EXPECT_TRUE(Overlays(kTime).empty() && Overlays(kSpeed).empty());

    ASSERT_EQ(nvx::SetParameterDocument(Doc(kEosd)), 0);
    EXPECT_TRUE(WaitOverlay(kTime, [](const Overlay& o) { return o.x == 100 && o.y == 20; }));
}

TEST_F(OsdParams, APositionChangeReachesEveryLineAtTheNextCycle) {
    Start(Doc(kTimep + std::string(kEosd)));
    // All eight channels, each line at its place in the font of the group.
    EXPECT_TRUE(
        WaitOverlay(kTime, [](const Overlay& o) { return o.mask == 0x3F && o.x == 100 && o.y == 20; }));
    EXPECT_TRUE(WaitOverlay(kSpeed, [](const Overlay& o) {
        return o.text == "0KM/H" && o.mask == 0x3F && o.x == 900 && o.y == 40 && o.font == 2;
    }));
    EXPECT_TRUE(WaitOverlay(kSeven, [](const Overlay& o) {
        return o.text == "GMT+08:00" && o.mask == 0x3F && o.x == 400 && o.y == 80 && o.font == 2;
    }));

    const std::string moved =
        R"("EOSD":[{"TX":222,"TY":33,"TFS":3,"SX":555,"SY":66,"COSD":[{"X":410,"Y":90}]}])";
    ASSERT_EQ(nvx::SetParameterDocument(Doc(moved)), 0);
    ASSERT_TRUE(WaitOverlay(kTime, [](const Overlay& o) { return o.x == 222; }));
    // The label is re-sent while the document is applied: every line after it is in place.
    bool applied = false;
    for (const Bytes& payload : Payloads(kEventOverlay)) {
        const Overlay o = DecodeOverlay(payload);
        applied = applied || (o.kind == kSeven && o.x == 410 && o.y == 90 && o.font == 3);
        if (applied && o.kind == kTime) {
            EXPECT_TRUE(o.x == 222 && o.y == 33 && o.font == 3);
        } else if (applied && o.kind == kSpeed) {
            EXPECT_TRUE(o.x == 555 && o.y == 66 && o.font == 3);
        }
    }
    EXPECT_TRUE(applied);

    // Switched off, the line is cancelled in place; switched on again, its text comes back.
    nvx::ClearSentMessages();
    ASSERT_EQ(nvx::SetParameterDocument(Doc(R"("EOSD":[{"COSD":[{"EN":0}]}])")), 0);
    EXPECT_TRUE(WaitOverlay(kSeven, [](const Overlay& o) {
        return o.cancel && o.mask == 0x3F && o.x == 410 && o.y == 90 && o.font == 3;
    }));
    ASSERT_EQ(nvx::SetParameterDocument(Doc(R"("EOSD":[{"COSD":[{"EN":1}]}])")), 0);
    EXPECT_TRUE(WaitText(kSeven, "GMT+08:00"));
}

TEST_F(OsdParams, SwitchingTheWatermarkOnWritesTheNormalThenTheWatermarkLayout) {
    nvx::SetParamWriteObserver([this](const std::string& text) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_writes.emplace_back(text, steady_clock::now());
    });
    Start(Doc(kTimep + std::string(R"("EOSD":[{"WME":1,"TX":100,"COSD":[{"X":400,"Y":80,"EN":1}]}])")));
    ASSERT_TRUE(WaitOverlay(kTime, [](const Overlay& o) { return o.x == 100; }));
    const std::string off = Doc(R"("EOSD":[{"WME":0,"TX":101}])");
    ASSERT_EQ(nvx::SetParameterDocument(off), 0);
    ASSERT_TRUE(WaitOverlay(kTime, [](const Overlay& o) { return o.x == 101; }));
    // The positions of the switching document are not taken: the layouts' follow.
    const std::string on = Doc(R"("EOSD":[{"WME":1,"TX":777,"COSD":[{"X":777}]}])");
    ASSERT_EQ(nvx::SetParameterDocument(on), 0);
    EXPECT_TRUE(WaitOverlay(kTime, [](const Overlay& o) { return o.x == 250 && o.y == 768; }));
    EXPECT_TRUE(WaitOverlay(kSpeed, [](const Overlay& o) { return o.x == 610 && o.y == 768; }));
    EXPECT_TRUE(WaitOverlay(kSeven, [](const Overlay& o) { return o.x == 180 && o.y == 768; }));

    // The first switch seen only set; the store's notices of the layouts write nothing more.
    std::lock_guard<std::mutex> lock(m_mutex);
    ASSERT_EQ(m_writes.size(), 4u);
    EXPECT_EQ(m_writes[0].first, off);
    EXPECT_EQ(m_writes[1].first, on);
    EXPECT_EQ(
        Parse(m_writes[2].first),
        Parse(Doc(R"("EOSD":[{"COSD":[{"X":400,"Y":80},{"X":15,"Y":380}],"DX":30,"DY":180,"GX":35,)"
                  R"("GY":700,"NX":30,"NY":105,"SX":1024,"SY":30,"TX":300,"TY":30,"VX":30,"VY":35}])")));
    EXPECT_EQ(
        Parse(m_writes[3].first),
        Parse(Doc(R"("EOSD":[{"COSD":[{"X":180,"Y":768},{"X":1024,"Y":768}],"DX":465,"DY":768,"GX":0,)"
                  R"("GY":768,"NX":545,"NY":768,"SX":610,"SY":768,"TX":250,"TY":768,"VX":385,"VY":768}])")));
    EXPECT_GE(Ms(m_writes[2].second, m_writes[3].second), 900) << "two wheel shifts come between";
    bool normalShown = false;
    for (const Bytes& payload : Payloads(kEventOverlay)) {
        const Overlay o = DecodeOverlay(payload);
        EXPECT_NE(o.x, 777);
        normalShown = normalShown || (o.kind == kTime && o.x == 300 && o.y == 30);
    }
    EXPECT_TRUE(normalShown);
}
