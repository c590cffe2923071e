// Base class of every business: runs it on a thread of its own or on the main cycle's.
#ifndef TRUCK_SERVICEMANAGE_TRUCKSERVICEBASE_H
#define TRUCK_SERVICEMANAGE_TRUCKSERVICEBASE_H

#include <stdint.h>

#include <atomic>
#include <exception>
#include <memory>
#include <vector>

#include <json/json.h>

#include "AsynCallback.h"
#include "MsgClientManage.h"

class CTruckServiceManage;

// What the manager's and the businesses' threads have in common.
// Every message-bus client of the service is created with this value.
const unsigned int kTruckClientDepth = 30;
const unsigned int kTruckThreadStackSize = 0x80000;  // 512 KiB
// Stop requests are polled: 101 polls of 20 ms bound each wait to about 2 s.
const int kTruckStopPolls = 101;
const unsigned int kTruckStopPollMs = 20;

// The thread-state words of the main cycle and of a business's own thread. The stopping side
// writes kTruckThreadStopAsked and polls until the thread has written kTruckThreadStopped.
const int32_t kTruckThreadStarting = 0;
const int32_t kTruckThreadRunning = 1;
const int32_t kTruckThreadStopAsked = 2;
const int32_t kTruckThreadStopped = 3;

// Distance of two ticks either way: a tick that went back still counts as time passed.
inline unsigned long long TruckTickDistance(unsigned long long a, unsigned long long b) {
    return a > b ? a - b : b - a;
}

// Waits, in the bounded stop polls, until a thread has written its stopped state. A thread that
// has not taken its ticket by then (never created, or not yet scheduled) never runs: its ticket
// is withdrawn and its state written stopped for it.
void TruckWaitThreadStopped(std::atomic<int32_t>& state, void* ticket);

// Logs, at level 0, what `where` threw.
void TruckLogThreadFault(const char* where, const char* what);

// Runs `body` so that nothing it throws leaves it: on a thread of ours an exception would end
// the whole process, and the platform's threads are not ours to end.
template <class F>
void TruckGuardThread(const char* where, F&& body) noexcept {
    try {
        body();
    } catch (const std::exception& e) {
        TruckLogThreadFault(where, e.what());
    } catch (...) {
        TruckLogThreadFault(where, "unknown exception");
    }
}

// Counts a loop's passes that end in an exception. A fault that throws on every pass would
// otherwise leave a service that feeds the watchdog and does nothing: the first failure of a
// run is logged with what was thrown, and after kTruckFailedPassLimit failures in a row the
// loop stops feeding the watchdog, so that the device restarts the service as it would a hung
// one. A pass that succeeds ends the run; its length is logged then.
const unsigned int kTruckFailedPassLimit = 100;

class TruckPassFaults {
public:
    explicit TruckPassFaults(const char* where) : m_where(where) {}
    TruckPassFaults(const TruckPassFaults&) = delete;
    TruckPassFaults& operator=(const TruckPassFaults&) = delete;

    bool FeedsWatchdog() const { return m_uiFailedRun < kTruckFailedPassLimit; }

    template <class F>
    void Run(F&& pass) noexcept {
        try {
            pass();
        } catch (const std::exception& e) {
            Failed(e.what());
            return;
        } catch (...) {
            Failed("unknown exception");
            return;
        }
        Succeeded();
    }

private:
    void Failed(const char* what) noexcept;
    void Succeeded() noexcept;

    const char* m_where;
    unsigned int m_uiFailedRun = 0;
};

// A new thread is given a ticket, a number that stands for what it runs in, in place of an
// address. The platform's answer to a thread creation promises nothing we may rely on, so a
// stop cannot tell a thread that never ran from one that starts late; after its bounded wait it
// withdraws the ticket instead. A thread that starts after that finds nothing and returns at
// once, so what it would have run in may go.
struct TruckThreadTicket {
    std::shared_ptr<CTruckServiceManage> hold;  // the thread's share of the manager
    void* target = nullptr;                     // the manager or the business it runs
    void* extra = nullptr;                      // the main cycle's host block
};
// Files the ticket and starts a platform thread at `entry` with its number as the argument;
// gives the number, for a stop to withdraw.
void* TruckLaunchThread(TruckThreadTicket ticket, void* (*entry)(void*));
// The thread's side: false when the ticket was withdrawn (or never filed).
bool TruckTakeThreadTicket(void* number, TruckThreadTicket& out);
// The stop's side: true when the thread had not taken its ticket, and now never will.
bool TruckWithdrawThreadTicket(void* number);

class CTruckServiceBase {
public:
    typedef void (CTruckServiceBase::*AsynMember)(std::vector<AsynCallbackParaNode_t>&);

    // A null client means the business runs on a thread of its own and creates its client
    // there; otherwise it shares the main cycle's thread and the manager's client.
    CTruckServiceBase(CTruckServiceManage* manager, CMsgClientManage* client, unsigned int id, char* name,
                      unsigned char type, Json::Value& param);
    virtual ~CTruckServiceBase();
    CTruckServiceBase(const CTruckServiceBase&) = delete;
    CTruckServiceBase& operator=(const CTruckServiceBase&) = delete;

    virtual int business_init();
    virtual int business_uninit();
    virtual int business_cycle_running(unsigned long long nowMs);

    int business_start();
    int business_stop();
    int business_shared_thread_run(unsigned long long nowMs);
    unsigned char business_get_is_independ() const { return m_bIndependThread; }
    int business_set_cycle_time(unsigned long long ms);
    unsigned long long business_get_cycle_time() const { return m_ullCycleTime; }
    int business_add_asyn_callback(const char* data, int length, void* object, AsynMember member);

    static void* business_independ_thread_entry(void* ticketNumber);
    int business_independ_thread_func_impl();

    int business_get_thread_state() const { return m_iThreadState.load(); }
    unsigned int business_get_id() const { return m_uiBusinessId; }
    const char* business_get_name() const { return m_szBusinessName; }
    // The parameter document the business was built with; never changed afterwards.
    const Json::Value& business_get_param() const { return m_jsonParam; }

protected:
    unsigned int m_uiBusinessId;
    char m_szBusinessName[32];
    Json::Value m_jsonParam;
    unsigned int m_uiSourceId;
    unsigned long long m_ullCycleTime;
    unsigned long long m_ullLastRunTime;
    CMsgClientManage* m_pMsgClient;
    CTruckServiceManage* m_pServiceManage;
    CAsynCallback* m_pAsynCallback;
    unsigned char m_bIndependThread;
    std::atomic<int32_t> m_iThreadState;  // kTruckThreadStarting .. kTruckThreadStopped

private:
    // The own thread's ticket, from business_start on.
    void* m_pThreadTicket = nullptr;
};

#endif
