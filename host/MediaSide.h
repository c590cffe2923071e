// The media side of the simulated recorder: what it would draw on each video channel, built
// only from the messages the plug-in sends on the bus (and the parameter writes the device
// sees), never from the plug-in's own state.
//
// Per channel it keeps one item per kind: an overlay message with text puts its item on every
// channel of its mask, one without text removes it there. The card record (0x1263) carries
// its own position but no channel mask; this side shows it on every channel, since the Seven
// line that goes with it carries the mask 0 on card-reader devices and reaches none.
//
// Messages arrive on the plug-in's threads; the views read snapshots from another. One mutex
// guards everything here, and a message's work under it is a decode and a few map updates.
#ifndef TRUCK_HOST_MEDIASIDE_H
#define TRUCK_HOST_MEDIASIDE_H

#include <stddef.h>
#include <stdint.h>

#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "MediaDecode.h"

namespace media {

constexpr int kMaxChannels = 32;

// Overlay positions are meant for a picture of this size; a frame of another size scales them.
constexpr int kReferenceWidth = 1920;
constexpr int kReferenceHeight = 1080;

// Pixel height of an item's character cell for a font size code, at the reference size:
//   0 -> 24, 1 -> 32, 2 -> 40, 3 -> 48; any other code -> 32.
int FontPixelHeight(uint8_t code);
// The recorder's font is monospaced: every character is this fraction of the cell height
// wide (the advance of the bold face the frames are drawn in, over its ascent plus descent).
constexpr double kCharWidthPerCellHeight = 1233.0 / 2384.0;
// The kind a card record's line counts as where items are told apart.
constexpr uint8_t kKindCard = 0xFF;

struct Item {
    std::string text;  // as sent; Printable() before showing it
    uint16_t x = 0, y = 0;
    uint8_t fontSize = 0;
    bool operator==(const Item& o) const {
        return text == o.text && x == o.x && y == o.y && fontSize == o.fontSize;
    }
};

struct Snapshot {
    std::map<int, std::map<uint8_t, Item>> channels;  // channel -> kind -> item
    std::map<uint8_t, Overlay> lastOverlay;           // kind -> the last overlay of that kind read
    bool hasCard = false;
    CardRecord card;  // shown on every channel while its text is not empty
    bool hasDst = false;
    DstState dst;
    bool hasIoTurn = false;
    uint8_t ioTurn = 0;
    std::string lastParameter;  // the last parameter document written, without its line breaks at the end
    uint64_t lastParameterMs = 0;
    uint64_t messages = 0;     // every message the plug-in sent, of any event
    uint64_t decoded = 0;      // media messages read
    uint64_t undecodable = 0;  // media messages that could not be read
    std::string lastProblem;   // why the last of those could not be read
    uint64_t parameterWrites = 0;
    // Two items whose text boxes overlap on a channel, one line each ("time and card on
    // ch 0-3"); how many times two items began to overlap.
    std::vector<std::string> overlaps;
    uint64_t overlapsSeen = 0;
};

// The text box of an item at the reference size: x, y, width and height in pixels.
struct Box {
    double x = 0, y = 0, width = 0, height = 0;
};
Box TextBox(const std::string& text, uint16_t x, uint16_t y, uint8_t fontSize);
// The font size the card line is drawn at on `channel`: the Seven line goes with it, so that
// line's size where it reaches the channel, else the last one read, else code 1.
uint8_t CardFontSize(const Snapshot& snapshot, int channel);

class MediaSide {
public:
    // Change lines kept for a reader that does not take them; older ones are dropped.
    static constexpr size_t kMaxPendingChanges = 1000;

    // Takes one message the plug-in sent; events that are not media messages are counted only.
    void OnBusMessage(uint64_t tMs, int event, const uint8_t* data, size_t size);
    void OnParameterWrite(uint64_t tMs, const std::string& text);

    Snapshot Take() const;
    // Whether any overlay item or the card record is drawn now, without a copy of the state.
    bool Drawn() const;
    // One line per change of what the media side shows, oldest first, since the last call.
    // `dropped` counts lines that did not fit the queue.
    std::vector<std::string> TakeChanges(uint64_t* dropped = nullptr);

private:
    void ApplyOverlay(uint64_t tMs, const Overlay& o);
    void CheckOverlaps(uint64_t tMs);
    void Note(uint64_t tMs, const std::string& line);

    mutable std::mutex m_mutex;
    Snapshot m_state;
    std::deque<std::string> m_changes;
    uint64_t m_droppedChanges = 0;
    std::map<std::string, uint32_t> m_overlapping;  // "time and card" -> channels where they overlap
};

// "ch 0-3,5" for a mask; "no channel" for 0.
std::string ChannelList(uint32_t mask);

// "time", "speed", "seven", "card" or "kind N".
std::string ItemName(uint8_t kind);

}  // namespace media

#endif
