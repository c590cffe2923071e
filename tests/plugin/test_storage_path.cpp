// The storage root directory as the storage service reports it, the paths built below it,
// and the peripheral block taken from its file.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "CycleRunner.h"
#include "TestSupport.h"

namespace {

class StoragePath : public ManagerOnDevice {
protected:
    StoragePath() : ManagerOnDevice("test_storage_path") {}
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(ManagerOnDevice::SetUp());
        JQ_SDK_Storage_MonitorFuseStatus(callback_basic_request_storage_mntputh, manage.get(), 0);
    }
    std::string Root(const char* subPath = "", int outLen = 64) {
        char out[64] = "";
        const int rc = manage->basic_get_normal_file_root_dir(subPath, out, outLen);
        return rc == 0 ? std::string(out) : "rc " + std::to_string(rc);
    }
    static int CountLogged(const std::string& text, int level) {
        int count = 0;
        for (const nvx::LogLine& line : nvx::CapturedLogs()) {
            count += line.text == text && line.level == level && line.module == "TRUCK";
        }
        return count;
    }
};

}  // namespace

TEST_F(StoragePath, PathsAreBuiltBelowAUsableMountOnlyAndCutToTheBuffer) {
    char out[64];
    memset(out, 'Q', sizeof(out));
    EXPECT_EQ(manage->basic_get_normal_file_root_dir("log", out, sizeof(out)), -10);
    EXPECT_EQ(std::string(out, sizeof(out)), std::string(64, 'Q'));
    EXPECT_TRUE(Logged("TRUCK", 3, "param error result : -10, mntPath =  \n"));

    nvx::SetStorageMount(0, "/mnt/hd1");
    EXPECT_EQ(manage->basic_request_storage_mntputh(), 0);
    ASSERT_TRUE(nvx::WaitForStorageIdle(kGenerousMs));
    EXPECT_EQ(Root("log"), "/mnt/hd1/log");
    EXPECT_EQ(manage->basic_get_normal_file_root_dir(out, sizeof(out)), 0);
    EXPECT_STREQ(out, "/mnt/hd1/");
    memset(out, 'Q', sizeof(out));
    EXPECT_EQ(manage->basic_get_normal_file_root_dir("log", out, 5), 0);
    EXPECT_EQ(std::string(out, 6), std::string("/mnt\0Q", 6));

    EXPECT_EQ(Root("log", 0) + Root(nullptr) + Root("log", -1), "rc -1rc -1rc -1");
    EXPECT_TRUE(Logged("TRUCK", 1, "param error length = 0 \n"));
    EXPECT_TRUE(Logged("TRUCK", 1, "param error length = 64 \n"));
    EXPECT_EQ(manage->basic_get_normal_file_root_dir("log", nullptr, 64), -1);
}

TEST_F(StoragePath, OnlyAChangedRecordReplacesThePathAndIsLogged) {
    nvx::InjectStorageReport(0, "/mnt/hd1");
    nvx::InjectStorageReport(0, "/mnt/hd1");
    tag_fuseMntPathAck ack;  // the same path with other bytes behind its end
    memset(&ack, 0, sizeof(ack));
    memcpy(ack.szMntPath, "/mnt/hd1", 8);
    memcpy(ack.szMntPath + 29, "old", 3);  // the record's last bytes count too
    nvx::InjectStorageRaw(&ack, sizeof(ack));
    nvx::InjectStorageReport(3, "/mnt/hd1");
    ASSERT_TRUE(nvx::WaitForStorageIdle(kGenerousMs));
    EXPECT_EQ(CountLogged("m_fuseMntPath result = 0, mntPath = /mnt/hd1\n", 3), 2);
    EXPECT_TRUE(Logged("TRUCK", 3, "m_fuseMntPath result = 3, mntPath = /mnt/hd1\n"));
    EXPECT_EQ(Root("log"), "rc 3");
    EXPECT_TRUE(Logged("TRUCK", 3, "param error result : 3, mntPath = /mnt/hd1 \n"));
}

TEST_F(StoragePath, MalformedReportsAreLoggedAndLeaveThePath) {
    nvx::InjectStorageReport(0, "/mnt/hd1");
    const std::vector<char> bytes(37, 'A');
    nvx::InjectStorageRaw(bytes.data(), 35);
    nvx::InjectStorageRaw(bytes.data(), 37);
    nvx::InjectStorageRaw(nullptr, 36);
    ASSERT_TRUE(nvx::WaitForStorageIdle(kGenerousMs));
    tag_fuseMntPathAck other = {0, "/mnt/other"};
    callback_basic_request_storage_mntputh(&other, 38, manage.get());
    callback_basic_request_storage_mntputh(&other, 36, nullptr);
    for (int length : {35, 37, 36, 38}) {
        EXPECT_TRUE(
            Logged("TRUCK", 1, "storage callback param error, length = " + std::to_string(length) + "\n"));
    }
    EXPECT_EQ(CountLogged("storage callback param error, length = 36\n", 1), 2);
    EXPECT_EQ(Root(), "/mnt/hd1/");
    EXPECT_EQ(manage->basic_set_normal_file_root_dir(nullptr), -1);

    // A path that fills its 32 bytes without an end is taken as those 32 characters.
    tag_fuseMntPathAck ack;
    memset(&ack, 'A', sizeof(ack));
    ack.iResult = 0;
    nvx::InjectStorageRaw(&ack, sizeof(ack));
    ASSERT_TRUE(nvx::WaitForStorageIdle(kGenerousMs));
    EXPECT_EQ(Root("x"), std::string(32, 'A') + "/x");
    EXPECT_TRUE(Logged("TRUCK", 3, "m_fuseMntPath result = 0, mntPath = " + std::string(32, 'A') + "\n"));
    EXPECT_EQ(manage->basic_set_normal_file_root_dir(&ack), 0) << "the same record again";
    ack.szMntPath[0] = 'B';
    EXPECT_EQ(manage->basic_set_normal_file_root_dir(&ack), 0);
}

TEST_F(StoragePath, ReadersAlwaysSeeOneWholeMountPath) {
    nvx::InjectStorageReport(0, "/mnt/hd1");
    ASSERT_TRUE(nvx::WaitForStorageIdle(kGenerousMs));
    // The readers run from before the first report until every report has been delivered,
    // so that they overlap the storage thread's writes whatever the machine's speed.
    std::atomic<int> readers{0};
    std::atomic<bool> delivered{false};
    std::atomic<int> mixed{0};
    std::atomic<int> sawSecond{0};
    auto reader = [&] {
        ++readers;
        while (!delivered.load()) {
            const std::string root = Root();
            mixed += root != "/mnt/hd1/" && root != "/mnt/sd_card_two/";
            sawSecond += root == "/mnt/sd_card_two/";
        }
    };
    std::thread first(reader), second(reader);
    EXPECT_TRUE(Eventually([&] { return readers.load() == 2; }));
    for (int i = 0; i < 2000; ++i) {
        nvx::InjectStorageReport(0, i % 2 == 0 ? "/mnt/sd_card_two" : "/mnt/hd1");
    }
    nvx::InjectStorageReport(0, "/mnt/sd_card_two");
    EXPECT_TRUE(nvx::WaitForStorageIdle(kGenerousMs));
    EXPECT_TRUE(Eventually([&] { return sawSecond.load() > 0; })) << "the readers saw the reports change";
    delivered.store(true);
    first.join();
    second.join();
    EXPECT_EQ(mixed.load(), 0);
}

TEST_F(StoragePath, PeripheralBlockTakesWhatTheFileHasAndNeverReadsPastItsEnd) {
    auto load = [&](const std::string& bytes) {
        WriteDeviceFile("/usr/local/cfg/serialconfig.bsn", bytes);
        EXPECT_EQ(manage->basic_load_peripheral_config(), 0);
        return std::string(reinterpret_cast<char*>(manage->basic_get_peripheral_config()), 7716);
    };
    const std::string zero(7716, '\0');
    const int descriptors = OpenDescriptors();
    EXPECT_EQ(manage->basic_load_peripheral_config(), 0);
    EXPECT_EQ(load(""), zero);
    EXPECT_EQ(CountLogged("load peripheral config file[/usr/local/cfg/serialconfig.bsn] failed\n", 4), 2)
        << "missing, then empty";

    EXPECT_EQ(load(std::string(8000, 'p')), std::string(7716, 'p'));
    EXPECT_TRUE(Logged("TRUCK", 4, "load peripheral config file[/usr/local/cfg/serialconfig.bsn] success\n"));
    // Ends on a page boundary: a copy of the whole block would touch the page past the file.
    // Nothing of the longer file before it stays behind the shorter one.
    std::string bytes(4096, '\0');
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>(i * 7 + 1);
    }
    EXPECT_EQ(load(bytes), bytes + zero.substr(bytes.size()));
    // Loaded again at every start of a device that runs for years: no descriptor or mapping may
    // stay behind.
    EXPECT_EQ(OpenDescriptors(), descriptors);
    std::ifstream maps("/proc/self/maps");
    const std::string mapped((std::istreambuf_iterator<char>(maps)), std::istreambuf_iterator<char>());
    EXPECT_EQ(mapped.find("serialconfig.bsn"), std::string::npos);

    // A host that closed its standard input gives the file descriptor 0: refused, and closed.
    const int input = dup(0);
    close(0);
    EXPECT_TRUE(load(std::string(8000, 'p')) == bytes + zero.substr(bytes.size())) << "the last load stays";
    EXPECT_EQ(-1, fcntl(0, F_GETFD)) << "descriptor 0 left open";
    dup2(input, 0);
    close(input);
}
