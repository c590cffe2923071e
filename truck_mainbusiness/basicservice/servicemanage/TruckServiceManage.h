// The service object behind the three host entry points, and the service manager that runs
// the main cycle on the thread "truckservice".
//
// The manager is one class implemented in several files of this folder, by concern:
//   TruckServiceManage.cpp         service object, entry points, lifecycle, main cycle, system log
//   TruckServiceManageLoad.cpp     business configuration and loading, the factory
//   TruckServiceManageDevice.cpp   device and system information
//   TruckServiceManageStorage.cpp  storage root directory and peripheral block
//   TruckServiceManageParam.cpp    global parameter groups
#ifndef TRUCK_SERVICEMANAGE_TRUCKSERVICEMANAGE_H
#define TRUCK_SERVICEMANAGE_TRUCKSERVICEMANAGE_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "JQ_SDK_Basic.h"
#include "JQ_SDK_DateTime.h"
#include "JQ_SDK_Global.h"
#include "JQ_SDK_Storage.h"
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

// ---- device information ----

// Channel alarm states: stored and handed out whole; the content is the businesses' own.
typedef struct ChnAlarmState_t {
    uint8_t aucState[32];
} ChnAlarmState_t;
static_assert(sizeof(ChnAlarmState_t) == 32, "channel alarm state is 32 bytes");

// Remote task types 0..31 have a bit in the remote task-list flags.
typedef int enumTaskType;

typedef struct SerialNumberInfo_t {
    uint32_t bValid;  // 1 once the serial number has been read
    char szSerialNumber[16];
} SerialNumberInfo_t;

typedef struct ChipInfo_t {
    uint32_t uiFlashSize;
    uint32_t uiChipType;
    uint32_t mainBoardType;
    uint32_t uiDeviceInfoReady;
} ChipInfo_t;

// Size of the peripheral configuration block taken from the peripheral file.
const size_t kPeripheralConfigSize = 7716;

// ---- business configuration ----

// One enabled element of the business configuration file.
typedef struct BusinessLoadAttr_t {
    unsigned int id;
    unsigned char type;
    unsigned char bEnable;
    unsigned char bThread;
    char name[32];
    Json::Value param;
} BusinessLoadAttr_t;

class CTruckServiceBase;
class CMsgClientManage;
CTruckServiceBase* CreateBusinessInstance(CTruckServiceManage* manager, CMsgClientManage* client,
                                          unsigned int id, char* name, unsigned char type,
                                          Json::Value& param);

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

private:
    static CTruckService* m_pManageInstance;

    tag_ServiceAttr m_serviceAttr;
    CTruckServiceManage* m_pServiceManage;
    std::shared_ptr<CTruckServiceManage> m_manageOwner;  // the service object's share of m_pServiceManage
};

// The main cycle's thread entry; its argument is the ticket that basic_launch_cycle filed.
void* service_thread_entry(void* args);

// The storage service's callback for mount-path reports; `user` is the manager.
void callback_basic_request_storage_mntputh(void* data, int length, void* user);
// Marks `manage` as the manager the storage callback may reach (alive) or no longer (gone).
void basic_storage_target(CTruckServiceManage* manage, bool alive);

// ---- the service manager ----

// Lifetime: the manager is owned through std::shared_ptr. The service object holds one share;
// every thread that runs inside the manager (the main cycle, a business's own thread) holds
// another, from before its creation until its last step, and so does a platform callback
// while it runs in a business. Whoever lets go last destroys it, so a thread that did not end
// within the bounded stop waits never runs in a destroyed object.
class CTruckServiceManage : public std::enable_shared_from_this<CTruckServiceManage> {
public:
    explicit CTruckServiceManage(tagGlobalConfig* globalConfig);
    ~CTruckServiceManage();
    CTruckServiceManage(const CTruckServiceManage&) = delete;
    CTruckServiceManage& operator=(const CTruckServiceManage&) = delete;

    int basic_init();
    int basic_thread_cycle(tag_ServiceParam* param);
    int basic_uninit();
    tagGlobalConfig* basic_get_global_config() { return m_pGlobalConfig; }
    JQ_BASIC_HANDLE GetBasicSDKHandle() { return m_basicSDKHandle.load(); }

    // Enters a started business into the map under its id; the manager owns it from then on.
    // -1 for a null business, an id already taken, or a stop already requested (the caller
    // keeps the business then). Only before the main cycle runs or on the main cycle's thread,
    // the only writers of the map.
    int basic_register_business(unsigned int id, CTruckServiceBase* business);

    // Business configuration and loading (TruckServiceManageLoad.cpp).
    int basic_analyze_basic_config(std::list<BusinessLoadAttr_t>& out);
    // The checks of the configuration document alone, on a parsed root.
    static int basic_parse_basic_config(const Json::Value& root, std::list<BusinessLoadAttr_t>& out);
    int basic_load_business();
    int basic_start_business(unsigned int id, char* name, unsigned char type, bool bThread,
                             Json::Value& param);
    // The running business of that id, null when there is none.
    CTruckServiceBase* basic_get_business(unsigned int id);

    // Device and system information (TruckServiceManageDevice.cpp).
    int BasicAnalyzeSystemconfig();
    Json::Value BasicGetSystemConfig();
    std::string BasicGetCustomerName();
    int GetChipInfo();
    // The command-line search of GetChipInfo on a NUL-terminated text; both values start at 0.
    static void basic_parse_cmdline(const char* text, unsigned int& flashSize, unsigned int& chipType);
    int BasicGetDeviceInfo();
    int GetProductInfoFromAuthSerial(const char* serial, unsigned int& productCode, unsigned int& boardType);
    unsigned int basic_get_product_type();
    unsigned int basic_get_system_type();
    unsigned int BasicGetVideoInNum();
    unsigned int BasicGetVideoIpNum();
    SerialNumberInfo_t* basic_get_serialnumber_info();
    ChipInfo_t basic_get_chip_info();
    int SetChannelAlarmState(const ChnAlarmState_t& state);
    ChnAlarmState_t GetChannelAlarmState() const;
    int SetRemoteTaskListState(enumTaskType type, bool on);
    bool GetRemoteTastListState(enumTaskType type);

    // Storage root directory and peripheral block (TruckServiceManageStorage.cpp).
    int basic_request_storage_mntputh();
    int basic_set_normal_file_root_dir(tag_fuseMntPathAck* ack);
    int basic_get_normal_file_root_dir(const char* subPath, char* out, int outLen);
    int basic_get_normal_file_root_dir(char* out, int outLen);
    int basic_load_peripheral_config();
    unsigned char* basic_get_peripheral_config();

    // Global parameter groups (TruckServiceManageParam.cpp).
    int basic_global_package_param(unsigned long long mask, Json::Value& request);
    int basic_global_get_param(Json::Value& groups, JQ_SDK_ParamCallback callback, void* user, void* context);
    int basic_global_get_param(unsigned long long mask, JQ_SDK_ParamCallback callback, void* user,
                               void* context);
    int basic_global_listen_param(Json::Value& groups, JQ_SDK_ParamCallback callback, void* user,
                                  void* context);
    int basic_global_listen_param(unsigned long long mask, JQ_SDK_ParamCallback callback, void* user,
                                  void* context);

    // System log: records queued per group (mask bits 0..2), sent once a second in batches.
    int basic_system_log_push(unsigned char groupMask, JQSystemLogFrame& frame);
    int basic_system_log_push(unsigned char groupMask, const char* text);
    int basic_system_log_write();
    int WriteSystemLog(unsigned char groupMask, JQSystemLogFrame frame);

    // Starts the main cycle on the thread "truckservice", which holds a share of this manager
    // until its last step. `param` is the host's block, written on every pass.
    void basic_launch_cycle(tag_ServiceParam* param);
    bool basic_stop_requested();
    // Takes a business that never made it into the map (refused by a stop, or failed its
    // start) after its business_stop: its own thread may still run in it, and holds this
    // manager, so it is destroyed with the manager and not before.
    void basic_retire_business(CTruckServiceBase* business);
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
    std::vector<CTruckServiceBase*> m_retiredBusiness;  // guarded by m_runStateMutex
    Json::Value m_businessConfig;
    unsigned char m_peripheralConfig[kPeripheralConfigSize];
    SerialNumberInfo_t m_serialNumberInfo;
    Json::Value m_systemConfig;
    ChnAlarmState_t m_chnAlarmState;  // guarded by m_chnAlarmStateMutex: set and read on any thread
    mutable Mutex m_chnAlarmStateMutex;
    mutable Mutex m_deviceInfoMutex;  // guards m_chipInfo and m_serialNumberInfo against readers
    std::deque<JQSystemLogFrame> m_systemLogQueue[3];  // guarded by m_systemLogMutex
    Mutex m_fuseMntPathMutex;
    ChipInfo_t m_chipInfo;
    tag_fuseMntPathAck m_fuseMntPath;  // guarded by m_fuseMntPathMutex
    Mutex m_systemLogMutex;
    std::atomic<uint32_t> m_uiRemoteTaskListState;  // set and read by businesses on any thread
    std::atomic<int32_t> m_iThreadState;            // kTruckThreadStarting .. kTruckThreadStopped
    void* m_pCycleTicket;                           // the main cycle thread's ticket
    std::atomic<pthread_t> m_cycleThread;           // the running cycle's thread, for checks
    // Set by the main cycle's thread, read by businesses; taken by whoever releases it.
    std::atomic<JQ_BASIC_HANDLE> m_basicSDKHandle;

    // Orders the stop request against the cycle's start, the first pass's entries into the
    // map and the cycle's write of ucRunning. Guards m_bStopRequested and the map against the
    // stop's walk; never held across a platform call.
    Mutex m_runStateMutex;
    // The first pass has run: the businesses are loaded once per manager, so a start after a
    // stop brings them back. Main cycle's thread only.
    bool m_bBusinessLoaded;
    bool m_bStopRequested;  // guarded by m_runStateMutex

    void basic_first_pass();
    // No cycle runs, or the caller is its thread: the map's writers.
    bool basic_may_write_map() const;
    std::vector<CTruckServiceBase*> basic_business_list();
    unsigned char* NewLogBatch(uint32_t groupMaskWord, size_t count);
    void SendLogBatch(const unsigned char* buffer, size_t length);
};

#endif
