// A parameter document on arbitrary text (no terminator), applied as the business's queue
// hands it over, then one date/time line and one speed line built from what it applied.
//
// The device clock is set to the same moment for every input, so that a crash that depends on
// the date replays. A document that turns the watermark on writes the store and files a wheel
// timer; two wheel shifts per input run that timer, so none pile up.
#include <stddef.h>
#include <stdint.h>

#include <vector>

#include "HCTimeWheel.h"
#include "OsdFuzzBusiness.h"

namespace {
// 2024-03-31 00:59:30, half a minute before the European change to summer time.
const time_t kDeviceClock = 1711846770;
}  // namespace

// Refused inputs are logged; thousands of lines a second would only slow the search.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    nvx::SetLogLevel(-1);
    // The first "WME" of the process only records the switch. Seen once here, every input
    // meets the business as it is after start-up, and a crash replays from its input alone.
    static const char kFirstWatermark[] = "{\"PARAMETER\":{\"MDVR\":{\"EOSD\":[{\"WME\":0}]}}}";
    std::vector<AsynCallbackParaNode_t> nodes(1);
    nodes[0].pData = kFirstWatermark;
    nodes[0].iLen = static_cast<int>(sizeof(kFirstWatermark) - 1);
    nodes[0].iReserved = 0;
    osdfuzz::Fresh().OSDEventHandle(nodes);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CTruckOsdService& osd = osdfuzz::Fresh();
    nvx::SetWallClock(kDeviceClock);
    const osdfuzz::Payload payload(data, size);
    std::vector<AsynCallbackParaNode_t> nodes(1);
    nodes[0].pData = payload.data();
    nodes[0].iLen = payload.length();
    nodes[0].iReserved = 0;
    osd.OSDEventHandle(nodes);
    osd.OSDDataSendTime();
    osd.OSDDataSendSpeed();
    TimeWheel::GetInstance()->TimerShift();
    TimeWheel::GetInstance()->TimerShift();
    osdfuzz::CheckOverlays();
    return 0;
}
