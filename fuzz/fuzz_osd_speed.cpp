// The speed notification on arbitrary bytes, then the speed line built from what it stored.
#include <stddef.h>
#include <stdint.h>

#include "OsdFuzzBusiness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CTruckOsdService& osd = osdfuzz::Fresh();
    const osdfuzz::Payload payload(data, size);
    osd.OnUpdateSpeedInfo(payload.data(), payload.length());
    // A notification too short for the value changes nothing; a long enough one is taken whole.
    if (payload.length() < 28) {
        if (osd.m_uiSpeed != 0 || osd.m_ucSpeedUnit != 0) {
            __builtin_trap();
        }
    } else if (osd.m_uiSpeed != TruckGetLE32(payload.bytes() + 24) ||
               osd.m_ucSpeedUnit != payload.bytes()[20]) {
        __builtin_trap();
    }
    osd.OSDDataSendSpeed();
    if (osdfuzz::SentOf(kOsdEventOverlay).size() != 1) {
        __builtin_trap();
    }
    osdfuzz::CheckOverlays();
    return 0;
}
