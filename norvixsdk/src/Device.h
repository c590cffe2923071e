// Shared state of the simulated device, used by the stand-in's modules only.
#ifndef NORVIX_SRC_DEVICE_H
#define NORVIX_SRC_DEVICE_H

#include <stdint.h>

#include <string>

#include "JQ_LOG.h"
#include "NvxControl.h"

namespace nvx {
namespace detail {

// Milliseconds since the stand-in was first used.
uint64_t ElapsedMs();

// Counts a call of an operation and applies the faults a test set for it: waits at its gate,
// throws std::bad_alloc, or answers true when the call must fail.
bool CountCall(const char* operation);

// The device clock in microseconds since 1970: the host's real-time clock as SetWallClock
// moved it.
int64_t DeviceMicros();
// Moves the device clock by `seconds`, keeping its running phase.
void ShiftWallClock(int64_t seconds);
// The clock under the device clock changes from one reading `fromMicros` to one reading
// `toMicros` at this moment (the simulated clock switched on or off): the device clock reads on
// from where it was.
void RebaseWallClock(int64_t fromMicros, int64_t toMicros);
bool LocalTimeFollowsZone();

// The stand-in's own log lines carry this module tag.
#define NVX_LOG(level, ...) JQ_LOG_Output("NVXSDK", (level), "norvixsdk", __func__, __LINE__, __VA_ARGS__)

bool GlobalInitFails();
bool BasicInitFails();

void ResetBus();
void ResetLog();
void ResetThreads();
void ResetIdentity();
void ResetStorage();
// Drops the peripheral monitors and their queued records, and waits for a delivery that is
// running (unless called from inside one).
void ResetPeripheral();
void ResetParamStore();
void ResetMsgSdk();

// The parameter store: loaded by the global SDK's initialisation from the control's source
// file, else from `devicePath` under the system root, and saved to that device path. Stopped
// by its deinitialisation: listeners and undelivered texts are dropped, and a callback that
// is running is waited for.
void LoadParamStore(const char* devicePath);
void StopParamStore();

// Starts and stops the watchdog monitor (the platform's service thread).
void StartWatchdogMonitor();
void StopWatchdogMonitor();

// The bus as the low-level message calls (MsgSdk.cpp) use it. PostBusMessage records a
// message, hands it to the send observer and queues it for every client registered for its
// event. FeedWatchdog counts a feed under `name` and watches `client` for a silence longer
// than `silenceMs` (0: the bus's watchdog time-out); ForgetWatchdog stops watching it.
void PostBusMessage(const BusMessage& message);
void FeedWatchdog(const void* client, const std::string& name, uint64_t silenceMs);
void ForgetWatchdog(const void* client);

}  // namespace detail
}  // namespace nvx

#endif
