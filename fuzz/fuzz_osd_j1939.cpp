// A J1939 record of the CAN port on arbitrary bytes, through the platform's callback with the
// business as its user.
#include <stddef.h>
#include <stdint.h>

#include "OsdFuzzBusiness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CTruckOsdService& osd = osdfuzz::Fresh();
    const osdfuzz::Payload payload(data, size);
    CallbackCanTruckOsdServiceEvent(payload.data(), payload.length(), osd.LiveToken(), nullptr);
    // The bus gives one side of the turn signal at a time; "both" only comes from combining.
    const uint8_t state = osd.m_OBDturnState.load();
    if (state > 2 || (state != 0 && payload.length() < 20)) {
        __builtin_trap();
    }
    return 0;
}
