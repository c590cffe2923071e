// Common utilities, media value conversions: the one-byte values of the parameter store
// against the enumerations of the media interfaces, and the pixel sizes of output resolutions.
#include "CommonDefine.h"

#include <algorithm>
#include <iterator>

namespace {

// A stored value without a row turns into the table's `unknown`; an enumeration without a row
// is stored as kNoStoredValue.
struct MediaValuePair_t {
    int stored;
    int value;
};
template <size_t N>
struct MediaTable {
    MediaValuePair_t rows[N];
    int unknown;
};
constexpr unsigned char kNoStoredValue = 0xFF;

const MediaTable<2> s_videoEncodeTypes = {{{0, 0}, {1, 1}}, VIDEO_ENCODE_TYPE_UNKNOWN};

const MediaTable<3> s_videoBitrateModes = {{{0, 0}, {1, 1}, {2, 2}}, VIDEO_BITRATE_CTRL_UNKNOWN};

// Stored 5 has no format.
const MediaTable<6> s_audioFormats = {{{0, 2}, {1, 3}, {2, 0}, {3, 1}, {4, 4}, {6, 6}}, AUDIO_FORMAT_UNKNOWN};

const MediaTable<8> s_g726Rates = {{{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 6}, {7, 7}},
                                   G726_BPS_UNKNOWN};

const MediaTable<16> s_outputResolutions = {{{0, 0},
                                             {1, 1},
                                             {2, 2},
                                             {3, 3},
                                             {4, 4},
                                             {5, 5},
                                             {6, 6},
                                             {7, 7},
                                             {8, 8},
                                             {9, 9},
                                             {10, 10},
                                             {11, 11},
                                             {12, 12},
                                             {13, 13},
                                             {14, 14},
                                             {15, 15}},
                                            VIDEO_OUTPUT_RESOLUTION_UNKNOWN};

template <class Enum, size_t N>
int ConvertByTable(const MediaTable<N>& table, unsigned char* stored, Enum* value, bool toEnum) {
    if (stored == nullptr || value == nullptr) {
        return -1;
    }
    const MediaValuePair_t* const end = std::end(table.rows);
    if (toEnum) {
        const MediaValuePair_t* row = std::find_if(
            std::begin(table.rows), end, [stored](const MediaValuePair_t& r) { return r.stored == *stored; });
        *value = static_cast<Enum>(row != end ? row->value : table.unknown);
        return 0;
    }
    const MediaValuePair_t* row =
        std::find_if(std::begin(table.rows), end,
                     [value](const MediaValuePair_t& r) { return r.value == static_cast<int>(*value); });
    *stored = row != end ? static_cast<unsigned char>(row->stored) : kNoStoredValue;
    return 0;
}

// Stored resolutions are the enumeration itself up to this bound.
constexpr unsigned char kEncodeResolutionLimit = 30;

}  // namespace

int Value2VideoEncodeType(unsigned char* stored, eVideoEncodeType* value, bool toEnum) {
    return ConvertByTable(s_videoEncodeTypes, stored, value, toEnum);
}

int Value2VideoEncodeBitrateMode(unsigned char* stored, eVideoEncodeBirateCtrlType* value, bool toEnum) {
    return ConvertByTable(s_videoBitrateModes, stored, value, toEnum);
}

int Value2AudioEncodeFormat(unsigned char* stored, eAudioFormat* value, bool toEnum) {
    return ConvertByTable(s_audioFormats, stored, value, toEnum);
}

int Value2AudioG726Bps(unsigned char* stored, eG726Bps* value, bool toEnum) {
    return ConvertByTable(s_g726Rates, stored, value, toEnum);
}

int Value2VideoOutputResolution(unsigned char* stored, eVideoOutputResolution* value, bool toEnum) {
    return ConvertByTable(s_outputResolutions, stored, value, toEnum);
}

int Value2VideoEncodeResolution(unsigned char* stored, eVideoResolution* value, bool toEnum) {
    if (stored == nullptr || value == nullptr) {
        return -1;
    }
    if (toEnum) {
        *value = static_cast<eVideoResolution>(*stored < kEncodeResolutionLimit ? *stored
                                                                                : kEncodeResolutionLimit);
        return 0;
    }
    *stored = static_cast<unsigned char>(static_cast<unsigned int>(*value) & 0xFF);
    return 0;
}

int GetVideoOutputSize(eVideoOutputResolution resolution, unsigned int& width, unsigned int& height) {
    switch (static_cast<int>(resolution)) {
        case 0:
        case 1:
        case 4:
        case 5:
        case 6:
        case 7:
            width = 1920;
            height = 1080;
            break;
        case 2:
        case 3:
            width = 1280;
            height = 720;
            break;
        case 8:
            width = 720;
            height = 576;
            break;
        case 9:
            width = 720;
            height = 480;
            break;
        case 10:
            width = 800;
            height = 600;
            break;
        case 12:
            width = 1280;
            height = 1024;
            break;
        case 13:
            width = 1366;
            height = 768;
            break;
        case 14:
            width = 1440;
            height = 900;
            break;
        case 15:
            width = 1280;
            height = 800;
            break;
        default:
            width = 1024;
            height = 768;
            break;
    }
    return 0;
}
