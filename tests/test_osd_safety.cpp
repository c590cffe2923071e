// The OSD business going away under traffic, and texts built to exhaust a thread's stack.
#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "HCTimeWheel.h"
#include "OsdFixture.h"
#include "TruckOsdService.h"

using namespace osd;

namespace {

std::string Nested(size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

class OsdSafety : public OsdBusiness {
protected:
    OsdSafety() : OsdBusiness("truck_osd_safety") {}
    static std::string Store(int watermark) {
        return Doc(R"("TIMEP":{"TIMEZ":"480","DATEM":1},"EOSD":[{"WME":)" + std::to_string(watermark) +
                   R"(,"TX":100,"TY":20,"SX":900,"SY":40,"COSD":[{"X":400,"Y":80,"EN":1}]}])");
    }
    // The X of the second text line in a layout written to the store: 15 in the normal layout,
    // 1024 in the watermark layout, 0 in any other document.
    static int LayoutX(const std::string& text) {
        return Parse(text)["PARAMETER"]["MDVR"]["EOSD"][0]["COSD"][1]["X"].asInt();
    }
    void TearDown() override {
        OsdBusiness::TearDown();
        nvx::SetParamWriteObserver(nullptr);
    }
    std::atomic<bool> m_stopping{false};
    std::mutex m_mutex;
    std::vector<int> m_layouts;  // LayoutX of each layout written
};

}  // namespace

TEST_F(OsdSafety, StoppingUnderSignalTrafficWithTheWatermarkTimerPending) {
    // The business is held inside its write of the normal layout until its stop has begun,
    // so the watermark timer it files next is still pending when it is gone.
    nvx::SetParamWriteObserver([this](const std::string& text) {
        const int x = LayoutX(text);
        if (x != 0) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_layouts.push_back(x);
        }
        if (x == 15) {
            EXPECT_TRUE(Eventually([this] { return m_stopping.load() && nvx::CanPortMonitorCount() == 0; }));
        }
    });
    Start(Store(0));
    ASSERT_TRUE(WaitCycles(1));
    ASSERT_EQ(nvx::CanPortMonitorCount(), 1);
    const size_t timers = TimeWheel::GetInstance()->GetPendingCount();
    std::atomic<bool> flooding{true};
    std::thread flood([&flooding] {
        for (int i = 0; flooding.load(); ++i) {
            InjectSignal(Turn(0, i & 3));
            InjectCan(Can(static_cast<uint8_t>(i & 3)));
            if (i % 8 == 7) {
                nvx::WaitForPeripheralIdle(kGenerousMs);
            }
        }
    });
    EXPECT_TRUE(
        nvx::WaitForSent([](const nvx::BusMessage& m) { return m.event == kEventIoTurn; }, kGenerousMs));
    EXPECT_EQ(nvx::SetParameterDocument(Store(1)), 0);
    EXPECT_TRUE(Eventually([this] {
        std::lock_guard<std::mutex> lock(m_mutex);
        return !m_layouts.empty();
    }));
    m_stopping.store(true);
    StopManager();
    flooding.store(false);
    flood.join();
    ASSERT_TRUE(nvx::WaitForPeripheralIdle(kGenerousMs));
    EXPECT_EQ(nvx::CanPortMonitorCount(), 0);
    EXPECT_EQ(TimeWheel::GetInstance()->GetPendingCount(), timers + 1);

    // The signal monitor outlives the business; what reaches it now is dropped.
    const size_t announced = Payloads(kEventIoTurn).size();
    InjectSignal(Turn(0, 1));
    ASSERT_TRUE(nvx::WaitForPeripheralIdle(kGenerousMs));
    EXPECT_EQ(Payloads(kEventIoTurn).size(), announced);

    // The next business to shift the wheel runs the timer: the layout asked for is written.
    WriteDeviceFile(kStorePath, Store(0));
    StartStore();
    RunCycle();
    EXPECT_TRUE(WaitOverlay(kTime, [](const Overlay& o) { return o.x == 250 && o.y == 768; }));
    EXPECT_EQ(TimeWheel::GetInstance()->GetPendingCount(), timers);
    std::lock_guard<std::mutex> lock(m_mutex);
    EXPECT_EQ(m_layouts, (std::vector<int>{15, 1024}));
}

TEST_F(OsdSafety, DeeplyNestedTextsAreRefusedOnTheSharedThread) {
    // Put into the manager by hand, on the main cycle's 512 KiB thread, so that it can be
    // handed a parameter notification that the store itself would never pass on.
    WriteDeviceFile(kStorePath, Store(0));
    StartStore();
    char name[] = "truckosd_shared";
    Json::Value noParam;
    auto* business = new CTruckOsdService(manage, manage->basic_get_msg_client(), 7, name, 0, noParam);
    ASSERT_EQ(business->business_start(), 0);
    ASSERT_EQ(manage->basic_register_business(7, business), 0);
    RunCycle();
    ASSERT_TRUE(WaitText(kSpeed, "0KM/H"));

    const std::string deep = Doc(R"("TIMEP":)" + Nested(100000));
    OSDParamCallback(deep.data(), static_cast<int>(deep.size()), business, nullptr);
    // Nothing to take: dropped before the queue, without a log.
    OSDParamCallback("{}", 0, business, nullptr);
    OSDParamCallback(nullptr, 5, business, nullptr);
    ASSERT_EQ(nvx::SetParameterDocument(Doc(R"("EOSD":[{"TX":123}])")), 0);
    EXPECT_TRUE(WaitOverlay(kTime, [](const Overlay& o) { return o.x == 123; }))
        << "applied after the refusal";
    const std::string refusal = "parse param json error, length = " + std::to_string(deep.size()) + "\n";
    EXPECT_TRUE(nvx::WaitForLog([&](const nvx::LogLine& line) { return line.text == refusal; }, kGenerousMs));
    for (const nvx::LogLine& line : nvx::CapturedLogs()) {
        EXPECT_EQ(line.text.find("parse param error"), std::string::npos);
    }

    InjectSignal(Turn(0, 1));
    ASSERT_TRUE(WaitText(kSpeed, "0KM/H (L)"));
    InjectSignal(R"({"SIGNAL":{"TURN":)" + Nested(100000) + "}}");
    EXPECT_TRUE(WaitText(kSpeed, "0KM/H")) << "a signal text that does not parse clears the state";
}
