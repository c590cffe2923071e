#include "MediaDecode.h"

namespace media {

namespace {

uint32_t Le16(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8;
}

uint32_t Le32(const uint8_t* p) {
    return Le16(p) | Le16(p + 2) << 16;
}

bool Fail(std::string& problem, std::string what) {
    problem = std::move(what);
    return false;
}

// Length of the valid UTF-8 sequence starting at `p` (at most `left` bytes), 0 if none.
size_t Utf8SequenceLength(const unsigned char* p, size_t left) {
    const unsigned char lead = p[0];
    size_t length = 0;
    uint32_t lowest = 0;
    if (lead < 0x80) {
        return 1;
    } else if ((lead & 0xE0) == 0xC0) {
        length = 2;
        lowest = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3;
        lowest = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4;
        lowest = 0x10000;
    } else {
        return 0;
    }
    if (length > left) {
        return 0;
    }
    uint32_t code = lead & (0x7F >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((p[i] & 0xC0) != 0x80) {
            return 0;
        }
        code = code << 6 | (p[i] & 0x3F);
    }
    // Overlong forms, surrogates and values past Unicode are not text.
    if (code < lowest || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
        return 0;
    }
    return length;
}

}  // namespace

std::string KindName(uint8_t kind) {
    switch (kind) {
        case kKindTime:
            return "time";
        case kKindSpeed:
            return "speed";
        case kKindSeven:
            return "seven";
        default:
            return "kind " + std::to_string(kind);
    }
}

bool DecodeOverlay(const uint8_t* data, size_t size, Overlay& out, std::string& problem) {
    if (data == nullptr && size != 0) {
        return Fail(problem, "overlay without data");
    }
    if (size < kOverlayHeaderSize) {
        return Fail(problem,
                    "overlay of " + std::to_string(size) + " bytes, shorter than its 36-byte header");
    }
    const uint32_t command = Le32(data);
    if (command != kOverlayCommand) {
        return Fail(problem, "overlay command word " + std::to_string(command) + ", not 4608");
    }
    const size_t textSize = data[28];
    const size_t expected = kOverlayHeaderSize + textSize;
    if (size < expected) {
        return Fail(problem, "overlay text size " + std::to_string(textSize) + " runs past the " +
                                 std::to_string(size) + "-byte payload");
    }
    if (size > expected) {
        return Fail(problem, "overlay of " + std::to_string(size) + " bytes, " +
                                 std::to_string(size - expected) + " past its text size " +
                                 std::to_string(textSize));
    }
    if (textSize != 0 && data[expected - 1] != 0) {
        return Fail(problem, "overlay text has no terminating zero");
    }
    Overlay o;
    o.mask = Le32(data + 4);
    o.kind = data[8];
    o.fontSize = data[13];
    o.x = static_cast<uint16_t>(Le16(data + 20));
    o.y = static_cast<uint16_t>(Le16(data + 22));
    o.hasText = textSize != 0;
    if (o.hasText) {
        const char* text = reinterpret_cast<const char*>(data + kOverlayHeaderSize);
        size_t n = 0;
        while (text[n] != '\0') {  // the terminator at expected - 1 bounds this
            ++n;
        }
        o.text.assign(text, n);
    }
    out = std::move(o);
    return true;
}

bool DecodeCardRecord(const uint8_t* data, size_t size, CardRecord& out, std::string& problem) {
    if (data == nullptr && size != 0) {
        return Fail(problem, "card record without data");
    }
    if (size != kCardRecordSize) {
        return Fail(problem, "card record of " + std::to_string(size) + " bytes, not 212");
    }
    CardRecord r;
    r.x = Le32(data + 128);
    r.y = Le32(data + 132);
    const char* text = reinterpret_cast<const char*>(data + 136);
    size_t n = 0;
    while (n < kCardTextSize && text[n] != '\0') {
        ++n;
    }
    r.text.assign(text, n);
    out = std::move(r);
    return true;
}

bool DecodeIoTurn(const uint8_t* data, size_t size, uint8_t& out, std::string& problem) {
    if (data == nullptr && size != 0) {
        return Fail(problem, "IO turn state without data");
    }
    if (size != 1) {
        return Fail(problem, "IO turn state of " + std::to_string(size) + " bytes, not 1");
    }
    out = data[0];
    return true;
}

bool DecodeDstState(const uint8_t* data, size_t size, DstState& out, std::string& problem) {
    if (data == nullptr && size != 0) {
        return Fail(problem, "DST state without data");
    }
    if (size != kDstStateSize) {
        return Fail(problem, "DST state of " + std::to_string(size) + " bytes, not 8");
    }
    out.state = static_cast<int32_t>(Le32(data));
    out.shiftHours = data[4];
    return true;
}

std::string Printable(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text.data());
    size_t left = text.size();
    while (left > 0) {
        const size_t n = Utf8SequenceLength(p, left);
        // C1 controls (U+0080..U+009F) move a terminal as much as C0 ones do.
        const bool control = n == 1 ? (p[0] < 0x20 || p[0] == 0x7F) : (n == 2 && p[0] == 0xC2 && p[1] < 0xA0);
        if (n == 0 || control) {
            out.push_back('?');
            p += n == 0 ? 1 : n;
            left -= n == 0 ? 1 : n;
            continue;
        }
        out.append(reinterpret_cast<const char*>(p), n);
        p += n;
        left -= n;
    }
    return out;
}

std::string Quoted(const std::string& text) {
    return "\"" + Printable(text) + "\"";
}

std::string DstText(const DstState& dst) {
    const std::string state = dst.state == 0   ? "in force"
                              : dst.state == 1 ? "not in force"
                                               : "state " + std::to_string(dst.state);
    return state + ", shift " + std::to_string(dst.shiftHours) + " h";
}

std::string TurnName(unsigned state) {
    switch (state) {
        case 0:
            return "none";
        case 1:
            return "left";
        case 2:
            return "right";
        case 3:
            return "left+right";
        default:
            return std::to_string(state);
    }
}

}  // namespace media
