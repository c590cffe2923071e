// Common utilities, small free helpers: directory creation, folder search and file sizes, the
// hex dump to the log, trailing-character trimming, sleeps and delays, date/time range checks
// and the packing of business ids.
#include "CommonDefine.h"

#include <dirent.h>
#include <errno.h>
#include <limits.h>
#include <string.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>

#include <algorithm>
#include <exception>
#include <string>

#include "OsUtils.h"

namespace {

// Device paths are at most this long; the working copy of make_directory holds one more byte.
constexpr size_t kMaxPathLength = 255;

// mkdir that counts an existing directory as success. A non-directory in the way is a
// failure: the caller was promised a directory.
bool CreateOneDirectory(const char* path) {
    if (mkdir(path, 0777) == 0) {
        return true;
    }
    const int error = errno;
    if (error == EEXIST) {
        struct stat64 status;  // the 32-bit stat fails on large inode numbers
        if (stat64(path, &status) == 0 && S_ISDIR(status.st_mode)) {
            return true;
        }
    }
    char errorBuffer[128];
    TRUCK_LOG(2, "mkdir %s failed, error = %s\n", path,
              TruckErrorText(strerror_r(error, errorBuffer, sizeof errorBuffer), errorBuffer));
    return false;
}

// Video files pass 2 GiB, and a long on the device holds no more: such a size saturates
// rather than wrapping or reading as an empty file.
long ClampFileSize(long long size) {
    return static_cast<long>(std::clamp<long long>(size, 0, LONG_MAX));
}

}  // namespace

bool make_directory(const char* path) {
    if (path == nullptr || path[0] != '/' || strnlen(path, kMaxPathLength + 1) > kMaxPathLength) {
        TRUCK_LOG(2, "make_directory: invalid directory\n");
        return false;
    }
    if (strcmp(path, "/") == 0) {
        return true;
    }
    if (strstr(path, "//") != nullptr) {
        TRUCK_LOG(2, "two '/', eg:/test//test\n");
        return false;
    }
    char buffer[kMaxPathLength + 1];
    strcpy(buffer, path);
    size_t length = strlen(buffer);
    if (buffer[length - 1] == '/') {
        buffer[--length] = '\0';
    }
    // Each inner '/' ends a prefix: cut the path there, create the prefix, put the '/' back.
    for (size_t i = 1; i < length; ++i) {
        if (buffer[i] != '/') {
            continue;
        }
        buffer[i] = '\0';
        const bool created = CreateOneDirectory(buffer);
        buffer[i] = '/';
        if (!created) {
            return false;
        }
    }
    return CreateOneDirectory(buffer);
}

int FindFileInFolder(const char* folder, const char* pattern, std::list<std::string>& names) {
    // A null pattern is a caller's fault; matching everything could hand a clean-up loop
    // every file of the folder, so nothing is listed.
    if (pattern == nullptr) {
        return -1;
    }
    DIR* dir = folder != nullptr ? opendir(folder) : nullptr;
    if (dir == nullptr) {
        TRUCK_LOG(2, "Find file failed, opendir[%s] failed\n", folder != nullptr ? folder : "(null)");
        return -1;
    }
    // readdir64: the 32-bit readdir gives up with EOVERFLOW on file systems whose inode
    // numbers or directory offsets need 64 bits, and the folder would look empty.
    while (const struct dirent64* entry = readdir64(dir)) {
        if (strstr(entry->d_name, pattern) == nullptr) {
            continue;
        }
        names.push_back(entry->d_name);
        TRUCK_LOG(3, "find file, name = %s, count = %d\n", entry->d_name, static_cast<int>(names.size()));
    }
    closedir(dir);
    return 0;
}

long GetNormalFileSize(FILE* file) {
    if (file == nullptr) {
        return 0;
    }
    // The 64-bit calls, so that a large file opened by a caller still gives its true end.
    if (fseeko64(file, 0, SEEK_END) != 0) {
        return 0;
    }
    return ClampFileSize(static_cast<long long>(ftello64(file)));
}

long GetNormalFileSize(const char* path) {
    if (path == nullptr) {
        return 0;
    }
    struct stat64 status;
    if (stat64(path, &status) != 0) {
        return 0;
    }
    return ClampFileSize(static_cast<long long>(status.st_size));
}

void OutputHexDump(const char* title, const char* data, unsigned int length) {
    static const unsigned int kBytesPerRow = 16;
    const char* heading = title != nullptr ? title : "";
    if (data == nullptr) {
        length = 0;
    }
    // The dump of a large buffer needs four times its size; on a 32-bit device that can be
    // more than the process can get. Then the title alone is logged, and nothing throws.
    std::string text;
    try {
        text = heading;
        // Each byte takes three characters and a character column; each row a label.
        text.reserve(text.size() + static_cast<size_t>(length) * 4 + (length / kBytesPerRow + 1) * 12);
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(data);
        char cell[24];
        for (unsigned int i = 0; i < length; ++i) {
            if (i % kBytesPerRow == 0) {
                snprintf(cell, sizeof cell, "\n%02X: ", i);
                text += cell;
            }
            snprintf(cell, sizeof cell, "%02X ", bytes[i]);
            text += cell;
            if (i % kBytesPerRow == kBytesPerRow - 1) {
                // ASCII printables only, whatever the process's locale says.
                for (unsigned int j = i + 1 - kBytesPerRow; j <= i; ++j) {
                    text += (bytes[j] >= 0x20 && bytes[j] < 0x7F) ? static_cast<char>(bytes[j]) : '.';
                }
            }
        }
    } catch (const std::exception&) {
        TRUCK_LOG(0, "%s\n\n", heading);
        return;
    }
    TRUCK_LOG(0, "%s\n\n", text.c_str());
}

void FilterCharacters(std::string& text, std::string characters) {
    const std::string::size_type last = text.find_last_not_of(characters);
    if (last == std::string::npos) {
        return;
    }
    text.erase(last + 1);
}

int mSleep(unsigned int milliseconds) {
    struct timeval timeout;
    timeout.tv_sec = static_cast<time_t>(milliseconds / 1000);
    // (ms % 1000) * 1000 is (ms * 1000) mod 1000000 without the 32-bit overflow of the product.
    timeout.tv_usec = static_cast<suseconds_t>((milliseconds % 1000) * 1000);
    return select(0, nullptr, nullptr, nullptr, &timeout);
}

bool ProcessDelayTime(unsigned char* first, unsigned int* since, unsigned int seconds) {
    if (first == nullptr || since == nullptr) {
        return false;
    }
    const unsigned int now = OsUtilsGetSeconds();
    if (*first == 1) {
        *first = 0;
        *since = now;
        if (seconds == 0) {
            return false;
        }
    }
    const unsigned int elapsed = now >= *since ? now - *since : *since - now;
    return elapsed >= seconds;
}

int GetMicroOfSecond() {
    struct timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<int>(now.tv_usec / 1000);
}

bool CheckDateTimeCorrect(tagDateTime& dateTime) {
    return dateTime.ucYear <= 99 && dateTime.ucMonth >= 1 && dateTime.ucMonth <= 12 && dateTime.ucDay >= 1 &&
           dateTime.ucDay <= 31 && dateTime.ucWeek <= 6 && dateTime.ucHour <= 23 && dateTime.ucMinute <= 59 &&
           dateTime.ucSecond <= 59;
}

unsigned long long ComposeBusinessId(unsigned int type, unsigned short group, unsigned short index) {
    return (static_cast<unsigned long long>(type) << 32) | (static_cast<unsigned long long>(group) << 16) |
           static_cast<unsigned long long>(index);
}

int DecomposeBusinessId(unsigned long long id, unsigned int& type, unsigned short& group,
                        unsigned short& index) {
    type = static_cast<unsigned int>(id >> 32);
    group = static_cast<unsigned short>((id >> 16) & 0xFFFF);
    index = static_cast<unsigned short>(id & 0xFFFF);
    return 0;
}
