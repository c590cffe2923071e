#include "HostText.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <exception>
#include <fstream>
#include <memory>
#include <sstream>
#include <utility>

#include "NvxControl.h"

namespace truckhost {

bool ReadJson(const std::string& text, Json::Value& value, std::string& error, bool strict,
              const char* joint) {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    if (strict) {
        builder["failIfExtra"] = true;
        builder["rejectDupKeys"] = true;
    }
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string told;
    try {
        if (reader->parse(text.data(), text.data() + text.size(), &value, &told)) {
            return true;
        }
    } catch (const std::exception& e) {
        // Nesting deeper than the reader's stack limit.
        told = e.what();
    }
    // The reader tells "* Line 1, Column 15\n  Syntax error: ...\n".
    std::istringstream lines(told);
    error.clear();
    for (std::string line; std::getline(lines, line);) {
        std::string part;
        std::istringstream words(line);
        for (std::string word; words >> word;) {
            if (word != "*") {
                part += (part.empty() ? "" : " ") + word;
            }
        }
        if (!part.empty()) {
            error += (error.empty() ? "" : joint) + part;
        }
    }
    return false;
}

std::string Compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = false;
    return Json::writeString(builder, value);
}

namespace {

// 0..15 for a hexadecimal digit of either case, else -1.
int HexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

}  // namespace

std::string HexText(const std::vector<uint8_t>& bytes) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (uint8_t b : bytes) {
        out.push_back(kDigits[b >> 4]);
        out.push_back(kDigits[b & 15]);
    }
    return out;
}

bool FromHex(const std::string& text, std::vector<uint8_t>& bytes, size_t* badAt) {
    size_t bad = text.size();
    std::vector<uint8_t> read;
    for (size_t i = 0; i < text.size() && bad == text.size(); ++i) {
        const int digit = HexDigit(text[i]);
        if (digit < 0) {
            bad = i;
        } else if (i % 2 == 0) {
            read.push_back(static_cast<uint8_t>(digit << 4));
        } else {
            read.back() = static_cast<uint8_t>(read.back() | digit);
        }
    }
    if (text.size() % 2 != 0 || bad != text.size()) {
        if (badAt != nullptr) {
            *badAt = text.size() % 2 != 0 ? text.size() : bad;
        }
        return false;
    }
    bytes = std::move(read);
    return true;
}

bool ParseDeviceTime(const std::string& text, int64_t& seconds) {
    static const char kShape[] = "dddd-dd-ddTdd:dd:dd";
    if (text.size() != sizeof(kShape) - 1) {
        return false;
    }
    for (size_t i = 0; i < text.size(); ++i) {
        const bool digit = isdigit(static_cast<unsigned char>(text[i])) != 0;
        if (kShape[i] == 'd' ? !digit : text[i] != kShape[i]) {
            return false;
        }
    }
    auto field = [&text](size_t at, size_t length) { return atoi(text.substr(at, length).c_str()); };
    const int year = field(0, 4);
    const int month = field(5, 2);
    const int day = field(8, 2);
    const int hour = field(11, 2);
    const int minute = field(14, 2);
    const int second = field(17, 2);
    if (year < 1970 || year > 2099 || month < 1 || month > 12 || day < 1 ||
        day > nvx::DaysInMonth(year, month) || hour > 23 || minute > 59 || second > 59) {
        return false;
    }
    seconds = nvx::DaysFromCivil(year, month, day) * 86400 + int64_t{hour} * 3600 + minute * 60 + second;
    return true;
}

std::string DeviceTimeText(int64_t seconds, char separator) {
    if (seconds < 0) {
        return "?";
    }
    const nvx::CivilTime c = nvx::CivilFromSeconds(seconds);
    char text[48];
    snprintf(text, sizeof(text), "%04lld-%02d-%02d%c%02d:%02d:%02d", static_cast<long long>(c.year), c.month,
             c.day, separator, c.hour, c.minute, c.second);
    return text;
}

bool ReadWholeFile(const std::string& path, const char* what, std::string& text, std::string& error) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream bytes;
    if (file) {
        bytes << file.rdbuf();
    }
    if (!file || file.bad()) {
        error = std::string("cannot read the ") + what + " '" + path + "': " + strerror(errno);
        return false;
    }
    text = bytes.str();
    return true;
}

}  // namespace truckhost
