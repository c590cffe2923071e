// The bus events the host knows by number: those the plug-in sends, which the media side and
// the bus log read, and those the script's steps inject into the device.
#ifndef TRUCK_HOST_BUSEVENTS_H
#define TRUCK_HOST_BUSEVENTS_H

namespace busevent {

// Sent by the plug-in.
constexpr int kOverlay = 0x1210;     // one overlay item on a set of channels
constexpr int kCardRecord = 0x1263;  // the card-swipe text with the line's position
constexpr int kIoTurn = 0x401E;      // the turn state of the IO inputs, one byte
constexpr int kDstState = 0x402F;    // daylight-saving state of the time line
constexpr int kSystemLog = 0x1134;   // a batch of system log records

// Injected by the script's "speed" and "swipe" steps.
constexpr int kSpeed = 0x118A;
constexpr int kSwipe = 0x4004;

}  // namespace busevent

#endif
