// Business base class: the own-thread loop, the shared-thread step, start and stop.
#include "TruckServiceBase.h"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <mutex>
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
    return static_cast<int>(std::min<unsigned long long>(cycleTime, 100));
}

struct TicketOffice {
    std::mutex mutex;
    std::map<uintptr_t, TruckThreadTicket> filed;
    uintptr_t last = 0;
};

TicketOffice& Tickets() {
    static TicketOffice* office = new TicketOffice;  // never destroyed: a late thread may still ask
    return *office;
}

}  // namespace

void* TruckLaunchThread(TruckThreadTicket ticket, void* (*entry)(void*)) {
    const uintptr_t number = [&ticket] {
        TicketOffice& office = Tickets();
        std::lock_guard<std::mutex> lock(office.mutex);
        const uintptr_t filed = ++office.last;
        office.filed[filed] = std::move(ticket);
        return filed;
    }();
    pthread_t handle;
    // Deliberately not examined: the thread's own state word and its ticket tell whether it ran.
    OsUtilsCreateThread(&handle, entry, reinterpret_cast<void*>(number), kTruckThreadStackSize, 1);
    return reinterpret_cast<void*>(number);
}

bool TruckTakeThreadTicket(void* number, TruckThreadTicket& out) {
    TicketOffice& office = Tickets();
    std::lock_guard<std::mutex> lock(office.mutex);
    auto found = office.filed.find(reinterpret_cast<uintptr_t>(number));
    if (found == office.filed.end()) {
        return false;
    }
    out = std::move(found->second);
    office.filed.erase(found);
    return true;
}

bool TruckWithdrawThreadTicket(void* number) {
    // Taken in the thread's place; the share of the manager goes when `withdrawn` does, outside
    // the office's lock, since it may be the last one.
    TruckThreadTicket withdrawn;
    return TruckTakeThreadTicket(number, withdrawn);
}

void TruckPassFaults::Failed(const char* what) noexcept {
    if (m_uiFailedRun < UINT32_MAX) {
        ++m_uiFailedRun;
    }
    if (m_uiFailedRun == 1) {
        TRUCK_LOG(0, "%s pass stopped by an exception: %s, the loop goes on\n", m_where, what);
    }
    if (m_uiFailedRun == kTruckFailedPassLimit) {
        TRUCK_LOG(0, "%s failed %u passes in a row, the watchdog is no longer fed\n", m_where, m_uiFailedRun);
    }
}

void TruckPassFaults::Succeeded() noexcept {
    if (m_uiFailedRun != 0) {
        TRUCK_LOG(1, "%s runs again after %u failed passes\n", m_where, m_uiFailedRun);
        m_uiFailedRun = 0;
    }
}

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
      // Handed no client, a business runs on a thread of its own, which makes its client.
      m_bIndependThread(client == nullptr ? 1 : 0),
      m_iThreadState(kTruckThreadStopped) {
    StringCopy(m_szBusinessName, sizeof(m_szBusinessName), name != nullptr ? name : "");
    if (m_pServiceManage == nullptr) {
        APPCOM_LOG(0, "Basic Server manage ptr is null\n");
        exit(1);
    }
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
        m_iThreadState.store(kTruckThreadStarting);
        // The thread holds the manager, which owns this business, until its last step.
        TruckThreadTicket ticket;
        ticket.hold = m_pServiceManage->weak_from_this().lock();
        ticket.target = this;
        m_pThreadTicket = TruckLaunchThread(std::move(ticket), business_independ_thread_entry);
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
    // A thread that has ended has nothing more to undo. One still starting is told to stop
    // before it runs: it then skips its business_init, or, if already in it, calls
    // business_uninit itself afterwards, so the two never overlap.
    int32_t state = kTruckThreadStarting;
    if (!m_iThreadState.compare_exchange_strong(state, kTruckThreadStopAsked)) {
        if (state == kTruckThreadStopped) {
            return 0;
        }
        business_uninit();
        m_iThreadState.store(kTruckThreadStopAsked);
    }
    TruckWaitThreadStopped(m_iThreadState, m_pThreadTicket);
    return 0;
}

void TruckWaitThreadStopped(std::atomic<int32_t>& state, void* ticket) {
    for (int i = 0; i < kTruckStopPolls && state.load() != kTruckThreadStopped; ++i) {
        OsUtilsSleep(kTruckStopPollMs);
    }
    if (state.load() != kTruckThreadStopped && TruckWithdrawThreadTicket(ticket)) {
        state.store(kTruckThreadStopped);
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

void* CTruckServiceBase::business_independ_thread_entry(void* ticketNumber) {
    TruckThreadTicket ticket;
    if (!TruckTakeThreadTicket(ticketNumber, ticket)) {
        return nullptr;  // withdrawn by a stop that gave up on this thread
    }
    CTruckServiceBase* self = static_cast<CTruckServiceBase*>(ticket.target);
    // Last to go: after it the manager, and with it this business, may be destroyed at once.
    const std::shared_ptr<CTruckServiceManage> hold = std::move(ticket.hold);
    TruckGuardThread(self->m_szBusinessName, [self] {
        if (self->business_independ_thread_func_impl() != 0) {
            TRUCK_LOG(2, "Create business thread failed\n");
        }
    });
    self->m_iThreadState.store(kTruckThreadStopped);
    return nullptr;
}

int CTruckServiceBase::business_independ_thread_func_impl() {
    if (m_bIndependThread == 0) {
        return 0;
    }
    TRUCK_THREAD_INFO_PRINT(m_szBusinessName);
    // A thread that first runs after its stop gave up on it: the business stays uninitialised.
    if (m_iThreadState.load() == kTruckThreadStopAsked) {
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
    int32_t expected = kTruckThreadStarting;
    if (!m_iThreadState.compare_exchange_strong(expected, kTruckThreadRunning)) {
        business_uninit();
    }
    TruckPassFaults faults(m_szBusinessName);
    while (m_iThreadState.load() == kTruckThreadRunning) {
        const unsigned long long now = OsUtilsGetTickCount();
        // What a pass throws ends that pass, not the thread.
        faults.Run([this, now, &faults] {
            m_pMsgClient->MSGWaitForEvent(EventWaitMs(m_ullCycleTime));
            if (faults.FeedsWatchdog()) {
                m_pMsgClient->MSGFeedWatchDog(now);
            }
            m_pAsynCallback->AsynCallbackExecute();
            if (TruckTickDistance(now, m_ullLastRunTime) >= m_ullCycleTime) {
                m_ullLastRunTime = now;
                business_cycle_running(now);
            }
        });
    }
    m_iThreadState.store(kTruckThreadStopped);
    return 0;
}
