// Device and system information: the system configuration, the kernel command line, the
// serial number with its board type, and the state that businesses share through the manager.
#include <string.h>

#include <string>
#include <thread>
#include <vector>

#include "CycleRunner.h"
#include "TestSupport.h"
#include "TruckOsdService.h"

namespace {

class DeviceInfo : public ManagerOnDevice {
protected:
    DeviceInfo() : ManagerOnDevice("test_device_info") {}
};

// Fills the stack below the caller, so that a buffer the code forgets to clear shows what a
// call made from the same place leaves in it.
__attribute__((noinline)) void DirtyStack() {
    volatile unsigned char junk[4096];
    for (volatile unsigned char& byte : junk) {
        byte = 0xA5;
    }
}

}  // namespace

// basic_init takes the peripheral block, then the system configuration, then starts the SDK.
TEST_F(DeviceInfo, SystemConfigurationIsKeptWholeOrNotAtAll) {
    nvx::SetBasicInitFails(true);
    EXPECT_EQ(manage->basic_init(), -1);
    std::vector<std::string> steps;
    for (const nvx::LogLine& line : nvx::CapturedLogs()) {
        if (line.module == "TRUCK") {
            steps.push_back(std::to_string(line.level) + " " + line.text);
        }
    }
    EXPECT_EQ(steps, (std::vector<std::string>{
                         "4 load peripheral config file[/usr/local/cfg/serialconfig.bsn] failed\n",
                         "2 Get system config json failed [/usr/local/cfg/SYSTEM_CONFIG]\n\n\n",
                         "0 JQ_SDK_Basic_Initialize failed.\n"}));
    EXPECT_EQ(manage->BasicAnalyzeSystemconfig(), -1);

    WriteDeviceFile("/usr/local/cfg/SYSTEM_CONFIG", "{\"CUSTOMER_NAME\": \"" + std::string(40, 'c') + "\"}");
    EXPECT_EQ(manage->BasicAnalyzeSystemconfig(), 0);
    EXPECT_TRUE(Logged("TRUCK", 3, "Get system config json succ [/usr/local/cfg/SYSTEM_CONFIG]\n\n\n"));
    EXPECT_EQ(manage->BasicGetCustomerName(), std::string(31, 'c'));

    // A document that breaks off half way must not leave its first half behind.
    WriteDeviceFile("/usr/local/cfg/SYSTEM_CONFIG", "{\"CUSTOMER_NAME\": \"ACME\", \"N\": ");
    EXPECT_EQ(manage->BasicAnalyzeSystemconfig(), -1);
    EXPECT_TRUE(manage->BasicGetSystemConfig().isNull());
    EXPECT_EQ(manage->BasicGetCustomerName(), "");

    for (const char* text :
         {"[\"CUSTOMER_NAME\"]", "{\"CUSTOMER_NAME\": 7}", "{\"CUSTOMER_NAME\": \"\"}", "{}"}) {
        WriteDeviceFile("/usr/local/cfg/SYSTEM_CONFIG", text);
        EXPECT_EQ(manage->BasicAnalyzeSystemconfig(), 0) << text;
        EXPECT_EQ(manage->BasicGetCustomerName(), "") << text;
    }
    EXPECT_FALSE(manage->BasicGetSystemConfig().isMember("CUSTOMER_NAME")) << "asking must not add the name";
}

TEST_F(DeviceInfo, CommandLineValuesNeedTheirEndMarkAndDigitsOnly) {
    struct Case {
        std::string text;
        unsigned int flashSize, chipType;
    };
    const std::vector<Case> cases = {
        {"console=ttyS0 flashsize=16M chiptype=3 mem=64M", 16, 3},
        {"chiptype=12 flashsize=16MB", 16, 12},
        {"flashsize_mb=1 flashsize=8M chiptypes=4 chiptype=2 ", 8, 2},  // the keys end in '='
        {"flashsize=0x10 chiptype=3\n", 0, 0},   // no unit at all; no space after the chip type
        {"flashsize=128m chiptype=7 ", 128, 7},  // a small m only when no capital M follows
        {"flashsize=32m mem=64M", 0, 0},         // the capital M comes first and wins
        {"flashsize=M chiptype= end", 0, 0},     // empty values read as 0
        {"flashsize=" + std::string(126, '0') + "5M", 5, 0},
        {"flashsize=" + std::string(127, '0') + "5M", 0, 0},
        {"flashsize=99999999999M chiptype=-1 ", 0xFFFFFFFFu, 0},
    };
    for (const Case& c : cases) {
        unsigned int flashSize = 77, chipType = 77;
        CTruckServiceManage::basic_parse_cmdline(c.text.c_str(), flashSize, chipType);
        EXPECT_EQ(flashSize, c.flashSize) << c.text;
        EXPECT_EQ(chipType, c.chipType) << c.text;
    }
}

TEST_F(DeviceInfo, CommandLineFileIsReadUpToItsFirst512BytesOrFirstNul) {
    EXPECT_EQ(manage->GetChipInfo(), -1);
    EXPECT_TRUE(Logged("TRUCK", 0, "Can't open /proc/cmdline\n"));

    // The chip type's closing space is byte 512 of the file, then byte 513: only the first counts.
    for (const size_t pad : {487, 488}) {
        WriteDeviceFile("/proc/cmdline", "flashsize=16M " + std::string(pad, 'x') + "chiptype=5 ");
        EXPECT_EQ(manage->GetChipInfo(), 0);
        EXPECT_EQ(manage->basic_get_chip_info().uiFlashSize, 16u);
        EXPECT_EQ(manage->basic_get_chip_info().uiChipType, pad == 487 ? 5u : 0u) << pad;
    }

    WriteDeviceFile("/proc/cmdline", std::string("chiptype=4 flashsize=8M\0chiptype=9 ", 35));
    const int descriptors = OpenDescriptors();
    EXPECT_EQ(manage->GetChipInfo(), 0);
    EXPECT_EQ(manage->basic_get_chip_info().uiChipType, 4u);
    EXPECT_EQ(OpenDescriptors(), descriptors) << "the file is closed";

    WriteDeviceFile("/proc/cmdline", "");
    EXPECT_EQ(manage->GetChipInfo(), 0) << "an empty command line is read, with nothing in it";
    EXPECT_EQ(manage->basic_get_chip_info().uiChipType, 0u);
}

TEST_F(DeviceInfo, SerialNumberIsAskedForUntilGivenThenBoardTypeAndReadiness) {
    config.uiProductType = 20;
    nvx::DeviceProfile profile;
    profile.serialNumber = "1A8B0123456789ABCDEF";
    nvx::SetDeviceProfile(profile);
    nvx::SetSerialNumberFailures(3);

    // No command line for two seconds, no serial number for three: each is asked for again.
    // The command line is read once, so a change after that is not seen.
    for (int second = 0; second < 4; ++second) {
        if (second >= 2) {
            WriteDeviceFile("/proc/cmdline",
                            second == 2 ? "flashsize=16M chiptype=3 mem=64M" : "chiptype=5 ");
        }
        manage->BasicGetDeviceInfo();
        EXPECT_EQ(manage->basic_get_serialnumber_info()->bValid, second == 3 ? 1u : 0u);
        EXPECT_EQ(manage->basic_get_chip_info().uiDeviceInfoReady, second == 3 ? 1u : 0u);
    }
    int unreadable = 0, chipLines = 0;
    for (const nvx::LogLine& line : nvx::CapturedLogs()) {
        unreadable += line.text == "Can't open /proc/cmdline\n";
        chipLines += line.text.rfind("get ChipType.", 0) == 0;
    }
    EXPECT_EQ(unreadable, 2);
    EXPECT_EQ(chipLines, 1);
    manage->BasicGetDeviceInfo();
    EXPECT_EQ(nvx::CallCount("JQ_SDK_Device_GetDeviceSerialNumber"), 4u) << "not asked again once known";
    EXPECT_TRUE(Logged("TRUCK", 3, "get ChipType.3 FlashSize.16\n"));
    EXPECT_EQ(manage->basic_get_chip_info().uiFlashSize, 16u);
    EXPECT_EQ(manage->basic_get_chip_info().uiChipType, 3u);
    EXPECT_STREQ(manage->basic_get_serialnumber_info()->szSerialNumber, "1A8B0123456789A");
    EXPECT_EQ(manage->basic_get_chip_info().mainBoardType, 132u);
    EXPECT_EQ(manage->basic_get_chip_info().uiDeviceInfoReady, 1u);
    EXPECT_TRUE(Logged("TRUCK", 3, "get SerialNumber.1A8B0123456789A mainBoardType.132\n"));

    unsigned int product = 0, board = 0;
    EXPECT_EQ(manage->GetProductInfoFromAuthSerial("7E0A", product, board), 0);
    EXPECT_EQ(product * 1000 + board, 126010u) << "126 is folded on boards only";
    manage->GetProductInfoFromAuthSerial("3C", product, board);
    EXPECT_EQ(product * 1000 + board, 60010u) << "a missing pair keeps its value";
    // Only boards 126, 139, 141 and 145 of product 20 become 132.
    for (unsigned int productType : {19u, 20u, 21u}) {
        config.uiProductType = productType;
        for (unsigned int b = 124; b < 148; ++b) {
            char serial[8];
            snprintf(serial, sizeof(serial), "00%02x", b);
            manage->GetProductInfoFromAuthSerial(serial, product, board);
            const bool folded = productType == 20 && (b == 126 || b == 139 || b == 141 || b == 145);
            EXPECT_EQ(board, folded ? 132u : b) << "product " << productType << ", board " << b;
        }
    }
    EXPECT_EQ(manage->GetProductInfoFromAuthSerial(nullptr, product, board), -1);

    // The serial number's buffer is cleared whole before the platform writes a shorter one.
    profile.serialNumber = "7E0A";
    nvx::SetDeviceProfile(profile);
    CTruckServiceManage second(&config);
    DirtyStack();
    second.BasicGetDeviceInfo();
    EXPECT_EQ(std::string(second.basic_get_serialnumber_info()->szSerialNumber, 16),
              "7E0A" + std::string(12, '\0'));
}

TEST_F(DeviceInfo, GlobalConfigurationGetters) {
    config.uiProductType = 0x01020304;
    config.uiSystemType = 0x0A0B0C0D;
    config.usVideoInNum = 4;
    config.usVideoIpNum = 2;
    EXPECT_EQ(manage->basic_get_product_type(), 0x01020304u);
    EXPECT_EQ(manage->basic_get_system_type(), 0x0A0B0C0Du);
    EXPECT_EQ(manage->BasicGetVideoInNum(), 6u);
    EXPECT_EQ(manage->BasicGetVideoIpNum(), 2u);
}

TEST_F(DeviceInfo, RemoteTaskBitsAreIndependentAndOnlyZeroTo31Exist) {
    // A type past 31 or below 0 changes no bit, not even the one its shift would wrap to.
    for (int type : {0, 5, 9, 31, 32, 33, 40, -1}) {
        EXPECT_EQ(manage->SetRemoteTaskListState(type, true), 0);
    }
    manage->SetRemoteTaskListState(9, false);
    manage->SetRemoteTaskListState(32, false);
    for (int type = -1; type < 41; ++type) {
        EXPECT_EQ(manage->GetRemoteTastListState(type), type == 0 || type == 5 || type == 31) << type;
    }
}

TEST_F(DeviceInfo, AlarmStateIsCopiedAndAlwaysReadWhole) {
    ChnAlarmState_t a, b;
    memset(&a, 0, sizeof(a));
    const ChnAlarmState_t fresh = manage->GetChannelAlarmState();
    EXPECT_EQ(memcmp(&a, &fresh, sizeof(a)), 0) << "a new manager knows no alarm";
    memset(&a, 0x11, sizeof(a));
    memset(&b, 0x22, sizeof(b));
    EXPECT_EQ(manage->SetChannelAlarmState(a), 0);
    std::thread writer([&] {
        for (int i = 0; i < 5000; ++i) {
            manage->SetChannelAlarmState(i % 2 == 0 ? b : a);
        }
    });
    int torn = 0;
    for (int i = 0; i < 5000; ++i) {
        const ChnAlarmState_t seen = manage->GetChannelAlarmState();
        torn += memcmp(&seen, &a, sizeof(seen)) != 0 && memcmp(&seen, &b, sizeof(seen)) != 0;
    }
    writer.join();
    EXPECT_EQ(torn, 0);
    memset(&a, 0x33, sizeof(a));  // the manager keeps its own copy
    EXPECT_EQ(manage->GetChannelAlarmState().aucState[31], 0x11);
}

// A log line names the file it comes from, so that file, function and line lead to the code.
TEST_F(DeviceInfo, LogLinesNameTheFileTheyComeFrom) {
    manage->BasicAnalyzeSystemconfig();
    manage->basic_load_business();
    callback_basic_request_storage_mntputh(nullptr, 0, nullptr);
    Json::Value none;
    char name[] = "osd";
    CTruckOsdService osd(manage.get(), nullptr, 7, name, 0, none);
    osd.OnUpdateIoUseInfo("{}", 2);
    Json::Value timep;
    timep["TIMEZ"] = "60";
    osd.TimeParamParse(timep);
    const std::string dir = "truck_mainbusiness/basicservice/";
    const std::pair<const char*, std::string> lines[] = {
        {"Get system config json failed", dir + "servicemanage/TruckServiceManageDevice"},
        {"Get basic config json failed", dir + "servicemanage/TruckServiceManageLoad"},
        {"storage callback param error", dir + "servicemanage/TruckServiceManageStorage"},
        {"m_videoInNum = ", dir + "osdservice/TruckOsdService"},
        {"turnState,m_turnState = ", dir + "osdservice/TruckOsdServiceSpeed"},
        {"szTimeZone = ", dir + "osdservice/TruckOsdServiceTime"}};
    for (const auto& [text, file] : lines) {
        std::string found = "(no such line)";
        for (const nvx::LogLine& line : nvx::CapturedLogs()) {
            if (line.text.rfind(text, 0) == 0) {
                found = line.file;
            }
        }
        EXPECT_EQ(found, file) << text;
    }
}
