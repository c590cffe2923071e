// Speed and turn signals: the speed notification, the IO signal and J1939 turn sources, and
// the speed line.
#include <stdio.h>

#include <exception>

#include "AppLibCommon.h"
#include "CommonDefine.h"
#include "TruckOsdService.h"

namespace {

// Speed notification.
const int kSpeedUnit = 20;
const int kSpeedValue = 24;
const int kSpeedMinLength = 28;

// J1939 record.
const unsigned int kJ1939EventId = 4;
const unsigned int kJ1939Length = 8;
const unsigned int kJ1939Turn = 13;
const unsigned int kJ1939MinLength = 20;
const uint32_t kJ1939TurnEvent = 0x4001;

// A signal record nests three levels; this leaves room without costing a deep stack.
const int kSignalMaxDepth = 32;

}  // namespace

void CTruckOsdService::OnUpdateSpeedInfo(const char* data, int length) {
    // A payload too short for the value is refused rather than read past its end.
    if (data == nullptr || length < kSpeedMinLength) {
        return;
    }
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(data);
    const uint8_t unit = bytes[kSpeedUnit];
    const uint32_t speed = TruckGetLE32(bytes + kSpeedValue);
    if (speed == m_uiSpeed && unit == m_ucSpeedUnit) {
        return;
    }
    m_uiSpeed = speed;
    m_ucSpeedUnit = unit;
}

void CallbackCanTruckOsdServiceEvent(const char* data, int length, void* user, void* /*reserved*/) {
    if (user == nullptr || length <= 0 || data == nullptr) {
        TRUCK_LOG(0, "Param handle failed, len = %d\n", length);
        return;
    }
    TRUCK_LOG(3, "CallbackCanTruckOsdServiceEvent\n");
    CTruckOsdService::WithLive(user, [data, length](CTruckOsdService* self) {
        self->OnUpdateJ1939DataInfo(data, static_cast<unsigned int>(length));
    });
}

void CTruckOsdService::OnUpdateJ1939DataInfo(const char* data, unsigned int length) {
    if (data == nullptr || length < kJ1939MinLength) {
        TRUCK_LOG(0, "j1939 data info length error\n");
        return;
    }
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(data);
    const uint32_t eventId = TruckGetLE32(bytes + kJ1939EventId);
    TRUCK_LOG(3, "nDataLen = %d uiEventId= %d len=%d \n", static_cast<int>(length), static_cast<int>(eventId),
              static_cast<int>(TruckGetLE32(bytes + kJ1939Length)));
    if (eventId != kJ1939TurnEvent) {
        return;
    }
    const uint8_t value = bytes[kJ1939Turn];
    const uint8_t state = (value == 1 || value == 2) ? value : 0;
    m_OBDturnState.store(state);
    TRUCK_LOG(3, "m_OBDturnState = %d \n", static_cast<int>(state));
}

void CTruckOsdService::MonitorIoUseInfo(const char* data, int length, void* user, void* /*reserved*/) {
    if (user == nullptr || length <= 0 || data == nullptr) {
        TRUCK_LOG(0, "Param handle failed, length = %d\n", length);
        return;
    }
    TRUCK_LOG(3, "CallbackCanTruckOsdServiceEvent\n");
    // Parsed before the registry's lock is taken, so that a long text does not hold up the
    // CAN and parameter callbacks, nor a stop.
    const int value = IoTurnValue(data, length);
    WithLive(user, [value](CTruckOsdService* self) { self->ApplyIoTurn(value); });
}

void CTruckOsdService::OnUpdateIoUseInfo(const char* data, int length) {
    ApplyIoTurn(IoTurnValue(data, length));
}

int CTruckOsdService::IoTurnValue(const char* data, int length) {
    int value = 0;
    try {
        Json::Value document;
        // The text is parsed on the platform's signal thread, whose stack size is the
        // platform's: the parser's own limit (about a thousand levels) needs a few hundred KiB
        // of it, so a text nested deeper than any signal record is refused before it is parsed.
        if (data == nullptr || length <= 0 ||
            !JsonNestingWithin(data, static_cast<unsigned int>(length), kSignalMaxDepth) ||
            !ConvertStringToJson(data, static_cast<unsigned int>(length), document)) {
            TRUCK_LOG(0, "ConvertStringToJson faile.\n");
        } else if (JsonUtils::IsMember(document, "SIGNAL") &&
                   JsonUtils::IsMember(document["SIGNAL"], "TURN") &&
                   JsonUtils::IsMember(document["SIGNAL"]["TURN"], "SOURCE")) {
            const Json::Value& turn = document["SIGNAL"]["TURN"];
            int source = -1;
            GetJsonIntegral<int>(turn["SOURCE"], source, true, 0);
            if (source == 0 && JsonUtils::IsMember(turn, "VALUE")) {
                GetJsonIntegral<int>(turn["VALUE"], value, true, 0);
            }
        }
    } catch (const std::exception&) {
        value = 0;  // a text that could not be read clears the state like one without it
    }
    return value;
}

void CTruckOsdService::ApplyIoTurn(int value) {
    const uint8_t state = static_cast<uint8_t>(value);
    m_IOturnState.store(state);
    SendBus(kOsdEventIoTurn, &state, 1);
    TRUCK_LOG(0, "turnState,m_turnState = %d \n", value);
}

void CTruckOsdService::OSDDataSendSpeed() {
    const uint8_t io = m_IOturnState.load();
    const uint8_t obd = m_OBDturnState.load();
    TRUCK_LOG(3, "m_IOturnState = %d,m_OBDturnState = %d \n", static_cast<int>(io), static_cast<int>(obd));
    const int turn = io | obd;
    const char* unit = m_ucSpeedUnit != 0 ? "MPH" : "KM/H";
    const int speed = static_cast<int>(m_uiSpeed);
    char text[128] = {0};
    switch (turn) {
        case 0:
            snprintf(text, sizeof(text), "%d%s", speed, unit);
            break;
        case 1:
            snprintf(text, sizeof(text), "%d%s %s", speed, unit, "(L)");
            break;
        case 2:
            snprintf(text, sizeof(text), "%d%s %s", speed, unit, "(R)");
            break;
        case 3:
            snprintf(text, sizeof(text), "%d%s %s", speed, unit, "(L R)");
            break;
        default:
            break;  // an unknown state blanks the item
    }
    // The speed line is sent again next cycle, so a record that cannot be had is not logged.
    SendOverlayText(kOsdItemSpeed, static_cast<uint32_t>(GetVideoChannalMask(m_videoInNum + m_videoIpNum)),
                    m_OSDX_Speed, m_OSDY_Speed, text, nullptr);
}
