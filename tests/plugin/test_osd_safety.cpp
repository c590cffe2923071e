// The OSD business going away under traffic.
#include <atomic>
#include <mutex>
#include <thread>

#include "HCTimeWheel.h"
#include "OsdFixture.h"

using namespace osd;

namespace {

class OsdSafety : public OsdBusiness {
protected:
    OsdSafety() : OsdBusiness("truck_osd_safety") {}
    static std::string Store(int watermark) {
        return Doc(R"("TIMEP":{"TIMEZ":"480","DATEM":1},"EOSD":[{"WME":)" + std::to_string(watermark) +
                   R"(,"TX":100,"TY":20,"SX":900,"SY":40,"COSD":[{"X":400,"Y":80,"EN":1}]}])");
    }
    // COSD[1].X of a document written: 15 in the normal layout, 1024 in the watermark one, else 0.
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
    ASSERT_TRUE(WaitOverlay(kTime, [](const Overlay&) { return true; }));
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
