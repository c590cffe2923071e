// The media side: each record read byte for byte from hand-made bytes (good and broken), and
// what the side then keeps per channel, the change lines it gives and the counts it keeps.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "MediaSide.h"
#include "OsdRecords.h"

namespace {

using osd::Bytes;
using osd::CardRecord;

Bytes Shown(uint32_t mask, uint8_t kind, const std::string& text, uint16_t x = 10, uint16_t y = 20) {
    return osd::OverlayRecord(mask, kind, &text, x, y);
}
Bytes Removal(uint32_t mask, uint8_t kind) {
    return osd::OverlayRecord(mask, kind, nullptr, 10, 20);
}

// All fields of a read overlay in one line, or the problem of one that could not be read (and
// must have left the output alone).
std::string Read(const uint8_t* data, size_t size) {
    media::Overlay o;
    o.text = "untouched";
    std::string problem;
    if (!media::DecodeOverlay(data, size, o, problem)) {
        return o.text == "untouched" ? problem : "output changed: " + problem;
    }
    return std::to_string(o.mask) + " kind " + std::to_string(o.kind) + " size " +
           std::to_string(o.fontSize) + " at " + std::to_string(o.x) + "," + std::to_string(o.y) +
           (o.hasText ? " \"" + o.text + "\"" : " -");
}
std::string Read(const Bytes& b) {
    return Read(b.data(), b.size());
}

}  // namespace

TEST(MediaDecode, OverlayFieldsComeFromTheirOffsets) {
    EXPECT_EQ(Read(Shown(0x7FFFFFFF, 6, "Seven 1", 0xFFFF, 0xFFFF)),
              "2147483647 kind 6 size 24 at 65535,65535 \"Seven 1\"");
    EXPECT_EQ(Read(Removal(0x30, 2)), "48 kind 2 size 24 at 10,20 -");
    EXPECT_EQ(Read(Shown(1, 9, "")), "1 kind 9 size 24 at 10,20 \"\"");
    EXPECT_EQ(Read(Shown(1, 0, std::string("ab\0cd", 5))), "1 kind 0 size 24 at 10,20 \"ab\"");
    EXPECT_EQ(Read(Shown(1, 0, std::string(254, 'w'))),
              "1 kind 0 size 24 at 10,20 \"" + std::string(254, 'w') + "\"");
    EXPECT_EQ(media::KindName(0) + media::KindName(2) + media::KindName(6) + media::KindName(9),
              "timespeedsevenkind 9");
}

TEST(MediaDecode, BrokenOverlaysGiveTheirProblemAndLeaveTheOutputAlone) {
    const Bytes good = Shown(0x3F, 6, "abc");  // 40 bytes, text size 4
    Bytes past = good, open = good, trailing = good, command = good, bigEndian = good;
    past[28] = 5;
    open[39] = 'd';
    trailing.resize(41);
    command[0] = 0x01;
    bigEndian[0] = bigEndian[1] = bigEndian[3] = 0;
    bigEndian[2] = 0x12;
    Bytes removalTrailing = Removal(1, 6);
    removalTrailing.resize(37);
    EXPECT_EQ(Read(Bytes(good.begin(), good.begin() + 35)),
              "overlay of 35 bytes, shorter than its 36-byte header");
    EXPECT_EQ(Read(past), "overlay text size 5 runs past the 40-byte payload");
    EXPECT_EQ(Read(open), "overlay text has no terminating zero");
    EXPECT_EQ(Read(trailing), "overlay of 41 bytes, 1 past its text size 4");
    EXPECT_EQ(Read(removalTrailing), "overlay of 37 bytes, 1 past its text size 0");
    EXPECT_EQ(Read(command), "overlay command word 4609, not 4608");
    EXPECT_EQ(Read(bigEndian), "overlay command word 1179648, not 4608");
    EXPECT_EQ(Read(nullptr, 0), "overlay of 0 bytes, shorter than its 36-byte header");
    EXPECT_EQ(Read(nullptr, 40).rfind("overlay ", 0), 0u);
}

TEST(MediaDecode, CardIoAndDstRecordsHaveExactLengths) {
    media::CardRecord card;
    std::string problem;
    ASSERT_TRUE(
        media::DecodeCardRecord(CardRecord(0x12345678, 0xFFFFFFFF, "DRIVER 42").data(), 212, card, problem));
    EXPECT_EQ(card.x, 0x12345678u);
    EXPECT_EQ(card.y, 0xFFFFFFFFu);
    EXPECT_EQ(card.text, "DRIVER 42");
    const std::string full(72, 'K');
    Bytes filled = CardRecord(1, 2, full);
    filled[208] = 'X';  // right after the text field: must not be read as text
    ASSERT_TRUE(media::DecodeCardRecord(filled.data(), filled.size(), card, problem));
    EXPECT_EQ(card.text, full);
    for (const size_t size : {211u, 213u}) {
        filled.resize(size);
        EXPECT_FALSE(media::DecodeCardRecord(filled.data(), size, card, problem));
        EXPECT_EQ(problem, "card record of " + std::to_string(size) + " bytes, not 212");
    }
    EXPECT_FALSE(media::DecodeCardRecord(nullptr, 0, card, problem));
    EXPECT_EQ(card.text, full);

    uint8_t turn = 7;
    const uint8_t io[2] = {3, 0};
    EXPECT_TRUE(media::DecodeIoTurn(io, 1, turn, problem));
    EXPECT_FALSE(media::DecodeIoTurn(io, 2, turn, problem));
    EXPECT_FALSE(media::DecodeIoTurn(io, 0, turn, problem));
    EXPECT_FALSE(media::DecodeIoTurn(nullptr, 0, turn, problem));
    EXPECT_EQ(turn, 3);
    EXPECT_EQ(media::TurnName(0) + media::TurnName(1) + media::TurnName(2) + media::TurnName(3) +
                  media::TurnName(9),
              "noneleftrightleft+right9");

    media::DstState dst;
    const Bytes inForce{0, 0, 0, 0, 1, 0, 0, 0}, negative{0xFE, 0xFF, 0xFF, 0xFF, 2, 0, 0, 0};
    EXPECT_TRUE(media::DecodeDstState(inForce.data(), 8, dst, problem));
    EXPECT_EQ(dst.state, 0);
    EXPECT_EQ(dst.shiftHours, 1);
    EXPECT_TRUE(media::DecodeDstState(negative.data(), 8, dst, problem));
    EXPECT_EQ(dst.state, -2);
    const Bytes nine(9, 0);
    EXPECT_FALSE(media::DecodeDstState(nine.data(), 7, dst, problem));
    EXPECT_FALSE(media::DecodeDstState(nine.data(), 9, dst, problem));
    EXPECT_EQ(problem, "DST state of 9 bytes, not 8");
    EXPECT_EQ(dst.state, -2);
}

TEST(MediaDecode, TextForTheViews) {
    const std::string utf8 = "Fahrer \xC3\x9C \xE4\xB8\xAD \xF0\x9F\x9A\x9A \xC2\xA0";
    EXPECT_EQ(media::Printable(utf8), utf8);
    EXPECT_EQ(media::Printable(std::string("a\0b\tc\x1B[2J\x7F", 10)), "a?b?c?[2J?");
    EXPECT_EQ(media::Printable("\xC2\x85|"), "?|");  // C1 control
    EXPECT_EQ(media::Printable("a\x80z"), "a?z");    // lone continuation byte
    EXPECT_EQ(media::Printable("\xE4\xB8"), "??");   // cut-off 3-byte sequence
    EXPECT_EQ(media::Printable("\xE4\xB8z"), "??z");
    EXPECT_EQ(media::Printable("\xC0\xAF"), "??");                 // overlong '/'
    EXPECT_EQ(media::Printable("\xED\xA0\x80"), "???");            // surrogate
    EXPECT_EQ(media::Printable("\xF4\x90\x80\x80\xFF"), "?????");  // past U+10FFFF, never a lead

    EXPECT_EQ(media::ChannelList(0), "no channel");
    EXPECT_EQ(media::ChannelList(0x2F), "ch 0-3,5");
    EXPECT_EQ(media::ChannelList(0x30), "ch 4-5");
    EXPECT_EQ(media::ChannelList(0x55), "ch 0,2,4,6");
    EXPECT_EQ(media::ChannelList(0x80000001), "ch 0,31");
    EXPECT_EQ(media::ChannelList(0x7FFFFFFF), "ch 0-30");
    EXPECT_EQ(media::ChannelList(0xFFFFFFFF), "ch 0-31");
}

class MediaSideTest : public ::testing::Test {
protected:
    void Send(int event, const Bytes& b, uint64_t tMs = 1000) {
        side.OnBusMessage(tMs, event, b.data(), b.size());
    }
    // The channels that show an item of `kind`.
    uint32_t MaskOf(uint8_t kind) {
        uint32_t mask = 0;
        for (const auto& channel : side.Take().channels) {
            mask |= channel.second.count(kind) != 0 ? 1u << channel.first : 0u;
        }
        return mask;
    }
    media::MediaSide side;
};

TEST_F(MediaSideTest, OverlaysPutAndRemoveItemsOnTheirMaskOnly) {
    Send(0x1210, Shown(0x3F, 6, "Seven", 100, 200), 1500);
    Send(0x1210, Shown(0x3F, 0, "2024-01-01"));
    EXPECT_EQ(MaskOf(6), 0x3Fu);
    EXPECT_EQ(side.Take().channels[5][6], (media::Item{"Seven", 100, 200, 24}));
    Send(0x1210, Removal(0x30, 6));
    EXPECT_EQ(MaskOf(6), 0x0Fu);
    EXPECT_EQ(MaskOf(0), 0x3Fu);
    Send(0x1210, Shown(0, 2, "88 km/h"));
    Send(0x1210, Removal(0, 6));
    EXPECT_EQ(MaskOf(2), 0u);
    EXPECT_EQ(side.Take().lastOverlay.at(2).text, "88 km/h");  // read, though it reaches no channel
    EXPECT_EQ(MaskOf(6), 0x0Fu);
    EXPECT_EQ(side.Take().decoded, 5u);
    const std::vector<std::string> lines = side.TakeChanges();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0], "   1.5s  seven on ch 0-5: \"Seven\" at 100,200 size 24");
    EXPECT_EQ(lines[2], "   1.0s  seven on ch 4-5: removed");
    EXPECT_EQ(lines[3], "   1.0s  speed on no channel: \"88 km/h\" at 10,20 size 24");
}

TEST_F(MediaSideTest, OnlyChangesGiveLines) {
    for (int round = 0; round < 2; ++round) {
        Send(0x1210, Shown(0x1, 6, "A"));
        Send(0x1263, CardRecord(500, 600, "DRIVER"));
        Send(0x401E, Bytes{1});
        Send(0x402F, Bytes{0, 0, 0, 0, 1, 0, 0, 0});
    }
    EXPECT_EQ(side.TakeChanges().size(), 4u);
    Send(0x1210, Shown(0x1, 6, "B"));
    Send(0x1210, Shown(0x1, 6, "B", 11));
    Send(0x1210, Shown(0x3, 6, "B", 11));
    Send(0x1263, CardRecord(500, 600, ""));
    Send(0x401E, Bytes{3});
    Send(0x402F, Bytes{0xFF, 0xFF, 0xFF, 0xFF, 1, 0, 0, 0});
    const std::vector<std::string> lines = side.TakeChanges();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[3], "   1.0s  card record at 500,600: no text");
    EXPECT_EQ(lines[4], "   1.0s  IO turn signal: left+right");
    EXPECT_EQ(lines[5], "   1.0s  daylight saving: state -1, shift 1 h");
    const media::Snapshot s = side.Take();
    EXPECT_TRUE(s.hasCard && s.hasIoTurn && s.hasDst);
    EXPECT_EQ(s.card.text, "");
    EXPECT_EQ(s.ioTurn, 3);
    EXPECT_EQ(s.dst.state, -1);
    EXPECT_EQ(s.decoded, 14u);
}

// A text box is as high as the font's cell (code 24 is unknown: 32 px) and 1233/2384 of
// that per character wide: ten characters at X 100 end at 265.5, one at X 84 at 100.55. Boxes that touch do
// not overlap; the card line counts on every channel that shows items, at the Seven line's size.
TEST_F(MediaSideTest, OverlapsAreToldWhenTheyBeginChangeAndEnd) {
    Send(0x1210, Shown(0x1, 6, "ABCDEFGHIJ", 100, 100));
    Send(0x1210, Shown(0x1, 2, "12345", 265, 131));
    Send(0x1210, Shown(0x1, 2, "12345", 266, 131));
    Send(0x1210, Shown(0x1, 2, "12345", 265, 132));
    Send(0x1210, Shown(0x1, 2, "1", 100, 68));
    Send(0x1210, Shown(0x1, 2, "1", 83, 100));
    Send(0x1210, Shown(0x1, 2, "1", 84, 100));
    Send(0x1210, Removal(0x1, 2));
    Send(0x1263, CardRecord(100, 131, "X"));
    Send(0x1210, Shown(0x3, 6, "ABCDEFGHIJ", 100, 100));
    std::vector<std::string> lines = side.TakeChanges();
    lines.erase(std::remove_if(lines.begin(), lines.end(),
                               [](const std::string& l) { return l.find("overlap") == std::string::npos; }),
                lines.end());
    EXPECT_EQ(lines,
              (std::vector<std::string>{
                  "   1.0s  overlap: speed and seven on ch 0", "   1.0s  overlap ended: speed and seven",
                  "   1.0s  overlap: speed and seven on ch 0", "   1.0s  overlap ended: speed and seven",
                  "   1.0s  overlap: seven and card on ch 0", "   1.0s  overlap: seven and card on ch 0-1"}));
    media::Snapshot s = side.Take();
    EXPECT_EQ(s.overlapsSeen, 3u);
    EXPECT_EQ(s.overlaps, std::vector<std::string>{"seven and card on ch 0-1"});
    Send(0x1263, CardRecord(100, 131, ""));
    EXPECT_TRUE(side.Take().overlaps.empty());
    EXPECT_EQ(side.TakeChanges().back(), "   1.0s  overlap ended: seven and card");
}

TEST_F(MediaSideTest, UnreadableAndForeignMessagesAreCountedNotApplied) {
    Send(0x1210, Bytes(35, 0));
    side.OnBusMessage(1000, 0x1210, nullptr, 0);
    Send(0x1263, Bytes(211, 0));
    Send(0x401E, Bytes(2, 1));
    Send(0x402F, Bytes(7, 0));
    Send(0x1211, Shown(0x1, 6, "not media"));
    side.OnBusMessage(1000, 0x7FFF, nullptr, 0);
    side.OnParameterWrite(2500, "{\"OSD\":\x01}\r\n");
    const media::Snapshot s = side.Take();
    EXPECT_EQ(s.messages, 7u);
    EXPECT_EQ(s.undecodable, 5u);
    EXPECT_EQ(s.decoded, 0u);
    EXPECT_EQ(s.lastProblem, "DST state of 7 bytes, not 8");
    EXPECT_TRUE(s.channels.empty());
    EXPECT_FALSE(s.hasCard || s.hasIoTurn || s.hasDst);
    EXPECT_EQ(s.parameterWrites, 1u);
    EXPECT_EQ(s.lastParameter, "{\"OSD\":\x01}");
    EXPECT_EQ(s.lastParameterMs, 2500u);
    const std::vector<std::string> lines = side.TakeChanges();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[0],
              "   1.0s  cannot read event 0x1210: overlay of 35 bytes, shorter than its 36-byte header");
    EXPECT_EQ(lines[2], "   1.0s  cannot read event 0x1263: card record of 211 bytes, not 212");
    EXPECT_EQ(lines[5], "   2.5s  parameters written: {\"OSD\":?}");
}

TEST_F(MediaSideTest, ChangeQueueKeepsTheNewestLines) {
    const size_t extra = 25;
    for (size_t i = 0; i < media::MediaSide::kMaxPendingChanges + extra; ++i) {
        Send(0x401E, Bytes{static_cast<uint8_t>(i)}, i * 100);  // each differs from the one before
    }
    uint64_t dropped = 0;
    const std::vector<std::string> lines = side.TakeChanges(&dropped);
    EXPECT_EQ(lines.size(), media::MediaSide::kMaxPendingChanges);
    EXPECT_EQ(dropped, extra);
    EXPECT_EQ(lines.front(), "   2.5s  IO turn signal: 25");
    EXPECT_TRUE(side.TakeChanges(&dropped).empty());
    EXPECT_EQ(dropped, 0u);
}

// Writers on several threads, each with a kind and channel of its own and a new text every
// time, so that each overlay is one change line however the threads interleave.
TEST_F(MediaSideTest, ConcurrentMessagesAndReadersLoseNothing) {
    const int kWriters = 4, kEach = 400;
    std::atomic<bool> writing{true};
    uint64_t lines = 0, dropped = 0;
    std::thread reader([&] {
        while (writing.load()) {
            uint64_t d = 0;
            lines += side.TakeChanges(&d).size();
            dropped += d;
            EXPECT_LE(side.Take().decoded, uint64_t{kWriters * kEach});
        }
    });
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([&, w] {
            for (int i = 0; i < kEach; ++i) {
                Send(0x1210, Shown(1u << w, static_cast<uint8_t>(w), std::to_string(i)));
                Send(0x9999, Bytes{1});
            }
        });
    }
    for (std::thread& t : writers) {
        t.join();
    }
    writing = false;
    reader.join();
    uint64_t d = 0;
    lines += side.TakeChanges(&d).size();
    EXPECT_EQ(lines + dropped + d, uint64_t{kWriters * kEach});
    const media::Snapshot s = side.Take();
    EXPECT_EQ(s.messages, uint64_t{2 * kWriters * kEach});
    for (int w = 0; w < kWriters; ++w) {
        EXPECT_EQ(MaskOf(static_cast<uint8_t>(w)), 1u << w);
        EXPECT_EQ(s.channels.at(w).at(static_cast<uint8_t>(w)).text, std::to_string(kEach - 1));
    }
}
