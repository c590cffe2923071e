// Common utilities of the service, declared in include/CommonDefine.h and split by concern:
//   CommonDefine.cpp    JSON access helpers: typed reads, text and file conversions, the
//                       document merge and the JsonUtils member tests
//   CommonEncoding.cpp  UTF-8 decoding and the GB2312 table look-up
//   CommonMedia.cpp     stored media values to encoder and output settings
//   CommonFile.cpp      directories, folder search, hex dumps, delays, business ids
#include "CommonDefine.h"

#include <string.h>

#include <algorithm>
#include <array>
#include <exception>
#include <fstream>

// The log lines of the JSON helpers carry fixed line numbers rather than __LINE__, so that
// they read the same whatever becomes of this file's layout.

int StringCopy(char* dst, unsigned int size, const char* src) {
    if (dst == nullptr || size == 0) {
        return 0;
    }
    memset(dst, 0, size);
    if (src == nullptr) {
        return 0;
    }
    memcpy(dst, src, std::min<size_t>(strlen(src), size - 1));
    return 0;
}

int GetJsonCString(const Json::Value& v, char* buf, int size) {
    // Without a buffer of at least one byte there is nothing to clear or terminate.
    if (buf == nullptr || size < 1) {
        return -1;
    }
    if (!v.empty() && v.isString()) {
        try {
            StringCopy(buf, static_cast<unsigned int>(size), v.asCString());
            return 0;
        } catch (const std::exception&) {
            JQ_LOG_Output("TRUCK", 2, TRUCK_LOG_SOURCE, "GetJsonCString", 74,
                          "Exception when parse json: %s\n", v.toStyledString().c_str());
        }
    }
    memset(buf, 0, static_cast<size_t>(size));
    return -1;
}

int GetJsonCString(const Json::Value& v, unsigned char* buf, int size) {
    return GetJsonCString(v, reinterpret_cast<char*>(buf), size);
}

int GetJsonFloat(const Json::Value& v, float& out, float defaultValue) {
    if (v.empty() || (!v.isNumeric() && !v.isString())) {
        out = defaultValue;
        return -1;
    }
    if (v.isString()) {
        try {
            // Parameters often carry numbers as text; atof takes the leading number, 0 if none.
            out = static_cast<float>(atof(v.asCString()));
            return 0;
        } catch (const std::exception&) {
            JQ_LOG_Output("TRUCK", 2, TRUCK_LOG_SOURCE, "GetJsonFloat", 107,
                          "Exception when parse json: %s\n", v.toStyledString().c_str());
            out = defaultValue;
            return -1;
        }
    }
    try {
        out = v.asFloat();
        return 0;
    } catch (const std::exception&) {
        JQ_LOG_Output("TRUCK", 2, TRUCK_LOG_SOURCE, "GetJsonFloat", 120, "Exception when parse json: %s\n",
                      v.toStyledString().c_str());
        out = defaultValue;
        return -1;
    }
}

namespace {

// Where the comment that opens at text[at] ('/') ends, as the reader skips it: "/*" up to the
// next "*/" after it, "//" up to a line end. Anything else after the slash is no comment, and
// the reader refuses the text there.
unsigned int CommentEnd(const char* text, unsigned int length, unsigned int at) {
    if (at + 1 >= length || (text[at + 1] != '*' && text[at + 1] != '/')) {
        return at + 1;
    }
    unsigned int i = at + 2;
    if (text[at + 1] == '/') {
        while (i < length && text[i] != '\n' && text[i] != '\r') {
            ++i;
        }
        return i;
    }
    for (; i + 1 < length; ++i) {
        if (text[i] == '*' && text[i + 1] == '/') {
            return i + 2;
        }
    }
    return length;  // unterminated: the reader refuses it, and nothing after it is read
}

}  // namespace

bool JsonNestingWithin(const char* text, unsigned int length, int maxDepth) {
    if (text == nullptr) {
        return true;
    }
    // Comments are skipped as the reader skips them (it takes them between any two tokens):
    // a quote inside one must not open a string that hides the brackets after it.
    int depth = 0;
    bool inString = false;
    bool escaped = false;
    for (unsigned int i = 0; i < length; ++i) {
        const char c = text[i];
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '/') {
            i = CommentEnd(text, length, i) - 1;
        } else if (c == '[' || c == '{') {
            if (++depth > maxDepth) {
                return false;
            }
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return true;
}

bool ConvertStringToJson(const char* text, unsigned int length, Json::Value& root) {
    if (text == nullptr) {
        return false;
    }
    try {
        Json::Reader reader;
        return reader.parse(text, text + length, root, true);
    } catch (const std::exception&) {
        // Bus payloads carry no terminator: the log gets a terminated copy of exactly the
        // bytes that were parsed.
        const std::string copy(text, length);
        JQ_LOG_Output("TRUCK", 1, TRUCK_LOG_SOURCE, "ConvertStringToJson", 39,
                      "Exception when parse string: %s\n", copy.c_str());
        return false;
    }
}

bool ConvertJsonToString(const Json::Value& v, std::string& text) {
    try {
        Json::FastWriter writer;
        std::string written = writer.write(v);
        text.swap(written);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

void JsonToString(const Json::Value& v, std::string& text) {
    Json::FastWriter writer;
    text = writer.write(v);
}

int LoadJsonFile(const char* path, Json::Value& root) {
    if (path == nullptr) {
        return -22;
    }
    try {
        std::ifstream in(path);
        if (!in.good()) {
            in.close();
            return -1;
        }
        Json::Reader reader;
        if (!reader.parse(in, root, false)) {
            in.close();
            return -1;
        }
        return 0;
    } catch (const std::exception&) {
        return -1;
    }
}

namespace {

void MergeArray(Json::Value& dst, Json::Value& src, bool overwrite) {
    const Json::ArrayIndex srcSize = src.size();
    if (srcSize == 0) {
        return;
    }
    for (Json::ArrayIndex i = 0; i < srcSize; ++i) {
        JsonValueMerge(dst[i], src[i], overwrite);
    }
    // A longer destination takes the source's last element as the pattern for its tail.
    const Json::ArrayIndex dstSize = dst.size();
    for (Json::ArrayIndex i = srcSize; i < dstSize; ++i) {
        JsonValueMerge(dst[i], src[srcSize - 1], overwrite);
    }
}

void MergeObject(Json::Value& dst, Json::Value& src, bool overwrite) {
    for (const std::string& name : src.getMemberNames()) {
        JsonValueMerge(dst[name], src[name], overwrite);
    }
}

}  // namespace

void JsonValueMerge(Json::Value& dst, Json::Value& src, bool overwrite) {
    if (src.isNull()) {
        return;
    }
    if (dst.isNull()) {
        dst = src;
        return;
    }
    // The library throws when a container is indexed as the other kind (or a scalar as
    // either); such a node is skipped and left as it is on both sides, and the merge goes on
    // with its siblings.
    if (src.isArray()) {
        if (dst.isArray()) {
            MergeArray(dst, src, overwrite);
        }
        return;
    }
    if (src.isObject()) {
        if (dst.isObject()) {
            MergeObject(dst, src, overwrite);
        }
        return;
    }
    if (overwrite) {
        dst = src;
        return;
    }
    // "?" marks a leaf that the caller wants filled in from the destination.
    if (src.isString() && src.asString() == "?") {
        src = dst;
    }
}

namespace {

struct CustomerTypeName_t {
    const char* name;
    int type;
};

std::array<CustomerTypeName_t, 9> s_customerTypes = {{
    {"CUSTOMER_NORMAL", 0},
    {"CUSTOMER_133036", 43},
    {"CUSTOMER_52074", 44},
    {"CUSTOMER_1302", 45},
    {"CUSTOMER_208351", 46},
    {"CUSTOMER_227088", 47},
    {"138028", 48},
    {"CUSTOMER_3837", 49},
    {"CUSTOMER_2981", 50},
}};

// The member `key` of the system configuration as text, empty when the configuration is not
// an object or the member is not a string.
std::string StringMemberOrEmpty(const Json::Value& systemConfig, const char* key) {
    if (!systemConfig.isObject()) {
        return std::string();
    }
    const Json::Value& member = systemConfig[key];
    return member.isString() ? member.asString() : std::string();
}

}  // namespace

int ParseCustomerType(const Json::Value& systemConfig) {
    const std::string name = StringMemberOrEmpty(systemConfig, "CUSTOMER_NAME");
    // Read through a copy: the table is writable, and a look-up must not depend on it staying
    // unchanged while it runs.
    const std::array<CustomerTypeName_t, 9> table = s_customerTypes;
    for (const CustomerTypeName_t& entry : table) {
        if (name == entry.name) {
            return entry.type;
        }
    }
    return 0;
}

std::string ParseProductType(const Json::Value& systemConfig) {
    std::string productType = StringMemberOrEmpty(systemConfig, "PRODUCT_TYPE");
    JQ_LOG_Output("TRUCK", 0, TRUCK_LOG_SOURCE, "ParseProductType", 993, "PRODUCT_TYPE = %s \r\n",
                  productType.c_str());
    return productType;
}

Json::Value& GetJsonValue(Json::Value& v, const char* key) {
    // Member access throws on anything but an object or null. Such a caller gets a null value
    // of its thread's own that is reset on every such call: it reads as absent, writes to it
    // go nowhere, and v stays as it was.
    if (key == nullptr || !(v.isNull() || v.isObject())) {
        static thread_local Json::Value t_detached;
        t_detached = Json::Value();
        return t_detached;
    }
    return v[key];
}

namespace JsonUtils {

bool ParseJsonContext(const char* text, int length, Json::Value& root) {
    if (length < 1 || text == nullptr) {
        return false;
    }
    // The reader throws on nesting too deep for it; such a payload is refused like any other
    // bad text rather than taking the calling thread down.
    try {
        Json::Reader reader;
        return reader.parse(text, text + length, root, true);
    } catch (const std::exception&) {
        return false;
    }
}

bool IsMember(const Json::Value& v, const char* key) {
    return key != nullptr && v.isObject() && v.isMember(key);
}

bool IsObjectMember(const Json::Value& v, const char* key) {
    return IsMember(v, key) && v[key].isObject();
}

bool IsArrayMember(const Json::Value& v, const char* key) {
    return IsMember(v, key) && v[key].isArray();
}

bool IsValidArrayMember(const Json::Value& v, const char* key, int index) {
    return IsArrayMember(v, key) && IsValidArrayIndex(v[key], index);
}

bool IsArrayMember(const Json::Value& v, const char* key, int index) {
    return IsValidArrayMember(v, key, index) && v[key][index].isArray();
}

bool IsValidArrayIndex(const Json::Value& v, int index) {
    return v.isArray() && index >= 0 && static_cast<Json::ArrayIndex>(index) < v.size();
}

int GetArrayMemberSize(const Json::Value& v, const char* key) {
    return IsArrayMember(v, key) ? static_cast<int>(v[key].size()) : 0;
}

int GetArrayMemberSize(const Json::Value& v, const char* key, int index) {
    return IsArrayMember(v, key, index) ? static_cast<int>(v[key][index].size()) : 0;
}

bool IsStringMember(const Json::Value& v, const char* key) {
    return IsMember(v, key) && v[key].isString();
}

bool IsBoolMember(const Json::Value& v, const char* key) {
    return IsMember(v, key) && v[key].isBool();
}

bool IsIntMember(const Json::Value& v, const char* key) {
    return IsMember(v, key) && v[key].isInt();
}

bool IsUIntMember(const Json::Value& v, const char* key) {
    return IsMember(v, key) && v[key].isUInt();
}

bool IsInt64Member(const Json::Value& v, const char* key) {
    return IsMember(v, key) && v[key].isIntegral();
}

bool IsInt64ArrayMember(const Json::Value& v, int index) {
    return IsValidArrayIndex(v, index) && v[index].isIntegral();
}

bool IsUInt64ArrayMember(const Json::Value& v, int index) {
    return IsInt64ArrayMember(v, index);
}

bool GetStringMember(const Json::Value& v, const char* key, std::string& out) {
    if (!IsStringMember(v, key)) {
        return false;
    }
    out = v[key].asString();
    return true;
}

std::string AsStringMember(const Json::Value& v, const char* key) {
    return IsStringMember(v, key) ? v[key].asString() : std::string();
}

const char* AsCStringMember(const Json::Value& v, const char* key) {
    static const char kEmpty[] = "";
    return IsStringMember(v, key) ? v[key].asCString() : kEmpty;
}

bool GetCStringMember(const Json::Value& v, const char* key, char* dst, int len) {
    if (dst == nullptr || len < 1 || !IsStringMember(v, key)) {
        return false;
    }
    strncpy(dst, v[key].asCString(), static_cast<size_t>(len));
    return true;
}

bool GetBoolMember(const Json::Value& v, const char* key, bool& out) {
    if (!IsBoolMember(v, key)) {
        return false;
    }
    out = v[key].asBool();
    return true;
}

bool GetIntMember(const Json::Value& v, const char* key, int& out) {
    if (!IsIntMember(v, key)) {
        return false;
    }
    out = v[key].asInt();
    return true;
}

bool GetUIntMember(const Json::Value& v, const char* key, unsigned int& out) {
    // A negative int has no unsigned 32-bit value (the library throws on it), so only what
    // fits unsigned 32 bits is read; a negative gives false and leaves out as it was.
    if (!IsUIntMember(v, key)) {
        return false;
    }
    out = v[key].asUInt();
    return true;
}

bool GetInt64Member(const Json::Value& v, const char* key, long long& out) {
    if (!IsInt64Member(v, key)) {
        return false;
    }
    const Json::Value& member = v[key];
    // Integral values above the signed 64-bit range (which asInt64 refuses) keep their bits,
    // as a cast of the unsigned value would.
    out = member.isInt64() ? static_cast<long long>(member.asInt64())
                           : static_cast<long long>(member.asUInt64());
    return true;
}

int AsIntMember(const Json::Value& v, const char* key, int defaultValue) {
    return IsIntMember(v, key) ? v[key].asInt() : defaultValue;
}

int AsIntArrayMember(const Json::Value& v, const char* key, int index, int defaultValue) {
    if (!IsValidArrayMember(v, key, index) || !v[key][index].isInt()) {
        return defaultValue;
    }
    return v[key][index].asInt();
}

int AsArrayIntMember(const Json::Value& v, int index, const char* key, int defaultValue) {
    return IsValidArrayIndex(v, index) ? AsIntMember(v[index], key, defaultValue) : defaultValue;
}

unsigned int AsUIntMember(const Json::Value& v, const char* key, unsigned int defaultValue) {
    // A signed value of 1 or more always fits unsigned 32 bits as well, so negatives and
    // everything that is not a whole number give the default.
    return IsUIntMember(v, key) ? v[key].asUInt() : defaultValue;
}

unsigned int AsUIntMember(const Json::Value& v, const char* key, int index, unsigned int defaultValue) {
    // Same rule as for a plain member; negative and non-numeric elements, which the library
    // refuses to read as unsigned, give the default.
    if (!IsValidArrayMember(v, key, index) || !v[key][index].isUInt()) {
        return defaultValue;
    }
    return v[key][index].asUInt();
}

unsigned int AsUIntArrayMember(const Json::Value& v, int index, const char* key, unsigned int defaultValue) {
    return IsValidArrayIndex(v, index) ? AsUIntMember(v[index], key, defaultValue) : defaultValue;
}

unsigned long long AsUInt64Member(const Json::Value& v, const char* key, unsigned long long defaultValue) {
    // Every whole number from 0 up to the top of the unsigned 64-bit range, including those
    // above the signed range that asInt64 would refuse; negatives give the default.
    if (!IsMember(v, key) || !v[key].isUInt64()) {
        return defaultValue;
    }
    return v[key].asUInt64();
}

unsigned long long AsUInt64ArrayMember(const Json::Value& v, const char* key, int index,
                                       unsigned long long defaultValue) {
    if (!IsValidArrayMember(v, key, index)) {
        return defaultValue;
    }
    const Json::Value& element = v[key][index];
    // Whatever the library refuses to convert (a negative whole number as unsigned, text,
    // containers, fractions beyond the 64-bit range) gives the default.
    try {
        if (element.isIntegral()) {
            return element.asUInt64();
        }
        return static_cast<unsigned long long>(element.asInt64());
    } catch (const std::exception&) {
        return defaultValue;
    }
}

}  // namespace JsonUtils
