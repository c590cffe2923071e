// Text encoding, checked against glibc's iconv as the reference encoder: UTF-8 decoding, and
// GB2312 look-ups in the font table that the build makes with iconv.
#include <errno.h>
#include <iconv.h>
#include <stdlib.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "CommonDefine.h"
#include "TestSupport.h"

namespace {

// One code point converted by iconv to `to`; empty when `to` has no such character.
std::string Reference(const char* to, unsigned long cp) {
    iconv_t cd = iconv_open(to, "UTF-32LE");
    char in[4] = {char(cp), char(cp >> 8), char(cp >> 16), 0};
    char out[8];
    char* inPtr = in;
    char* outPtr = out;
    size_t inLeft = sizeof in;
    size_t outLeft = sizeof out;
    const bool done = iconv(cd, &inPtr, &inLeft, &outPtr, &outLeft) != static_cast<size_t>(-1);
    iconv_close(cd);
    return done ? std::string(out, outPtr) : std::string();
}

// A heap copy of exactly the text and its terminator, so that ASan sees any read beyond.
std::unique_ptr<char[]> ExactCopy(const std::string& text) {
    std::unique_ptr<char[]> copy(new char[text.size() + 1]);
    memcpy(copy.get(), text.c_str(), text.size() + 1);
    return copy;
}

// Each test runs in a folder of its own that holds "fonts/gb2312fonttable", the build's table.
class TextEncoding : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        ASSERT_FALSE(m_dir.empty());
        ASSERT_EQ(
            system(("mkdir " + m_dir + "/fonts && cp " TRUCK_GB2312_TABLE " " + m_dir + "/fonts/").c_str()),
            0);
        ASSERT_EQ(chdir(m_dir.c_str()), 0);
    }
    void TearDown() override {
        EXPECT_EQ(chdir("/"), 0);
        DeviceTest::TearDown();
    }
    // Checks the look-up's result and returns what it printed.
    static std::string LookUp(unsigned long codePoint, unsigned short& gbCode, int expectedRc) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(expectedRc, UnicodeToGb2312(codePoint, gbCode)) << std::hex << codePoint;
        return testing::internal::GetCapturedStdout();
    }
    TempFolder m_folder{"test_text_encoding"};
    const std::string& m_dir = m_folder.path();
};

}  // namespace

TEST_F(TextEncoding, DecodingAgreesWithTheReferenceEncoderInEveryForm) {
    std::vector<unsigned long> codePoints = {0x7FF, 0x800, 0xFFFF, 0x10000, 0x10FFFF};
    for (unsigned long cp = 0x80; cp < 0x10FFFF; cp = cp * 5 / 4 + 1) {
        codePoints.push_back(cp);
    }
    for (unsigned long cp : codePoints) {
        const std::string utf8 = Reference("UTF-8", cp);
        if (utf8.empty()) {
            continue;  // a surrogate
        }
        EXPECT_EQ(static_cast<int>(utf8.size()), GetUtf8ByteNumber(utf8[0]));
        EXPECT_EQ(0, GetUtf8ByteNumber(utf8[1]));
        // Exactly as wide as the form writes: 3 bytes beyond U+FFFF, else 2.
        std::unique_ptr<unsigned char[]> out(new unsigned char[cp > 0xFFFF ? 3 : 2]);
        ASSERT_EQ(0, convert_utf8_unicode(ExactCopy(utf8).get(), reinterpret_cast<char*>(out.get())));
        EXPECT_EQ(cp, out[0] | out[1] << 8 | (cp > 0xFFFF ? out[2] << 16 : 0)) << std::hex << cp;
    }
    EXPECT_TRUE(nvx::CapturedLogs().empty());
}

TEST_F(TextEncoding, SequencesOfOtherLengthsAreRefusedAndLogged) {
    for (const char* refused : {"", "A", "\xE4", "\xF8\x88\x80\x80\x80"}) {
        char out[3] = {'x', 'x', 'x'};
        EXPECT_EQ(-1, convert_utf8_unicode(ExactCopy(refused).get(), out));
        EXPECT_EQ("xxx", std::string(out, 3));
    }
    ASSERT_EQ(4u, nvx::CapturedLogs().size());
    const nvx::LogLine last = nvx::CapturedLogs()[3];
    EXPECT_EQ("convert_utf8_unicode::invalid str_len[5]\n", last.text);
    EXPECT_EQ("TRUCK 2 truck_main/common/src/CommonDefine convert_utf8_unicode 415",
              last.module + " " + std::to_string(last.level) + " " + last.file + " " + last.func + " " +
                  std::to_string(last.line));
    EXPECT_EQ(8, GetUtf8ByteNumber(0xFF)) << "a lead beyond four bytes is counted, not refused";
}

TEST_F(TextEncoding, LookUpsAgreeWithTheReferenceEncoder) {
    // Every seventh ideograph, both ends of the table included.
    for (unsigned long cp = 0x4E00; cp <= 0x9FA5; cp += (cp == 0x9F9F ? 6 : 7)) {
        const std::string gb = Reference("GB2312", cp);
        unsigned short code = 0x5555;
        ASSERT_EQ("", LookUp(cp, code, 0));
        // The bytes lie in text order; our table marks what GB2312 lacks with 00 00.
        EXPECT_EQ(gb.empty() ? std::string(2, '\0') : gb, std::string(reinterpret_cast<char*>(&code), 2))
            << std::hex << cp;
    }
    unsigned short code = 0xABCD;
    EXPECT_EQ("UnicodeToGb2312 unicode invalid parameter[4dff]\n", LookUp(0x4DFF, code, 0));
    EXPECT_EQ("UnicodeToGb2312 unicode invalid parameter[9fa6]\n", LookUp(0x9FA6, code, 0));
    EXPECT_EQ(0xABCD, code);
}

TEST_F(TextEncoding, FileErrorsFailLeaveTheResultAndCloseTheTable) {
    const int descriptors = OpenDescriptors();
    unsigned short code = 0;
    ASSERT_EQ(0, truncate("fonts/gb2312fonttable", 41803));  // the last entry cut in half
    EXPECT_EQ("", LookUp(0x9FA4, code, 0));
    const unsigned short whole = code;
    EXPECT_EQ("read gb2312fonttable faild, erro = No data available\n", LookUp(0x9FA5, code, -1));
    ASSERT_EQ(0, truncate("fonts/gb2312fonttable", 41802));  // the last entry gone whole
    errno = EACCES;
    EXPECT_EQ("read gb2312fonttable faild, erro = No data available\n", LookUp(0x9FA5, code, -1));
    ASSERT_EQ(0, system("rm -r fonts/gb2312fonttable && mkdir fonts/gb2312fonttable"));
    EXPECT_EQ("read gb2312fonttable faild, erro = Is a directory\n", LookUp(0x4E00, code, -1));
    // A pipe cannot seek; its other end is held open so that opening it does not wait.
    ASSERT_EQ(0, system("rmdir fonts/gb2312fonttable && mkfifo fonts/gb2312fonttable"));
    const int pipeEnd = open("fonts/gb2312fonttable", O_RDWR);
    EXPECT_EQ("lseek gb2312fonttable to [10] faild, error = Illegal seek\n", LookUp(0x4E05, code, -1));
    close(pipeEnd);
    ASSERT_EQ(0, system("rm -r fonts"));
    EXPECT_EQ("open gb2312fonttable faild, error = No such file or directory\n", LookUp(0x4E00, code, -1));
    EXPECT_EQ(whole, code);
    EXPECT_EQ(descriptors, OpenDescriptors()) << "every look-up closes the table";

    // A host that closed its standard input gives the table descriptor 0: closed all the same.
    ASSERT_EQ(0, system("mkdir fonts && cp " TRUCK_GB2312_TABLE " fonts/"));
    const int input = dup(0);
    close(0);
    EXPECT_EQ(0, UnicodeToGb2312(0x4E00, code));
    EXPECT_EQ(-1, fcntl(0, F_GETFD)) << "descriptor 0 left open";
    dup2(input, 0);
    close(input);
}

TEST_F(TextEncoding, FileNameIsTheLastComponentUnlessThereIsNone) {
    const char* path = "/mnt/sd1/video/ch01.mp4";
    EXPECT_EQ(path + 15, file_name(path));
    for (const char* whole : {"/mnt/sd1/", "ch01.mp4", ""}) {
        EXPECT_EQ(whole, file_name(whole));
    }
}
