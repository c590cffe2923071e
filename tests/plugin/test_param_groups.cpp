// Global parameter groups: what a business asks the store for, what comes back on the
// parameter thread, and that nothing is delivered once the global SDK has gone down.
#include <string.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "CycleRunner.h"
#include "TestSupport.h"

namespace {

const char kStoreDevicePath[] = "/mnt/tmpfs/global.bsn";

bool TryParse(const std::string& text, Json::Value& root) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    return reader->parse(text.data(), text.data() + text.size(), &root, &errors);
}

Json::Value Parse(const std::string& text) {
    Json::Value root;
    EXPECT_TRUE(TryParse(text, root)) << text;
    return root;
}

// Everything a parameter callback was handed, and on which thread.
struct Received {
    std::mutex mutex;
    std::vector<std::string> texts;
    std::vector<std::thread::id> threads;
    std::vector<void*> contexts;

    static void Callback(const char* text, int length, void* user, void* context) {
        Received* self = static_cast<Received*>(user);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->texts.emplace_back(text, static_cast<size_t>(length));
        self->threads.push_back(std::this_thread::get_id());
        self->contexts.push_back(context);
    }
    std::vector<std::string> Texts() {
        std::lock_guard<std::mutex> lock(mutex);
        return texts;
    }
};

class ParamGroups : public ManagerOnDevice {
protected:
    ParamGroups() : ManagerOnDevice("truck_param") {}
    void TearDown() override {
        JQ_SDK_Global_Deinitialize();  // no callback may reach this test's objects later
        ManagerOnDevice::TearDown();
    }
    void StartDevice(const std::string& storeText) {
        WriteDeviceFile(kStoreDevicePath, storeText);
        ASSERT_NE(JQ_SDK_Global_Initialize(kStoreDevicePath), nullptr);
    }
};

const char kStore[] = R"({"PARAMETER":{"MDVR":{"TIMEP":{"TIMEZ":"480","DATEM":1},"GSP":{"LANT":1},)"
                      R"("EOSD":[{"WME":0,"TX":300,"COSD":[{"X":400,"Y":80,"EN":1}]}]}}})";

}  // namespace

TEST_F(ParamGroups, FetchNamesTheFullPathAndWatchTheGroupsOnly) {
    StartDevice(kStore);
    Received received;
    EXPECT_EQ(manage->basic_global_get_param(0x40000ULL, &Received::Callback, &received, nullptr), 0);
    Json::Value groups;
    groups["TIMEP"] = "?";
    groups["EOSD"] = "?";
    EXPECT_EQ(manage->basic_global_get_param(groups, &Received::Callback, &received, nullptr), 0);
    EXPECT_EQ(manage->basic_global_listen_param(groups, &Received::Callback, &received, nullptr), 0);
    // Bits 0 and 38 are the ends of the table; 39 and 63 name no group.
    const unsigned long long ends = 1ULL | 1ULL << 38 | 1ULL << 39 | 1ULL << 63;
    EXPECT_EQ(manage->basic_global_listen_param(ends, &Received::Callback, &received, nullptr), 0);
    EXPECT_TRUE(nvx::WaitForParamIdle(kGenerousMs));

    EXPECT_EQ(nvx::ParamGetRequests(),
              (std::vector<std::string>{"{\"PARAMETER\":{\"MDVR\":{\"TIMEP\":\"?\"}}}\n",
                                        "{\"PARAMETER\":{\"MDVR\":{\"EOSD\":\"?\",\"TIMEP\":\"?\"}}}\n"}));
    EXPECT_EQ(nvx::ParamListenRequests(), (std::vector<std::string>{"{\"EOSD\":\"?\",\"TIMEP\":\"?\"}\n",
                                                                    "{\"GSP\":\"?\",\"NAVI\":\"?\"}\n"}));
}

TEST_F(ParamGroups, EveryMaskBitNamesItsGroup) {
    const char* const keys[] = {"GSP",   "IOP",  "DSM",   "PSNAP",  "WIFI",   "WIFIEX", "MAIN", "AR",
                                "IOOUT", "MCMS", "RIP",   "PS",     "PSI",    "SAM",    "SAP",  "SSP",
                                "KEYS",  "VERS", "TIMEP", "IPCCTR", "PCA",    "VPP",    "UAP",  "PRVAP",
                                "RP",    "PSM",  "REDEV", "PGDSM",  "PWT",    "LPDOWN", "PSS",  "FLM",
                                "GPSAL", "GSAL", "ENETE", "SAL",    "DDSNAP", "PGDS",   "NAVI"};
    for (unsigned int bit = 0; bit < 39; ++bit) {
        Json::Value request;
        EXPECT_EQ(manage->basic_global_package_param(1ULL << bit, request), 0);
        Json::Value expected;
        expected["PARAMETER"]["MDVR"][keys[bit]] = "?";
        EXPECT_EQ(request, expected) << bit;
    }
    Json::Value none;
    manage->basic_global_package_param(~0ULL << 39, none);
    EXPECT_TRUE(none.isNull());
    // A request that holds something other than objects on the path cannot take a group.
    Json::Value text("x");
    EXPECT_EQ(manage->basic_global_package_param(1ULL << 18, text), -1);
}

TEST_F(ParamGroups, NothingToAskForIsRefusedWithoutAPlatformCallAndPlatformErrorsPassThrough) {
    Received received;
    Json::Value empty;
    Json::Value emptyObject(Json::objectValue);
    EXPECT_EQ(manage->basic_global_get_param(1ULL << 40, &Received::Callback, &received, nullptr), -1);
    EXPECT_EQ(manage->basic_global_listen_param(1ULL << 40, &Received::Callback, &received, nullptr), -1);
    for (Json::Value* none : {&empty, &emptyObject}) {
        EXPECT_EQ(manage->basic_global_get_param(*none, &Received::Callback, &received, nullptr), -1);
        EXPECT_EQ(manage->basic_global_listen_param(*none, &Received::Callback, &received, nullptr), -1);
    }
    EXPECT_EQ(nvx::CallCount("JQ_SDK_Global_GetParameter"), 0u);
    EXPECT_EQ(nvx::CallCount("JQ_SDK_Global_ListenParameter"), 0u);

    // A group map that is no map reaches the store, which refuses it with its own code; so does
    // any request to a store that is not serving, in every form.
    Json::Value notAMap("TIMEP");
    const std::string listenText = "\"TIMEP\"\n";
    const int platform = JQ_SDK_Global_ListenParameter(
        listenText.c_str(), static_cast<int>(listenText.size()), &Received::Callback, &received, nullptr);
    EXPECT_LT(platform, -1);
    EXPECT_EQ(manage->basic_global_listen_param(notAMap, &Received::Callback, &received, nullptr), platform);
    EXPECT_EQ(nvx::ParamListenRequests(), (std::vector<std::string>{listenText, listenText}));
    EXPECT_EQ(manage->basic_global_listen_param(1ULL, &Received::Callback, &received, nullptr), platform);
    EXPECT_EQ(manage->basic_global_get_param(1ULL, &Received::Callback, &received, nullptr), platform);
    EXPECT_EQ(manage->basic_global_get_param(notAMap, &Received::Callback, &received, nullptr), platform);
}

TEST_F(ParamGroups, AFetchIsAnsweredOnTheParameterThreadFromTheStore) {
    StartDevice(kStore);
    Received received;
    int context = 0;
    Json::Value groups;
    groups["TIMEP"] = "?";
    groups["NAVI"] = "?";
    ASSERT_EQ(manage->basic_global_get_param(groups, &Received::Callback, &received, &context), 0);
    ASSERT_TRUE(nvx::WaitForParamIdle(kGenerousMs));

    ASSERT_EQ(received.Texts().size(), 1u);
    EXPECT_NE(received.threads[0], std::this_thread::get_id());
    EXPECT_EQ(received.contexts[0], &context);
    const Json::Value reply = Parse(received.texts[0]);
    EXPECT_EQ(reply["PARAMETER"]["MDVR"]["TIMEP"], Parse(kStore)["PARAMETER"]["MDVR"]["TIMEP"]);
    EXPECT_EQ(reply["PARAMETER"]["MDVR"]["NAVI"], "?") << "a group the store lacks keeps its placeholder";
    EXPECT_EQ(reply["PARAMETER"]["MDVR"].size(), 2u);
}

TEST_F(ParamGroups, NoCallbackRunsOnceDeinitialiseHasReturned) {
    StartDevice(kStore);
    struct Watcher {
        std::atomic<int> calls{0};
        std::atomic<bool> running{false};
        std::atomic<bool> release{false};
    } watcher;
    auto callback = [](const char*, int, void* user, void*) {
        Watcher* w = static_cast<Watcher*>(user);
        w->running.store(true);
        if (w->calls.fetch_add(1) == 0) {
            EXPECT_TRUE(Eventually([w] { return w->release.load(); }));
        }
        w->running.store(false);
    };
    ASSERT_EQ(manage->basic_global_listen_param(1ULL, callback, &watcher, nullptr), 0);
    for (int i = 0; i < 5; ++i) {
        nvx::SetParameterDocument(R"({"PARAMETER":{"MDVR":{"GSP":{"LANT":)" + std::to_string(i + 10) +
                                  "}}}}");
    }
    ASSERT_TRUE(Eventually([&] { return watcher.running.load(); }));

    bool runningAtReturn = true;
    int callsAtReturn = 0;
    std::thread stopper([&] {
        JQ_SDK_Global_Deinitialize();
        runningAtReturn = watcher.running.load();
        callsAtReturn = watcher.calls.load();
    });
    ASSERT_TRUE(Eventually([] { return nvx::CallCount("JQ_SDK_Global_Deinitialize") == 1; }));
    watcher.release.store(true);
    stopper.join();

    nvx::SetParameterDocument(R"({"PARAMETER":{"MDVR":{"GSP":{"LANT":99}}}})");
    ASSERT_TRUE(nvx::WaitForParamIdle(kGenerousMs));
    EXPECT_FALSE(runningAtReturn);
    EXPECT_EQ(watcher.calls.load(), callsAtReturn) << "queued notifications and the listener are gone";
    EXPECT_LT(callsAtReturn, 6);
    EXPECT_NE(manage->basic_global_get_param(1ULL, callback, &watcher, nullptr), 0)
        << "no fetch after the stop";
    EXPECT_NE(manage->basic_global_listen_param(1ULL, callback, &watcher, nullptr), 0) << "no watch either";
}
