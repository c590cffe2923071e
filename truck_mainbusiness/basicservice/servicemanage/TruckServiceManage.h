// The service object behind the three host entry points, and the service manager that runs
// the main cycle on the thread "truckservice".
#ifndef TRUCK_SERVICEMANAGE_TRUCKSERVICEMANAGE_H
#define TRUCK_SERVICEMANAGE_TRUCKSERVICEMANAGE_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <deque>
#include <map>

#include <json/json.h>

#include "JQ_SDK_Basic.h"
#include "JQ_SDK_DateTime.h"
#include "JQ_SDK_Global.h"
#include "MsgClientManage.h"

class CTruckServiceBase;
class CTruckServiceManage;

// ---- lock helpers ----

// One platform mutex with default attributes.
class Mutex {
public:
    Mutex() { pthread_mutex_init(&m_mutex, nullptr); }
    virtual ~Mutex() { pthread_mutex_destroy(&m_mutex); }
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    void Lock() { pthread_mutex_lock(&m_mutex); }
    void Unlock() { pthread_mutex_unlock(&m_mutex); }

private:
    pthread_mutex_t m_mutex;
};

// Holds a Mutex for its own lifetime, so every early return releases it.
class MutexLocker {
public:
    explicit MutexLocker(Mutex& mutex) : m_mutex(mutex) { m_mutex.Lock(); }
    ~MutexLocker() { m_mutex.Unlock(); }
    MutexLocker(const MutexLocker&) = delete;
    MutexLocker& operator=(const MutexLocker&) = delete;

private:
    Mutex& m_mutex;
};

// ---- records exchanged with the host ----

// Filled by the load entry: service name and type, each NUL-terminated in its 32 bytes.
typedef struct tag_ServiceAttr {
    char szServiceName[32];
    char szServiceType[32];
} tag_ServiceAttr;
static_assert(sizeof(tag_ServiceAttr) == 64, "service attribute block is 64 bytes");
static_assert(offsetof(tag_ServiceAttr, szServiceType) == 32, "service type at 32");

// The host's parameter block. The service touches only ucRunning, which the main cycle and
// the stop entry write from two threads while the host reads it: an atomic byte.
typedef struct tag_ServiceParam {
    unsigned char ucReserved0;
    std::atomic<unsigned char> ucRunning;
} tag_ServiceParam;
static_assert(sizeof(std::atomic<unsigned char>) == 1, "ucRunning is one byte");
static_assert(std::atomic<unsigned char>::is_always_lock_free, "ucRunning needs no lock");
static_assert(offsetof(tag_ServiceParam, ucRunning) == 1, "ucRunning at 1");

// ---- records sent to the platform's log service ----

// One system-log entry. It travels inside the log message, so its layout is fixed.
typedef struct JQSystemLogFrame {
    tagDateTime stDateTime;    // 0: local date and time
    uint8_t aucReserved0[4];   // 8: the log service's; zero in records built from a text
    char szLogDisplay[128];    // 12: NUL-terminated text, at most 127 characters
    uint8_t aucReserved1[96];  // 140: the log service's; zero in records built from a text
} JQSystemLogFrame;
static_assert(sizeof(JQSystemLogFrame) == 236, "system-log record is 236 bytes");
static_assert(offsetof(JQSystemLogFrame, aucReserved0) == 8, "reserved bytes at 8");
static_assert(offsetof(JQSystemLogFrame, szLogDisplay) == 12, "log text at 12");
static_assert(offsetof(JQSystemLogFrame, aucReserved1) == 140, "reserved bytes at 140");

// ---- host entry points (the module exports these three and nothing else) ----

extern "C" {
__attribute__((visibility("default"))) int JQ_SDK_Service_Load(tag_ServiceAttr* attr);
__attribute__((visibility("default"))) int JQ_SDK_Service_Start(tag_ServiceParam* param);
__attribute__((visibility("default"))) int JQ_SDK_Service_Stop(tag_ServiceParam* param);
}

// ---- the service object ----

class CTruckService {
public:
    static CTruckService* ServeGetInstance();
    // Whether the instance has been created (it is never destroyed).
    static bool ServeHasInstance();

    CTruckService();
    virtual ~CTruckService();
    CTruckService(const CTruckService&) = delete;
    CTruckService& operator=(const CTruckService&) = delete;

    int ServeLoad(tag_ServiceAttr* attr);
    int ServeStart(tag_ServiceParam* param);
    int ServeStop(tag_ServiceParam* param);

    // The running manager, null when stopped.
    CTruckServiceManage* ServeGetManage() { return m_pServiceManage; }

    struct ThreadArgs {
        CTruckServiceManage* pManage;
        tag_ServiceParam* pParam;
    };

private:
    static CTruckService* m_pManageInstance;

    tag_ServiceAttr m_serviceAttr;
    CTruckServiceManage* m_pServiceManage;
    ThreadArgs m_threadArgs;
};

void* service_thread_entry(void* args);

// ---- the service manager ----

// Lifetime: the manager is created by the service object, which holds it; every thread that
// runs inside the manager (the main cycle, a business's own thread) holds it too, from before
// its creation until its last step. Whoever lets go last destroys it, so a thread that did
// not end within the bounded stop waits never runs in a destroyed object. Release it with
// basic_release(), never with delete.
class CTruckServiceManage {
public:
    explicit CTruckServiceManage(tagGlobalConfig* globalConfig);
    CTruckServiceManage(const CTruckServiceManage&) = delete;
    CTruckServiceManage& operator=(const CTruckServiceManage&) = delete;

    int basic_init();
    int basic_thread_cycle(tag_ServiceParam* param);
    int basic_uninit();
    tagGlobalConfig* basic_get_global_config() { return m_pGlobalConfig; }
    JQ_BASIC_HANDLE GetBasicSDKHandle() { return m_basicSDKHandle.load(); }

    // Enters a started business into the map under its id; the manager owns it from then on.
    // Only before the main cycle runs or on the main cycle's thread: the map has no lock.
    int basic_register_business(unsigned int id, CTruckServiceBase* business);

    // System log: records queued per group (mask bits 0..2), sent once a second in batches.
    int basic_system_log_push(unsigned char groupMask, JQSystemLogFrame& frame);
    int basic_system_log_push(unsigned char groupMask, const char* text);
    int basic_system_log_write();
    int WriteSystemLog(unsigned char groupMask, JQSystemLogFrame frame);

    void basic_hold();
    void basic_release();
    // Waits, polling every millisecond up to `polls` times, until the caller is the only
    // holder left; true if so.
    bool basic_wait_sole_holder(int polls);
    // The main cycle and every own business thread have written their stopped state.
    bool basic_threads_stopped();
    // Managers alive in the process, counting one that outlived its stop.
    static int basic_live_count();

    int basic_get_thread_state() const { return m_iThreadState.load(); }
    CMsgClientManage* basic_get_msg_client() { return m_pMsgClient; }
    unsigned int basic_get_source_id() const { return m_uiSourceId; }

private:
    tagGlobalConfig* m_pGlobalConfig;
    CMsgClientManage* m_pMsgClient;
    unsigned int m_uiSourceId;
    std::map<unsigned int, CTruckServiceBase*> m_mapBusiness;
    Json::Value m_businessConfig;
    Json::Value m_systemConfig;
    std::deque<JQSystemLogFrame> m_systemLogQueue[3];  // guarded by m_systemLogMutex
    Mutex m_systemLogMutex;
    std::atomic<int32_t> m_iThreadState;  // 1 running, 2 stop requested, 3 stopped
    // Set by the main cycle's thread, read by businesses; taken by whoever releases it.
    std::atomic<JQ_BASIC_HANDLE> m_basicSDKHandle;

    std::atomic<int> m_iHolders;
    Mutex m_runStateMutex;  // orders the stop request against the cycle's write of ucRunning

    ~CTruckServiceManage();  // through basic_release() only

    unsigned char* NewLogBatch(uint32_t groupMaskWord, size_t count);
    void SendLogBatch(const unsigned char* buffer, size_t length);
};

#endif
