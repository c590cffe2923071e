// The media side's readers on arbitrary bytes. The first byte picks what the rest is sent as
// (overlay, card record, IO turn, DST state, some other event, a parameter write); the rest
// goes to the side as that one message and to every reader directly.
//
// What a reader accepts is worked out here again from the bytes, so a reader that takes a
// record it should refuse (or the other way round) stops the run, as does any text that
// reaches a view with a control character or broken UTF-8 in it. One side lives across inputs
// so that repeats, removals and the bounded change queue are reached; it starts again now and
// then so that a crash replays from a run of bounded length.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <memory>
#include <string>

#include "MediaSide.h"

namespace {

uint32_t Le32(const uint8_t* p) {
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24;
}

void Check(bool holds) {
    if (!holds) {
        __builtin_trap();
    }
}

// Well-formed UTF-8 by the ranges of each lead byte, without C0, DEL or C1 controls.
bool CleanUtf8(const std::string& s) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(s.data());
    size_t i = 0;
    while (i < s.size()) {
        const unsigned c = p[i];
        if (c < 0x80) {
            if (c < 0x20 || c == 0x7F) {
                return false;
            }
            ++i;
            continue;
        }
        size_t more = 0;
        unsigned low = 0x80, high = 0xBF;
        if (c >= 0xC2 && c <= 0xDF) {
            more = 1;
            low = c == 0xC2 ? 0xA0 : 0x80;  // U+0080..U+009F are controls
        } else if (c >= 0xE0 && c <= 0xEF) {
            more = 2;
            low = c == 0xE0 ? 0xA0 : 0x80;   // overlong below U+0800
            high = c == 0xED ? 0x9F : 0xBF;  // surrogates
        } else if (c >= 0xF0 && c <= 0xF4) {
            more = 3;
            low = c == 0xF0 ? 0x90 : 0x80;   // overlong below U+10000
            high = c == 0xF4 ? 0x8F : 0xBF;  // past U+10FFFF
        } else {
            return false;
        }
        if (s.size() - i <= more || p[i + 1] < low || p[i + 1] > high) {
            return false;
        }
        for (size_t k = 2; k <= more; ++k) {
            if (p[i + k] < 0x80 || p[i + k] > 0xBF) {
                return false;
            }
        }
        i += more + 1;
    }
    return true;
}

// What reaches a view is clean, clean text passes unchanged, and a second pass changes nothing.
void CheckPrintable(const std::string& text) {
    const std::string shown = media::Printable(text);
    Check(CleanUtf8(shown));
    Check(!CleanUtf8(text) || shown == text);
    Check(media::Printable(shown) == shown);
}

bool CheckOverlay(const uint8_t* p, size_t size) {
    media::Overlay o;
    o.text = "before";
    std::string problem;
    const bool read = media::DecodeOverlay(p, size, o, problem);
    const bool good = size >= 36 && Le32(p) == media::kOverlayCommand && size == 36u + p[28] &&
                      (p[28] == 0 || p[size - 1] == 0);
    Check(read == good);
    if (!read) {
        Check(!problem.empty() && o.text == "before");
        return false;
    }
    Check(o.mask == Le32(p + 4) && o.kind == p[8] && o.fontSize == p[13]);
    Check(o.x == (p[20] | p[21] << 8) && o.y == (p[22] | p[23] << 8));
    Check(o.hasText == (p[28] != 0));
    Check(o.text.size() < 255 && o.text.find('\0') == std::string::npos);
    Check(memcmp(o.text.data(), p + 36, o.text.size()) == 0);
    Check(!o.hasText || p[36 + o.text.size()] == 0);
    CheckPrintable(o.text);
    const std::string channels = media::ChannelList(o.mask);
    Check(o.mask == 0 ? channels == "no channel" : channels.compare(0, 3, "ch ") == 0);
    return true;
}

bool CheckCard(const uint8_t* p, size_t size) {
    media::CardRecord card;
    std::string problem;
    const bool read = media::DecodeCardRecord(p, size, card, problem);
    Check(read == (size == media::kCardRecordSize));
    if (read) {
        Check(card.x == Le32(p + 128) && card.y == Le32(p + 132));
        Check(card.text.size() <= media::kCardTextSize && card.text.find('\0') == std::string::npos);
        Check(memcmp(card.text.data(), p + 136, card.text.size()) == 0);
        Check(card.text.size() == media::kCardTextSize || p[136 + card.text.size()] == 0);
        CheckPrintable(card.text);
    }
    return read;
}

bool CheckIoTurn(const uint8_t* p, size_t size) {
    uint8_t turn = 0xAA;
    std::string problem;
    const bool read = media::DecodeIoTurn(p, size, turn, problem);
    Check(read == (size == 1) && turn == (read ? p[0] : 0xAA));
    return read;
}

bool CheckDst(const uint8_t* p, size_t size) {
    media::DstState dst;
    std::string problem;
    const bool read = media::DecodeDstState(p, size, dst, problem);
    Check(read == (size == media::kDstStateSize));
    Check(!read || (dst.state == static_cast<int32_t>(Le32(p)) && dst.shiftHours == p[4]));
    return read;
}

const int kEvents[] = {busevent::kOverlay, busevent::kCardRecord, busevent::kIoTurn, busevent::kDstState};

// The side and the counts it must show, made again every kRound inputs. Change lines are taken
// less often than a round has inputs, so the queue fills and drops within a round.
constexpr uint64_t kRound = 3000, kTakeChangesEvery = 1500, kSnapshotEvery = 64;
struct Run {
    media::MediaSide side;
    uint64_t messages = 0, decoded = 0, undecodable = 0, parameterWrites = 0;
};

void CheckSnapshot(const Run& run) {
    const media::Snapshot s = run.side.Take();
    Check(s.messages == run.messages && s.decoded == run.decoded && s.undecodable == run.undecodable);
    Check(s.parameterWrites == run.parameterWrites);
    for (const auto& channel : s.channels) {
        Check(channel.first >= 0 && channel.first < media::kMaxChannels);
        for (const auto& item : channel.second) {
            Check(item.second.text.size() < 255 && item.second.text.find('\0') == std::string::npos);
        }
    }
    Check(s.card.text.size() <= media::kCardTextSize);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static std::unique_ptr<Run> run;
    static uint64_t inputs = 0;
    if (inputs++ % kRound == 0) {
        run.reset(new Run);
    }
    if (size == 0) {
        return 0;
    }
    const unsigned pick = data[0] % 6;
    const uint8_t* rest = size > 1 ? data + 1 : nullptr;
    const size_t length = size - 1;

    const bool read[4] = {CheckOverlay(rest, length), CheckCard(rest, length), CheckIoTurn(rest, length),
                          CheckDst(rest, length)};
    CheckPrintable(std::string(reinterpret_cast<const char*>(data), size));

    const uint64_t tMs = inputs * 40;
    if (pick == 5) {
        run->side.OnParameterWrite(tMs, std::string(reinterpret_cast<const char*>(rest), length));
        ++run->parameterWrites;
    } else {
        run->side.OnBusMessage(tMs, pick < 4 ? kEvents[pick] : 0x4000 | data[0], rest, length);
        ++run->messages;
        if (pick < 4) {
            ++(read[pick] ? run->decoded : run->undecodable);
        }
    }
    if (inputs % kSnapshotEvery == 0) {
        CheckSnapshot(*run);
    }
    if (inputs % kTakeChangesEvery == 0) {
        uint64_t dropped = 0;
        const std::vector<std::string> lines = run->side.TakeChanges(&dropped);
        Check(lines.size() <= media::MediaSide::kMaxPendingChanges);
        Check(dropped == 0 || lines.size() == media::MediaSide::kMaxPendingChanges);
        for (const std::string& line : lines) {
            Check(CleanUtf8(line));
        }
    }
    return 0;
}
