// The OSD business object: construction, its hooks and cycle, its event sources, and the
// parameter documents it applies on its own thread.
#include "TruckOsdService.h"

#include <exception>
#include <map>
#include <mutex>

#include "AppLibCommon.h"
#include "CommonDefine.h"
#include "HCTimeWheel.h"
#include "JQ_SDK_Basic.h"
#include "JQ_SDK_Device.h"
#include "TruckServiceManage.h"

namespace {

const unsigned long long kOsdCycleMs = 500;
const unsigned long long kParamRetryMs = 1999;  // re-request after more than this
const unsigned long long kWheelShiftMs = 999;   // one wheel tick a second
const uint32_t kPendingTimep = 1u << 0;
const uint32_t kPendingEosd = 1u << 1;

// Process-wide stamps of the cycle, set at its first call. Atomic because a restarted
// business runs its cycle on a new thread.
std::atomic<bool> s_stampsSet{false};
std::atomic<unsigned long long> s_lastRequestMs{0};
std::atomic<unsigned long long> s_lastShiftMs{0};

// The live businesses by token. A call that found its business holds a share of the
// business's manager, which destroys it, so an entry can go as soon as it is unlisted.
struct LiveEntry {
    CTruckOsdService* business;
    std::weak_ptr<CTruckServiceManage> manage;
};

struct LiveRegistry {
    std::mutex mutex;
    std::map<uintptr_t, LiveEntry> entries;
    uintptr_t lastToken = 0;
};

LiveRegistry& Live() {
    static LiveRegistry* live = new LiveRegistry;  // never destroyed: callbacks may outlive statics
    return *live;
}

Json::Value ParamGroups() {
    Json::Value groups(Json::objectValue);
    groups["TIMEP"] = "?";
    groups["EOSD"] = "?";
    return groups;
}

template <class T>
void ReadIfPresent(const Json::Value& object, const char* key, T& field) {
    if (JsonUtils::IsMember(object, key)) {
        GetJsonIntegral<T>(object[key], field, true, 0);
    }
}

}  // namespace

CTruckOsdService::LiveCall::LiveCall(void* user) {
    LiveRegistry& live = Live();
    std::lock_guard<std::mutex> lock(live.mutex);
    auto found = live.entries.find(reinterpret_cast<uintptr_t>(user));
    if (found == live.entries.end()) {
        return;
    }
    manage = found->second.manage.lock();
    if (manage == nullptr) {
        return;  // the manager is going, and its businesses with it
    }
    business = found->second.business;
}

void CTruckOsdService::Unlist() {
    LiveRegistry& live = Live();
    std::lock_guard<std::mutex> lock(live.mutex);
    live.entries.erase(m_liveToken);
}

CTruckOsdService::CTruckOsdService(CTruckServiceManage* manager, CMsgClientManage* client,
                                   unsigned int businessId, char* name, unsigned char mode,
                                   Json::Value& config)
    : CTruckServiceBase(manager, client, businessId, name, mode, config),
      m_liveToken(0),
      m_bParamLost(false),
      m_OSDX_Seven(400),
      m_OSDY_Seven(80),
      m_OSD_EN(0),
      m_uiSevenChnMask(0),
      m_OSDX_Time(300),
      m_OSDY_Time(30),
      m_ucDateFormat(0),
      m_ucTimeFormat(0),
      m_sTimeZone(0),
      m_sTimeZoneEx(0),
      m_iTimeZoneHour(0),
      m_iTimeZoneMin(0),
      m_videoInNum(0),
      m_videoIpNum(0),
      m_customerType(0),
      m_productType(0),
      m_timeZoneParam(),
      m_SystemDSTEnable(0),
      m_ucSpeedUnit(0),
      m_uiSpeed(0),
      m_OSDX_Speed(0),
      m_OSDY_Speed(0),
      m_IOturnState(0),
      m_OBDturnState(0),
      m_ucFontSize(0),
      m_uiParamPending(kPendingTimep | kPendingEosd),
      m_ucWaterEn(0),
      m_enableUtc(0),
      m_iLastDstState(1),
      m_ucLastDstOffset(0) {
    if (manager != nullptr) {
        // The manager's input count includes the IP channels; the overlay masks number the
        // analog inputs first and the IP channels after them, so the analog count is kept
        // here. Kept as the sum, a device with 4 inputs and 2 IP cameras would get the masks
        // of 8 channels, and the label's IP-only delete would miss the real IP channels.
        const unsigned int all = manager->BasicGetVideoInNum();
        const unsigned int ip = manager->BasicGetVideoIpNum();
        m_videoInNum = static_cast<uint16_t>(all >= ip ? all - ip : 0);
        m_videoIpNum = static_cast<uint16_t>(ip);
        m_customerType = static_cast<uint32_t>(ParseCustomerType(manager->BasicGetSystemConfig()));
        m_productType = manager->basic_get_product_type();
    }
    TRUCK_LOG(1, "m_videoInNum = %d, m_videoIpNum = %d, m_customerType = %d, m_productType = %d\n",
              static_cast<int>(m_videoInNum), static_cast<int>(m_videoIpNum),
              static_cast<int>(m_customerType), static_cast<int>(m_productType));
    LiveRegistry& live = Live();
    std::lock_guard<std::mutex> lock(live.mutex);
    m_liveToken = ++live.lastToken;
    live.entries[m_liveToken] = LiveEntry{
        this, manager != nullptr ? manager->weak_from_this() : std::weak_ptr<CTruckServiceManage>()};
}

// Nothing to wait for: a business is destroyed only by its manager's destructor (one that
// never made it into the map is retired to the manager), and every platform callback that
// runs in a business holds a share of that manager, so none is running now. Unlisting stops
// the ones still to come.
CTruckOsdService::~CTruckOsdService() {
    Unlist();
}

int CTruckOsdService::business_init() {
    RegisterMessage();
    MonitorParam();
    GetParam();
    business_set_cycle_time(kOsdCycleMs);
    return 0;
}

int CTruckOsdService::business_uninit() {
    UnregisterMessage();
    Unlist();
    return 0;
}

int CTruckOsdService::RegisterMessage() {
    if (m_pMsgClient == nullptr) {
        return -1;
    }
    const int source = static_cast<int>(m_uiSourceId);
    if (IsCardReader(m_customerType)) {
        m_pMsgClient->MSGEventRegister(source, kOsdEventSwipe, this, &CTruckOsdService::OnSwipeInfoNotify);
    }
    m_pMsgClient->MSGEventRegister(source, kOsdEventSpeed, this, &CTruckOsdService::OnUpdateSpeedInfo);
    JQ_SDK_Device_MonitorDevSignalData(MonitorIoUseInfo, LiveToken(), 0);
    JQ_BASIC_HANDLE handle = m_pServiceManage != nullptr ? m_pServiceManage->GetBasicSDKHandle() : nullptr;
    if (handle != nullptr) {
        JQ_SDK_Basic_Peripheral_MonitorCanPortEvent(handle, CallbackCanTruckOsdServiceEvent, LiveToken(), 0);
    }
    return 0;
}

int CTruckOsdService::UnregisterMessage() {
    if (m_pMsgClient == nullptr) {
        return -1;
    }
    const int source = static_cast<int>(m_uiSourceId);
    if (IsCardReader(m_customerType)) {
        m_pMsgClient->MSGEventUnRegister(source, kOsdEventSwipe);
    }
    m_pMsgClient->MSGEventUnRegister(source, kOsdEventSpeed);
    JQ_BASIC_HANDLE handle = m_pServiceManage != nullptr ? m_pServiceManage->GetBasicSDKHandle() : nullptr;
    if (handle != nullptr) {
        JQ_SDK_Basic_Peripheral_MonitorCanPortEvent(handle, nullptr, LiveToken(), 0);
    }
    return 0;
}

int CTruckOsdService::GetParam() {
    if (m_pServiceManage == nullptr) {
        return -1;
    }
    Json::Value groups = ParamGroups();
    return m_pServiceManage->basic_global_get_param(groups, OSDParamCallback, LiveToken(), nullptr);
}

int CTruckOsdService::MonitorParam() {
    if (m_pServiceManage == nullptr) {
        return -1;
    }
    Json::Value groups = ParamGroups();
    return m_pServiceManage->basic_global_listen_param(groups, OSDParamCallback, LiveToken(), nullptr);
}

void OSDParamCallback(const char* data, int length, void* user, void* /*context*/) {
    if (data == nullptr || user == nullptr || length <= 0) {
        return;
    }
    // The queue copies the text, so it outlives this call until OSDEventHandle has run.
    CTruckOsdService::WithLive(user, [data, length](CTruckOsdService* self) {
        AsynCallbackParaNode_t node = {data, length, 0};
        self->QueueParam(node);
    });
}

void CTruckOsdService::QueueParam(const AsynCallbackParaNode_t& node) {
    if (m_pAsynCallback == nullptr) {
        return;
    }
    // A notification the queue refused would leave the old settings until the next change:
    // the business's own thread asks for the groups again instead.
    if (m_pAsynCallback->AsynCallbackAdd(1, this, &CTruckOsdService::OSDEventHandle, node) != 0) {
        m_bParamLost.store(true);
        TRUCK_LOG(1, "osd param notification lost, request again\n");
    }
}

int CTruckOsdService::business_cycle_running(unsigned long long nowMs) {
    if (m_bParamLost.exchange(false)) {
        GetParam();
    }
    bool expected = false;
    if (s_stampsSet.compare_exchange_strong(expected, true)) {
        s_lastRequestMs.store(nowMs);
        s_lastShiftMs.store(nowMs);
    }
    if (m_uiParamPending != 0) {
        if (nowMs - s_lastRequestMs.load() > kParamRetryMs) {
            s_lastRequestMs.store(nowMs);
            GetParam();
        }
        return 0;
    }
    // Nothing may leave the cycle: it would end the thread that runs it. A timer that threw
    // or a text that could not be had is tried again on a later cycle.
    try {
        if (nowMs - s_lastShiftMs.load() > kWheelShiftMs) {
            s_lastShiftMs.store(nowMs);
            TimeWheel::GetInstance()->TimerShift();
        }
        OSDDataSendTime();
        if (m_productType != kOsdProductNoSpeed) {
            OSDDataSendSpeed();
        }
    } catch (const std::exception& e) {
        TRUCK_LOG(0, "osd cycle failed: %s\n", e.what());
    }
    return 0;
}

void CTruckOsdService::OSDEventHandle(std::vector<AsynCallbackParaNode_t>& nodes) {
    if (nodes.empty()) {
        return;
    }
    const AsynCallbackParaNode_t& node = nodes[0];
    if (node.pData == nullptr || node.iLen == 0) {
        TRUCK_LOG(0, "parse param error, length = %d\n", node.iLen);
        return;
    }
    Json::Value document;
    if (node.iLen < 0 || !ConvertStringToJson(node.pData, static_cast<unsigned int>(node.iLen), document)) {
        TRUCK_LOG(0, "parse param json error, length = %d\n", node.iLen);
        return;
    }
    try {
        if (document.empty() || !JsonUtils::IsMember(document, "PARAMETER") ||
            !JsonUtils::IsMember(document["PARAMETER"], "MDVR")) {
            return;
        }
        const Json::Value& mdvr = document["PARAMETER"]["MDVR"];
        if (JsonUtils::IsMember(mdvr, "TIMEP")) {
            TimeParamParse(mdvr["TIMEP"]);
            m_uiParamPending &= ~kPendingTimep;
        }
        if (!JsonUtils::IsArrayMember(mdvr, "EOSD") || mdvr["EOSD"].empty()) {
            return;
        }
        const Json::Value& eosd = mdvr["EOSD"];
        if (HandleParamParseEOSD(eosd) != 0) {
            return;  // fresh positions follow in the store's next notification
        }
        const Json::Value& first = eosd[0];
        if (JsonUtils::IsArrayMember(first, "COSD") && !first["COSD"].empty()) {
            const Json::Value& seven = first["COSD"][0];
            ReadIfPresent(seven, "X", m_OSDX_Seven);
            ReadIfPresent(seven, "Y", m_OSDY_Seven);
            ReadIfPresent(seven, "EN", m_OSD_EN);
        }
        ReadIfPresent(first, "TX", m_OSDX_Time);
        ReadIfPresent(first, "TY", m_OSDY_Time);
        ReadIfPresent(first, "TFS", m_ucFontSize);
        ReadIfPresent(first, "SX", m_OSDX_Speed);
        ReadIfPresent(first, "SY", m_OSDY_Speed);
        if (m_OSD_EN != 0) {
            OSDDataSendSeven(m_strSevenTxt);
        } else {
            OSDDataSendCancelSeven();
        }
        m_uiParamPending &= ~kPendingEosd;
        TRUCK_LOG(1,
                  "m_OSDX_Seven = %d, m_OSDY_Seven = %d, m_OSD_EN = %d,\tm_OSDX_Time = %d, m_OSDY_Time = %d, "
                  "m_ucFontSize:%d, m_OSDX_Speed = %d, m_OSDY_Speed = %d\n",
                  m_OSDX_Seven, m_OSDY_Seven, m_OSD_EN, m_OSDX_Time, m_OSDY_Time, m_ucFontSize, m_OSDX_Speed,
                  m_OSDY_Speed);
    } catch (const std::exception&) {
        // A document the JSON library throws on ends here; what was applied stays applied.
    }
}
