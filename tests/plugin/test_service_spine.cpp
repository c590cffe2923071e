// The service spine inside the simulated device, one section per fixture: the service object's
// start and stop, the main cycle, businesses on their own thread or on the main cycle's, and
// the faults (wiring, stalled, throwing or failing platform calls, late threads).
#include <string.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

#include "CycleRunner.h"
#include "RefusedAllocations.h"
#include "TestSupport.h"
#include "TruckServiceBase.h"
#include "TruckServiceManage.h"

namespace {

std::atomic<int> g_destroyed{0};

// A business that records what the base class makes it do, and on which thread.
class ProbeBusiness : public CTruckServiceBase {
public:
    ProbeBusiness(CTruckServiceManage* manager, CMsgClientManage* client, unsigned int id, const char* name,
                  unsigned long long cycleMs = 100)
        : CTruckServiceBase(manager, client, id, const_cast<char*>(name), 0, NoParam()), m_cycleMs(cycleMs) {}
    ~ProbeBusiness() override { ++g_destroyed; }

    int business_init() override {
        initThread = ThreadName();
        business_set_cycle_time(m_cycleMs);
        if (m_pMsgClient != nullptr) {
            m_pMsgClient->MSGEventRegister(m_uiSourceId, 0x7001, this, &ProbeBusiness::OnEvent);
        }
        ++inits;
        std::unique_lock<std::mutex> lock(mutex);
        released.wait(lock, [this] { return !holdInit; });
        return initResult;
    }
    int business_uninit() override {
        ++uninits;
        return 0;
    }
    int business_cycle_running(unsigned long long nowMs) override {
        lastCycleMs = nowMs;
        if (cycles.load() < throwCycles) {
            ++cycles;
            throw std::runtime_error("probe fault");
        }
        {
            std::lock_guard<std::mutex> lock(mutex);
            cycleThreads.insert(ThreadName());
        }
        ++cycles;
        std::unique_lock<std::mutex> lock(mutex);
        released.wait(lock, [this] { return !holdCycle; });
        return 0;
    }
    void OnEvent(const char* data, int length) {
        std::lock_guard<std::mutex> lock(mutex);
        eventText.assign(data, static_cast<size_t>(length));
        eventThread = ThreadName();
    }
    void OnQueued(std::vector<AsynCallbackParaNode_t>& nodes) {
        std::lock_guard<std::mutex> lock(mutex);
        for (const AsynCallbackParaNode_t& node : nodes) {
            queuedText.append(node.pData, static_cast<size_t>(node.iLen));
        }
        queuedThread = ThreadName();
    }
    void Queue(const char* text) {
        AsynCallbackParaNode_t node = {text, static_cast<int>(strlen(text)), 0};
        m_pAsynCallback->AsynCallbackAdd(1, this, &ProbeBusiness::OnQueued, node);
    }
    // Notifies under the lock: once it is released the business may be destroyed at once.
    void Release() {
        std::lock_guard<std::mutex> lock(mutex);
        holdCycle = false;
        holdInit = false;
        released.notify_all();
    }
    unsigned int SourceId() const { return m_uiSourceId; }

    std::atomic<int> inits{0}, uninits{0}, cycles{0};
    std::atomic<unsigned long long> lastCycleMs{0};
    int initResult = 0;
    int throwCycles = 0;     // the first cycles throw
    std::string initThread;  // written before the business runs, read after it stopped
    std::mutex mutex;
    std::condition_variable released;
    bool holdCycle = false;
    bool holdInit = false;  // set before the business starts
    std::set<std::string> cycleThreads;
    std::string eventText, eventThread, queuedText, queuedThread;

private:
    unsigned long long m_cycleMs;
};

// The host's block for the service, not yet running.
class ServiceObject : public DeviceTest {
protected:
    ServiceObject() { param.ucRunning.store(0); }
    tag_ServiceParam param;
};
using Business = DeviceTest;
using MainCycle = DeviceTest;

// The service on a device whose business configuration enables the OSD business on its own
// thread, with platform calls that a test makes stall, throw or fail.
class ServiceFaults : public ManagerOnDevice {
protected:
    ServiceFaults() : ManagerOnDevice("test_service_faults") {}
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(ManagerOnDevice::SetUp());
        WriteOsdOnItsOwnThread();
        WriteDeviceFile("/mnt/tmpfs/global.bsn", R"({"PARAMETER":{"MDVR":{"GSP":{"LANT":7}}}})");
        param.ucRunning.store(0);
        manage.reset();  // the service makes its own
    }
    // Stops the service on another thread while a platform call is held at its gate: true if
    // the stop returned before the gate is opened.
    bool StopReturnsWhileHeld(const char* gate, const std::function<void()>& whileHeld = {}) {
        auto stop = std::async(std::launch::async, [this] { return JQ_SDK_Service_Stop(&param); });
        const bool returned =
            stop.wait_for(std::chrono::milliseconds(kGenerousMs)) == std::future_status::ready;
        if (returned && whileHeld) {
            whileHeld();
        }
        nvx::OpenGate(gate);
        return returned;
    }
    static constexpr const char* kStillInUse =
        "Service manage still in use by a thread, it goes when the thread ends\n";
    tag_ServiceParam param;
};

}  // namespace

// ------------------------------------------------------------------------------------------------
// The service object: the host's entry points, start and stop.

TEST_F(ServiceObject, NullBlocksAreRefusedWithoutSideEffects) {
    const bool existed = CTruckService::ServeHasInstance();
    EXPECT_EQ(JQ_SDK_Service_Load(nullptr), 0);
    EXPECT_EQ(JQ_SDK_Service_Start(nullptr), 0);
    EXPECT_EQ(JQ_SDK_Service_Stop(nullptr), 0);
    EXPECT_EQ(CTruckService::ServeHasInstance(), existed);

    CTruckService* service = CTruckService::ServeGetInstance();
    EXPECT_EQ(service->ServeLoad(nullptr), -1);
    EXPECT_EQ(service->ServeStart(nullptr), -1);

    param.ucRunning.store(7);
    EXPECT_EQ(JQ_SDK_Service_Stop(&param), 0);  // never started: nothing to do
    EXPECT_EQ(param.ucRunning.load(), 7);
    EXPECT_EQ(nvx::CallCount("JQ_SDK_Global_Deinitialize"), 0u);
    EXPECT_EQ(nvx::CallCount("JQ_SDK_Basic_Deinitialize"), 0u);
}

TEST_F(ServiceObject, FailedGlobalInitialisationStartsNothing) {
    // No global configuration, no room for the manager, or an exception on the way.
    for (const int cause : {0, 1, 2}) {
        nvx::SetGlobalInitFails(cause == 0);
        g_refusedAllocations.store(cause == 1 ? 1 : 0);
        nvx::ThrowBadAllocIn("JQ_SDK_Global_Initialize", cause == 2 ? 1 : 0);
        EXPECT_EQ(JQ_SDK_Service_Start(&param), -1) << cause;
        EXPECT_EQ(CTruckService::ServeGetInstance()->ServeGetManage(), nullptr);
        EXPECT_EQ(nvx::CallCount("OsUtilsCreateThread"), 0u);
        EXPECT_EQ(nvx::CallCount("CMsgClientManage"), 0u);
    }
    nvx::SetGlobalInitFails(true);
    EXPECT_EQ(JQ_SDK_Service_Stop(&param), 0);
    EXPECT_EQ(nvx::CallCount("JQ_SDK_Global_Deinitialize"), 0u);
}

TEST_F(ServiceObject, StartRunsTheMainCycleAndStopEndsIt) {
    ASSERT_EQ(JQ_SDK_Service_Start(&param), 0);
    EXPECT_TRUE(Eventually([&] { return param.ucRunning.load() == 1; }));
    EXPECT_TRUE(nvx::WaitForWatchdogFeeds("truckbusiness.02", 3, kGenerousMs));
    EXPECT_TRUE(nvx::HasClient("truckbusiness.02"));
    EXPECT_EQ(JQ_SDK_Service_Start(&param), -1) << "a second start beside a running one";
    EXPECT_EQ(nvx::CallCount("JQ_SDK_Global_StartService"), 1u);
    EXPECT_EQ(nvx::CreatedThreads(), (std::vector<std::pair<unsigned int, int>>{{0x80000, 1}}));
    EXPECT_EQ(nvx::BusWaitTimeouts("truckbusiness.02"), std::set<int>{50});
    EXPECT_EQ(nvx::ClientDepthAsked("truckbusiness.02"), 30u);

    EXPECT_EQ(JQ_SDK_Service_Stop(&param), 0);
    EXPECT_EQ(param.ucRunning.load(), 0);
    EXPECT_EQ(CTruckService::ServeGetInstance()->ServeGetManage(), nullptr);
    EXPECT_FALSE(nvx::HasClient("truckbusiness.02")) << "the manager and its client are destroyed";
    EXPECT_EQ(nvx::CallCount("JQ_SDK_Basic_Deinitialize"), 1u);
    EXPECT_EQ(nvx::CallCount("JQ_SDK_Global_Deinitialize"), 1u);

    EXPECT_EQ(JQ_SDK_Service_Stop(&param), 0);
    EXPECT_EQ(nvx::CallCount("JQ_SDK_Global_Deinitialize"), 1u) << "a second stop does nothing";

    // The service can be started again after a stop.
    ASSERT_EQ(JQ_SDK_Service_Start(&param), 0);
    EXPECT_TRUE(Eventually([&] { return param.ucRunning.load() == 1; }));
    EXPECT_EQ(JQ_SDK_Service_Stop(&param), 0);
    EXPECT_EQ(param.ucRunning.load(), 0);
}

TEST_F(ServiceObject, StopRightAfterStartStillReleasesTheBasicSdk) {
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(JQ_SDK_Service_Start(&param), 0);
        ASSERT_EQ(JQ_SDK_Service_Stop(&param), 0);
        ASSERT_TRUE(nvx::WaitForThreadsToEnd(kGenerousMs));
    }
    EXPECT_EQ(nvx::CallCount("JQ_SDK_Basic_Initialize"), nvx::CallCount("JQ_SDK_Basic_Deinitialize"));
    EXPECT_EQ(CTruckServiceManage::basic_live_count(), 0);
}

// ------------------------------------------------------------------------------------------------
// The main cycle: the businesses it drives, its once-a-second step and its stop.

TEST_F(MainCycle, RunsOnWithoutTheBasicSdk) {
    nvx::SetBasicInitFails(true);
    tag_ServiceParam param;
    param.ucRunning.store(0);
    ASSERT_EQ(JQ_SDK_Service_Start(&param), 0);
    EXPECT_TRUE(Eventually([&] { return param.ucRunning.load() == 1; }));
    EXPECT_TRUE(Logged("TRUCK", 0, "JQ_SDK_Basic_Initialize failed.\n"));
    int initSteps = 0;  // the peripheral block and the system configuration come first
    for (const nvx::LogLine& line : nvx::CapturedLogs()) {
        initSteps +=
            line.text.rfind("load peripheral config file[/usr/local/cfg/serialconfig.bsn] ", 0) == 0 ||
            line.text.rfind("Get system config json ", 0) == 0;
    }
    EXPECT_EQ(initSteps, 2);
    EXPECT_EQ(CTruckService::ServeGetInstance()->ServeGetManage()->GetBasicSDKHandle(), nullptr);
    EXPECT_EQ(JQ_SDK_Service_Stop(&param), 0);
    EXPECT_EQ(nvx::CallCount("JQ_SDK_Basic_Deinitialize"), 0u);

    tagGlobalConfig config = MakeGlobalConfig();
    auto manage = std::make_shared<CTruckServiceManage>(&config);
    EXPECT_EQ(manage->basic_init(), -1);
    nvx::SetBasicInitFails(false);
    EXPECT_EQ(manage->basic_init(), 0);
    JQ_SDK_Basic_Deinitialize(manage->GetBasicSDKHandle());
    manage.reset();
}

TEST_F(MainCycle, DrivesSharedBusinessesAndLeavesOwnThreadsAlone) {
    tagGlobalConfig config = MakeGlobalConfig();
    auto manage = std::make_shared<CTruckServiceManage>(&config);
    auto* shared = new ProbeBusiness(manage.get(), manage->basic_get_msg_client(), 2, "shared_probe");
    auto* own = new ProbeBusiness(manage.get(), nullptr, 9, "own_probe");
    ASSERT_EQ(shared->business_start(), 0);
    ASSERT_EQ(own->business_start(), 0);
    ASSERT_EQ(manage->basic_register_business(2, shared), 0);
    ASSERT_EQ(manage->basic_register_business(9, own), 0);
    EXPECT_EQ(manage->basic_register_business(9, own), -1) << "one business per id";

    g_destroyed = 0;
    CycleRunner runner(manage);
    shared->Queue("queued");
    EXPECT_TRUE(Eventually([&] { return shared->cycles.load() >= 3 && own->cycles.load() >= 3; }));
    EXPECT_EQ(nvx::InjectBusEvent(0x7001, "ev", 2), 2);
    EXPECT_TRUE(Eventually([&] {
        std::lock_guard<std::mutex> lock(shared->mutex);
        return shared->eventText == "ev" && shared->queuedText == "queued";
    }));
    EXPECT_EQ(runner.param.ucRunning.load(), 1);

    EXPECT_EQ(manage->basic_uninit(), 0);
    EXPECT_EQ(manage->basic_get_thread_state(), 3);
    EXPECT_EQ(shared->uninits.load(), 1);
    EXPECT_EQ(own->uninits.load(), 1);
    {
        std::lock_guard<std::mutex> lock(shared->mutex);
        EXPECT_EQ(shared->cycleThreads, std::set<std::string>{"truckservice"});
        EXPECT_EQ(shared->eventThread, "truckservice");
        EXPECT_EQ(shared->queuedThread, "truckservice");
    }
    {
        std::lock_guard<std::mutex> lock(own->mutex);
        EXPECT_EQ(own->cycleThreads, std::set<std::string>{"own_probe"});
    }
    manage.reset();
    EXPECT_TRUE(nvx::WaitForThreadsToEnd(kGenerousMs));
    EXPECT_EQ(g_destroyed.load(), 2);
}

// A business whose thread hangs in its cycle: the stop gives up after its bounded waits, and
// nothing is destroyed until that thread has really left.
TEST_F(MainCycle, StopIsBoundedAndNeverFreesUnderARunningThread) {
    tagGlobalConfig config = MakeGlobalConfig();
    auto manage = std::make_shared<CTruckServiceManage>(&config);
    auto* stuck = new ProbeBusiness(manage.get(), nullptr, 4, "stuck_probe", 10);
    stuck->holdCycle = true;
    ASSERT_EQ(stuck->business_start(), 0);
    ASSERT_EQ(manage->basic_register_business(4, stuck), 0);
    g_destroyed = 0;
    CycleRunner runner(manage);
    ASSERT_TRUE(Eventually([&] { return stuck->cycles.load() == 1; }));

    nvx::SetSleepsInstant(true);
    EXPECT_EQ(stuck->business_stop(), 0);
    EXPECT_EQ(nvx::SleepsOfThisThread(), std::vector<unsigned int>(101, 20)) << "101 polls of 20 ms";
    EXPECT_EQ(manage->basic_uninit(), 0);
    EXPECT_EQ(stuck->business_get_thread_state(), 2) << "the business thread is still in its cycle";

    manage.reset();  // the owner lets go; the stuck thread still holds the manager
    EXPECT_EQ(g_destroyed.load(), 0);
    EXPECT_TRUE(nvx::HasClient("truckbusiness.02"));

    stuck->Release();
    EXPECT_TRUE(nvx::WaitForThreadsToEnd(kGenerousMs));
    EXPECT_EQ(g_destroyed.load(), 1) << "destroyed by the last thread to leave";
    EXPECT_FALSE(nvx::HasClient("truckbusiness.02"));
}

// A shared business stuck in its cycle keeps the main cycle in its pass past the stop: when
// it comes free, the pass must not write into the host's block, which the host has freed.
TEST_F(MainCycle, APassThatOutlivesTheStopLeavesTheHostBlockAlone) {
    tagGlobalConfig config = MakeGlobalConfig();
    auto manage = std::make_shared<CTruckServiceManage>(&config);
    auto* stuck = new ProbeBusiness(manage.get(), manage->basic_get_msg_client(), 6, "stuck_shared");
    stuck->holdCycle = true;
    ASSERT_EQ(stuck->business_start(), 0);
    ASSERT_EQ(manage->basic_register_business(6, stuck), 0);
    auto* param = new tag_ServiceParam;
    param->ucRunning.store(0);
    manage->basic_launch_cycle(param);
    ASSERT_TRUE(Eventually([&] { return stuck->cycles.load() == 1; }));

    nvx::SetSleepsInstant(true);
    EXPECT_EQ(manage->basic_uninit(), 0);
    EXPECT_EQ(nvx::SleepsOfThisThread(), std::vector<unsigned int>(101, 20))
        << "only the cycle is waited for";
    EXPECT_EQ(stuck->uninits.load(), 1);
    EXPECT_FALSE(manage->basic_threads_stopped());
    delete param;  // the host's block is gone once stop has returned
    g_destroyed = 0;
    manage.reset();
    stuck->Release();
    EXPECT_TRUE(nvx::WaitForThreadsToEnd(kGenerousMs));
    EXPECT_EQ(g_destroyed.load(), 1);
    EXPECT_EQ(CTruckServiceManage::basic_live_count(), 0);
}

// The once-a-second step (device information, then the log queues) follows the tick both
// ways, by absolute distance: more than 999 ms from the last step.
TEST_F(MainCycle, OnceASecondStepFollowsTheDistanceOfTheTick) {
    const unsigned long long t0 = 5000000000000ULL;  // far from any tick an earlier step kept
    nvx::HoldTickCount(t0);
    tagGlobalConfig config = MakeGlobalConfig();
    auto manage = std::make_shared<CTruckServiceManage>(&config);
    auto batches = [] {
        size_t n = 0;
        for (const nvx::BusMessage& m : nvx::SentMessages()) {
            n += m.event == 0x1134 ? 1 : 0;
        }
        return n;
    };
    manage->basic_system_log_push(0x01, "first");
    CycleRunner runner(manage);
    ASSERT_TRUE(Eventually([&] { return batches() == 1; }));
    EXPECT_EQ(manage->basic_get_serialnumber_info()->bValid, 1u) << "device information in the same step";
    const struct {
        unsigned long long tick;
        size_t batches;
    } steps[] = {{t0 + 999, 1}, {t0 + 1000, 2}, {t0 + 1, 2}, {t0, 3}, {t0 + 500, 3}};
    for (const auto& step : steps) {
        manage->basic_system_log_push(0x01, "next");
        nvx::HoldTickCount(step.tick);
        const uint64_t fed = nvx::WatchdogFeedCount("truckbusiness.02");
        ASSERT_TRUE(nvx::WaitForWatchdogFeeds("truckbusiness.02", fed + 3, kGenerousMs));
        EXPECT_EQ(batches(), step.batches) << "tick t0 + " << step.tick - t0;
        EXPECT_EQ(nvx::LastWatchdogFeedTick("truckbusiness.02"), step.tick)
            << "each feed gives its pass's tick";
    }
    EXPECT_EQ(nvx::CallCount("JQ_SDK_Device_GetDeviceSerialNumber"), 1u);
    EXPECT_EQ(nvx::CallCount("JQ_SDK_Storage_GetFuseMntPath"), 1u) << "asked on the first pass only";
    EXPECT_EQ(nvx::CallCount("JQ_SDK_Storage_MonitorFuseStatus"), 1u);
    nvx::InjectStorageReport(0, "/mnt/sd1");  // the monitor reports into this manager
    ASSERT_TRUE(nvx::WaitForStorageIdle(kGenerousMs));
    char root[16] = "";
    EXPECT_EQ(manage->basic_get_normal_file_root_dir(root, sizeof(root)), 0);
    EXPECT_STREQ(root, "/mnt/sd1/");
    manage->basic_uninit();
    manage.reset();
}

// ------------------------------------------------------------------------------------------------
// A business on the main cycle's thread or on its own.

TEST_F(Business, SharedThreadRunsCallbacksAndCyclesOnTheCallersTicks) {
    tagGlobalConfig config = MakeGlobalConfig();
    auto manage = std::make_shared<CTruckServiceManage>(&config);
    {
        ProbeBusiness business(manage.get(), manage->basic_get_msg_client(), 3,
                               "shared_probe_name_well_over_31_chars");
        EXPECT_STREQ(business.business_get_name(), "shared_probe_name_well_over_31_");
        EXPECT_EQ(business.business_get_cycle_time(), 100u) << "the default cycle";
        EXPECT_EQ(business.SourceId(), 0u) << "until it starts";
        business.initResult = -5;
        EXPECT_EQ(business.business_get_is_independ(), 0);
        EXPECT_EQ(business.business_start(), -5) << "start answers what business_init answers";
        EXPECT_EQ(business.SourceId(), nvx::SourceIdOf("shared_probe_name_well_over_31_"));
        EXPECT_EQ(nvx::CallCount("OsUtilsCreateThread"), 0u);
        EXPECT_EQ(business.business_independ_thread_func_impl(), 0) << "no thread of its own to run";
        EXPECT_EQ(business.inits.load(), 1);

        char text[] = "first";
        business.Queue(text);
        strcpy(text, "XXXXX");  // the queue keeps its own copy
        business.business_shared_thread_run(50);
        EXPECT_EQ(business.queuedText, "first");
        EXPECT_EQ(business.cycles.load(), 0) << "50 ms after tick 0 is inside the 100 ms cycle";

        business.business_shared_thread_run(100);
        EXPECT_EQ(business.cycles.load(), 1);
        business.business_shared_thread_run(199);
        EXPECT_EQ(business.cycles.load(), 1);
        business.business_shared_thread_run(200);
        EXPECT_EQ(business.cycles.load(), 2);
        business.business_shared_thread_run(100);  // a tick that went back a whole cycle
        EXPECT_EQ(business.cycles.load(), 3);

        EXPECT_EQ(business.business_set_cycle_time(0), 0);
        business.business_shared_thread_run(100);
        business.business_shared_thread_run(100);
        EXPECT_EQ(business.cycles.load(), 5) << "cycle time 0 runs the cycle on every step";

        for (int i = 0; i <= 1024; ++i) {  // one more than the platform's default bound
            business.Queue("q");
        }
        EXPECT_TRUE(Logged("NVXSDK", 1, "asyn callback queue 3 full, call dropped\n"))
            << "the queue has its id";

        EXPECT_EQ(business.business_stop(), 0);
        EXPECT_EQ(business.uninits.load(), 1);
        EXPECT_TRUE(nvx::SleepsOfThisThread().empty()) << "nothing to wait for";
    }
    EXPECT_TRUE(nvx::HasClient("truckbusiness.02")) << "the manager's client outlives the business";
    manage.reset();
}

TEST_F(Business, OwnThreadRunsInitCallbacksEventsAndCyclesOnItsThread) {
    tagGlobalConfig config = MakeGlobalConfig();
    auto manage = std::make_shared<CTruckServiceManage>(&config);
    auto* business = new ProbeBusiness(manage.get(), nullptr, 5, "own_probe", 50);
    ASSERT_EQ(business->business_get_is_independ(), 1);

    business->Queue("early");
    business->business_shared_thread_run(1000);
    EXPECT_EQ(business->queuedText, "") << "the shared step leaves an own-thread business alone";
    EXPECT_EQ(business->cycles.load(), 0);

    EXPECT_EQ(business->business_start(), 0);
    EXPECT_TRUE(Eventually([&] { return business->business_get_thread_state() == 1; }));
    EXPECT_TRUE(nvx::HasClient("own_probe")) << "an own-thread business makes its own client";
    EXPECT_EQ(nvx::ClientDepthAsked("own_probe"), 30u);
    EXPECT_EQ(business->SourceId(), nvx::SourceIdOf("own_probe"));
    EXPECT_TRUE(Eventually([&] { return business->cycles.load() >= 3; }));
    EXPECT_TRUE(nvx::WaitForWatchdogFeeds("own_probe", 3, kGenerousMs));
    bool named = false;
    int tid = 0;
    for (const auto& [id, name] : Tasks()) {
        tid = name == "own_probe" ? id : tid;
    }
    const std::string text = "Thread: Create thread, name = own_probe, pid = " + std::to_string(getpid()) +
                             ", tid = " + std::to_string(tid) + "\n";
    for (const nvx::LogLine& line : nvx::CapturedLogs()) {
        named = named || (line.module == "TRUCK" && line.level == 0 && line.file == "include/CommonDefine" &&
                          line.func == "TRUCK_THREAD_INFO_PRINT" && line.text == text);
    }
    EXPECT_TRUE(named) << "the business thread says its name, pid and tid";

    const char payload[] = {'s', 'p', 'e', 'e', 'd'};
    EXPECT_EQ(nvx::InjectBusEvent(0x7001, payload, sizeof(payload)), 1);
    EXPECT_TRUE(Eventually([&] {
        std::lock_guard<std::mutex> lock(business->mutex);
        return business->eventText == "speed" && business->queuedText == "early";
    }));

    EXPECT_EQ(business->business_stop(), 0);
    EXPECT_EQ(business->business_get_thread_state(), 3);
    EXPECT_EQ(business->uninits.load(), 1);
    {
        std::lock_guard<std::mutex> lock(business->mutex);
        EXPECT_EQ(business->initThread, "own_probe");
        EXPECT_EQ(business->eventThread, "own_probe");
        EXPECT_EQ(business->queuedThread, "own_probe");
        EXPECT_EQ(business->cycleThreads, std::set<std::string>{"own_probe"});
    }
    ASSERT_TRUE(manage->basic_register_business(5, business) == 0);
    manage.reset();
    EXPECT_TRUE(nvx::WaitForThreadsToEnd(kGenerousMs));
    EXPECT_FALSE(nvx::HasClient("own_probe")) << "its client goes with it";
    EXPECT_FALSE(Logged("TRUCK", 2, "Create business thread failed\n"));
}

// The own thread waits 500 ms above a cycle of 500, 100 above 100, else the cycle time; it
// calls the cycle once the tick is a whole cycle time away from the last call.
TEST_F(Business, OwnThreadWaitAndCycleFollowTheCycleTime) {
    const unsigned long long t0 = 7000000000000ULL;
    nvx::SetBusWaitsInstant(true);
    tagGlobalConfig config = MakeGlobalConfig();
    auto manage = std::make_shared<CTruckServiceManage>(&config);
    const struct {
        unsigned long long cycle;
        int wait;
    } rows[] = {{600, 500}, {501, 500}, {500, 100}, {101, 100}, {100, 100}, {80, 80}, {0, 0}};
    unsigned int id = 20;
    for (const auto& row : rows) {
        nvx::HoldTickCount(t0);
        const std::string name = "wait_" + std::to_string(row.cycle);
        ProbeBusiness business(manage.get(), nullptr, ++id, name.c_str(), row.cycle);
        ASSERT_EQ(business.business_start(), 0);
        auto passes = [&name](uint64_t more) {
            return nvx::WaitForWatchdogFeeds(name, nvx::WatchdogFeedCount(name) + more, kGenerousMs);
        };
        ASSERT_TRUE(passes(3));
        if (row.cycle == 0) {
            EXPECT_GE(business.cycles.load(), 2) << "every pass at one tick";
        } else {
            for (const unsigned long long tick : {t0, t0 + row.cycle - 1, t0 + row.cycle}) {
                nvx::HoldTickCount(tick);
                ASSERT_TRUE(passes(3));
                EXPECT_EQ(business.cycles.load(), tick == t0 + row.cycle ? 2 : 1)
                    << name << " at t0 + " << tick - t0;
                EXPECT_EQ(nvx::LastWatchdogFeedTick(name), tick);
            }
        }
        business.business_stop();
        EXPECT_EQ(nvx::BusWaitTimeouts(name), std::set<int>{row.wait}) << name;
    }
    EXPECT_EQ(nvx::CreatedThreads(), (std::vector<std::pair<unsigned int, int>>(7, {0x80000, 1})));
    manage.reset();
}

// ------------------------------------------------------------------------------------------------
// Faults: wiring that cannot work, platform calls that stall, throw or fail, threads that
// start late.

TEST(WiringFaults, EndTheProcessWithStatusOne) {
    // "fast" forks without exec: the device build runs under user-mode emulation, where a
    // re-executed test binary cannot start.
    GTEST_FLAG_SET(death_test_style, "fast");
    nvx::SetLogLevel(0);  // only level 0 reaches standard error
    EXPECT_EXIT(new CTruckServiceManage(nullptr), ::testing::ExitedWithCode(1),
                "\\[APPCOM\\] .*GlobalConfig ptr is null");
    EXPECT_EXIT(ProbeBusiness(nullptr, nullptr, 1, "x"), ::testing::ExitedWithCode(1),
                "\\[APPCOM\\] .*Basic Server manage ptr is null");
    EXPECT_EXIT(
        {
            tagGlobalConfig config = MakeGlobalConfig();
            CTruckServiceManage manager(&config);
            g_refusedAllocations.store(1);  // its queue cannot be had
            ProbeBusiness business(&manager, nullptr, 5, "no_queue");
            _exit(5);
        },
        ::testing::ExitedWithCode(1), "\\[APPCOM\\] .*Asyn callback ptr is null");
    EXPECT_EXIT(
        {
            tagGlobalConfig config = MakeGlobalConfig();
            CTruckServiceManage manager(&config);
            ProbeBusiness business(&manager, nullptr, 5, "no_client");
            g_refusedAllocations.store(1 << 30);  // its own thread's client cannot be had
            business.business_start();
            std::this_thread::sleep_for(std::chrono::milliseconds(kGenerousMs));
            _exit(5);
        },
        ::testing::ExitedWithCode(1), "\\[APPCOM\\] .*Message client manage ptr is null");
}

// A first pass stuck in a platform call (building the business, asking the storage service)
// does not hold up the stop; when the call returns, the pass starts and registers nothing.
TEST_F(ServiceFaults, AStopIsBoundedWhateverAFirstPassCallDoes) {
    for (const char* stuck : {"CAsynCallback", "JQ_SDK_Storage_GetFuseMntPath"}) {
        nvx::Reset();
        nvx::StartLogCapture();
        nvx::CloseGate(stuck);
        ASSERT_EQ(JQ_SDK_Service_Start(&param), 0);
        ASSERT_TRUE(nvx::WaitForCallAtGate(stuck, kGenerousMs)) << stuck;
        nvx::SetSleepsInstant(true);
        EXPECT_TRUE(StopReturnsWhileHeld(stuck, [&] {
            EXPECT_EQ(JQ_SDK_Service_Start(&param), -1) << "a second manager beside the stuck one";
        })) << stuck;
        EXPECT_TRUE(Logged("TRUCK", 1, kStillInUse));
        EXPECT_TRUE(Logged("TRUCK", 1, "Service manage of the last run is still in use\n"));
        ASSERT_TRUE(nvx::WaitForThreadsToEnd(kGenerousMs));
        // A parameter reply to a business_init that ran late may still hold it for a moment.
        EXPECT_TRUE(Eventually([] { return CTruckServiceManage::basic_live_count() == 0; })) << stuck;
        if (std::string(stuck) == "CAsynCallback") {
            EXPECT_EQ(nvx::CallCount("OsUtilsCreateThread"), 1u) << "no business thread";
            EXPECT_EQ(nvx::CallCount("~CAsynCallback"), 1u) << "the business went with its manager";
            EXPECT_EQ(nvx::CallCount("JQ_SDK_Device_MonitorDevSignalData"), 0u);
        }
        EXPECT_EQ(nvx::CallCount("JQ_SDK_Storage_MonitorFuseStatus"), 0u) << stuck;
    }
}

// An allocation that fails while the business is built, or while it asks for its parameters,
// is logged, and the service goes on; the storage monitor is registered once and never
// "withdrawn" with a null callback.
TEST_F(ServiceFaults, AnExceptionOnAThreadIsLoggedAndTheServiceGoesOn) {
    for (const char* thrower : {"CAsynCallback", "JQ_SDK_Global_GetParameter"}) {
        nvx::Reset();
        nvx::StartLogCapture();
        nvx::ThrowBadAllocIn(thrower, 1);
        ASSERT_EQ(JQ_SDK_Service_Start(&param), 0);
        EXPECT_NE(nvx::ParamStoreText().find("\"LANT\":7"), std::string::npos) << "the store is global.bsn";
        const std::string where = std::string(thrower) == "CAsynCallback" ? "business load" : "truckosd";
        EXPECT_TRUE(nvx::WaitForLog(
            [&](const nvx::LogLine& l) {
                return l.level == 0 && l.text == where + " stopped by an exception: std::bad_alloc\n";
            },
            kGenerousMs))
            << thrower;
        EXPECT_TRUE(nvx::WaitForWatchdogFeeds("truckbusiness.02",
                                              nvx::WatchdogFeedCount("truckbusiness.02") + 3, kGenerousMs));
        if (where == "truckosd") {
            EXPECT_TRUE(
                nvx::WaitForWatchdogFeeds("truckosd", nvx::WatchdogFeedCount("truckosd") + 3, kGenerousMs));
        }
        EXPECT_EQ(JQ_SDK_Service_Stop(&param), 0);
        EXPECT_FALSE(Logged("TRUCK", 1, kStillInUse));
        EXPECT_EQ(nvx::CallCount("JQ_SDK_Storage_MonitorFuseStatus"), 1u);
    }
}

// A business thread that overran the stop's wait for it is known to run: the stop does not wait
// a second time for the manager it holds, but says so and goes on. On the simulated clock, so
// that the main cycle has ended by then, as it would on a device.
TEST_F(ServiceFaults, AStopWaitsOnceForABusinessThreadThatOverruns) {
    nvx::SimClockOn(kSimStartMs);
    nvx::CloseGate("JQ_SDK_Device_MonitorDevSignalData");  // inside the OSD business's init
    ASSERT_EQ(JQ_SDK_Service_Start(&param), 0);
    ASSERT_TRUE(nvx::WaitForCallAtGate("JQ_SDK_Device_MonitorDevSignalData", kGenerousMs));
    const size_t before = nvx::SleepsOfThisThread().size();
    EXPECT_EQ(JQ_SDK_Service_Stop(&param), 0);
    const std::vector<unsigned int> sleeps = nvx::SleepsOfThisThread();
    EXPECT_GE(std::count(sleeps.begin() + static_cast<long>(before), sleeps.end(), 20u), 101);
    EXPECT_EQ(std::count(sleeps.begin() + static_cast<long>(before), sleeps.end(), 1u), 0);
    EXPECT_TRUE(Logged("TRUCK", 1, kStillInUse));
    nvx::OpenGate("JQ_SDK_Device_MonitorDevSignalData");
    ASSERT_TRUE(nvx::WaitForThreadsToEnd(kGenerousMs));
    EXPECT_EQ(CTruckServiceManage::basic_live_count(), 0);
    nvx::SimClockOff();
}

// A stop that comes while business_init runs leaves the business_uninit to the business's own
// thread, which runs it once and no cycle.
TEST_F(ServiceFaults, AStopDuringInitLeavesTheUninitToTheBusinessThread) {
    nvx::SetSleepsInstant(true);
    manage = std::make_shared<CTruckServiceManage>(&config);
    auto business = std::make_unique<ProbeBusiness>(manage.get(), nullptr, 5, "init_probe");
    business->holdInit = true;
    EXPECT_EQ(business->business_start(), 0);
    ASSERT_TRUE(Eventually([&] { return business->inits.load() == 1; }));
    EXPECT_EQ(business->business_stop(), 0);
    EXPECT_EQ(business->uninits.load(), 0) << "not on the stopping thread";
    business->Release();
    ASSERT_TRUE(nvx::WaitForThreadsToEnd(kGenerousMs));
    EXPECT_EQ(business->uninits.load(), 1);
    EXPECT_EQ(business->cycles.load(), 0);
}

// The answer of a thread creation is not examined: a vendor's that answers the thread's id on
// success still has the stop wait for the threads, and one whose thread never runs (not
// created, or not yet scheduled when the stop's wait runs out) is waited for once and then let
// go for good, so a new start is taken and a thread that starts late runs in nothing.
TEST_F(ServiceFaults, ThreadCreationAnswersAreNotExamined) {
    nvx::SetCreatedThreadAnswer(4711);
    ASSERT_EQ(JQ_SDK_Service_Start(&param), 0);
    ASSERT_TRUE(nvx::WaitForWatchdogFeeds("truckbusiness.02", 2, kGenerousMs));
    ASSERT_TRUE(nvx::WaitForWatchdogFeeds("truckosd", 2, kGenerousMs));
    EXPECT_EQ(JQ_SDK_Service_Stop(&param), 0);
    const auto feeds = nvx::WatchdogFeeds();
    EXPECT_EQ(CTruckServiceManage::basic_live_count(), 0);
    ASSERT_TRUE(nvx::WaitForThreadsToEnd(kGenerousMs));
    EXPECT_EQ(nvx::WatchdogFeeds(), feeds) << "both threads ended within the stop";

    nvx::SetSleepsInstant(true);
    for (bool created : {false, true}) {
        SCOPED_TRACE(created ? "held before its entry" : "never created");
        if (created) {
            nvx::CloseGate("OsUtilsThreadStart");
        } else {
            nvx::FailCalls("OsUtilsCreateThread", 1);
        }
        const uint64_t inits = nvx::CallCount("JQ_SDK_Basic_Initialize");
        const size_t sleeps = nvx::SleepsOfThisThread().size();
        ASSERT_EQ(JQ_SDK_Service_Start(&param), 0);
        if (created) {
            ASSERT_TRUE(nvx::WaitForCallAtGate("OsUtilsThreadStart", kGenerousMs));
        }
        EXPECT_EQ(JQ_SDK_Service_Stop(&param), 0);
        const std::vector<unsigned int> all = nvx::SleepsOfThisThread();
        EXPECT_EQ(std::vector<unsigned int>(all.begin() + static_cast<long>(sleeps), all.end()),
                  std::vector<unsigned int>(101, 20));
        EXPECT_EQ(CTruckServiceManage::basic_live_count(), 0);
        EXPECT_FALSE(Logged("TRUCK", 1, kStillInUse));
        nvx::OpenGate("OsUtilsThreadStart");
        ASSERT_TRUE(nvx::WaitForThreadsToEnd(kGenerousMs));
        EXPECT_EQ(nvx::CallCount("JQ_SDK_Basic_Initialize"), inits) << "no cycle ran";
    }

    // A business's own thread in the same case: waited for, then let go uninitialised.
    manage = std::make_shared<CTruckServiceManage>(&config);
    auto business = std::make_unique<ProbeBusiness>(manage.get(), nullptr, 5, "late_probe");
    nvx::CloseGate("OsUtilsThreadStart");
    EXPECT_EQ(business->business_start(), 0);
    ASSERT_TRUE(nvx::WaitForCallAtGate("OsUtilsThreadStart", kGenerousMs));
    const size_t sleeps = nvx::SleepsOfThisThread().size();
    EXPECT_EQ(business->business_stop(), 0);
    EXPECT_EQ(nvx::SleepsOfThisThread().size() - sleeps, 101u);
    EXPECT_EQ(business->business_get_thread_state(), 3);
    nvx::OpenGate("OsUtilsThreadStart");
    ASSERT_TRUE(nvx::WaitForThreadsToEnd(kGenerousMs));
    EXPECT_EQ(business->inits.load() + business->uninits.load(), 0);
}

// A business that a stop refuses while it starts is stopped and left to its manager, never
// freed under its own thread: held at the platform's gate past the stop's wait, before its
// entry or inside business_init, the thread comes free after the stop and ends in a live
// business, which goes with the manager when the thread lets go.
TEST_F(ServiceFaults, ABusinessRefusedByAStopOutlivesItsLateThread) {
    for (const char* late : {"OsUtilsThreadStart", "JQ_SDK_Device_MonitorDevSignalData"}) {
        SCOPED_TRACE(late);
        nvx::Reset();
        nvx::StartLogCapture();
        nvx::SetSleepsInstant(true);
        nvx::CloseGate("CAsynCallback");
        ASSERT_EQ(JQ_SDK_Service_Start(&param), 0);
        ASSERT_TRUE(nvx::WaitForCallAtGate("CAsynCallback", kGenerousMs));
        // Past the loader's last stop check: the business's thread exists, its start not yet
        // returned.
        nvx::CloseGate("OsUtilsThreadCreated");
        nvx::CloseGate(late);
        nvx::OpenGate("CAsynCallback");
        ASSERT_TRUE(nvx::WaitForCallAtGate("OsUtilsThreadCreated", kGenerousMs));
        ASSERT_TRUE(nvx::WaitForCallAtGate(late, kGenerousMs));
        EXPECT_TRUE(StopReturnsWhileHeld("OsUtilsThreadCreated"));
        ASSERT_TRUE(Eventually([] { return nvx::RunningThreads() == 1; })) << "the main cycle has ended";
        EXPECT_EQ(CTruckServiceManage::basic_live_count(), std::string(late) == "OsUtilsThreadStart" ? 0 : 1)
            << "kept by the thread inside business_init only";
        nvx::OpenGate(late);
        ASSERT_TRUE(nvx::WaitForThreadsToEnd(kGenerousMs));
        EXPECT_EQ(CTruckServiceManage::basic_live_count(), 0);
    }
}

// A fault that throws on every pass is told once, with what was thrown; after 100 failed passes
// in a row the loop stops feeding the watchdog, so the device restarts the service as it would a
// hung one, and feeds again from the pass after one that succeeds. The same on the main cycle
// and on a business's own thread.
TEST_F(ServiceFaults, APassThatKeepsThrowingStopsTheWatchdogFeed) {
    for (bool own : {false, true}) {
        SCOPED_TRACE(own ? "own thread" : "main cycle");
        nvx::Reset();
        nvx::StartLogCapture();
        nvx::SetBusWaitsInstant(true);
        manage = std::make_shared<CTruckServiceManage>(&config);
        auto* probe = new ProbeBusiness(manage.get(), own ? nullptr : manage->basic_get_msg_client(), 5,
                                        "fault_probe", 0);
        probe->throwCycles = 150;
        ASSERT_EQ(probe->business_start(), 0);
        ASSERT_EQ(manage->basic_register_business(5, probe), 0);
        std::unique_ptr<CycleRunner> cycle(own ? nullptr : new CycleRunner(manage));
        ASSERT_TRUE(Eventually([&] { return probe->cycles.load() >= 170; }));
        EXPECT_EQ(manage->basic_uninit(), 0);
        ASSERT_TRUE(nvx::WaitForThreadsToEnd(kGenerousMs));

        const std::string where = own ? "fault_probe" : "main cycle";
        const std::string client = own ? "fault_probe" : "truckbusiness.02";
        EXPECT_EQ(nvx::WatchdogFeedCount(client), static_cast<uint64_t>(probe->cycles.load() - 51));
        int told = 0;
        for (const nvx::LogLine& line : nvx::CapturedLogs()) {
            told += line.text.find("exception") != std::string::npos ? 1 : 0;
        }
        EXPECT_EQ(told, 1);
        EXPECT_TRUE(
            Logged("TRUCK", 0, where + " pass stopped by an exception: probe fault, the loop goes on\n"));
        EXPECT_TRUE(
            Logged("TRUCK", 0, where + " failed 100 passes in a row, the watchdog is no longer fed\n"));
        EXPECT_TRUE(Logged("TRUCK", 1, where + " runs again after 150 failed passes\n"));
        manage.reset();
    }
}

// The stop releases the global-parameter SDK last, after the manager and its businesses have
// gone.
TEST_F(ServiceFaults, TheGlobalParameterSdkIsReleasedAfterTheManagerHasGone) {
    ASSERT_EQ(JQ_SDK_Service_Start(&param), 0);
    ASSERT_TRUE(nvx::WaitForWatchdogFeeds("truckosd", 1, kGenerousMs));
    nvx::CloseGate("JQ_SDK_Global_Deinitialize");
    auto stop = std::async(std::launch::async, [this] { return JQ_SDK_Service_Stop(&param); });
    ASSERT_TRUE(nvx::WaitForCallAtGate("JQ_SDK_Global_Deinitialize", kGenerousMs));
    EXPECT_EQ(CTruckServiceManage::basic_live_count(), 0);
    EXPECT_FALSE(nvx::HasClient("truckbusiness.02"));
    EXPECT_FALSE(nvx::HasClient("truckosd"));
    EXPECT_EQ(param.ucRunning.load(), 0);
    nvx::OpenGate("JQ_SDK_Global_Deinitialize");
    EXPECT_EQ(stop.get(), 0);
}
