// The media side's reading of what the OSD business sends on the bus. Every record is read
// at its fixed little-endian offsets from the bytes as they arrived; nothing here knows the
// plug-in. A record that cannot be read gives its problem instead of a value, never a read
// past its end.
#ifndef TRUCK_HOST_MEDIADECODE_H
#define TRUCK_HOST_MEDIADECODE_H

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "BusEvents.h"

namespace media {

constexpr uint32_t kOverlayCommand = 0x1200;
constexpr size_t kOverlayHeaderSize = 36;
constexpr size_t kCardRecordSize = 212;
constexpr size_t kCardTextSize = 72;
constexpr size_t kDstStateSize = 8;

// Item kinds of the overlay message.
constexpr uint8_t kKindTime = 0, kKindSpeed = 2, kKindSeven = 6;
// "time", "speed", "seven", or "kind N" for a kind this side has no name for.
std::string KindName(uint8_t kind);

struct Overlay {
    uint32_t mask = 0;  // bit i: video channel i
    uint8_t kind = 0;
    uint8_t fontSize = 0;
    uint16_t x = 0, y = 0;
    bool hasText = false;  // false: the item is removed from the channels of the mask
    std::string text;      // the bytes before the terminator, as sent
};

struct CardRecord {
    uint32_t x = 0, y = 0;
    std::string text;  // up to the first zero of its 72 bytes; empty: nothing to show
};

struct DstState {
    int32_t state = 1;  // 0: daylight saving in force; 1: not
    uint8_t shiftHours = 0;
};

// Each returns true and fills `out`, or returns false with `problem` set and `out` untouched.
// No data with a size of 0 is read as an empty record.
//
// Overlay: the 36-byte header, then, when the text size (byte 28) is n + 1, n text bytes and
// their terminator; a text size of 0 is the header alone. The fixed bytes carry no meaning
// for this side and are not checked. A zero inside the text ends it, as a C reader would.
bool DecodeOverlay(const uint8_t* data, size_t size, Overlay& out, std::string& problem);
// Exactly 212 bytes: X at 128, Y at 132, text field 136..207.
bool DecodeCardRecord(const uint8_t* data, size_t size, CardRecord& out, std::string& problem);
// Exactly one byte.
bool DecodeIoTurn(const uint8_t* data, size_t size, uint8_t& out, std::string& problem);
// Exactly 8 bytes: i32 state, u8 shift, three zero bytes (not checked).
bool DecodeDstState(const uint8_t* data, size_t size, DstState& out, std::string& problem);

// The text as something a terminal or a font may be given: valid UTF-8 is kept, every
// control character and every byte that is not part of valid UTF-8 becomes '?'.
std::string Printable(const std::string& text);

// The text between double quotes, made Printable.
std::string Quoted(const std::string& text);

// "none", "left", "right", "left+right", or the number for any other value.
std::string TurnName(unsigned state);

// "in force, shift 1 h", "not in force, shift 1 h", or "state N, shift 1 h" for another state.
std::string DstText(const DstState& dst);

}  // namespace media

#endif
