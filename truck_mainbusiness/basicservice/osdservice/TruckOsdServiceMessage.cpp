// The overlay message, the Seven line and card swipes.
#include <string.h>

#include <exception>
#include <new>

#include "CommonDefine.h"
#include "TruckOsdService.h"

namespace {

// Card-swipe notification, as read.
const size_t kSwipeBodyLength = 16;  // 23 bits
const size_t kSwipeStatus = 20;
const size_t kSwipeType = 24;
const size_t kSwipeTextPresent = 28;
const size_t kSwipeText = 32;
const uint32_t kSwipeRecordType = 160;
const uint32_t kSwipeMinBody = 8;

// Card-swipe text record.
const size_t kCardX = 128;
const size_t kCardY = 132;
const size_t kCardText = 136;
const size_t kCardTail = 208;
const uint32_t kCardTailValue = 3;

// Whether text reads as UTF-8: every lead byte followed by its continuation bytes. A sequence
// that the end of the text cuts short still counts, since the payload may end inside one.
bool ReadsAsUtf8(const unsigned char* text, size_t size) {
    for (size_t i = 0; i < size;) {
        const int n = GetUtf8ByteNumber(text[i]);
        if (n < 1 || n > 4) {
            return false;
        }
        for (int k = 1; k < n && i + k < size; ++k) {
            if (GetUtf8ByteNumber(text[i + k]) != 0) {
                return false;
            }
        }
        i += static_cast<size_t>(n);
    }
    return true;
}

// Bytes of the character at text[at]: its UTF-8 sequence, or a GB2312 ideograph or byte.
size_t CharacterSize(const unsigned char* text, size_t size, size_t at, bool utf8) {
    if (utf8) {
        return static_cast<size_t>(GetUtf8ByteNumber(text[at]));
    }
    const bool gbLead = text[at] >= 0xA1 && text[at] <= 0xF7;
    return gbLead && at + 1 < size && text[at + 1] >= 0xA1 && text[at + 1] <= 0xFE ? 2 : 1;
}

// Longest prefix of text of at most `limit` bytes that does not end inside a character. Card
// texts come as UTF-8 or as GB2312 (an ideograph is a lead byte 0xA1-0xF7 and a trail byte
// 0xA1-0xFE): a text that does not read as UTF-8 is walked as GB2312, where any other byte
// stands alone.
size_t TextPrefix(const char* text, size_t size, size_t limit) {
    if (size <= limit) {
        return size;
    }
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text);
    const bool utf8 = ReadsAsUtf8(bytes, size);
    size_t cut = 0;
    // size > limit, so every character that starts at or before the limit lies in the text.
    for (size_t at = 0; at <= limit; at += CharacterSize(bytes, size, at, utf8)) {
        cut = at;
    }
    return cut;
}

}  // namespace

int CTruckOsdService::GetVideoChannalMask(int channelCount) {
    // 2^k - 1 saturated to a signed 32-bit value: bit 31 is never set.
    if (channelCount <= 0) {
        return 0;
    }
    if (channelCount >= 31) {
        return 0x7FFFFFFF;
    }
    return static_cast<int>((1u << channelCount) - 1u);
}

void CTruckOsdService::FillOverlayHeader(unsigned char* record, uint8_t kind, uint32_t mask, uint16_t x,
                                         uint16_t y, uint8_t textSize) const {
    TruckPutLE32(record + 0, kOsdOverlayCommand);
    TruckPutLE32(record + 4, mask);
    record[8] = kind;
    record[9] = 1;
    record[10] = 1;
    record[13] = m_ucFontSize;
    TruckPutLE16(record + 20, x);
    TruckPutLE16(record + 22, y);
    record[24] = 1;
    record[27] = 1;
    record[28] = textSize;
}

void CTruckOsdService::SendBus(int event, const unsigned char* data, size_t length) {
    if (m_pMsgClient == nullptr) {
        return;
    }
    m_pMsgClient->MSGSendMessage(0, event, 0, reinterpret_cast<const char*>(data), static_cast<int>(length),
                                 static_cast<int>(m_uiSourceId));
}

void CTruckOsdService::SendOverlayText(uint8_t kind, uint32_t mask, uint16_t x, uint16_t y, const char* text,
                                       const char* failureFormat) {
    // The text size byte counts the terminator in 8 bits; every text of the business is
    // shorter than that (the card text is cut on its way in), and a longer one is cut here
    // rather than sent with a size that disagrees with its bytes.
    const size_t n = TextPrefix(text, strlen(text), 254);
    const size_t total = kOsdOverlayHeaderSize + n + 1;
    unsigned char* record = new (std::nothrow) unsigned char[total];
    if (record == nullptr) {
        if (failureFormat != nullptr) {
            TRUCK_LOG(0, failureFormat, text);
        }
        return;
    }
    memset(record, 0, total);
    FillOverlayHeader(record, kind, mask, x, y, static_cast<uint8_t>(n + 1));
    memcpy(record + kOsdOverlayHeaderSize, text, n);
    SendBus(kOsdEventOverlay, record, total);
    delete[] record;
}

void CTruckOsdService::OSDDataSendSeven(std::string text) {
    SendOverlayText(kOsdItemSeven, m_uiSevenChnMask, m_OSDX_Seven, m_OSDY_Seven, text.c_str(),
                    "new osddata failed\n");
}

void CTruckOsdService::OSDDataSendCancelSeven() {
    unsigned char record[kOsdOverlayHeaderSize];
    memset(record, 0, sizeof(record));
    FillOverlayHeader(record, kOsdItemSeven, m_uiSevenChnMask, m_OSDX_Seven, m_OSDY_Seven, 0);
    SendBus(kOsdEventOverlay, record, sizeof(record));
}

void CTruckOsdService::OSDDataDeleteIPCSeven(std::string text) {
    const uint32_t all = static_cast<uint32_t>(GetVideoChannalMask(m_videoInNum + m_videoIpNum));
    const uint32_t analog = static_cast<uint32_t>(GetVideoChannalMask(m_videoInNum));
    SendOverlayText(kOsdItemSeven, all ^ analog, m_OSDX_Seven, m_OSDY_Seven, text.c_str(),
                    "malloc OSDData failed\n");
}

void CTruckOsdService::OnSwipeInfoNotify(const char* data, int length) {
    // Runs inside the client's event wait: nothing thrown may leave it.
    try {
        ApplySwipe(data, length);
    } catch (const std::exception&) {
    }
}

void CTruckOsdService::ApplySwipe(const char* data, int length) {
    // Every field read must lie inside the payload: up to the text-present byte at least.
    if (data == nullptr || length <= 19 || static_cast<size_t>(length) <= kSwipeTextPresent) {
        return;
    }
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(data);
    const uint32_t body = static_cast<uint32_t>(bytes[kSwipeBodyLength]) |
                          (static_cast<uint32_t>(bytes[kSwipeBodyLength + 1]) << 8) |
                          (static_cast<uint32_t>(bytes[kSwipeBodyLength + 2] & 0x7F) << 16);
    if (body < kSwipeMinBody || TruckGetLE32(bytes + kSwipeStatus) != 0 ||
        TruckGetLE32(bytes + kSwipeType) != kSwipeRecordType) {
        return;
    }
    std::string text;
    if (bytes[kSwipeTextPresent] == 1 && static_cast<size_t>(length) > kSwipeText) {
        // Up to the terminator, or to the payload's end when it has none; then cut to what
        // the card record holds, on a character boundary.
        const char* begin = data + kSwipeText;
        const size_t room = static_cast<size_t>(length) - kSwipeText;
        const void* zero = memchr(begin, 0, room);
        const size_t found =
            zero != nullptr ? static_cast<size_t>(static_cast<const char*>(zero) - begin) : room;
        text.assign(begin, found);
        text.resize(TextPrefix(text.data(), text.size(), kOsdCardTextMax));
    }
    m_strSevenTxt = text;
    if (m_OSD_EN == 0) {
        text.clear();
    }
    OSDDataSendSeven(text);

    if (m_customerType == kOsdCustomerCardReader) {
        unsigned char record[kOsdCardRecordSize];
        memset(record, 0, sizeof(record));
        TruckPutLE32(record + kCardX, m_OSDX_Seven);
        TruckPutLE32(record + kCardY, m_OSDY_Seven);
        memcpy(record + kCardText, text.data(), text.size());
        TruckPutLE32(record + kCardTail, kCardTailValue);
        SendBus(kOsdEventCardText, record, sizeof(record));
    }
}
