// The OSD business's bus records, read and written byte by byte at their fixed little-endian
// offsets, so that the tests share no code with the sides that build or read them: the plug-in's
// suites decode the overlay and compare the records of fixed size whole with an image made here;
// the host's suites give its reader records made here.
#ifndef TRUCK_TESTS_OSDRECORDS_H
#define TRUCK_TESTS_OSDRECORDS_H

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace osd {

typedef std::vector<uint8_t> Bytes;
const int kEventSpeed = 0x118A, kEventSwipe = 0x4004, kEventOverlay = 0x1210;
const int kEventCardText = 0x1263, kEventIoTurn = 0x401E, kEventDstState = 0x402F;
const uint8_t kTime = 0, kSpeed = 2, kSeven = 6;

inline uint32_t Le16(const Bytes& b, size_t at) {
    return b[at] | uint32_t{b[at + 1]} << 8;
}
inline uint32_t Le32(const Bytes& b, size_t at) {
    return Le16(b, at) | Le16(b, at + 2) << 16;
}

// Overlay: u32 0x1200, u32 mask, kind at 8, 1 at 9 and 10, font at 13, u16 X at 20, u16 Y at
// 22, 1 at 24 and 27, text size at 28 (n + 1, 0 for a cancel), zeros elsewhere; text + NUL at 36.
struct Overlay {
    uint32_t mask = 0;
    uint8_t kind = 0xFF, font = 0;
    uint16_t x = 0, y = 0;
    bool cancel = false;  // the header alone: the item is removed
    std::string text, problem;
};

inline Overlay DecodeOverlay(const Bytes& b) {
    Overlay o;
    if (b.size() < 36) {
        o.problem = "shorter than the header";
        return o;
    }
    o.mask = Le32(b, 4);
    o.kind = b[8];
    o.font = b[13];
    o.x = static_cast<uint16_t>(Le16(b, 20));
    o.y = static_cast<uint16_t>(Le16(b, 22));
    const std::string fixed = ".........11__.______....1__1._______";  // '.' read above
    for (size_t at = 0; at < 36; ++at) {
        if (fixed[at] != '.' && b[at] != (fixed[at] == '1' ? 1 : 0)) {
            o.problem = "fixed byte " + std::to_string(at) + " is " + std::to_string(b[at]);
        }
    }
    const size_t size = b[28];
    o.cancel = size == 0;
    if (Le32(b, 0) != 0x1200) {
        o.problem = "command word is not 0x1200";
    } else if (b.size() != 36 + size) {
        o.problem = "length " + std::to_string(b.size()) + ", text size " + std::to_string(size);
    } else if (size != 0) {
        o.text.assign(b.begin() + 36, b.end() - 1);
        if (b.back() != 0 || o.text.find('\0') != std::string::npos) {
            o.problem = "the text is not followed by its one terminator";
        }
    }
    return o;
}

// Little-endian 32-bit words at their offsets in a record of zeros.
inline Bytes Record(size_t size, std::initializer_list<std::pair<size_t, uint32_t>> words) {
    Bytes b(size, 0);
    for (const auto& word : words) {
        for (size_t i = 0; i < 4; ++i) {
            b[word.first + i] = static_cast<uint8_t>(word.second >> (8 * i));
        }
    }
    return b;
}

// An overlay as the OSD business lays it out; no text gives the header-only removal.
inline Bytes OverlayRecord(uint32_t mask, uint8_t kind, const std::string* text, uint16_t x, uint16_t y,
                           uint8_t font = 24) {
    Bytes b = Record(36, {{0, 0x1200}, {4, mask}, {20, x | uint32_t{y} << 16}});
    b[8] = kind;
    b[9] = b[10] = b[24] = b[27] = 1;
    b[13] = font;
    if (text != nullptr) {
        b[28] = static_cast<uint8_t>(text->size() + 1);
        b.insert(b.end(), text->begin(), text->end());
        b.push_back(0);
    }
    return b;
}

// Card text record, 212 bytes: u32 X at 128, u32 Y at 132, up to 72 text bytes from 136, u32 3 at
// 208, zeros elsewhere.
inline Bytes CardRecord(uint32_t x, uint32_t y, const std::string& text) {
    Bytes b = Record(212, {{128, x}, {132, y}, {208, 3}});
    std::copy(text.begin(), text.end(), b.begin() + 136);
    return b;
}

// Daylight-saving state, 8 bytes: i32 state, the shift in hours, zeros.
inline Bytes DstState(int32_t state, uint8_t shift) {
    return Record(8, {{0, static_cast<uint32_t>(state)}, {4, shift}});
}

}  // namespace osd

#endif
