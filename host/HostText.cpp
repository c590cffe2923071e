#include "HostText.h"

#include <exception>
#include <memory>
#include <sstream>

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

}  // namespace truckhost
