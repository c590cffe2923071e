// File, time and string helpers: directories and folder search in a temporary folder, file
// sizes past 2 GiB, the hex dump read back by a decoder of our own, trimming and delays.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <fstream>
#include <sstream>
#include <tuple>
#include <vector>

#include "CommonDefine.h"
#include "OsUtils.h"
#include "TestSupport.h"

namespace {

class FileHelpers : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        ASSERT_FALSE(m_dir.empty());
    }
    std::string Write(const std::string& name, const std::string& content) {
        std::ofstream(m_dir + "/" + name) << content;
        return m_dir + "/" + name;
    }
    // The texts of the captured lines, each of which must carry `level` and the tag TRUCK.
    static std::vector<std::string> LogTexts(int level = 2) {
        std::vector<std::string> texts;
        for (const nvx::LogLine& line : nvx::CapturedLogs()) {
            EXPECT_EQ(std::make_pair(std::string("TRUCK"), level), std::make_pair(line.module, line.level));
            texts.push_back(line.text);
        }
        return texts;
    }
    TempFolder m_folder{"test_file_helpers"};
    const std::string& m_dir = m_folder.path();
};

}  // namespace

TEST_F(FileHelpers, DirectoriesAreMadeAlongThePathAndMayExistAlready) {
    // 255 characters, trailing slash included, is the longest path taken.
    std::string longest = m_dir + "/video/";
    longest += std::string(254 - longest.size(), 'd') + "/";
    EXPECT_TRUE(make_directory(longest.c_str()));
    struct stat status;
    EXPECT_TRUE(stat(longest.c_str(), &status) == 0 && S_ISDIR(status.st_mode));
    const std::string deep = m_dir + "/a/b/c/d/e";
    EXPECT_TRUE(make_directory(deep.c_str()));
    EXPECT_TRUE(make_directory(deep.c_str())) << "directories that exist already are fine";
    EXPECT_TRUE(make_directory("/"));
    const mode_t mask = umask(0);  // the mode asked for, whole
    EXPECT_TRUE(make_directory((m_dir + "/open/all").c_str()));
    umask(mask);
    for (const char* made : {"/open", "/open/all"}) {
        EXPECT_TRUE(stat((m_dir + made).c_str(), &status) == 0 && (status.st_mode & 07777) == 0777) << made;
    }
    EXPECT_TRUE(LogTexts().empty());
}

TEST_F(FileHelpers, BadPathsAreRefusedWithTheirMessage) {
    EXPECT_FALSE(make_directory("video/ch01"));
    EXPECT_FALSE(make_directory(("/" + std::string(255, 'd')).c_str()));
    EXPECT_FALSE(make_directory((m_dir + "//video").c_str()));
    EXPECT_FALSE(make_directory("/proc/truck"));        // the process file system makes no directories
    EXPECT_FALSE(make_directory("/proc/truck/ch01/"));  // nor goes on past one it could not make
    const std::string failed = "mkdir /proc/truck failed, error = No such file or directory\n";
    EXPECT_EQ((std::vector<std::string>{"make_directory: invalid directory\n",
                                        "make_directory: invalid directory\n", "two '/', eg:/test//test\n",
                                        failed, failed}),
              LogTexts());
}

TEST_F(FileHelpers, RecordsAreLittleEndianAndDevicePathsLieUnderTheRoot) {
    unsigned char bytes[6] = {0};
    TruckPutLE16(bytes, 0x0506);
    TruckPutLE32(bytes + 2, 0x01020304);
    EXPECT_EQ(std::string("\x06\x05\x04\x03\x02\x01", 6), std::string(reinterpret_cast<char*>(bytes), 6));
    EXPECT_EQ(0x01020304u, TruckGetLE32(bytes + 2));
    nvx::SetSystemRoot(m_dir + "//");
    EXPECT_EQ(m_dir + "/usr/local/cfg", TruckDevicePath("/usr/local/cfg"));
    nvx::SetSystemRoot("");
}

TEST_F(FileHelpers, FolderSearchAppendsMatchingNamesAndCountsThem) {
    Write("ch01.mp4", "");
    Write("ch02.mp4", "");
    Write("ch01.jpg", "");
    std::list<std::string> names = {"kept"};
    EXPECT_EQ(0, FindFileInFolder(m_dir.c_str(), ".mp4", names));
    ASSERT_EQ(3u, names.size());
    EXPECT_EQ((std::vector<std::string>{"find file, name = " + *std::next(names.begin()) + ", count = 2\n",
                                        "find file, name = " + names.back() + ", count = 3\n"}),
              LogTexts(3));
    EXPECT_EQ(0, FindFileInFolder(m_dir.c_str(), "", names));
    EXPECT_EQ(8u, names.size()) << "every entry, . and .. included";
    EXPECT_EQ(-1, FindFileInFolder(m_dir.c_str(), nullptr, names));
    EXPECT_EQ(8u, names.size()) << "no pattern lists nothing";
    nvx::StartLogCapture();
    EXPECT_EQ(-1, FindFileInFolder((m_dir + "/none").c_str(), "", names));
    EXPECT_EQ(std::vector<std::string>{"Find file failed, opendir[" + m_dir + "/none] failed\n"}, LogTexts());
}

TEST_F(FileHelpers, FileSizesSaturateBeyondALong) {
    EXPECT_EQ(1234, GetNormalFileSize(Write("clip", std::string(1234, 'v')).c_str()));
    EXPECT_EQ(0, GetNormalFileSize((m_dir + "/none").c_str()));
    EXPECT_EQ(0, GetNormalFileSize(static_cast<FILE*>(nullptr)));
    // A recording past 2 GiB, sparse so that it costs no disk.
    const std::string big = Write("big", "");
    ASSERT_EQ(0, truncate64(big.c_str(), 3LL << 30));
    const long expected = (3LL << 30) > LONG_MAX ? LONG_MAX : static_cast<long>(3LL << 30);
    EXPECT_EQ(expected, GetNormalFileSize(big.c_str()));
    FILE* file = fopen64(big.c_str(), "rb");
    EXPECT_EQ(expected, GetNormalFileSize(file));
    EXPECT_EQ(EOF, fgetc(file)) << "left at its end";
    fclose(file);
}

TEST_F(FileHelpers, HexDumpReadsBackAsTheBytesWithACharacterColumnPerFullRow) {
    std::string data;
    for (int i = 0; i < 300; ++i) {
        data += static_cast<char>(i % 3 == 0 ? 'A' + i % 26 : i * 7);
    }
    data[17] = '\x7F';  // the first byte past the printable ones
    OutputHexDump("frame", data.data(), data.size());
    ASSERT_EQ(1u, nvx::CapturedLogs().size());
    const std::string text = LogTexts(0)[0];
    ASSERT_EQ("frame\n", text.substr(0, 6));
    ASSERT_EQ("\n\n", text.substr(text.size() - 2));
    // Rows read "LL: " then "XX " per byte, a full row followed by its 16 characters; the
    // digits are upper case, and the label has at least two.
    const auto upperHex = [](const std::string& t) {
        return t.find_first_not_of("0123456789ABCDEF") == t.npos;
    };
    std::istringstream rows(text.substr(6, text.size() - 8));
    std::string row;
    size_t offset = 0;
    while (std::getline(rows, row)) {
        const size_t colon = row.find(": ");
        EXPECT_TRUE(colon >= 2 && upperHex(row.substr(0, colon))) << row;
        EXPECT_EQ(offset, std::stoul(row.substr(0, colon), nullptr, 16));
        const size_t count = std::min<size_t>(16, data.size() - offset);
        std::string column;
        for (size_t i = 0; i < count; ++i) {
            const unsigned char byte = data[offset + i];
            const std::string cell = row.substr(colon + 2 + 3 * i, 3);
            EXPECT_TRUE(upperHex(cell.substr(0, 2)) && cell[2] == ' ') << row;
            EXPECT_EQ(byte, std::stoul(cell, nullptr, 16));
            column += (byte >= 0x20 && byte < 0x7F) ? static_cast<char>(byte) : '.';
        }
        EXPECT_EQ(count == 16 ? column : "", row.substr(colon + 2 + 3 * count)) << row;
        offset += count;
    }
    EXPECT_EQ(data.size(), offset);
}

TEST_F(FileHelpers, TrimmingSleepsAndDelays) {
    for (const auto& c : std::vector<std::pair<std::string, std::string>>{
             {"word  ", "word"}, {"   ", "   "}, {"a b \r\n", "a b"}, {" a", " a"}}) {
        std::string text = c.first;
        FilterCharacters(text, " \r\n");
        EXPECT_EQ(c.second, text) << '"' << c.first << '"';
    }
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, mSleep(1030));  // whole seconds and the rest both count
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1030));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(6)) << "seconds are 1000 ms";

    unsigned char first = 1;
    unsigned int since = 0;
    EXPECT_FALSE(ProcessDelayTime(nullptr, &since, 0) || ProcessDelayTime(&first, nullptr, 0));
    EXPECT_FALSE(ProcessDelayTime(&first, &since, 0)) << "arming never fires";
    EXPECT_TRUE(ProcessDelayTime(&first, &since, 0));
    EXPECT_FALSE(ProcessDelayTime(&first, &since, 3600));
    since = OsUtilsGetSeconds() + 10;
    EXPECT_TRUE(ProcessDelayTime(&first, &since, 5)) << "a clock that went back counts as elapsed";
    EXPECT_FALSE(ProcessDelayTime(&first, &since, 3600)) << "but only by how far it went";
    first = 1;
    EXPECT_FALSE(ProcessDelayTime(&first, &since, 5)) << "re-armed";

    // Milliseconds of the second, from the wall clock the process sees.
    nvx::HoldWallClockMicros(1767323045999999);
    EXPECT_EQ(999, GetMicroOfSecond());
    nvx::HoldWallClockMicros(1767323046001000);
    EXPECT_EQ(1, GetMicroOfSecond());
}

TEST_F(FileHelpers, DateChecksAndBusinessIdsKeepTheirFieldsApart) {
    // Year, month, day, hour, minute, second, weekday: each at both ends of its range, then
    // one step outside. 31 February passes: the day is not held against the month.
    const int lowest[] = {0, 1, 1, 0, 0, 0, 0}, highest[] = {99, 12, 31, 23, 59, 59, 6};
    for (int field = 0; field < 7; ++field) {
        tagDateTime date = {99, 2, 31, 23, 59, 59, 6, 0};
        uint8_t* bytes = reinterpret_cast<uint8_t*>(&date);
        for (int value : {lowest[field] - 1, lowest[field], highest[field], highest[field] + 1}) {
            bytes[field] = static_cast<uint8_t>(value);
            EXPECT_EQ(value >= lowest[field] && value <= highest[field], CheckDateTimeCorrect(date))
                << "field " << field << " at " << value;
        }
    }

    EXPECT_EQ(ComposeBusinessId(1, 0x8000, 2), 0x0000000180000002ull);
    EXPECT_EQ(ComposeBusinessId(0xFEDCBA98, 0xFFFF, 0x7FFF), 0xFEDCBA98FFFF7FFFull);
    unsigned int type = 0;
    unsigned short group = 0, index = 0;
    EXPECT_EQ(DecomposeBusinessId(0xFEDCBA98FFFF7FFFull, type, group, index), 0);
    EXPECT_EQ(std::make_tuple(0xFEDCBA98u, 0xFFFF, 0x7FFF), std::make_tuple(type, int(group), int(index)));
    EXPECT_EQ(DecomposeBusinessId(0x0000000180000002ull, type, group, index), 0);
    EXPECT_EQ(std::make_tuple(1u, 0x8000, 2), std::make_tuple(type, int(group), int(index)));
}
