// JSON access helpers: typed reads, text and file conversions, the merge of documents, the
// system-configuration look-ups and the JsonUtils member reads.
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "AppLibCommon.h"
#include "CommonDefine.h"
#include "NvxControl.h"
#include "TestSupport.h"

namespace {

Json::Value Parse(const std::string& text) {
    Json::Value root;
    EXPECT_TRUE(ConvertStringToJson(text.data(), text.size(), root)) << text;
    return root;
}

// (module, level, file, func, line, text) of the last captured line, and how many there were.
using LogFields = std::tuple<std::string, int, std::string, std::string, int, std::string>;
LogFields LastLog(size_t expectedCount) {
    const auto logs = nvx::CapturedLogs();
    EXPECT_EQ(expectedCount, logs.size());
    if (logs.empty()) {
        return LogFields();
    }
    const nvx::LogLine& l = logs.back();
    return LogFields(l.module, l.level, l.file, l.func, l.line, l.text);
}

class JsonHelpers : public ::testing::Test {
protected:
    void SetUp() override {
        nvx::SetLogLevel(-1);
        nvx::StartLogCapture();
    }
    void TearDown() override { nvx::StopLogCapture(); }
};

// The SDK's own helper, which the service reads every integer through.
TEST_F(JsonHelpers, IntegralReadsCutToWidthAndRefuseWhatIsNotAWholeNumber) {
    unsigned char uc = 9;
    EXPECT_EQ(0, GetJsonIntegral(Json::Value(300), uc, true, 7));
    EXPECT_EQ(44, uc);
    EXPECT_EQ(0, GetJsonIntegral(Json::Value(-1), uc, true, 7));
    EXPECT_EQ(255, uc) << "a negative is read signed, then cut";
    int i = 0;
    EXPECT_EQ(-1, GetJsonIntegral(Json::Value(5.5), i, true, 7));
    EXPECT_EQ(-1, GetJsonIntegral(Json::Value("5"), i, false, 8));
    EXPECT_EQ(7, i) << "default, then untouched without useDefault";
    unsigned short us = 1;
    EXPECT_EQ(-1, GetJsonIntegral(Json::Value(Json::Int64(4294967296LL)), us, true, 3));
    EXPECT_EQ(3, us);
    EXPECT_EQ(LogFields("APPCOM", 4, "norvixsdk/include/AppLibCommon", "GetJsonIntegral", 219,
                        "Exception when parse json: 4294967296\n\n"),
              LastLog(1));
}

TEST_F(JsonHelpers, CStringReadsTruncateTerminateAndClearOnFailure) {
    char buf[12];
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(0, GetJsonCString(Json::Value("ab"), buf, 6));
    EXPECT_EQ(std::string("ab\0\0\0\0x", 7), std::string(buf, 7)) << "all of the given size is cleared first";
    EXPECT_EQ(0, GetJsonCString(Json::Value("abcdefghij"), buf, 10));
    EXPECT_STREQ("abcdefghi", buf);
    EXPECT_EQ('x', buf[10]) << "wrote past the given size";
    unsigned char ubuf[6];
    memset(ubuf, 'x', sizeof ubuf);
    EXPECT_EQ(-1, GetJsonCString(Json::Value(42), ubuf, sizeof ubuf));
    EXPECT_EQ(std::vector<unsigned char>(6, 0), std::vector<unsigned char>(ubuf, ubuf + 6));
    EXPECT_TRUE(nvx::CapturedLogs().empty()) << "a number is refused as it is, not read as text";
    EXPECT_TRUE(GetJsonCString(Json::Value("a"), buf, 0) == -1 &&
                GetJsonCString(Json::Value("a"), static_cast<char*>(nullptr), 4) == -1);
    EXPECT_TRUE(GetJsonCString(Json::Value("a"), buf, 1) == 0 && buf[0] == '\0') << "room for the end alone";
    // A copy has no failure to report, whatever it is given.
    EXPECT_TRUE(StringCopy(buf, 4, nullptr) == 0 && buf[0] == '\0' && StringCopy(nullptr, 4, "a") == 0 &&
                StringCopy(buf, 0, "a") == 0);
}

TEST_F(JsonHelpers, FloatReadsTakeNumbersAndNumericTextOnly) {
    float f = 0;
    EXPECT_EQ(0, GetJsonFloat(Json::Value("12.5"), f, 1.0f));
    EXPECT_FLOAT_EQ(12.5f, f);
    EXPECT_EQ(0, GetJsonFloat(Json::Value("abc"), f, 1.0f));
    EXPECT_FLOAT_EQ(0.0f, f);
    EXPECT_EQ(0, GetJsonFloat(Json::Value(-2.25), f, 1.0f));
    EXPECT_FLOAT_EQ(-2.25f, f);
    EXPECT_EQ(0, GetJsonFloat(Json::Value(3u), f, 1.0f));
    EXPECT_FLOAT_EQ(3.0f, f);
    for (const Json::Value& v : {Json::Value(Json::objectValue), Json::Value(true), Json::Value()}) {
        f = 0;
        EXPECT_EQ(-1, GetJsonFloat(v, f, 1.5f));
        EXPECT_FLOAT_EQ(1.5f, f);
    }
}

TEST_F(JsonHelpers, TextConversionsReadExactlyTheGivenBytesAndWriteOneLine) {
    // A heap block without terminator: reading one byte past it is caught by the sanitizer.
    const std::string payload = "{\"b\":[1, 2], \"a\":1}";
    std::vector<char> bytes(payload.begin(), payload.end());
    Json::Value root;
    EXPECT_FALSE(ConvertStringToJson(bytes.data(), 1, root));
    EXPECT_FALSE(JsonUtils::ParseJsonContext(bytes.data(), 0, root));
    EXPECT_TRUE(JsonUtils::ParseJsonContext("7", 1, root));
    EXPECT_TRUE(JsonUtils::ParseJsonContext(bytes.data(), bytes.size(), root));
    ASSERT_TRUE(ConvertStringToJson(bytes.data(), bytes.size(), root));
    std::string text;
    EXPECT_TRUE(ConvertJsonToString(root, text));
    EXPECT_EQ("{\"a\":1,\"b\":[1,2]}\n", text);
    text.clear();
    JsonToString(root["b"], text);
    EXPECT_EQ("[1,2]\n", text);
    Json::Value fromText, fromContext;  // comments are kept, for a writer that shows them
    EXPECT_TRUE(ConvertStringToJson("// c\n7", 6, fromText) && fromText.hasComment(Json::commentBefore));
    EXPECT_TRUE(JsonUtils::ParseJsonContext("// c\n7", 6, fromContext) &&
                fromContext.hasComment(Json::commentBefore));
}

TEST_F(JsonHelpers, TooDeepNestingIsRefusedAndLoggedOnlyByConvertStringToJson) {
    const std::string deep = std::string(1001, '[') + std::string(1001, ']');
    Json::Value root;
    EXPECT_FALSE(ConvertStringToJson(deep.data(), deep.size(), root));
    EXPECT_EQ(LogFields("TRUCK", 1, "truck_main/common/src/CommonDefine", "ConvertStringToJson", 39,
                        "Exception when parse string: " + deep + "\n"),
              LastLog(1));
    const size_t lines = nvx::CapturedLogs().size();
    EXPECT_FALSE(JsonUtils::ParseJsonContext(deep.data(), static_cast<int>(deep.size()), root));
    EXPECT_EQ(nvx::CapturedLogs().size(), lines);
}

TEST_F(JsonHelpers, NestingScanCountsContainersOutsideStringsOnly) {
    const auto within = [](const std::string& text, int depth) {
        return JsonNestingWithin(text.data(), static_cast<unsigned int>(text.size()), depth);
    };
    EXPECT_TRUE(within(R"({"a":[{"b":1}]})", 3));
    EXPECT_FALSE(within(R"({"a":[{"b":1}]})", 2));
    EXPECT_TRUE(within(R"({"a":"[[[{{{","b":"\"[[["})", 1)) << "brackets and quotes inside strings";
    EXPECT_TRUE(within("{}[]{}[]", 1)) << "siblings do not add up";
    EXPECT_FALSE(within("]]}[[[", 2)) << "closers never buy depth";
    // The scan stops at the length: the deep part lies beyond it.
    const std::string tail = "[1]" + std::string(100, '[');
    EXPECT_TRUE(JsonNestingWithin(tail.data(), 3, 1));
    EXPECT_FALSE(within(std::string(100000, '['), 32));
    // The reader takes comments between tokens: their brackets do not nest, and a quote in
    // one opens no string that could hide the brackets after it.
    EXPECT_TRUE(within("{\"a\":1 /* [[[ */, // {{{\n\"b\":[2]}", 2));
    // A comment ends after its "*/", and a slash that opens none is passed over.
    EXPECT_FALSE(within("/* a *//*b*/[[[1]]]", 2));
    EXPECT_FALSE(within("[/[[", 2));
    EXPECT_TRUE(within("[/", 1));
    EXPECT_TRUE(within("[[/* [[[", 2)) << "an unterminated comment hides the rest";
    const std::string deep = std::string(999, '[') + std::string(999, ']');
    for (const std::string& hidden : {"/*\"*/" + deep + "/*\"*/", "//\"\n" + deep + "//\"\n",
                                      "//\"\r" + deep + "/*\"*/", "/*/\"*/" + deep + "/*\"*/"}) {
        EXPECT_FALSE(within(hidden, 32)) << hidden.substr(0, 8);
    }
}

TEST_F(JsonHelpers, LoadJsonFileSeparatesMissingPathFromOtherFailures) {
    const TempFolder folder("test_json_helpers");
    ASSERT_FALSE(folder.path().empty());
    const std::string& dir = folder.path();
    std::ofstream(dir + "/good.jsn") << "// not kept\n[1, 2]";
    std::ofstream(dir + "/bad.jsn") << "[1, ";
    // Past its nesting limit the reader throws: a failure like any other, not the end.
    std::ofstream(dir + "/deep.jsn") << std::string(1100, '[') << std::string(1100, ']');
    Json::Value root;
    EXPECT_EQ(-22, LoadJsonFile(nullptr, root));
    EXPECT_EQ(-1, LoadJsonFile((dir + "/missing.jsn").c_str(), root));
    EXPECT_EQ(-1, LoadJsonFile((dir + "/bad.jsn").c_str(), root));
    EXPECT_EQ(-1, LoadJsonFile((dir + "/deep.jsn").c_str(), root));
    EXPECT_EQ(0, LoadJsonFile((dir + "/good.jsn").c_str(), root));
    EXPECT_EQ(Parse("[1,2]"), root);
    EXPECT_FALSE(root.hasComment(Json::commentBefore));
    EXPECT_TRUE(nvx::CapturedLogs().empty());
}

TEST_F(JsonHelpers, MergeFillsPlaceholdersOrOverwritesLeaves) {
    Json::Value dst = Parse("{\"A\":1,\"C\":2}");
    Json::Value src = Parse("{\"A\":\"?\",\"B\":\"?\",\"C\":\"x\"}");
    JsonValueMerge(dst, src, false);
    EXPECT_EQ(Parse("{\"A\":1,\"B\":\"?\",\"C\":\"x\"}"), src);
    EXPECT_EQ(Parse("{\"A\":1,\"B\":\"?\",\"C\":2}"), dst);
    dst = Parse("{\"A\":1,\"D\":4}");
    src = Parse("{\"A\":\"?\",\"B\":\"?\",\"D\":null}");
    JsonValueMerge(dst, src, true);
    EXPECT_EQ(Parse("{\"A\":\"?\",\"B\":\"?\",\"D\":4}"), dst) << "a null in the source writes nothing";
    EXPECT_EQ(Parse("{\"A\":\"?\",\"B\":\"?\",\"D\":null}"), src);
}

TEST_F(JsonHelpers, MergeOfArraysRepeatsTheLastSourceElementOverALongerDestination) {
    Json::Value dst = Parse("[7,8,9,10]");
    Json::Value src = Parse("[1,2]");
    JsonValueMerge(dst, src, true);
    EXPECT_EQ(Parse("[1,2,2,2]"), dst);
    Json::Value empty(Json::arrayValue);
    JsonValueMerge(dst, empty, true);
    EXPECT_EQ(Parse("[1,2,2,2]"), dst);
    src = Parse("[3,4,5,6,7]");  // a shorter destination takes every element
    JsonValueMerge(dst, src, true);
    EXPECT_EQ(src, dst);
    src = Parse("[0]");
    JsonValueMerge(dst, src, true);
    EXPECT_EQ(Parse("[0,0,0,0,0]"), dst);
}

TEST_F(JsonHelpers, MergeLeavesNodesOfMismatchedKindsAndGoesOn) {
    Json::Value dst = Parse("{\"a\":5,\"b\":[1],\"c\":{\"x\":1},\"d\":1}");
    Json::Value src = Parse("{\"a\":[1],\"b\":{\"y\":2},\"c\":[3],\"d\":2}");
    const Json::Value srcBefore = src;
    JsonValueMerge(dst, src, true);
    EXPECT_EQ(Parse("{\"a\":5,\"b\":[1],\"c\":{\"x\":1},\"d\":2}"), dst);
    EXPECT_EQ(srcBefore, src);
}

TEST_F(JsonHelpers, CustomerAndProductTypesComeFromTheSystemConfiguration) {
    const std::vector<std::pair<std::string, int>> customers = {
        {"CUSTOMER_NORMAL", 0},  {"CUSTOMER_133036", 43}, {"CUSTOMER_52074", 44}, {"CUSTOMER_1302", 45},
        {"CUSTOMER_208351", 46}, {"CUSTOMER_227088", 47}, {"138028", 48},         {"CUSTOMER_3837", 49},
        {"CUSTOMER_2981", 50},   {"customer_52074", 0},   {"CUSTOMER_13", 0},     {"", 0}};
    for (const auto& customer : customers) {
        Json::Value config;
        config["CUSTOMER_NAME"] = customer.first;
        EXPECT_EQ(customer.second, ParseCustomerType(config)) << customer.first;
    }
    EXPECT_EQ(0, ParseCustomerType(Parse("{\"CUSTOMER_NAME\":138028}")))
        << "a number is no name, even one listed";
    EXPECT_EQ(0, ParseCustomerType(Parse("[\"CUSTOMER_52074\"]")));
    EXPECT_EQ("", ParseProductType(Json::Value(3)));
    EXPECT_EQ("", ParseProductType(Parse("{\"PRODUCT_TYPE\":9}")));
    EXPECT_EQ("T9", ParseProductType(Parse("{\"PRODUCT_TYPE\":\"T9\"}")));
    EXPECT_EQ(LogFields("TRUCK", 0, "truck_main/common/src/CommonDefine", "ParseProductType", 993,
                        "PRODUCT_TYPE = T9 \r\n"),
              LastLog(3));
}

TEST_F(JsonHelpers, GetJsonValueCreatesMembersOnlyWhereMembersCanBe) {
    Json::Value v;
    GetJsonValue(v, "a") = 1;
    EXPECT_EQ(Parse("{\"a\":1}"), v);
    Json::Value array = Parse("[1]");
    GetJsonValue(array, "a") = 5;  // goes nowhere
    EXPECT_EQ(Parse("[1]"), array);
}

// Each member test against each kind of member: the letters are object, array, string, bool,
// signed 32, unsigned 32 and any 64-bit integer.
TEST_F(JsonHelpers, MemberTestsAndReadsFollowTheKindOfTheMember) {
    const Json::Value v = Parse(R"({"o":{"k":2},"a":[[1,2,3],5,-2,"s",5.5,18446744073709551615],"s":"abcd",
        "b":true,"i":-4,"n":7,"u":3000000000,"l":-5000000000,"big":18446744073709551615,"f":1.5})");
    const std::string kinds[][2] = {{"o", "O"},   {"a", "A"},   {"s", "S"},  {"b", "B"},
                                    {"i", "IL"},  {"n", "IUL"}, {"u", "UL"}, {"l", "L"},
                                    {"big", "L"}, {"f", ""},    {"x", "-"}};
    for (const auto& kind : kinds) {
        const char* key = kind[0].c_str();
        std::string got = JsonUtils::IsMember(v, key) ? "" : "-";
        const bool tests[] = {JsonUtils::IsObjectMember(v, key), JsonUtils::IsArrayMember(v, key),
                              JsonUtils::IsStringMember(v, key), JsonUtils::IsBoolMember(v, key),
                              JsonUtils::IsIntMember(v, key),    JsonUtils::IsUIntMember(v, key),
                              JsonUtils::IsInt64Member(v, key)};
        for (int t = 0; t < 7; ++t) {
            got += tests[t] ? std::string(1, "OASBIUL"[t]) : "";
        }
        EXPECT_EQ(kind[1], got) << key;
    }
    std::string text = "old";
    bool flag = false;
    int i = 0;
    unsigned int u = 0;
    long long ll = 0;
    EXPECT_TRUE(JsonUtils::GetStringMember(v, "s", text) && JsonUtils::GetBoolMember(v, "b", flag) &&
                JsonUtils::GetIntMember(v, "i", i) && JsonUtils::GetUIntMember(v, "u", u) &&
                JsonUtils::GetInt64Member(v, "l", ll));
    EXPECT_EQ(std::make_tuple(std::string("abcd"), true, -4, 3000000000u, -5000000000LL),
              std::make_tuple(text, flag, i, u, ll));
    EXPECT_FALSE(JsonUtils::GetStringMember(v, "i", text) || JsonUtils::GetBoolMember(v, "n", flag) ||
                 JsonUtils::GetIntMember(v, "u", i) || JsonUtils::GetUIntMember(v, "i", u) ||
                 JsonUtils::GetInt64Member(v, "f", ll));
    EXPECT_EQ(std::make_tuple(std::string("abcd"), true, -4, 3000000000u, -5000000000LL),
              std::make_tuple(text, flag, i, u, ll));
    EXPECT_TRUE(JsonUtils::GetInt64Member(v, "big", ll) && ll == -1) << "the bits of the unsigned value";
    EXPECT_EQ(std::make_tuple(std::string("abcd"), std::string(), -4, 9, 3000000000u, 9u),
              std::make_tuple(JsonUtils::AsStringMember(v, "s"), JsonUtils::AsStringMember(v, "n"),
                              JsonUtils::AsIntMember(v, "i", 9), JsonUtils::AsIntMember(v, "u", 9),
                              JsonUtils::AsUIntMember(v, "u", 9), JsonUtils::AsUIntMember(v, "i", 9)));
    EXPECT_EQ(std::make_tuple(3000000000ull, 18446744073709551615ull, 9ull),
              std::make_tuple(JsonUtils::AsUInt64Member(v, "u", 9), JsonUtils::AsUInt64Member(v, "big", 9),
                              JsonUtils::AsUInt64Member(v, "l", 9)));
    EXPECT_STREQ("abcd", JsonUtils::AsCStringMember(v, "s"));
    EXPECT_STREQ("", JsonUtils::AsCStringMember(v, "a"));
    char dst[6] = "xxxxx";
    EXPECT_FALSE(JsonUtils::GetCStringMember(v, "n", dst, 4));
    EXPECT_TRUE(JsonUtils::GetCStringMember(v, "s", dst, 4));
    EXPECT_EQ(0, memcmp(dst, "abcdx", 5)) << "strncpy leaves a text of len bytes unterminated";
    for (const Json::Value& notObject : {Json::Value(), Json::Value(1), Parse("[1]"), Json::Value("a")}) {
        EXPECT_EQ(0, JsonUtils::GetArrayMemberSize(notObject, "a"));
    }
    EXPECT_EQ(6, JsonUtils::GetArrayMemberSize(v, "a"));
    // Elements -1 to 6 of "a", and of an array of objects; what the library would refuse to
    // convert gives the default.
    const Json::Value rows = Parse(R"([{"k":2},{"k":"x"}])");
    const int asInt[] = {9, 9, 5, -2, 9, 9, 9, 9}, asUInt[] = {9, 9, 5, 9, 9, 9, 9, 9},
              sizes[] = {0, 3, 0, 0, 0, 0, 0, 0};
    const unsigned long long asUInt64[] = {9, 9, 5, 9, 9, 5, 18446744073709551615ull, 9};
    for (int at = -1; at < 7; ++at) {
        EXPECT_EQ(asInt[at + 1], JsonUtils::AsIntArrayMember(v, "a", at, 9)) << at;
        EXPECT_EQ(static_cast<unsigned>(asUInt[at + 1]), JsonUtils::AsUIntMember(v, "a", at, 9u)) << at;
        EXPECT_EQ(asUInt64[at + 1], JsonUtils::AsUInt64ArrayMember(v, "a", at, 9u)) << at;
        EXPECT_EQ(sizes[at + 1], JsonUtils::GetArrayMemberSize(v, "a", at)) << at;
        EXPECT_EQ(at == 1 || at == 2 || at == 5, JsonUtils::IsInt64ArrayMember(v["a"], at)) << at;
        EXPECT_EQ(at == 1 || at == 2 || at == 5, JsonUtils::IsUInt64ArrayMember(v["a"], at)) << at;
        EXPECT_EQ(at >= 0 && at < 6, JsonUtils::IsValidArrayMember(v, "a", at)) << at;
        EXPECT_EQ(at == 0, JsonUtils::IsArrayMember(v, "a", at)) << at;
        EXPECT_EQ(at == 0 ? 2 : 9, JsonUtils::AsArrayIntMember(rows, at, "k", 9)) << at;
        EXPECT_EQ(at == 0 ? 2u : 9u, JsonUtils::AsUIntArrayMember(rows, at, "k", 9u)) << at;
    }
}

}  // namespace
