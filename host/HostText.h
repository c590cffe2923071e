// The host's text helpers, one home each: JSON read and printed one way, bytes as hexadecimal
// digits, the device's date-time text, and a whole file read with a message that names it.
// The calendar beneath the dates is the device's own (NvxControl.h).
#ifndef TRUCK_HOST_HOSTTEXT_H
#define TRUCK_HOST_HOSTTEXT_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include <json/json.h>

namespace truckhost {

// Reads one JSON value; comments are allowed and dropped. `strict` also refuses anything after
// the value and a member named twice. False with the reader's message on one line: its parts
// without their bullets, `joint` between them ("Line 1, Column 15: Syntax error: ...").
bool ReadJson(const std::string& text, Json::Value& value, std::string& error, bool strict = false,
              const char* joint = ": ");

// One line without spaces. Text outside ASCII is written as \u escapes, so the line is ASCII and
// valid JSON whatever bytes a script or the plug-in gave (bytes that are not UTF-8 become
// U+FFFD): a bus log stays readable by any JSON reader, and says the same as the script's lines.
std::string Compact(const Json::Value& value);

// Two lower-case digits a byte.
std::string HexText(const std::vector<uint8_t>& bytes);
// The bytes of an even number of hexadecimal digits of either case. False for anything else,
// `bytes` untouched, with `badAt` (when given) at the first character that is not a digit, or
// at the end for an odd count.
bool FromHex(const std::string& text, std::vector<uint8_t>& bytes, size_t* badAt = nullptr);

// "YYYY-MM-DDTHH:MM:SS" read without a zone, as seconds since 1970. False for anything else
// and for a time outside 1970..2099 (the device's records end with 2099).
bool ParseDeviceTime(const std::string& text, int64_t& seconds);
// The other way: "YYYY-MM-DD<separator>HH:MM:SS" on 64 bits, to 2099 on either build; "?"
// before 1970.
std::string DeviceTimeText(int64_t seconds, char separator = 'T');

// `what` names the file in the message: "cannot read the script 'x': No such file or directory".
bool ReadWholeFile(const std::string& path, const char* what, std::string& text, std::string& error);

}  // namespace truckhost

#endif
