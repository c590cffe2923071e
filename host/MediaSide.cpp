#include "MediaSide.h"

#include <stdio.h>

#include <algorithm>

namespace media {

namespace {

std::string Seconds(uint64_t tMs) {
    char text[32];
    snprintf(text, sizeof(text), "%6.1fs", static_cast<double>(tMs) / 1000.0);
    return text;
}

bool SameOverlay(const Overlay& a, const Overlay& b) {
    return a.mask == b.mask && a.fontSize == b.fontSize && a.x == b.x && a.y == b.y &&
           a.hasText == b.hasText && a.text == b.text;
}

// Characters as a monospaced font lays them out: one per UTF-8 sequence of the shown text.
size_t Characters(const std::string& text) {
    const std::string shown = Printable(text);
    size_t count = 0;
    for (unsigned char c : shown) {
        count += (c & 0xC0) != 0x80 ? 1 : 0;
    }
    return count;
}

bool Overlap(const Box& a, const Box& b) {
    return a.width > 0 && b.width > 0 && a.x < b.x + b.width && b.x < a.x + a.width && a.y < b.y + b.height &&
           b.y < a.y + a.height;
}

}  // namespace

int FontPixelHeight(uint8_t code) {
    return code <= 3 ? 24 + 8 * code : 32;
}

Box TextBox(const std::string& text, uint16_t x, uint16_t y, uint8_t fontSize) {
    Box box;
    box.x = x;
    box.y = y;
    box.height = FontPixelHeight(fontSize);
    box.width = static_cast<double>(Characters(text)) * box.height * kCharWidthPerCellHeight;
    return box;
}

uint8_t CardFontSize(const Snapshot& snapshot, int channel) {
    const auto items = snapshot.channels.find(channel);
    if (items != snapshot.channels.end()) {
        const auto seven = items->second.find(kKindSeven);
        if (seven != items->second.end()) {
            return seven->second.fontSize;
        }
    }
    const auto lastSeven = snapshot.lastOverlay.find(kKindSeven);
    return lastSeven != snapshot.lastOverlay.end() ? lastSeven->second.fontSize : 1;
}

std::string ItemName(uint8_t kind) {
    return kind == kKindCard ? std::string("card") : KindName(kind);
}

std::string ChannelList(uint32_t mask) {
    if (mask == 0) {
        return "no channel";
    }
    std::string out;
    for (int ch = 0; ch < kMaxChannels;) {
        if ((mask >> ch & 1u) == 0) {
            ++ch;
            continue;
        }
        int last = ch;
        while (last + 1 < kMaxChannels && (mask >> (last + 1) & 1u) != 0) {
            ++last;
        }
        out += (out.empty() ? "ch " : ",") + std::to_string(ch);
        if (last > ch) {
            out += "-" + std::to_string(last);
        }
        ch = last + 1;
    }
    return out;
}

void MediaSide::OnBusMessage(uint64_t tMs, int event, const uint8_t* data, size_t size) {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_state.messages;
    if (event != busevent::kOverlay && event != busevent::kCardRecord && event != busevent::kIoTurn &&
        event != busevent::kDstState) {
        return;
    }
    std::string problem;
    bool read = false;
    if (event == busevent::kOverlay) {
        Overlay o;
        read = DecodeOverlay(data, size, o, problem);
        if (read) {
            ApplyOverlay(tMs, o);
        }
    } else if (event == busevent::kCardRecord) {
        CardRecord r;
        read = DecodeCardRecord(data, size, r, problem);
        if (read && (!m_state.hasCard || r.x != m_state.card.x || r.y != m_state.card.y ||
                     r.text != m_state.card.text)) {
            Note(tMs, "card record at " + std::to_string(r.x) + "," + std::to_string(r.y) + ": " +
                          (r.text.empty() ? std::string("no text") : Quoted(r.text)));
        }
        if (read) {
            m_state.hasCard = true;
            m_state.card = std::move(r);
            CheckOverlaps(tMs);
        }
    } else if (event == busevent::kIoTurn) {
        uint8_t turn = 0;
        read = DecodeIoTurn(data, size, turn, problem);
        if (read && (!m_state.hasIoTurn || turn != m_state.ioTurn)) {
            Note(tMs, "IO turn signal: " + TurnName(turn));
        }
        if (read) {
            m_state.hasIoTurn = true;
            m_state.ioTurn = turn;
        }
    } else {
        DstState dst;
        read = DecodeDstState(data, size, dst, problem);
        if (read &&
            (!m_state.hasDst || dst.state != m_state.dst.state || dst.shiftHours != m_state.dst.shiftHours)) {
            Note(tMs, "daylight saving: " + DstText(dst));
        }
        if (read) {
            m_state.hasDst = true;
            m_state.dst = dst;
        }
    }
    if (read) {
        ++m_state.decoded;
        return;
    }
    ++m_state.undecodable;
    m_state.lastProblem = problem;
    Note(
        tMs, "cannot read event 0x" +
                 [event] {
                     char hex[16];
                     snprintf(hex, sizeof(hex), "%04X", static_cast<unsigned>(event));
                     return std::string(hex);
                 }() +
                 ": " + problem);
}

void MediaSide::ApplyOverlay(uint64_t tMs, const Overlay& o) {
    auto last = m_state.lastOverlay.find(o.kind);
    if (last == m_state.lastOverlay.end() || !SameOverlay(last->second, o)) {
        std::string line = KindName(o.kind) + " on " + ChannelList(o.mask) + ": ";
        if (o.hasText) {
            line += Quoted(o.text) + " at " + std::to_string(o.x) + "," + std::to_string(o.y) + " size " +
                    std::to_string(o.fontSize);
        } else {
            line += "removed";
        }
        Note(tMs, line);
        m_state.lastOverlay[o.kind] = o;
    }
    for (int ch = 0; ch < kMaxChannels; ++ch) {
        if ((o.mask >> ch & 1u) == 0) {
            continue;
        }
        if (!o.hasText) {
            auto channel = m_state.channels.find(ch);
            if (channel != m_state.channels.end()) {
                channel->second.erase(o.kind);
            }
            continue;
        }
        Item& item = m_state.channels[ch][o.kind];
        item.text = o.text;
        item.x = o.x;
        item.y = o.y;
        item.fontSize = o.fontSize;
    }
    CheckOverlaps(tMs);
}

// Boxes are compared at the reference size, where the positions are meant: a frame of
// another size scales both axes and the font with the height alone, so what overlaps there
// may differ by a few pixels. The card line counts on every channel that shows items.
void MediaSide::CheckOverlaps(uint64_t tMs) {
    std::map<std::string, uint32_t> now;
    for (const auto& channel : m_state.channels) {
        std::vector<std::pair<uint8_t, Box>> boxes;
        for (const auto& item : channel.second) {
            boxes.emplace_back(item.first,
                               TextBox(item.second.text, item.second.x, item.second.y, item.second.fontSize));
        }
        if (m_state.hasCard && !m_state.card.text.empty() && !channel.second.empty()) {
            const uint16_t x = static_cast<uint16_t>(std::min<uint32_t>(m_state.card.x, 0xFFFF));
            const uint16_t y = static_cast<uint16_t>(std::min<uint32_t>(m_state.card.y, 0xFFFF));
            boxes.emplace_back(kKindCard,
                               TextBox(m_state.card.text, x, y, CardFontSize(m_state, channel.first)));
        }
        for (size_t i = 0; i < boxes.size(); ++i) {
            for (size_t j = i + 1; j < boxes.size(); ++j) {
                if (Overlap(boxes[i].second, boxes[j].second)) {
                    now[ItemName(boxes[i].first) + " and " + ItemName(boxes[j].first)] |= 1u << channel.first;
                }
            }
        }
    }
    if (now == m_overlapping) {
        return;
    }
    m_state.overlaps.clear();
    for (const auto& pair : now) {
        const auto before = m_overlapping.find(pair.first);
        if (before == m_overlapping.end()) {
            ++m_state.overlapsSeen;
        }
        if (before == m_overlapping.end() || before->second != pair.second) {
            Note(tMs, "overlap: " + pair.first + " on " + ChannelList(pair.second));
        }
        m_state.overlaps.push_back(pair.first + " on " + ChannelList(pair.second));
    }
    for (const auto& pair : m_overlapping) {
        if (now.find(pair.first) == now.end()) {
            Note(tMs, "overlap ended: " + pair.first);
        }
    }
    m_overlapping = std::move(now);
}

void MediaSide::OnParameterWrite(uint64_t tMs, const std::string& text) {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_state.parameterWrites;
    // The device's writer ends its documents with a line break; a view shows one line.
    size_t end = text.size();
    while (end > 0 && (text[end - 1] == '\n' || text[end - 1] == '\r')) {
        --end;
    }
    m_state.lastParameter = text.substr(0, end);
    m_state.lastParameterMs = tMs;
    Note(tMs, "parameters written: " + Printable(m_state.lastParameter));
}

void MediaSide::Note(uint64_t tMs, const std::string& line) {
    if (m_changes.size() >= kMaxPendingChanges) {
        m_changes.pop_front();
        ++m_droppedChanges;
    }
    m_changes.push_back(Seconds(tMs) + "  " + line);
}

Snapshot MediaSide::Take() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_state;
}

bool MediaSide::Drawn() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_state.hasCard || std::any_of(m_state.channels.begin(), m_state.channels.end(),
                                          [](const auto& channel) { return !channel.second.empty(); });
}

std::vector<std::string> MediaSide::TakeChanges(uint64_t* dropped) {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> lines(m_changes.begin(), m_changes.end());
    m_changes.clear();
    if (dropped != nullptr) {
        *dropped = m_droppedChanges;
    }
    m_droppedChanges = 0;
    return lines;
}

}  // namespace media
