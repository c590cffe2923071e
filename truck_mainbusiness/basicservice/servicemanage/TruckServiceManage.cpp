// Service object, host entry points and the service manager's lifecycle and main cycle.
#include "TruckServiceManage.h"

#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>

#include <algorithm>
#include <new>

#include "CommonDefine.h"
#include "OsUtils.h"
#include "TruckLockCheck.h"
#include "TruckServiceBase.h"

namespace {

const char kGlobalParamPath[] = "/mnt/tmpfs/global.bsn";
const char kManageClientName[] = "truckbusiness.02";

const int kSystemLogEvent = 0x1134;
const int kSystemLogGroups = 3;
const size_t kSystemLogQueueMax = 501;
const size_t kSystemLogBatchMax = 50;
const size_t kSystemLogHeader = 8;

// Process-wide: the tick of the last once-a-second step of the main cycle.
std::atomic<unsigned long long> s_ullLastWriteTick{0};
// Managers not yet destroyed, counting one that outlived its stop.
std::atomic<int> s_iLiveManages{0};

}  // namespace

// ---------------------------------------------------------------------------------------
// Host entry points. A null block is answered before the service object is looked up.

int JQ_SDK_Service_Load(tag_ServiceAttr* attr) {
    if (attr == nullptr) {
        return 0;
    }
    try {
        return CTruckService::ServeGetInstance()->ServeLoad(attr);
    } catch (...) {
        return -1;  // nothing may unwind into the host, which is not C++
    }
}

int JQ_SDK_Service_Start(tag_ServiceParam* param) {
    if (param == nullptr) {
        return 0;
    }
    try {
        return CTruckService::ServeGetInstance()->ServeStart(param);
    } catch (...) {
        return -1;  // nothing may unwind into the host, which is not C++
    }
}

int JQ_SDK_Service_Stop(tag_ServiceParam* param) {
    if (param == nullptr) {
        return 0;
    }
    try {
        return CTruckService::ServeGetInstance()->ServeStop(param);
    } catch (...) {
        return -1;  // nothing may unwind into the host, which is not C++
    }
}

// ---------------------------------------------------------------------------------------
// CTruckService

CTruckService* CTruckService::m_pManageInstance = nullptr;

CTruckService* CTruckService::ServeGetInstance() {
    if (m_pManageInstance == nullptr) {
        m_pManageInstance = new CTruckService();
    }
    return m_pManageInstance;
}

bool CTruckService::ServeHasInstance() {
    return m_pManageInstance != nullptr;
}

CTruckService::CTruckService() : m_pServiceManage(nullptr) {
    memset(&m_serviceAttr, 0, sizeof(m_serviceAttr));
    StringCopy(m_serviceAttr.szServiceName, sizeof(m_serviceAttr.szServiceName), "trukservice");
    StringCopy(m_serviceAttr.szServiceType, sizeof(m_serviceAttr.szServiceType), "business");
}

CTruckService::~CTruckService() {
    // A scratch block, so that the host's own block is not written after it may be gone.
    tag_ServiceParam scratch;
    scratch.ucReserved0 = 0;
    scratch.ucRunning.store(0);
    ServeStop(&scratch);
}

int CTruckService::ServeLoad(tag_ServiceAttr* attr) {
    if (attr == nullptr) {
        return -1;
    }
    memcpy(attr, &m_serviceAttr, sizeof(m_serviceAttr));
    return 0;
}

int CTruckService::ServeStart(tag_ServiceParam* param) {
    if (param == nullptr) {
        return -1;
    }
    // A second start beside a running manager would run two main cycles over one device;
    // the host must stop first.
    if (m_pServiceManage != nullptr) {
        TRUCK_LOG(1, "Service is already started\n");
        return -1;
    }
    // A manager whose thread overran the last stop is still alive: a new one beside it would
    // share the device with it.
    if (CTruckServiceManage::basic_live_count() > 0) {
        TRUCK_LOG(1, "Service manage of the last run is still in use\n");
        return -1;
    }
    tagGlobalConfig* globalConfig = JQ_SDK_Global_Initialize(kGlobalParamPath);
    if (globalConfig == nullptr) {
        return -1;
    }
    JQ_SDK_Global_StartService(globalConfig);

    CTruckServiceManage* created = new (std::nothrow) CTruckServiceManage(globalConfig);
    if (created == nullptr) {
        return -1;
    }
    m_manageOwner.reset(created);
    m_pServiceManage = created;
    m_pServiceManage->basic_launch_cycle(param);
    return 0;
}

// Stops in the order the host expects: the manager is uninitialised, the host's running byte
// cleared, the manager destroyed, and only then the global-parameter SDK released. A
// parameter watch that the SDK calls meanwhile finds its business unlisted or its manager
// gone, and returns (see the OSD business's WithLive).
int CTruckService::ServeStop(tag_ServiceParam* param) {
    if (param == nullptr || m_pServiceManage == nullptr) {
        return 0;
    }
    CTruckServiceManage* manage = m_pServiceManage;
    manage->basic_uninit();
    param->ucRunning.store(0);

    // Threads that have written their stopped state still have to let go of the manager, and
    // a platform callback running in a business holds it too; wait for them (bounded), so that
    // the manager normally dies here. A thread that overran its stop wait keeps the manager
    // alive, and the manager then dies with that thread.
    std::shared_ptr<CTruckServiceManage> owner = std::move(m_manageOwner);
    m_pServiceManage = nullptr;
    bool sole = manage->basic_threads_stopped();
    for (unsigned int i = 0; sole && owner.use_count() > 1; ++i) {
        if (i >= kTruckStopPolls * kTruckStopPollMs) {
            sole = false;
            break;
        }
        OsUtilsSleep(1);
    }
    if (!sole) {
        TRUCK_LOG(1, "Service manage still in use by a thread, it goes when the thread ends\n");
    }
    owner.reset();

    JQ_SDK_Global_Deinitialize();
    return 0;
}

void* service_thread_entry(void* args) {
    prctl(PR_SET_NAME, "truckservice", 0, 0, 0);
    TruckThreadTicket ticket;
    if (!TruckTakeThreadTicket(args, ticket)) {
        return nullptr;  // withdrawn by a stop that gave up on this thread
    }
    // Held to the last step: the manager goes, at the earliest, when this share does.
    const std::shared_ptr<CTruckServiceManage> hold = std::move(ticket.hold);
    CTruckServiceManage* manage = static_cast<CTruckServiceManage*>(ticket.target);
    tag_ServiceParam* param = static_cast<tag_ServiceParam*>(ticket.extra);
    TruckGuardThread("truckservice", [manage, param] { manage->basic_thread_cycle(param); });
    return nullptr;
}

// ---------------------------------------------------------------------------------------
// CTruckServiceManage

CTruckServiceManage::CTruckServiceManage(tagGlobalConfig* globalConfig)
    : m_pGlobalConfig(globalConfig),
      m_pMsgClient(nullptr),
      m_uiSourceId(0),
      m_uiRemoteTaskListState(0),
      m_iThreadState(kTruckThreadStopped),
      m_pCycleTicket(nullptr),
      m_cycleThread(pthread_t()),
      m_basicSDKHandle(nullptr),
      m_bBusinessLoaded(false),
      m_bStopRequested(false) {
    s_iLiveManages.fetch_add(1);
    memset(m_peripheralConfig, 0, sizeof(m_peripheralConfig));
    memset(&m_serialNumberInfo, 0, sizeof(m_serialNumberInfo));
    memset(&m_chnAlarmState, 0, sizeof(m_chnAlarmState));
    memset(&m_chipInfo, 0, sizeof(m_chipInfo));
    // Until the storage service first reports, no path is known.
    memset(&m_fuseMntPath, 0, sizeof(m_fuseMntPath));
    m_fuseMntPath.iResult = -10;
    basic_storage_target(this, true);
    if (m_pGlobalConfig == nullptr) {
        APPCOM_LOG(0, "GlobalConfig ptr is null\n");
        exit(1);
    }
    m_pMsgClient = new (std::nothrow) CMsgClientManage(kManageClientName, kTruckClientDepth, nullptr);
    if (m_pMsgClient == nullptr) {
        APPCOM_LOG(0, "Message client manage ptr is null\n");
        exit(1);
    }
    m_uiSourceId = m_pMsgClient->MSGGenerateSourceId(kManageClientName);
}

CTruckServiceManage::~CTruckServiceManage() {
    // The storage service must not report into a manager that is gone. Its monitor stays:
    // the platform promises no way to withdraw one.
    basic_storage_target(this, false);
    for (auto& entry : m_mapBusiness) {
        delete entry.second;
        entry.second = nullptr;
    }
    m_mapBusiness.clear();
    for (CTruckServiceBase* business : m_retiredBusiness) {
        delete business;
    }
    m_retiredBusiness.clear();
    delete m_pMsgClient;
    m_pMsgClient = nullptr;
    s_iLiveManages.fetch_sub(1);
}

int CTruckServiceManage::basic_live_count() {
    return s_iLiveManages.load();
}

bool CTruckServiceManage::basic_threads_stopped() {
    if (m_iThreadState.load() != kTruckThreadStopped) {
        return false;
    }
    auto stopped = [](const CTruckServiceBase* business) {
        return business == nullptr || business->business_get_is_independ() == 0 ||
               business->business_get_thread_state() == kTruckThreadStopped;
    };
    MutexLocker locker(m_runStateMutex);
    for (const auto& entry : m_mapBusiness) {
        if (!stopped(entry.second)) {
            return false;
        }
    }
    return std::all_of(m_retiredBusiness.begin(), m_retiredBusiness.end(), stopped);
}

// The businesses in ascending id order, as a copy: the first pass may still enter one.
std::vector<CTruckServiceBase*> CTruckServiceManage::basic_business_list() {
    std::vector<CTruckServiceBase*> list;
    MutexLocker locker(m_runStateMutex);
    for (auto& entry : m_mapBusiness) {
        if (entry.second != nullptr) {
            list.push_back(entry.second);
        }
    }
    return list;
}

bool CTruckServiceManage::basic_may_write_map() const {
    const int32_t state = m_iThreadState.load();
    return state == kTruckThreadStopped || state == kTruckThreadStarting ||
           pthread_equal(m_cycleThread.load(), pthread_self());
}

int CTruckServiceManage::basic_register_business(unsigned int id, CTruckServiceBase* business) {
    TRUCK_CHECK(basic_may_write_map());
    MutexLocker locker(m_runStateMutex);
    if (business == nullptr || m_mapBusiness.count(id) != 0 || m_bStopRequested) {
        return -1;
    }
    m_mapBusiness[id] = business;
    return 0;
}

void CTruckServiceManage::basic_retire_business(CTruckServiceBase* business) {
    if (business == nullptr) {
        return;
    }
    MutexLocker locker(m_runStateMutex);
    m_retiredBusiness.push_back(business);
}

void CTruckServiceManage::basic_launch_cycle(tag_ServiceParam* param) {
    m_iThreadState.store(kTruckThreadStarting);
    TruckThreadTicket ticket;
    ticket.hold = shared_from_this();
    ticket.target = this;
    ticket.extra = param;
    m_pCycleTicket = TruckLaunchThread(std::move(ticket), service_thread_entry);
}

bool CTruckServiceManage::basic_stop_requested() {
    MutexLocker locker(m_runStateMutex);
    return m_bStopRequested;
}

int CTruckServiceManage::basic_init() {
    basic_load_peripheral_config();
    BasicAnalyzeSystemconfig();
    m_basicSDKHandle.store(JQ_SDK_Basic_Initialize(0, 0));
    if (m_basicSDKHandle.load() == nullptr) {
        TRUCK_LOG(0, "JQ_SDK_Basic_Initialize failed.\n");
        return -1;
    }
    return 0;
}

int CTruckServiceManage::basic_thread_cycle(tag_ServiceParam* param) {
    // A stop that came before this thread got going has given up on it or is waiting for
    // state 3: the cycle must not start after it.
    {
        MutexLocker locker(m_runStateMutex);
        if (m_bStopRequested) {
            m_iThreadState.store(kTruckThreadStopped);
            return 0;
        }
        m_cycleThread.store(pthread_self());
        m_iThreadState.store(kTruckThreadRunning);
    }
    TruckGuardThread("basic_init", [this] { basic_init(); });
    TruckPassFaults faults("main cycle");
    while (m_iThreadState.load() == kTruckThreadRunning) {
        const unsigned long long now = OsUtilsGetTickCount();
        // What a pass throws (an allocation that failed) ends that pass, not the cycle.
        faults.Run([this, now, &faults] {
            m_pMsgClient->MSGWaitForEvent(50);
            if (faults.FeedsWatchdog()) {
                m_pMsgClient->MSGFeedWatchDog(now);
            }

            if (!m_bBusinessLoaded) {
                basic_first_pass();
            }

            if (TruckTickDistance(now, s_ullLastWriteTick.load()) > 999) {
                s_ullLastWriteTick.store(now);
                BasicGetDeviceInfo();
                basic_system_log_write();
            }

            for (auto& entry : m_mapBusiness) {
                CTruckServiceBase* business = entry.second;
                if (business != nullptr && business->business_get_is_independ() == 0) {
                    business->business_shared_thread_run(now);
                }
            }
        });
        // Never after the stop has asked to end: by then the host's block may be gone.
        if (param != nullptr) {
            MutexLocker locker(m_runStateMutex);
            if (m_iThreadState.load() == kTruckThreadRunning) {
                param->ucRunning.store(1);
            }
        }
    }
    // A stop that read the handle before basic_init stored it left the release to us.
    JQ_BASIC_HANDLE handle = m_basicSDKHandle.exchange(nullptr);
    if (handle != nullptr) {
        JQ_SDK_Basic_Deinitialize(handle);
    }
    m_iThreadState.store(kTruckThreadStopped);
    return 0;
}

// Loads the businesses and subscribes to the storage service. Any of these platform calls may
// take long, and a stop must not wait for them, so no lock is held across one: each step asks
// first whether a stop has come, and a pass that returns after the stop starts and registers
// nothing more (a business started meanwhile is stopped by basic_start_business).
void CTruckServiceManage::basic_first_pass() {
    TRUCK_CHECK(pthread_equal(m_cycleThread.load(), pthread_self()));
    m_bBusinessLoaded = true;
    if (basic_stop_requested()) {
        return;
    }
    basic_load_business();
    if (basic_stop_requested()) {
        return;
    }
    basic_request_storage_mntputh();
    if (basic_stop_requested()) {
        return;
    }
    JQ_SDK_Storage_MonitorFuseStatus(callback_basic_request_storage_mntputh, this, 0);
}

int CTruckServiceManage::basic_uninit() {
    {
        MutexLocker locker(m_runStateMutex);
        m_bStopRequested = true;
    }
    for (CTruckServiceBase* business : basic_business_list()) {
        business->business_stop();
    }
    // Taken, not just read: whoever takes the handle releases it, once (see the cycle's end).
    JQ_BASIC_HANDLE handle = m_basicSDKHandle.exchange(nullptr);
    if (handle != nullptr) {
        JQ_SDK_Basic_Deinitialize(handle);
    }
    // A cycle that has ended is not waited for.
    bool running = false;
    {
        MutexLocker locker(m_runStateMutex);
        running = m_iThreadState.load() != kTruckThreadStopped;
        if (running) {
            m_iThreadState.store(kTruckThreadStopAsked);
        }
    }
    if (!running) {
        return 0;
    }
    TruckWaitThreadStopped(m_iThreadState, m_pCycleTicket);
    return 0;
}

// ---------------------------------------------------------------------------------------
// System log. The mutex is held across the sends, so records leave each group in the order
// they were pushed.

int CTruckServiceManage::basic_system_log_push(unsigned char groupMask, JQSystemLogFrame& frame) {
    MutexLocker locker(m_systemLogMutex);
    for (int group = 0; group < kSystemLogGroups; ++group) {
        if ((groupMask & (1u << group)) == 0) {
            continue;
        }
        std::deque<JQSystemLogFrame>& queue = m_systemLogQueue[group];
        if (queue.size() >= kSystemLogQueueMax) {
            queue.pop_front();
        }
        queue.push_back(frame);
    }
    return 0;
}

int CTruckServiceManage::basic_system_log_push(unsigned char groupMask, const char* text) {
    if (text == nullptr) {
        TRUCK_LOG(0, "write log error\n");
        return -1;
    }
    JQSystemLogFrame frame;
    memset(&frame, 0, sizeof(frame));
    StringCopy(frame.szLogDisplay, sizeof(frame.szLogDisplay), text);
    JQ_SDK_DateTime_GetLocalBrokendownTime(&frame.stDateTime);
    return basic_system_log_push(groupMask, frame);
}

// A zeroed log message with its group mask and record count filled in; null (and logged)
// when there is no memory for it. The caller frees it.
unsigned char* CTruckServiceManage::NewLogBatch(uint32_t groupMaskWord, size_t count) {
    const size_t length = kSystemLogHeader + sizeof(JQSystemLogFrame) * count;
    unsigned char* buffer = static_cast<unsigned char*>(malloc(length));
    if (buffer == nullptr) {
        TRUCK_LOG(0, "malloc out of memory\n");
        return nullptr;
    }
    memset(buffer, 0, length);
    TruckPutLE32(buffer, groupMaskWord);
    TruckPutLE32(buffer + 4, static_cast<uint32_t>(count));
    return buffer;
}

void CTruckServiceManage::SendLogBatch(const unsigned char* buffer, size_t length) {
    m_pMsgClient->MSGSendMessage(0, kSystemLogEvent, 0, reinterpret_cast<const char*>(buffer),
                                 static_cast<int>(length), static_cast<int>(m_uiSourceId));
}

int CTruckServiceManage::basic_system_log_write() {
    MutexLocker locker(m_systemLogMutex);
    for (int group = 0; group < kSystemLogGroups; ++group) {
        std::deque<JQSystemLogFrame>& queue = m_systemLogQueue[group];
        if (queue.empty()) {
            continue;
        }
        const size_t count = queue.size() < kSystemLogBatchMax ? queue.size() : kSystemLogBatchMax;
        const size_t length = kSystemLogHeader + sizeof(JQSystemLogFrame) * count;
        unsigned char* buffer = NewLogBatch(1u << group, count);
        if (buffer == nullptr) {
            return -1;
        }
        for (size_t i = 0; i < count; ++i) {
            memcpy(buffer + kSystemLogHeader + i * sizeof(JQSystemLogFrame), &queue.front(),
                   sizeof(JQSystemLogFrame));
            queue.pop_front();
        }
        SendLogBatch(buffer, length);
        TRUCK_LOG(4, "Write record log, group = %d, writeCount = %d, writeLen = %d\n", 1 << group,
                  static_cast<int>(count), static_cast<int>(length));
        free(buffer);
    }
    return 0;
}

int CTruckServiceManage::WriteSystemLog(unsigned char groupMask, JQSystemLogFrame frame) {
    // The record is the caller's: its text may fill all 128 bytes without a terminator.
    char text[sizeof(frame.szLogDisplay) + 1];
    memcpy(text, frame.szLogDisplay, sizeof(frame.szLogDisplay));
    text[sizeof(frame.szLogDisplay)] = '\0';

    MutexLocker locker(m_systemLogMutex);
    const size_t length = kSystemLogHeader + sizeof(JQSystemLogFrame);
    for (int group = 0; group < kSystemLogGroups; ++group) {
        if ((groupMask & (1u << group)) == 0) {
            continue;
        }
        unsigned char* buffer = NewLogBatch(1u << group, 1);
        if (buffer == nullptr) {
            return -1;
        }
        memcpy(buffer + kSystemLogHeader, &frame, sizeof(frame));
        SendLogBatch(buffer, length);
        TRUCK_LOG(3, "Write record log, group = %d, szLogDisplay = %s\n", 1 << group, text);
        free(buffer);
    }
    return 0;
}
