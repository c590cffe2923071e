// The OSD business inside a manager on the simulated device, run as the service runs it: the
// main cycle loads it from the business configuration on its first pass, and it fetches its
// parameter groups from the device's store. The helpers build what the device hands it and
// wait for what it sends, checking every byte with the decoder of OsdRecords.h.
#ifndef TRUCK_TESTS_OSDFIXTURE_H
#define TRUCK_TESTS_OSDFIXTURE_H

#include <time.h>

#include <functional>
#include <memory>
#include <regex>
#include <string>

#include <json/json.h>

#include "CommonDefine.h"
#include "CycleRunner.h"
#include "OsdRecords.h"
#include "TestSupport.h"
#include "TruckOsdService.h"

class OsdBusiness : public ManagerOnDevice {
protected:
    typedef osd::Bytes Bytes;
    typedef osd::Overlay Overlay;
    static constexpr const char* kStorePath = "/mnt/tmpfs/global.bsn";
    static constexpr const char* kEosd =
        R"("EOSD":[{"TX":100,"TY":20,"SX":900,"SY":40,"TFS":2,"COSD":[{"X":400,"Y":80,"EN":1}]}])";

    explicit OsdBusiness(const std::string& folderPrefix) : ManagerOnDevice(folderPrefix) {}
    void SetUp() override {
        ManagerOnDevice::SetUp();
        // Four analog inputs and two IP cameras: channel bits 0-3 analog, 4-5 IP. The
        // manager's input count includes the IP cameras; the business tells them apart.
        config.uiProductType = 20;
        config.usVideoInNum = 4;
        config.usVideoIpNum = 2;
    }
    void TearDown() override {
        StopManager();
        ManagerOnDevice::TearDown();
    }

    // The system configuration, the business configuration and the store, then the main cycle.
    void Start(const std::string& store, const std::string& customer = "CUSTOMER_NORMAL") {
        WriteDeviceFile("/usr/local/cfg/SYSTEM_CONFIG", R"({"CUSTOMER_NAME":")" + customer + R"("})");
        WriteDeviceFile("/usr/local/cfg/truckbusiness.jsn",
                        R"({"BUSINESS_CONFIG":[{"BUSINESS_ENABLE":"true","BUSINESS_ID":7,)"
                        R"("BUSINESS_NAME":"truckosd","BUSINESS_THREAD":"true"}]})");
        WriteDeviceFile(kStorePath, store);
        StartStore();
        RunCycle();
    }
    void StartStore() { ASSERT_NE(JQ_SDK_Global_Initialize(kStorePath), nullptr); }
    // Runs the main cycle of the manager, or of a new one after a stop.
    void RunCycle() {
        manage = manage != nullptr ? manage : std::make_shared<CTruckServiceManage>(&config);
        m_runner = std::make_unique<CycleRunner>(manage);
    }
    // As the service stops: the manager and its businesses, then the global SDK; `stopped`
    // runs once the businesses are stopped and before they are destroyed.
    void StopManager(const std::function<void()>& stopped = nullptr) {
        if (m_runner) {
            manage->basic_uninit();
            JQ_SDK_Global_Deinitialize();
            EXPECT_TRUE(Eventually([this] { return manage->basic_threads_stopped(); }));
            if (stopped) {
                stopped();
            }
            manage.reset();
            m_runner.reset();  // the cycle no longer writes its parameter block
        }
    }

    // A parameter document holding the groups given as the members of MDVR.
    static std::string Doc(const std::string& groups) { return R"({"PARAMETER":{"MDVR":{)" + groups + "}}}"; }
    static Json::Value Parse(const std::string& text) {
        Json::Value root;
        EXPECT_TRUE(ConvertStringToJson(text.data(), static_cast<unsigned int>(text.size()), root)) << text;
        return root;
    }
    // Seconds since 1970 of a date and time on the device's zone-free scale.
    static time_t Clock(int year, int month, int day, int hour, int minute, int second) {
        struct tm t = {};
        t.tm_year = year - 1900, t.tm_mon = month - 1, t.tm_mday = day;
        t.tm_hour = hour, t.tm_min = minute, t.tm_sec = second;
        return timegm(&t);
    }

    // Speed: unit at 20, value at 24. J1939: event id at 4, length at 8, turn at 13. Swipe: body
    // length (23 bits) at 16, status 20, type 24, text present 28, then the text, unterminated.
    static Bytes Speed(uint32_t speed, uint8_t unit) { return osd::Record(28, {{20, unit}, {24, speed}}); }
    static Bytes Can(uint8_t turn, uint32_t event = 0x4001) {
        return osd::Record(20, {{4, event}, {8, 8}, {12, uint32_t{turn} << 8}});
    }
    static std::string Turn(int source, int value) {
        return R"({"SIGNAL":{"TURN":{"SOURCE":)" + std::to_string(source) + R"(,"VALUE":)" +
               std::to_string(value) + "}}}";
    }
    static Bytes Swipe(const std::string& text, uint32_t type = 160, uint32_t status = 0, uint32_t body = 8,
                       uint8_t present = 1) {
        Bytes b = osd::Record(32, {{16, body}, {20, status}, {24, type}, {28, present}});
        b.insert(b.end(), text.begin(), text.end());
        return b;
    }
    // A business of the test's own, outside the manager's cycle: its operations run on the
    // test's thread, and what they send is on the bus when they return.
    std::unique_ptr<CTruckOsdService> Direct(uint32_t customerType = 0, bool client = true) {
        Json::Value none;
        char name[] = "truckosd_direct";
        auto business = std::make_unique<CTruckOsdService>(
            manage.get(), client ? manage->basic_get_msg_client() : nullptr, 7, name, 0, none);
        business->m_customerType = customerType;
        return business;
    }
    // Hands a business a parameter document as its queue does.
    static void Apply(CTruckOsdService& business, const std::string& doc) {
        std::vector<AsynCallbackParaNode_t> nodes{{doc.data(), static_cast<int>(doc.size()), 0}};
        business.OSDEventHandle(nodes);
    }
    static int Inject(int event, const Bytes& b) { return nvx::InjectBusEvent(event, b.data(), b.size()); }
    static void InjectSignal(const std::string& text) { nvx::InjectDevSignal(text.data(), text.size()); }
    static void InjectCan(const Bytes& b) { nvx::InjectCanRecord(b.data(), b.size()); }

    static std::vector<Bytes> Payloads(int event) {
        std::vector<Bytes> out;
        for (const nvx::BusMessage& m : nvx::SentMessages()) {
            if (m.event == event) {
                EXPECT_TRUE(m.destination == 0 && m.flag == 0) << event;
                out.push_back(m.payload);
            }
        }
        return out;
    }
    // Every overlay of a kind sent so far, oldest first.
    static std::vector<Overlay> Overlays(uint8_t kind) {
        std::vector<Overlay> out;
        for (const Bytes& payload : Payloads(osd::kEventOverlay)) {
            const Overlay o = osd::DecodeOverlay(payload);
            EXPECT_EQ(o.problem, "");
            if (o.kind == kind) {
                out.push_back(o);
            }
        }
        return out;
    }
    static Overlay Last(uint8_t kind) { return Overlays(kind).empty() ? Overlay() : Overlays(kind).back(); }
    // Waits for an overlay of a kind that satisfies `want` (one already sent counts), every
    // byte of it as it should be.
    static bool WaitOverlay(uint8_t kind, const std::function<bool(const Overlay&)>& want) {
        return nvx::WaitForSent(
            [&](const nvx::BusMessage& m) {
                const Overlay o = m.event == osd::kEventOverlay ? osd::DecodeOverlay(m.payload) : Overlay();
                return o.kind == kind && o.problem.empty() && want(o);
            },
            kGenerousMs);
    }
    static bool WaitText(uint8_t kind, const std::string& text) {
        return WaitOverlay(kind, [&](const Overlay& o) { return !o.cancel && o.text == text; });
    }
    // The pattern's '#' stands for any one digit.
    static bool Like(const std::string& text, const std::string& pattern) {
        return std::regex_match(text, std::regex(std::regex_replace(pattern, std::regex("#"), "[0-9]")));
    }
    std::unique_ptr<CycleRunner> m_runner;
};

#endif
