// Media value conversions: every stored byte and a range of enumeration values both ways,
// against the pairs that the parameter store and the media interfaces agree on.
#include <map>

#include <gtest/gtest.h>

#include "CommonDefine.h"

namespace {

// A byte with a pair gives its value, any other the fallback; a value with a pair gives its
// byte, any other 0xFF.
template <class Enum>
void ExpectPairs(int (*convert)(unsigned char*, Enum*, bool), std::map<int, int> pairs, int fallback) {
    for (int b = 0; b < 256; ++b) {
        unsigned char stored = static_cast<unsigned char>(b);
        Enum value = static_cast<Enum>(-5);
        EXPECT_EQ(0, convert(&stored, &value, true));
        EXPECT_EQ(pairs.count(b) ? pairs[b] : fallback, static_cast<int>(value)) << "stored " << b;
    }
    for (int v = -2; v < 40; ++v) {
        unsigned char stored = 0x5A;
        Enum value = static_cast<Enum>(v);
        EXPECT_EQ(0, convert(&stored, &value, false));
        int expected = 0xFF;
        for (const auto& pair : pairs) {
            expected = pair.second == v ? pair.first : expected;
        }
        EXPECT_EQ(expected, stored) << "value " << v;
    }
}

std::map<int, int> Identity(int count) {
    std::map<int, int> pairs;
    for (int i = 0; i < count; ++i) {
        pairs[i] = i;
    }
    return pairs;
}

}  // namespace

TEST(MediaValues, TableConversionsMapEachPairAndFallBackOutsideThem) {
    ExpectPairs(Value2VideoEncodeType, Identity(2), 3);
    ExpectPairs(Value2VideoEncodeBitrateMode, Identity(3), 3);
    ExpectPairs(Value2AudioEncodeFormat, {{0, 2}, {1, 3}, {2, 0}, {3, 1}, {4, 4}, {6, 6}}, 7);
    ExpectPairs(Value2AudioG726Bps, Identity(8), 8);
    ExpectPairs(Value2VideoOutputResolution, Identity(16), 20);
    EXPECT_EQ(-1, Value2AudioEncodeFormat(nullptr, nullptr, true));
}

TEST(MediaValues, ResolutionsCapStoreTheLowByteAndSizeUnknownOutputsAsXga) {
    unsigned char stored = 200;
    eVideoResolution value = static_cast<eVideoResolution>(0x1234);
    EXPECT_EQ(0, Value2VideoEncodeResolution(&stored, &value, false));
    EXPECT_EQ(0x34, stored);
    EXPECT_EQ(-1, Value2VideoEncodeResolution(nullptr, &value, true));
    EXPECT_EQ(-1, Value2VideoEncodeResolution(&stored, nullptr, false));
    for (int b : {0, 1, 29, 30, 31, 200, 255}) {
        stored = static_cast<unsigned char>(b);
        EXPECT_EQ(0, Value2VideoEncodeResolution(&stored, &value, true));
        EXPECT_EQ(b < 30 ? b : 30, static_cast<int>(value));
    }
    // Every output resolution; 11, and whatever lies outside 0..15, is XGA.
    const std::map<int, std::pair<unsigned, unsigned>> sizes = {
        {0, {1920, 1080}}, {1, {1920, 1080}},  {2, {1280, 720}},  {3, {1280, 720}},  {4, {1920, 1080}},
        {5, {1920, 1080}}, {6, {1920, 1080}},  {7, {1920, 1080}}, {8, {720, 576}},   {9, {720, 480}},
        {10, {800, 600}},  {12, {1280, 1024}}, {13, {1366, 768}}, {14, {1440, 900}}, {15, {1280, 800}}};
    for (int r = -1; r <= 20; ++r) {
        std::pair<unsigned, unsigned> size(1, 1);
        EXPECT_EQ(0, GetVideoOutputSize(static_cast<eVideoOutputResolution>(r), size.first, size.second));
        EXPECT_EQ(sizes.count(r) ? sizes.at(r) : std::make_pair(1024u, 768u), size) << "resolution " << r;
    }
}
