// Device and system information of the service manager: the system configuration document,
// chip type and flash size from the kernel command line, the serial number with the board
// type derived from it, and the small pieces of state that businesses share through the
// manager (channel alarm states, remote task-list flags).
//
// The chip information and the serial number are written by the main cycle's thread only,
// under m_deviceInfoMutex, so that basic_get_chip_info hands a business a consistent copy.
#include "TruckServiceManage.h"

#include <stdio.h>
#include <string.h>

#include <atomic>
#include <optional>

#include "CommonDefine.h"
#include "JQ_SDK_Device.h"

namespace {

const char kSystemConfigPath[] = "/usr/local/cfg/SYSTEM_CONFIG";
const char kCmdlinePath[] = "/proc/cmdline";

// The kernel command line is short; anything past this is not ours to look at.
const size_t kCmdlineReadMax = 512;
// A longer value is not a number the boot loader meant for us.
const size_t kCmdlineValueMax = 127;
const size_t kCustomerNameSize = 32;

const unsigned int kRemoteTaskTypes = 32;

// Process-wide: the command line does not change while the device runs, so it is read once
// for the process, not once per manager.
std::atomic<bool> s_bChipInfoRead{false};
// What that one read found, so that a manager of a later start has it too.
std::atomic<uint32_t> s_uiFlashSize{0};
std::atomic<uint32_t> s_uiChipType{0};

// The value that starts at `begin` and ends right before `end`, as an unsigned decimal. An
// empty value reads as 0. None for anything that is not all digits or is too long.
std::optional<unsigned int> ParseDecimalValue(const char* begin, const char* end) {
    const size_t length = static_cast<size_t>(end - begin);
    if (length > kCmdlineValueMax) {
        return std::nullopt;
    }
    unsigned long long total = 0;
    for (const char* p = begin; p < end; ++p) {
        if (*p < '0' || *p > '9') {
            return std::nullopt;
        }
        // 127 digits do not fit any word: a runaway value saturates rather than wraps.
        total = total * 10 + static_cast<unsigned int>(*p - '0');
        if (total > 0xFFFFFFFFull) {
            total = 0xFFFFFFFFull;
        }
    }
    return static_cast<unsigned int>(total);
}

// The flash size ends at its unit: a capital M wherever it comes first after the key, a
// small m only when the line has no capital M left.
void ParseFlashSize(const char* text, unsigned int& flashSize) {
    const char* key = strstr(text, "flashsize=");
    if (key == nullptr) {
        return;
    }
    const char* begin = key + strlen("flashsize=");
    const char* end = strchr(begin, 'M');
    if (end == nullptr) {
        end = strchr(begin, 'm');
    }
    if (end == nullptr) {
        return;
    }
    if (const std::optional<unsigned int> value = ParseDecimalValue(begin, end)) {
        flashSize = *value;
    }
}

// The chip type must be followed by a space; at the very end of the line it is not taken.
void ParseChipType(const char* text, unsigned int& chipType) {
    const char* key = strstr(text, "chiptype=");
    if (key == nullptr) {
        return;
    }
    const char* begin = key + strlen("chiptype=");
    const char* end = strchr(begin, ' ');
    if (end == nullptr) {
        return;
    }
    if (const std::optional<unsigned int> value = ParseDecimalValue(begin, end)) {
        chipType = *value;
    }
}

bool IsCorrectedBoardType(unsigned int boardType) {
    return boardType == 126 || boardType == 139 || boardType == 141 || boardType == 145;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// System configuration. Read once by basic_init, before any business exists; afterwards
// only read, so the businesses' getters need no lock.

int CTruckServiceManage::BasicAnalyzeSystemconfig() {
    const std::string path = TruckDevicePath(kSystemConfigPath);
    if (LoadJsonFile(path.c_str(), m_systemConfig) != 0) {
        // A parse that failed half way may have left part of a document behind.
        m_systemConfig = Json::Value();
        TRUCK_LOG(2, "Get system config json failed [%s]\n\n\n", kSystemConfigPath);
        return -1;
    }
    TRUCK_LOG(3, "Get system config json succ [%s]\n\n\n", kSystemConfigPath);
    return 0;
}

Json::Value CTruckServiceManage::BasicGetSystemConfig() {
    return m_systemConfig;
}

std::string CTruckServiceManage::BasicGetCustomerName() {
    // Read through a const reference: the non-const operator[] would add the member.
    const Json::Value& config = m_systemConfig;
    if (!config.isObject() || !config.isMember("CUSTOMER_NAME")) {
        return std::string();
    }
    char name[kCustomerNameSize];
    GetJsonCString(config["CUSTOMER_NAME"], name, sizeof(name));
    return std::string(name);
}

// ---------------------------------------------------------------------------------------
// Chip information

void CTruckServiceManage::basic_parse_cmdline(const char* text, unsigned int& flashSize,
                                              unsigned int& chipType) {
    flashSize = 0;
    chipType = 0;
    if (text == nullptr) {
        return;
    }
    ParseFlashSize(text, flashSize);
    ParseChipType(text, chipType);
}

int CTruckServiceManage::GetChipInfo() {
    const std::string path = TruckDevicePath(kCmdlinePath);
    FILE* file = fopen(path.c_str(), "r");
    if (file == nullptr) {
        TRUCK_LOG(0, "Can't open /proc/cmdline\n");
        return -1;
    }
    // One byte more than is read, so the text always ends, whatever the file holds.
    char text[kCmdlineReadMax + 1];
    const size_t length = fread(text, 1, kCmdlineReadMax, file);
    fclose(file);
    text[length] = '\0';

    unsigned int flashSize = 0;
    unsigned int chipType = 0;
    basic_parse_cmdline(text, flashSize, chipType);

    MutexLocker locker(m_deviceInfoMutex);
    m_chipInfo.uiFlashSize = flashSize;
    m_chipInfo.uiChipType = chipType;
    return 0;
}

// ---------------------------------------------------------------------------------------
// Serial number and board type

int CTruckServiceManage::GetProductInfoFromAuthSerial(const char* serial, unsigned int& productCode,
                                                      unsigned int& boardType) {
    if (serial == nullptr) {
        return -1;
    }
    // Two hexadecimal pairs head the serial number; a pair that is not there leaves its
    // output as it was.
    sscanf(serial, "%02x%02x", &productCode, &boardType);
    // These boards of product 20 are one board to the rest of the system.
    if (basic_get_product_type() == 20 && IsCorrectedBoardType(boardType)) {
        boardType = 132;
    }
    return 0;
}

int CTruckServiceManage::BasicGetDeviceInfo() {
    if (m_chipInfo.uiDeviceInfoReady != 0) {
        return 0;  // complete: nothing changes any more
    }
    if (!s_bChipInfoRead.load() && GetChipInfo() == 0) {
        const ChipInfo_t chip = basic_get_chip_info();
        s_uiFlashSize.store(chip.uiFlashSize);
        s_uiChipType.store(chip.uiChipType);
        s_bChipInfoRead.store(true);
        TRUCK_LOG(3, "get ChipType.%d FlashSize.%d\n", static_cast<int>(chip.uiChipType),
                  static_cast<int>(chip.uiFlashSize));
    }

    // Only the main cycle writes the serial number, so reading bValid here needs no lock.
    if (m_serialNumberInfo.bValid == 0) {
        char serial[sizeof(m_serialNumberInfo.szSerialNumber)];
        memset(serial, 0, sizeof(serial));
        if (JQ_SDK_Device_GetDeviceSerialNumber(serial) == 0) {
            // The platform promises a terminated text; the log below must not trust that.
            serial[sizeof(serial) - 1] = '\0';
            unsigned int productCode = 0;
            unsigned int boardType = m_chipInfo.mainBoardType;
            GetProductInfoFromAuthSerial(serial, productCode, boardType);
            memcpy(m_serialNumberInfo.szSerialNumber, serial, sizeof(serial));
            // Businesses read the record through a plain pointer: the text is complete before
            // bValid says so, and a reader that sees bValid with acquire sees the whole text.
            __atomic_store_n(&m_serialNumberInfo.bValid, 1u, __ATOMIC_RELEASE);
            {
                MutexLocker locker(m_deviceInfoMutex);
                m_chipInfo.mainBoardType = boardType;
            }
            TRUCK_LOG(3, "get SerialNumber.%s mainBoardType.%d\n", serial, static_cast<int>(boardType));
        }
    }

    if (s_bChipInfoRead.load() && m_serialNumberInfo.bValid == 1) {
        // The command line is read once per process: a manager of a later start takes what
        // the first read found.
        MutexLocker locker(m_deviceInfoMutex);
        m_chipInfo.uiFlashSize = s_uiFlashSize.load();
        m_chipInfo.uiChipType = s_uiChipType.load();
        m_chipInfo.uiDeviceInfoReady = 1;
    }
    return 0;
}

// Readers on other threads check bValid with __atomic_load_n(..., __ATOMIC_ACQUIRE) before
// they read the text; the text never changes once bValid is 1.
SerialNumberInfo_t* CTruckServiceManage::basic_get_serialnumber_info() {
    return &m_serialNumberInfo;
}

ChipInfo_t CTruckServiceManage::basic_get_chip_info() {
    MutexLocker locker(m_deviceInfoMutex);
    return m_chipInfo;
}

// ---------------------------------------------------------------------------------------
// The global configuration block: the platform fills it before the manager exists and
// never changes it afterwards.

unsigned int CTruckServiceManage::basic_get_product_type() {
    return m_pGlobalConfig->uiProductType;
}

unsigned int CTruckServiceManage::basic_get_system_type() {
    return m_pGlobalConfig->uiSystemType;
}

unsigned int CTruckServiceManage::BasicGetVideoInNum() {
    return static_cast<unsigned int>(m_pGlobalConfig->usVideoInNum) +
           static_cast<unsigned int>(m_pGlobalConfig->usVideoIpNum);
}

unsigned int CTruckServiceManage::BasicGetVideoIpNum() {
    return m_pGlobalConfig->usVideoIpNum;
}

// ---------------------------------------------------------------------------------------
// State shared between businesses

int CTruckServiceManage::SetChannelAlarmState(const ChnAlarmState_t& state) {
    MutexLocker locker(m_chnAlarmStateMutex);
    m_chnAlarmState = state;
    return 0;
}

ChnAlarmState_t CTruckServiceManage::GetChannelAlarmState() const {
    MutexLocker locker(m_chnAlarmStateMutex);
    return m_chnAlarmState;
}

int CTruckServiceManage::SetRemoteTaskListState(enumTaskType type, bool on) {
    if (type < 0 || static_cast<unsigned int>(type) >= kRemoteTaskTypes) {
        return 0;
    }
    const uint32_t bit = 1u << type;
    // One atomic step each, so that businesses setting different bits never lose one.
    if (on) {
        m_uiRemoteTaskListState.fetch_or(bit);
    } else {
        m_uiRemoteTaskListState.fetch_and(~bit);
    }
    return 0;
}

bool CTruckServiceManage::GetRemoteTastListState(enumTaskType type) {
    if (type < 0 || static_cast<unsigned int>(type) >= kRemoteTaskTypes) {
        return false;
    }
    return (m_uiRemoteTaskListState.load() & (1u << type)) != 0;
}
