// Common utilities, text encoding: UTF-8 sequence lengths and decoding, and the GB2312 look-up
// through the font table file. No state is kept; every look-up opens the table on its own.
#include "CommonDefine.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

// The table holds one 2-byte entry per code point of the CJK Unified Ideographs block.
constexpr unsigned long kGbTableFirst = 0x4E00;
constexpr unsigned long kGbTableLast = 0x9FA5;
const char kGbTablePath[] = "./fonts/gb2312fonttable";
static_assert(sizeof(unsigned short) == 2, "a table entry fills the result exactly");

// Closes the table on every way out of a look-up.
class TableFile {
public:
    explicit TableFile(int fd) : m_fd(fd) {}
    ~TableFile() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    TableFile(const TableFile&) = delete;
    TableFile& operator=(const TableFile&) = delete;
    int fd() const { return m_fd; }

private:
    int m_fd;
};

}  // namespace

int GetUtf8ByteNumber(unsigned char first) {
    int ones = 0;
    for (unsigned char mask = 0x80; mask != 0 && (first & mask) != 0; mask >>= 1) {
        ++ones;
    }
    // Zero leading ones is a one-byte character; exactly one marks a continuation byte.
    return ones == 0 ? 1 : (ones == 1 ? 0 : ones);
}

int convert_utf8_unicode(const char* sequence, char* codePoint) {
    const size_t length = sequence != nullptr ? strlen(sequence) : 0;
    if (length < 2 || length > 4) {
        // Function and line are the common module's, so the line names the module, not this file.
        JQ_LOG_Output("TRUCK", 2, "truck_main/common/src/CommonDefine", "convert_utf8_unicode", 415,
                      "convert_utf8_unicode::invalid str_len[%d]\n", static_cast<int>(length));
        return -1;
    }
    if (codePoint == nullptr) {
        return -1;
    }
    // Only the bytes before the terminator are read, so a sequence cut short at the end of a
    // text decodes as the shorter form instead of running past it.
    const unsigned char* s = reinterpret_cast<const unsigned char*>(sequence);
    if (length == 2) {
        codePoint[0] = static_cast<char>(((s[0] & 0x03) << 6) | (s[1] & 0x3F));
        codePoint[1] = static_cast<char>((s[0] >> 2) & 0x07);
        return 0;
    }
    if (length == 3) {
        codePoint[0] = static_cast<char>(((s[1] & 0x03) << 6) | (s[2] & 0x3F));
        codePoint[1] = static_cast<char>(((s[0] & 0x0F) << 4) | ((s[1] >> 2) & 0x0F));
        return 0;
    }
    codePoint[0] = static_cast<char>(((s[2] & 0x03) << 6) | (s[3] & 0x3F));
    codePoint[1] = static_cast<char>(((s[1] & 0x0F) << 4) | ((s[2] >> 2) & 0x0F));
    codePoint[2] = static_cast<char>(((s[0] & 0x07) << 2) | ((s[1] >> 4) & 0x03));
    return 0;
}

int UnicodeToGb2312(unsigned long codePoint, unsigned short& gbCode) {
    if (codePoint < kGbTableFirst || codePoint > kGbTableLast) {
        printf("UnicodeToGb2312 unicode invalid parameter[%lx]\n", codePoint);
        return 0;
    }
    char errorBuffer[128];
    // O_CLOEXEC: the host may start other programs, which must not inherit the table.
    TableFile table(open(kGbTablePath, O_RDONLY | O_CLOEXEC));
    if (table.fd() < 0) {
        const int error = errno;
        printf("open gb2312fonttable faild, error = %s\n",
               TruckErrorText(strerror_r(error, errorBuffer, sizeof errorBuffer), errorBuffer));
        return -1;
    }
    const int offset = static_cast<int>(2 * (codePoint - kGbTableFirst));
    if (lseek(table.fd(), offset, SEEK_SET) == static_cast<off_t>(-1)) {
        const int error = errno;
        printf("lseek gb2312fonttable to [%d] faild, error = %s\n", offset,
               TruckErrorText(strerror_r(error, errorBuffer, sizeof errorBuffer), errorBuffer));
        return -1;
    }
    // The entry is read whole before gbCode is touched, so a short table leaves the caller's
    // value as it was.
    unsigned char entry[2];
    ssize_t got;
    do {
        got = read(table.fd(), entry, sizeof entry);
    } while (got < 0 && errno == EINTR);
    if (got != static_cast<ssize_t>(sizeof entry)) {
        // A short read at the end of a cut table sets no errno; "no data" is what happened.
        const int error = got < 0 ? errno : ENODATA;
        printf("read gb2312fonttable faild, erro = %s\n",
               TruckErrorText(strerror_r(error, errorBuffer, sizeof errorBuffer), errorBuffer));
        return -1;
    }
    memcpy(&gbCode, entry, sizeof entry);
    return 0;
}

const char* file_name(const char* path) {
    if (path == nullptr) {
        return nullptr;
    }
    const char* slash = strrchr(path, '/');
    if (slash == nullptr || slash[1] == '\0') {
        return path;
    }
    return slash + 1;
}
