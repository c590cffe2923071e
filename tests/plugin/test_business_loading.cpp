// Which businesses the configuration file enables, and what loading does with each.
#include <atomic>
#include <list>
#include <string>

#include "CommonDefine.h"
#include "CycleRunner.h"
#include "TestSupport.h"
#include "TruckServiceBase.h"

namespace {

std::list<BusinessLoadAttr_t> Parse(const std::string& text, int* result = nullptr) {
    Json::Value root;
    EXPECT_TRUE(ConvertStringToJson(text.data(), static_cast<unsigned int>(text.size()), root)) << text;
    std::list<BusinessLoadAttr_t> out;
    const int rc = CTruckServiceManage::basic_parse_basic_config(root, out);
    if (result != nullptr) {
        *result = rc;
    }
    return out;
}

std::string Element(const std::string& members) {
    return "{\"BUSINESS_CONFIG\": [" + members + "]}";
}

class BusinessLoading : public ManagerOnDevice {
protected:
    BusinessLoading() : ManagerOnDevice("test_business_loading") {}
    void WriteConfig(const std::string& text) { WriteDeviceFile("/usr/local/cfg/truckbusiness.jsn", text); }
};

class Placeholder : public CTruckServiceBase {
public:
    Placeholder(CTruckServiceManage* manage, unsigned int id)
        : CTruckServiceBase(manage, manage->basic_get_msg_client(), id, const_cast<char*>("placeholder"), 0,
                            NoParam()) {}
    int business_cycle_running(unsigned long long nowMs) override {
        lastCycleTick.store(nowMs);
        return 0;
    }
    std::atomic<unsigned long long> lastCycleTick{0};
};

}  // namespace

TEST_F(BusinessLoading, OnlyTheLowerCaseStringTrueEnablesAnElement) {
    const std::list<BusinessLoadAttr_t> out = Parse(Element(
        R"({"BUSINESS_ENABLE": true, "BUSINESS_ID": 1},
           {"BUSINESS_ENABLE": "TRUE", "BUSINESS_ID": 2},
           {"BUSINESS_ENABLE": 1, "BUSINESS_ID": 3},
           {"BUSINESS_ID": 4},
           {"BUSINESS_ENABLE": "true", "BUSINESS_ID": "7"},
           {"BUSINESS_ENABLE": "true", "BUSINESS_ID": 2147483648}, {"BUSINESS_ENABLE": "true", "BUSINESS_ID": 7.5},
           {"BUSINESS_ENABLE": "true"},
           "true", 17,
           {"BUSINESS_ENABLE": "true", "BUSINESS_ID": 7})"));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out.front().id, 7u);
    EXPECT_EQ(out.front().bEnable, 1);
    EXPECT_EQ(out.front().type, 0);
}

TEST_F(BusinessLoading, NamesThreadsAndParametersTakeTheirDefaults) {
    const std::list<BusinessLoadAttr_t> out = Parse(Element(
        R"({"BUSINESS_ENABLE": "true", "BUSINESS_ID": 7},
           {"BUSINESS_ENABLE": "true", "BUSINESS_ID": -2, "BUSINESS_NAME": 5, "BUSINESS_THREAD": true},
           {"BUSINESS_ENABLE": "true", "BUSINESS_ID": 8, "BUSINESS_NAME": "osd_business_with_a_long_name_xyz",
            "BUSINESS_THREAD": "true", "BUSINESS_PARAM": {"A": [1, 2]}},
           {"BUSINESS_ENABLE": "true", "BUSINESS_ID": 9, "BUSINESS_THREAD": "false", "BUSINESS_PARAM": "p"})"));
    ASSERT_EQ(out.size(), 4u);
    auto it = out.begin();
    EXPECT_EQ(std::string(it->name, 32), "default_business_7" + std::string(14, '\0')) << "all 32 bytes";
    EXPECT_EQ(it->bThread, 0);
    EXPECT_TRUE(it->param.isNull());
    ++it;
    EXPECT_STREQ(it->name, "default_business_-2");
    EXPECT_EQ(it->bThread, 0) << "a boolean true is not the string";
    ++it;
    EXPECT_STREQ(it->name, "osd_business_with_a_long_name_x");
    EXPECT_EQ(it->bThread, 1);
    EXPECT_EQ(it->param["A"][1].asInt(), 2);
    ++it;
    EXPECT_EQ(it->bThread, 0);
    EXPECT_EQ(it->param, Json::Value("p")) << "a parameter of any kind is handed over";
}

TEST_F(BusinessLoading, ADocumentWithoutAnArrayIsRefusedAndAnEmptyOneIsQuiet) {
    for (const char* text : {"[1, 2]", "{}", R"({"BUSINESS_CONFIG": {"BUSINESS_ID": 7}})", "7"}) {
        int rc = 0;
        EXPECT_TRUE(Parse(text, &rc).empty());
        EXPECT_EQ(rc, -1) << text;
    }
    EXPECT_TRUE(Logged("TRUCK", 1, "Config json error or config_size <= 0\n"));

    nvx::StartLogCapture();
    int rc = -1;
    EXPECT_TRUE(Parse(R"({"BUSINESS_CONFIG": []})", &rc).empty());
    EXPECT_EQ(rc, 0);
    EXPECT_TRUE(nvx::CapturedLogs().empty());
}

TEST_F(BusinessLoading, AMissingOrBrokenFileLoadsNothing) {
    EXPECT_EQ(manage->basic_load_business(), -1);
    EXPECT_TRUE(Logged("TRUCK", 1, "Get basic config json failed [/usr/local/cfg/truckbusiness.jsn]\n"));
    WriteConfig(R"({"BUSINESS_CONFIG": [{"BUSINESS_ENABLE": "true", "BUSINESS_ID": 7)");
    nvx::StartLogCapture();
    EXPECT_EQ(manage->basic_load_business(), -1);
    EXPECT_TRUE(Logged("TRUCK", 1, "Get basic config json failed [/usr/local/cfg/truckbusiness.jsn]\n"));
}

TEST_F(BusinessLoading, UnknownAndDuplicateIdsAreLoggedAndLoadingGoesOn) {
    auto* placeholder = new Placeholder(manage.get(), 5);
    EXPECT_EQ(placeholder->business_start(), 0) << "the base class's hooks succeed";
    ASSERT_EQ(manage->basic_register_business(5, placeholder), 0);
    WriteConfig(Element(R"({"BUSINESS_ENABLE": "true", "BUSINESS_ID": 3, "BUSINESS_NAME": "nobody"},
                           {"BUSINESS_ENABLE": "true", "BUSINESS_ID": 5, "BUSINESS_NAME": "again"},
                           {"BUSINESS_ENABLE": "true", "BUSINESS_ID": 4})"));
    EXPECT_EQ(manage->basic_load_business(), 0);
    EXPECT_TRUE(Logged("TRUCK", 2, "Create business instance failed, id = 3, name = nobody\n"));
    EXPECT_TRUE(Logged("TRUCK", 2, "Business id[5, again] is alardy created, and continue\n"));
    EXPECT_TRUE(Logged("TRUCK", 2, "Create business instance failed, id = 4, name = default_business_4\n"));
    Json::Value document;
    char name[] = "direct";
    EXPECT_EQ(manage->basic_start_business(5, name, 0, false, document), 0) << "a running id is no failure";
    EXPECT_EQ(manage->basic_start_business(3, name, 0, false, document), -1);
    EXPECT_EQ(manage->basic_get_business(5), placeholder);
    EXPECT_EQ(manage->basic_get_business(3), nullptr);
}

// The main cycle loads the businesses on its first pass only, and runs those that share its
// thread on the tick of the pass.
TEST_F(BusinessLoading, TheMainCycleLoadsOnceAndRunsSharedBusinessesOnThePassTick) {
    WriteConfig(Element(R"({"BUSINESS_ENABLE": "true", "BUSINESS_ID": 3, "BUSINESS_NAME": "first_pass"})"));
    const unsigned long long tick = 7000000000000ULL;
    nvx::HoldTickCount(tick);
    auto* shared = new Placeholder(manage.get(), 5);
    ASSERT_EQ(shared->business_start(), 0);
    ASSERT_EQ(manage->basic_register_business(5, shared), 0);
    CycleRunner runner(manage);
    auto loaded = [](const nvx::LogLine& line) {
        return line.text == "Create business instance failed, id = 3, name = first_pass\n";
    };
    EXPECT_TRUE(nvx::WaitForLog(loaded, kGenerousMs));
    EXPECT_TRUE(nvx::WaitForWatchdogFeeds("truckbusiness.02", 5, kGenerousMs));
    manage->basic_uninit();
    EXPECT_EQ(shared->lastCycleTick.load(), tick);
    int times = 0;
    for (const nvx::LogLine& line : nvx::CapturedLogs()) {
        times += loaded(line) ? 1 : 0;
    }
    EXPECT_EQ(times, 1);
}

// Id 7 is the OSD business: on the main cycle's thread with the manager's client, or on a
// thread of its own with a client of its own; a second element with the same id changes nothing.
// The business gets its element's name, id and parameters, the latter as {"MAIN_PARAM": ...}.
TEST_F(BusinessLoading, TheOsdBusinessStartsSharedOrOnItsOwnThread) {
    for (const bool own : {false, true}) {
        ManagerOnDevice::TearDown();
        ManagerOnDevice::SetUp();
        const std::string thread = own ? "\"true\"" : "\"True\"";
        WriteConfig(Element(R"({"BUSINESS_ENABLE": "true", "BUSINESS_ID": 7, "BUSINESS_NAME": "osd",
                                "BUSINESS_THREAD": )" +
                            thread + (own ? "" : R"(, "BUSINESS_PARAM": [1, "two"])") + R"(},
                               {"BUSINESS_ENABLE": "true", "BUSINESS_ID": 7, "BUSINESS_NAME": "osd_again"})"));
        EXPECT_EQ(manage->basic_load_business(), 0);
        EXPECT_TRUE(Logged("TRUCK", 1,
                           "Create business instance, id = 7, name = osd, type = 0, bThread = " +
                               std::to_string(own) + ", size = 1\n"));
        EXPECT_TRUE(Logged("TRUCK", 2, "Business id[7, osd_again] is alardy created, and continue\n"));
        EXPECT_EQ(nvx::CallCount("OsUtilsCreateThread"), own ? 1u : 0u);
        EXPECT_EQ(Eventually([] { return nvx::HasClient("osd"); }, own ? kGenerousMs : 0), own);
        const CTruckServiceBase* osd = manage->basic_get_business(7);
        ASSERT_NE(osd, nullptr);
        EXPECT_EQ(osd->business_get_id(), 7u);
        EXPECT_EQ(std::string(osd->business_get_name(), 32), std::string("osd") + std::string(29, '\0'));
        Json::Value handed;
        handed["MAIN_PARAM"] = Json::Value();
        if (!own) {
            handed["MAIN_PARAM"].append(1);
            handed["MAIN_PARAM"].append("two");
        }
        EXPECT_EQ(osd->business_get_param(), handed);
        // Its handlers are registered under its source id, which its stop unregisters.
        ASSERT_TRUE(Eventually([&] { return !own || osd->business_get_thread_state() == 1; }));
        EXPECT_EQ(nvx::InjectBusEvent(0x118A, "", 0), 1);
        nvx::SetSleepsInstant(true);  // this manager's cycle never ran: nothing to wait for
        manage->basic_uninit();
        EXPECT_EQ(nvx::InjectBusEvent(0x118A, "", 0), 0);
    }
}
