// Business base class: the own-thread loop, the shared-thread step, start and stop.
#include "TruckServiceBase.h"

#include <stdlib.h>
#include <string.h>

#include <new>

#include "CommonDefine.h"
#include "OsUtils.h"
#include "TruckServiceManage.h"

namespace {

// The own thread's bus wait: long enough to idle, short enough to keep the cycle on time.
int EventWaitMs(unsigned long long cycleTime) {
    if (cycleTime > 500) {
        return 500;
    }
    if (cycleTime > 100) {
        return 100;
    }
    return static_cast<int>(cycleTime);
}

}  // namespace

CTruckServiceBase::CTruckServiceBase(CTruckServiceManage* manager, CMsgClientManage* client, unsigned int id,
                                     char* name, unsigned char /*type*/, Json::Value& param)
    : m_uiBusinessId(id),
      m_jsonParam(param),
      m_uiSourceId(0),
      m_ullCycleTime(100),
      m_ullLastRunTime(0),
      m_pMsgClient(client),
      m_pServiceManage(manager),
      m_pAsynCallback(nullptr),
      m_bIndependThread(0),
      m_iThreadState(3) {
    StringCopy(m_szBusinessName, sizeof(m_szBusinessName), name != nullptr ? name : "");
    if (m_pServiceManage == nullptr) {
        APPCOM_LOG(0, "Basic Server manage ptr is null\n");
        exit(1);
    }
    m_bIndependThread = (client == nullptr) ? 1 : 0;
    m_pAsynCallback = new (std::nothrow) CAsynCallback(id, 0, 0);
    if (m_pAsynCallback == nullptr) {
        APPCOM_LOG(0, "Asyn callback ptr is null\n");
        exit(1);
    }
}

CTruckServiceBase::~CTruckServiceBase() {
    if (m_bIndependThread != 0 && m_pMsgClient != nullptr) {
        delete m_pMsgClient;
        m_pMsgClient = nullptr;
    }
    delete m_pAsynCallback;
    m_pAsynCallback = nullptr;
}

int CTruckServiceBase::business_init() {
    return 0;
}
int CTruckServiceBase::business_uninit() {
    return 0;
}
int CTruckServiceBase::business_cycle_running(unsigned long long /*nowMs*/) {
    return 0;
}

int CTruckServiceBase::business_set_cycle_time(unsigned long long ms) {
    m_ullCycleTime = ms;
    return 0;
}

int CTruckServiceBase::business_add_asyn_callback(const char* /*data*/, int /*length*/, void* /*object*/,
                                                  AsynMember /*member*/) {
    return 0;
}

int CTruckServiceBase::business_start() {
    if (m_bIndependThread != 0) {
        m_iThreadState.store(0);
        // The thread holds the manager (and so this business) until its last step.
        m_threadHold = m_pServiceManage->weak_from_this().lock();
        pthread_t handle;
        if (OsUtilsCreateThread(&handle, business_independ_thread_entry, this, kTruckThreadStackSize, 1) !=
            0) {
            // No thread: no business_init, so neither a business_uninit nor a wait at the stop.
            m_threadHold.reset();
            m_iThreadState.store(3);
        }
        return 0;
    }
    if (m_pMsgClient == nullptr) {
        APPCOM_LOG(0, "Message client manage ptr is null\n");
        exit(1);
    }
    m_uiSourceId = m_pMsgClient->MSGGenerateSourceId(m_szBusinessName);
    return business_init();
}

int CTruckServiceBase::business_stop() {
    if (m_bIndependThread == 0) {
        business_uninit();
        return 0;
    }
    // A thread that was never created (state 3) has nothing to undo and nothing to wait for.
    // One still starting (state 0) is told to stop before it runs: it then skips its
    // business_init, or, if already in it, calls business_uninit itself afterwards, so the two
    // never overlap.
    int32_t state = 0;
    if (!m_iThreadState.compare_exchange_strong(state, 2)) {
        if (state == 3) {
            return 0;
        }
        business_uninit();
        m_iThreadState.store(2);
    }
    TruckWaitThreadStopped(m_iThreadState);
    return 0;
}

void TruckWaitThreadStopped(const std::atomic<int32_t>& state) {
    for (int i = 0; i < kTruckStopPolls && state.load() != 3; ++i) {
        OsUtilsSleep(kTruckStopPollMs);
    }
}

void TruckLogThreadFault(const char* where, const char* what) {
    TRUCK_LOG(0, "%s stopped by an exception: %s\n", where, what);
}

int CTruckServiceBase::business_shared_thread_run(unsigned long long nowMs) {
    if (m_bIndependThread != 0) {
        return 0;
    }
    m_pAsynCallback->AsynCallbackExecute();
    if (TruckTickDistance(nowMs, m_ullLastRunTime) >= m_ullCycleTime) {
        m_ullLastRunTime = nowMs;
        business_cycle_running(nowMs);
    }
    return 0;
}

void* CTruckServiceBase::business_independ_thread_entry(void* business) {
    if (business == nullptr) {
        return nullptr;
    }
    CTruckServiceBase* self = static_cast<CTruckServiceBase*>(business);
    // Last to go: after it the manager may destroy the business at any moment.
    const std::shared_ptr<CTruckServiceManage> hold = std::move(self->m_threadHold);
    TruckGuardThread(self->m_szBusinessName, [self] {
        if (self->business_independ_thread_func_impl() != 0) {
            TRUCK_LOG(2, "Create business thread failed\n");
        }
    });
    self->m_iThreadState.store(3);
    return nullptr;
}

int CTruckServiceBase::business_independ_thread_func_impl() {
    if (m_bIndependThread == 0) {
        return 0;
    }
    TRUCK_THREAD_INFO_PRINT(m_szBusinessName);
    // A thread that first runs after its stop gave up on it: the business stays uninitialised.
    if (m_iThreadState.load() == 2) {
        return 0;
    }
    if (m_pMsgClient == nullptr) {
        m_pMsgClient = new (std::nothrow) CMsgClientManage(m_szBusinessName, kTruckClientDepth, nullptr);
    }
    if (m_pMsgClient == nullptr) {
        APPCOM_LOG(0, "Message client manage ptr is null\n");
        exit(1);
    }
    m_uiSourceId = m_pMsgClient->MSGGenerateSourceId(m_szBusinessName);
    TruckGuardThread(m_szBusinessName, [this] { business_init(); });

    // A stop that came during business_init has already written 2: keep it, and run the
    // business_uninit that the stop left to this thread.
    int32_t expected = 0;
    if (!m_iThreadState.compare_exchange_strong(expected, 1)) {
        business_uninit();
    }
    while (m_iThreadState.load() == 1) {
        const unsigned long long now = OsUtilsGetTickCount();
        // What a pass throws ends that pass, not the thread.
        TruckGuardThread(m_szBusinessName, [this, now] {
            m_pMsgClient->MSGWaitForEvent(EventWaitMs(m_ullCycleTime));
            m_pMsgClient->MSGFeedWatchDog(now);
            m_pAsynCallback->AsynCallbackExecute();
            if (TruckTickDistance(now, m_ullLastRunTime) >= m_ullCycleTime) {
                m_ullLastRunTime = now;
                business_cycle_running(now);
            }
        });
    }
    m_iThreadState.store(3);
    return 0;
}
