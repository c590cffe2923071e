// The device-signal text on arbitrary bytes (no terminator), through the platform's callback
// with the business as its user.
#include <stddef.h>
#include <stdint.h>

#include "OsdFuzzBusiness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CTruckOsdService& osd = osdfuzz::Fresh();
    const osdfuzz::Payload payload(data, size);
    CTruckOsdService::MonitorIoUseInfo(payload.data(), payload.length(), osd.LiveToken(), nullptr);
    // Every text the callback takes, usable or not, announces the IO state it leaves.
    const std::vector<nvx::BusMessage> sent = osdfuzz::SentOf(kOsdEventIoTurn);
    if (size == 0) {
        if (!sent.empty()) {
            __builtin_trap();
        }
        return 0;
    }
    if (sent.size() != 1 || sent[0].payload.size() != 1 || sent[0].payload[0] != osd.m_IOturnState.load()) {
        __builtin_trap();
    }
    return 0;
}
