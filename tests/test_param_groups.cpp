// Global parameter groups: what a business asks the store for, what comes back on the
// parameter thread, how a write reaches the watchers and the store file, and that nothing
// is delivered once the global SDK has gone down.
#include <string.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
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

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
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
    std::string StoreFile() const { return HostPath(kStoreDevicePath); }
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

TEST_F(ParamGroups, NothingToAskForIsRefusedWithoutAPlatformCallAndPlatformErrorsPassThrough) {
    Received received;
    Json::Value empty;
    Json::Value emptyObject(Json::objectValue);
    EXPECT_EQ(manage->basic_global_get_param(1ULL << 40, &Received::Callback, &received, nullptr), -1);
    EXPECT_EQ(manage->basic_global_listen_param(1ULL << 40, &Received::Callback, &received, nullptr), -1);
    EXPECT_EQ(manage->basic_global_get_param(empty, &Received::Callback, &received, nullptr), -1);
    EXPECT_EQ(manage->basic_global_listen_param(emptyObject, &Received::Callback, &received, nullptr), -1);
    EXPECT_EQ(nvx::CallCount("JQ_SDK_Global_GetParameter"), 0u);
    EXPECT_EQ(nvx::CallCount("JQ_SDK_Global_ListenParameter"), 0u);

    // A group map that is no map reaches the store, which refuses it with its own code.
    Json::Value notAMap("TIMEP");
    const std::string listenText = "\"TIMEP\"\n";
    const int platform = JQ_SDK_Global_ListenParameter(
        listenText.c_str(), static_cast<int>(listenText.size()), &Received::Callback, &received, nullptr);
    EXPECT_LT(platform, 0);
    EXPECT_EQ(manage->basic_global_listen_param(notAMap, &Received::Callback, &received, nullptr), platform);
    EXPECT_EQ(nvx::ParamListenRequests(), (std::vector<std::string>{listenText, listenText}));
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

TEST_F(ParamGroups, AWriteReachesTheWatchersOfTheChangedGroupsInOrder) {
    StartDevice(kStore);
    Received timeWatcher;
    Received systemWatcher;
    Json::Value timeGroups;
    timeGroups["TIMEP"] = "?";
    timeGroups["EOSD"] = "?";
    ASSERT_EQ(manage->basic_global_listen_param(timeGroups, &Received::Callback, &timeWatcher, nullptr), 0);
    ASSERT_EQ(manage->basic_global_listen_param(1ULL, &Received::Callback, &systemWatcher, nullptr), 0);
    std::vector<std::string> written;
    nvx::SetParamWriteObserver([&written](const std::string& text) { written.push_back(text); });

    // A layout names a few members of the group: the others stay in the store.
    const std::string layout = R"({"PARAMETER":{"MDVR":{"EOSD":[{"TX":250,"COSD":[{"X":180}]}]}}})"
                               "\n";
    ASSERT_EQ(JQ_SDK_Global_SetParameter(layout.c_str(), static_cast<int>(layout.size())), 0);
    // Unchanged TIMEP, changed GSP: nothing for the time watcher.
    ASSERT_EQ(nvx::SetParameterDocument(R"({"PARAMETER":{"MDVR":{"TIMEP":{"DATEM":1},"GSP":{"LANT":2}}}})"),
              0);
    ASSERT_EQ(manage->basic_global_get_param(timeGroups, &Received::Callback, &timeWatcher, nullptr), 0);
    EXPECT_EQ(JQ_SDK_Global_SetParameter("{\"PARAMETER\":[]}", 16), -2);
    ASSERT_TRUE(nvx::WaitForParamIdle(kGenerousMs));

    const std::vector<std::string> timeTexts = timeWatcher.Texts();
    ASSERT_EQ(timeTexts.size(), 2u) << "the change notification, then the fetch reply";
    const Json::Value note = Parse(timeTexts[0])["PARAMETER"]["MDVR"];
    EXPECT_EQ(note.getMemberNames(), std::vector<std::string>{"EOSD"});
    EXPECT_EQ(note["EOSD"], Parse(R"([{"WME":0,"TX":250,"COSD":[{"X":180,"Y":80,"EN":1}]}])"));
    EXPECT_EQ(Parse(timeTexts[1])["PARAMETER"]["MDVR"]["EOSD"], note["EOSD"]);

    const std::vector<std::string> systemTexts = systemWatcher.Texts();
    ASSERT_EQ(systemTexts.size(), 1u);
    EXPECT_EQ(Parse(systemTexts[0]), Parse(R"({"PARAMETER":{"MDVR":{"GSP":{"LANT":2}}}})"));

    nvx::SetParamWriteObserver(nullptr);
    EXPECT_EQ(written.size(), 2u);
    EXPECT_EQ(written[0], layout);
}

TEST_F(ParamGroups, TheStoreFileIsReplacedWholeAndReadAgainAtTheNextStart) {
    // The first store comes from outside the device, whose tmpfs does not exist yet.
    const std::string seed = HostPath("/seed.bsn");
    WriteDeviceFile("/seed.bsn", kStore);
    nvx::SetParamStoreSource(seed);
    ASSERT_NE(JQ_SDK_Global_Initialize(kStoreDevicePath), nullptr);
    ASSERT_EQ(nvx::SetParameterDocument(R"({"PARAMETER":{"MDVR":{"GSP":{"LANT":0}}}})"), 0);
    ASSERT_TRUE(std::filesystem::exists(StoreFile()));

    // Whatever moment a reader picks, it finds a whole document.
    std::atomic<bool> writing{true};
    std::atomic<int> torn{0};
    std::thread reader([&] {
        while (writing.load()) {
            Json::Value read;
            if (!TryParse(ReadFile(StoreFile()), read) || !read.isObject()) {
                ++torn;
            }
        }
    });
    for (int i = 1; i <= 100; ++i) {
        const std::string text = R"({"PARAMETER":{"MDVR":{"GSP":{"LANT":)" + std::to_string(i) + "}}}}";
        ASSERT_EQ(nvx::SetParameterDocument(text), 0);
    }
    writing.store(false);
    reader.join();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(ReadFile(seed), kStore) << "the seed is only read";
    size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(HostPath("/mnt/tmpfs"))) {
        EXPECT_EQ(entry.path().filename(), "global.bsn") << "no temporary file is left behind";
        ++files;
    }
    EXPECT_EQ(files, 1u);

    JQ_SDK_Global_Deinitialize();
    nvx::SetParamStoreSource("");
    ASSERT_NE(JQ_SDK_Global_Initialize(kStoreDevicePath), nullptr);
    const Json::Value reloaded = Parse(nvx::ParamStoreText())["PARAMETER"]["MDVR"];
    EXPECT_EQ(reloaded["GSP"]["LANT"], 100);
    EXPECT_EQ(reloaded["TIMEP"], Parse(kStore)["PARAMETER"]["MDVR"]["TIMEP"]);
}

TEST_F(ParamGroups, ABrokenStoreFileGivesAnEmptyStore) {
    const std::vector<std::string> broken = {"",
                                             "{\"PARAMETER\":{\"MDVR\":{\"GSP\":",
                                             "[1,2]",
                                             "{\"PARAMETER\":{\"MDVR\":[]}}",
                                             "{\"PARAMETER\":{\"MDVR\":{}}} trailing",
                                             std::string(100000, '['),
                                             std::string("{\0}", 3)};
    const Json::Value empty = Parse("{\"PARAMETER\":{\"MDVR\":{}}}");
    auto storeLogged = [](const nvx::LogLine& line) {
        return line.module == "NVXSDK" && line.text.find("parameter store") != std::string::npos;
    };
    for (const std::string& text : broken) {
        nvx::SetParameterDocument(kStore);  // something the load has to replace
        nvx::StartLogCapture();
        StartDevice(text);
        EXPECT_EQ(Parse(nvx::ParamStoreText()), empty) << text.substr(0, 40);
        EXPECT_TRUE(nvx::WaitForLog(storeLogged, kGenerousMs)) << text.substr(0, 40);
        JQ_SDK_Global_Deinitialize();
    }
    std::filesystem::remove(StoreFile());
    nvx::StartLogCapture();
    ASSERT_NE(JQ_SDK_Global_Initialize(kStoreDevicePath), nullptr);
    EXPECT_EQ(Parse(nvx::ParamStoreText()), empty) << "a missing file";
    EXPECT_TRUE(nvx::WaitForLog(storeLogged, kGenerousMs));
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

// The recorder's date-time service keeps local time in the configured zone; the host asks the
// simulated device to do the same so that a zone change shows on the time line.
TEST_F(ParamGroups, AZoneChangeMovesTheDeviceClockOnlyWhenAskedTo) {
    StartDevice(kStore);
    auto offset = [] { return static_cast<int64_t>(nvx::WallClock()) - static_cast<int64_t>(time(nullptr)); };
    auto writeZone = [](const std::string& zone) {
        return nvx::SetParameterDocument(R"({"PARAMETER":{"MDVR":{"TIMEP":{"TIMEZ":")" + zone + R"("}}}})");
    };
    nvx::SetWallClock(1000000000);
    const int64_t start = offset();

    ASSERT_EQ(writeZone("420"), 0);
    EXPECT_NEAR(offset() - start, 0, 1) << "not asked to follow";

    nvx::SetLocalTimeFollowsZone(true);
    ASSERT_EQ(writeZone("-300"), 0);
    EXPECT_NEAR(offset() - start, -720 * 60, 1) << "420 to -300 minutes";
    ASSERT_EQ(nvx::SetParameterDocument(R"({"PARAMETER":{"MDVR":{"TIMEP":{"DATEM":2}}}})"), 0);
    ASSERT_EQ(writeZone("-300"), 0);
    EXPECT_NEAR(offset() - start, -720 * 60, 1) << "other keys and the same zone move nothing";
    ASSERT_EQ(writeZone("99999"), 0);
    EXPECT_NEAR(offset() - start, (-720 + 1440 + 300) * 60, 1) << "a wild zone is bounded to a day";
    ASSERT_EQ(writeZone("x"), 0);
    EXPECT_NEAR(offset() - start, (-720 + 300) * 60, 1) << "no digits read as zone 0";
}
