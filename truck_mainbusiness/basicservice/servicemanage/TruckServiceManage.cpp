// Service object, host entry points and the service manager's lifecycle and main cycle.
#include "TruckServiceManage.h"

#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>

#include <new>

#include "CommonDefine.h"
#include "OsUtils.h"
#include "TruckServiceBase.h"

#define TRUCK_LOG_SOURCE "truck_mainbusiness/basicservice/servicemanage/TruckServiceManage"

namespace {

const char kGlobalParamPath[] = "/mnt/tmpfs/global.bsn";
const char kManageClientName[] = "truckbusiness.02";
const unsigned int kClientDepth = 30;
const unsigned int kThreadStackSize = 0x80000;

// Stop requests are polled: 101 polls of 20 ms bound each wait to about 2 s.
const int kStopPolls = 101;
const unsigned int kStopPollMs = 20;

}  // namespace

// ---------------------------------------------------------------------------------------
// Host entry points. A null block is answered before the service object is looked up.

int JQ_SDK_Service_Load(tag_ServiceAttr* attr) {
    if (attr == nullptr) {
        return 0;
    }
    return CTruckService::ServeGetInstance()->ServeLoad(attr);
}

int JQ_SDK_Service_Start(tag_ServiceParam* param) {
    if (param == nullptr) {
        return 0;
    }
    return CTruckService::ServeGetInstance()->ServeStart(param);
}

int JQ_SDK_Service_Stop(tag_ServiceParam* param) {
    if (param == nullptr) {
        return 0;
    }
    return CTruckService::ServeGetInstance()->ServeStop(param);
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

CTruckService::CTruckService() : m_pServiceManage(nullptr), m_threadArgs{nullptr, nullptr} {
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
    tagGlobalConfig* globalConfig = JQ_SDK_Global_Initialize(kGlobalParamPath);
    if (globalConfig == nullptr) {
        return -1;
    }
    JQ_SDK_Global_StartService(globalConfig);

    m_pServiceManage = new (std::nothrow) CTruckServiceManage(globalConfig);
    if (m_pServiceManage == nullptr) {
        return -1;
    }
    m_threadArgs = ThreadArgs{nullptr, nullptr};
    m_threadArgs.pManage = m_pServiceManage;
    m_threadArgs.pParam = param;

    // The cycle thread holds the manager from here; if it cannot be created the hold goes
    // back at once, and stop finds a manager whose cycle never ran.
    m_pServiceManage->basic_hold();
    pthread_t handle;
    if (OsUtilsCreateThread(&handle, service_thread_entry, &m_threadArgs, kThreadStackSize, 1) != 0) {
        m_pServiceManage->basic_release();
    }
    return 0;
}

int CTruckService::ServeStop(tag_ServiceParam* param) {
    if (param == nullptr || m_pServiceManage == nullptr) {
        return 0;
    }
    CTruckServiceManage* manage = m_pServiceManage;
    manage->basic_uninit();
    param->ucRunning.store(0);

    // A thread that has written its stopped state still has to let go of the manager; give
    // it a moment so that the manager normally dies here, before the global SDK goes down.
    if (!manage->basic_wait_sole_holder(50)) {
        TRUCK_LOG(1, "Service manage still in use by a thread, it goes when the thread ends\n");
    }
    m_pServiceManage = nullptr;
    manage->basic_release();
    JQ_SDK_Global_Deinitialize();
    return 0;
}

void* service_thread_entry(void* args) {
    prctl(PR_SET_NAME, "truckservice", 0, 0, 0);
    if (args == nullptr) {
        return nullptr;
    }
    // Copied at once: the record lives in the service object and a later start rewrites it.
    CTruckService::ThreadArgs threadArgs = *static_cast<CTruckService::ThreadArgs*>(args);
    if (threadArgs.pManage == nullptr) {
        return nullptr;
    }
    threadArgs.pManage->basic_thread_cycle(threadArgs.pParam);
    threadArgs.pManage->basic_release();
    return nullptr;
}

// ---------------------------------------------------------------------------------------
// CTruckServiceManage

CTruckServiceManage::CTruckServiceManage(tagGlobalConfig* globalConfig)
    : m_pGlobalConfig(globalConfig),
      m_pMsgClient(nullptr),
      m_uiSourceId(0),
      m_iThreadState(3),
      m_basicSDKHandle(nullptr),
      m_iHolders(1) {
    if (m_pGlobalConfig == nullptr) {
        APPCOM_LOG(0, "GlobalConfig ptr is null\n");
        exit(1);
    }
    m_pMsgClient = new CMsgClientManage(kManageClientName, kClientDepth, nullptr);
    m_uiSourceId = m_pMsgClient->MSGGenerateSourceId(kManageClientName);
}

CTruckServiceManage::~CTruckServiceManage() {
    for (auto& entry : m_mapBusiness) {
        delete entry.second;
        entry.second = nullptr;
    }
    m_mapBusiness.clear();
    delete m_pMsgClient;
    m_pMsgClient = nullptr;
}

void CTruckServiceManage::basic_hold() {
    m_iHolders.fetch_add(1);
}

void CTruckServiceManage::basic_release() {
    if (m_iHolders.fetch_sub(1) == 1) {
        delete this;
    }
}

bool CTruckServiceManage::basic_wait_sole_holder(int polls) {
    for (int i = 0; m_iHolders.load() > 1; ++i) {
        if (i >= polls) {
            return false;
        }
        OsUtilsSleep(1);
    }
    return true;
}

int CTruckServiceManage::basic_register_business(unsigned int id, CTruckServiceBase* business) {
    if (business == nullptr || m_mapBusiness.count(id) != 0) {
        return -1;
    }
    m_mapBusiness[id] = business;
    return 0;
}

int CTruckServiceManage::basic_init() {
    m_basicSDKHandle.store(JQ_SDK_Basic_Initialize(0, 0));
    if (m_basicSDKHandle.load() == nullptr) {
        TRUCK_LOG(0, "JQ_SDK_Basic_Initialize failed.\n");
        return -1;
    }
    return 0;
}

int CTruckServiceManage::basic_thread_cycle(tag_ServiceParam* param) {
    // A stop that came before this thread got going has already written 2: keep it, or the
    // cycle would run on after the stop has given up waiting for it.
    int32_t expected = 3;
    m_iThreadState.compare_exchange_strong(expected, 1);
    basic_init();
    while (m_iThreadState.load() == 1) {
        const unsigned long long now = OsUtilsGetTickCount();
        m_pMsgClient->MSGWaitForEvent(50);
        m_pMsgClient->MSGFeedWatchDog(now);

        for (auto& entry : m_mapBusiness) {
            CTruckServiceBase* business = entry.second;
            if (business != nullptr && business->business_get_is_independ() == 0) {
                business->business_shared_thread_run(now);
            }
        }
        if (param != nullptr) {
            param->ucRunning.store(1);
        }
    }
    m_iThreadState.store(3);
    return 0;
}

int CTruckServiceManage::basic_uninit() {
    for (auto& entry : m_mapBusiness) {
        if (entry.second != nullptr) {
            entry.second->business_stop();
        }
    }
    JQ_BASIC_HANDLE handle = m_basicSDKHandle.load();
    if (handle != nullptr) {
        JQ_SDK_Basic_Deinitialize(handle);
    }
    m_iThreadState.store(2);
    for (int i = 0; i < kStopPolls && m_iThreadState.load() != 3; ++i) {
        OsUtilsSleep(kStopPollMs);
    }
    return 0;
}
