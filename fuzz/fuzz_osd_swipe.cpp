// The card-swipe notification on arbitrary bytes, on a card-reader product that also sends the
// 212-byte text record, with the Seven line switched on.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "OsdFuzzBusiness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CTruckOsdService& osd = osdfuzz::Fresh();
    osd.m_customerType = kOsdCustomerCardReader;
    osd.m_OSD_EN = 1;
    const osdfuzz::Payload payload(data, size);
    osd.OnSwipeInfoNotify(payload.data(), payload.length());

    // The line's text fits the record's text field and came out of the payload's text.
    const std::string& text = osd.m_strSevenTxt;
    if (text.size() > kOsdCardTextMax) {
        __builtin_trap();
    }
    if (!text.empty() && (payload.length() < 32 + static_cast<int>(text.size()) ||
                          memcmp(payload.data() + 32, text.data(), text.size()) != 0)) {
        __builtin_trap();
    }
    const std::vector<nvx::BusMessage> records = osdfuzz::SentOf(kOsdEventCardText);
    if (records.size() > 1 || records.size() != osdfuzz::SentOf(kOsdEventOverlay).size()) {
        __builtin_trap();
    }
    for (const nvx::BusMessage& record : records) {
        const std::vector<uint8_t>& p = record.payload;
        if (p.size() != kOsdCardRecordSize || TruckGetLE32(p.data() + 208) != 3 ||
            memcmp(p.data() + 136, text.data(), text.size()) != 0) {
            __builtin_trap();
        }
    }
    osdfuzz::CheckOverlays();
    return 0;
}
