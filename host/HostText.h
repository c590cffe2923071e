// The host's text helpers, one home each: JSON read and printed one way.
#ifndef TRUCK_HOST_HOSTTEXT_H
#define TRUCK_HOST_HOSTTEXT_H

#include <string>

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

}  // namespace truckhost

#endif
