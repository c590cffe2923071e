// The simulated device itself: what the plug-in and the tests rely on from the bus, the
// callback queue and the watchdog.
#include <string.h>

#include <string>
#include <thread>

#include "AsynCallback.h"
#include "JQ_SDK_Basic.h"
#include "JQ_SDK_Device.h"
#include "JQ_LOG.h"
#include "JQ_SDK_Global.h"
#include "MsgClientManage.h"
#include "TestSupport.h"
#include "TruckServiceManage.h"

namespace {

struct Receiver {
    std::string got;
    int calls = 0;
    void OnEvent(const char* data, int length) {
        got.assign(data, static_cast<size_t>(length));
        ++calls;
    }
};

using Bus = DeviceTest;
using Watchdog = DeviceTest;
using PlatformThreads = DeviceTest;
using Log = DeviceTest;

void Ignore(const char*, int, void*, void*) {}

}  // namespace

TEST_F(Bus, SendCopiesRecordsAndDeliversToRegisteredClientsOnly) {
    CMsgClientManage sender("sender", 30, nullptr);
    CMsgClientManage listener("listener", 30, nullptr);
    Receiver receiver;
    const int source = static_cast<int>(listener.MSGGenerateSourceId("listener"));
    ASSERT_EQ(listener.MSGEventRegister(source, 0x1234, &receiver, &Receiver::OnEvent), 0);

    char payload[] = "abc";
    ASSERT_EQ(sender.MSGSendMessage(0, 0x1234, 0, payload, 3, 77), 0);
    memset(payload, 'X', 3);  // the bus holds its own copy
    ASSERT_EQ(sender.MSGSendMessage(0, 0x9999, 0, payload, 0, 77), 0);
    EXPECT_EQ(sender.MSGSendMessage(0, 0x1234, 0, payload, -1, 77), -1);

    const std::vector<nvx::BusMessage> sent = nvx::SentMessages();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].client, "sender");
    EXPECT_EQ(sent[0].source, 77u);
    EXPECT_EQ(sent[0].event, 0x1234);
    EXPECT_EQ(std::string(sent[0].payload.begin(), sent[0].payload.end()), "abc");
    EXPECT_TRUE(sent[1].payload.empty());

    EXPECT_EQ(listener.MSGWaitForEvent(0), 1) << "only the registered event is queued";
    EXPECT_EQ(receiver.got, "abc");

    ASSERT_EQ(listener.MSGEventUnRegister(source, 0x1234), 0);
    EXPECT_EQ(nvx::InjectBusEvent(0x1234, "def", 3), 0);
    EXPECT_EQ(listener.MSGWaitForEvent(0), 0);
    EXPECT_EQ(receiver.calls, 1);
}

TEST_F(Bus, WaitDeliversOnTheWaitingThreadAndReturnsAtItsTimeOut) {
    CMsgClientManage listener("listener", 30, nullptr);
    Receiver receiver;
    listener.MSGEventRegister(1, 0x42, &receiver, &Receiver::OnEvent);
    EXPECT_EQ(listener.MSGWaitForEvent(20), 0) << "nothing queued: back after the time-out";

    std::thread injector([] { nvx::InjectBusEvent(0x42, "late", 4); });
    int delivered = 0;
    for (int i = 0; i < 1000 && delivered == 0; ++i) {
        delivered = listener.MSGWaitForEvent(10);
    }
    injector.join();
    EXPECT_EQ(delivered, 1);
    EXPECT_EQ(receiver.got, "late");
}

TEST_F(Bus, SourceIdsAreStablePerName) {
    CMsgClientManage client("any", 30, nullptr);
    EXPECT_EQ(client.MSGGenerateSourceId("truckbusiness.02"), client.MSGGenerateSourceId("truckbusiness.02"));
    EXPECT_NE(client.MSGGenerateSourceId("truckbusiness.02"), client.MSGGenerateSourceId("osd"));
    EXPECT_NE(client.MSGGenerateSourceId(""), 0u);
}

TEST_F(Bus, CallbackQueueRefusesUnusableNodesAndBoundsItsLength) {
    struct Sink {
        int calls = 0;
        void On(std::vector<AsynCallbackParaNode_t>&) { ++calls; }
    } sink;
    CAsynCallback queue(1, 2, 0);
    AsynCallbackParaNode_t bad = {nullptr, 5, 0};
    EXPECT_EQ(queue.AsynCallbackAdd(1, &sink, &Sink::On, bad), -1);
    AsynCallbackParaNode_t empty = {nullptr, 0, 0};
    EXPECT_EQ(queue.AsynCallbackAdd(1, &sink, &Sink::On, empty), 0);
    EXPECT_EQ(queue.AsynCallbackAdd(0, &sink, &Sink::On), 0);
    EXPECT_EQ(queue.AsynCallbackAdd(0, &sink, &Sink::On), -1) << "full at two entries";
    EXPECT_EQ(queue.AsynCallbackExecute(), 2);
    EXPECT_EQ(sink.calls, 2);
}

TEST_F(Watchdog, ReportsAClientThatStopsFeedingOncePerSilence) {
    nvx::SetWatchdogTimeoutMs(50);
    tagGlobalConfig* config = JQ_SDK_Global_Initialize("/mnt/tmpfs/global.bsn");
    ASSERT_NE(config, nullptr);
    JQ_SDK_Global_StartService(config);
    {
        CMsgClientManage never("never_fed", 30, nullptr);
        CMsgClientManage client("quiet_one", 30, nullptr);
        client.MSGFeedWatchDog(0);
        auto warned = [](const nvx::LogLine& line) {
            return line.module == "NVXSDK" && line.text.find("quiet_one has not fed") != std::string::npos;
        };
        EXPECT_TRUE(nvx::WaitForLog(warned, kGenerousMs));
        client.MSGFeedWatchDog(0);
        int warnings = 0;  // WaitForLog offers each captured line once, in order
        EXPECT_TRUE(nvx::WaitForLog(
            [&](const nvx::LogLine& line) {
                warnings += warned(line) ? 1 : 0;
                return warnings == 2;
            },
            kGenerousMs))
            << "feeding again re-arms the report";
    }
    JQ_SDK_Global_Deinitialize();
    for (const nvx::LogLine& line : nvx::CapturedLogs()) {
        EXPECT_EQ(line.text.find("never_fed"), std::string::npos) << "a client that never fed is not watched";
    }
}

// %n shows whether a line was formatted at all: a line that neither the print level, a
// capture nor an observer takes is not.
TEST_F(Log, IsFormattedOnlyWhenSomethingTakesIt) {
    int formatted = -1;
    nvx::StopLogCapture();  // printing is off in every test
    EXPECT_EQ(JQ_LOG_Output("TRUCK", 0, "file", "func", 1, "ab%n\n", &formatted), 0);
    EXPECT_EQ(JQ_LOG_Format(0, "ab%n\n", &formatted), 0);
    EXPECT_EQ(formatted, -1);
    int observed = 0;
    nvx::SetLogObserver([&observed](const nvx::LogLine& line) { observed += line.text == "ab\n" ? 1 : 0; });
    JQ_LOG_Output("TRUCK", 4, "file", "func", 1, "ab%n\n", &formatted);
    EXPECT_EQ(formatted, 2);
    nvx::SetLogObserver(nullptr);
    nvx::StartLogCapture();
    JQ_LOG_Format(4, "abc%n\n", &formatted);
    EXPECT_EQ(formatted, 3);
    EXPECT_EQ(observed, 1);
    EXPECT_TRUE(Logged("", 4, "abc\n"));
}

// A platform thread is named for what it serves, not after whichever thread first needed it:
// after a stop, no thread may pass for the service's own.
TEST_F(PlatformThreads, CarryTheirOwnNamesAndNoneOutlivesTheStopUnderTheServicesName) {
    tag_ServiceParam param;
    param.ucRunning.store(0);
    ASSERT_EQ(JQ_SDK_Service_Start(&param), 0);
    ASSERT_TRUE(Eventually([] { return nvx::CallCount("JQ_SDK_Storage_GetFuseMntPath") == 1; }));
    int handle = 0;
    const char request[] = R"({"PARAMETER":{"MDVR":{"TIMEP":"?"}}})";
    EXPECT_EQ(JQ_SDK_Global_GetParameter(request, sizeof(request) - 1, Ignore, nullptr, nullptr), 0);
    EXPECT_EQ(JQ_SDK_Device_MonitorDevSignalData(Ignore, &handle, 0), 0);
    EXPECT_EQ(JQ_SDK_Basic_Peripheral_MonitorCanPortEvent(&handle, Ignore, &handle, 0), 0);
    nvx::InjectDevSignal("{}", 2);
    nvx::InjectCanRecord("\x01", 1);
    EXPECT_TRUE(nvx::WaitForStorageIdle(kGenerousMs) && nvx::WaitForParamIdle(kGenerousMs));
    EXPECT_EQ(CountThreads("nvx-watchdog"), 1);
    EXPECT_EQ(JQ_SDK_Service_Stop(&param), 0);
    EXPECT_TRUE(Eventually([] { return CountThreads("truckservice") == 0; }));
    // A platform thread names itself once it runs, which may be after its first record.
    for (const char* name : {"nvx-storage", "nvx-param", "nvx-devsignal", "nvx-can"}) {
        EXPECT_TRUE(Eventually([name] { return CountThreads(name) == 1; })) << name;
    }
    EXPECT_EQ(JQ_SDK_Device_MonitorDevSignalData(nullptr, &handle, 0), 0);
    EXPECT_EQ(JQ_SDK_Basic_Peripheral_MonitorCanPortEvent(&handle, nullptr, &handle, 0), 0);
}
