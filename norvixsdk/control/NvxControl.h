// Control interface of the simulated device. For the tests and the host program only: the
// plug-in never includes this header (the vendor SDK on the device has nothing like it).
#ifndef NORVIX_CONTROL_NVXCONTROL_H
#define NORVIX_CONTROL_NVXCONTROL_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace Json {
class Value;
}

namespace nvx {

// ---- device profile: what the global configuration block reports ----
struct DeviceProfile {
    uint32_t productType = 20;
    uint32_t systemType = 1;
    uint16_t videoInNum = 4;
    uint16_t videoIpNum = 0;
    std::string serialNumber = "NVX0012345678";
};
void SetDeviceProfile(const DeviceProfile& profile);
DeviceProfile GetDeviceProfile();
// Reads a device identity file, a JSON object {"product_type": u32, "system_type": u32,
// "video_inputs": u16, "ip_channels": u16, "serial_number": "at most 15 characters"}, every key
// optional with the defaults above. False with the reason (the system's, for a file that cannot
// be read) for anything else, an unknown key included; `profile` is then untouched.
bool ReadDeviceProfile(const std::string& path, DeviceProfile& profile, std::string& error);
// The same from a document already read (a recorded run's "device"); the reason names no file.
bool ParseDeviceProfile(const Json::Value& doc, DeviceProfile& profile, std::string& error);

// Make the next initialisations fail until cleared.
void SetGlobalInitFails(bool fails);
void SetBasicInitFails(bool fails);
// JQ_SDK_MSG_Initialize gives no handle until cleared.
void SetMsgInitFails(bool fails);

// The folder that stands for the device's "/" (empty: the real root). Sets TRUCK_SYSROOT,
// which the plug-in reads as well; set it before the plug-in starts.
void SetSystemRoot(const std::string& dir);
std::string SystemRoot();
std::string ResolveDevicePath(const char* devicePath);
// Makes `dir` and its missing parents with `mode`, as mkdir -p does; false, with errno set,
// when one cannot be made. A file standing where the folder should be is not found out here.
bool MakeFolders(const std::string& dir, mode_t mode);

// ---- message bus ----
struct BusMessage {
    uint64_t tMs = 0;  // milliseconds since the stand-in was first used
    std::string client;
    uint32_t source = 0;
    int event = 0;
    std::vector<uint8_t> payload;
    // The session, the flag (JQ_SDK_MSG_Send's response flag, MSGSendMessage's flag) and
    // whether the message went out as a JQ_SDK_MSG_Response.
    int session = 0;
    int flag = 0;
    int destination = 0;  // MSGSendMessage's first argument
    bool response = false;
};
// Queues an event for every client that has a handler registered for it; returns how many.
int InjectBusEvent(int event, const void* data, size_t length);
std::vector<BusMessage> SentMessages();
void ClearSentMessages();
// How many of the last messages sent the record keeps: 100 000 by default and after Reset, 0
// for none (a long run that no one reads them from).
void KeepSentMessages(size_t messages);
// Waits until a sent message (already sent or still to come) matches; false at the time-out.
bool WaitForSent(const std::function<bool(const BusMessage&)>& match, int timeoutMs);
// Called on the sending thread for every message sent; empty function to remove.
void SetSendObserver(std::function<void(const BusMessage&)> observer);
// The id MSGGenerateSourceId gives for a name.
uint32_t SourceIdOf(const std::string& name);
// Number of clients alive on the bus, and whether one of that name exists.
int LiveClientCount();
bool HasClient(const std::string& name);
// The depth that a live client of that name was constructed with; 0 when there is none.
unsigned int ClientDepthAsked(const std::string& name);
// Every distinct time-out that the client of that name has given MSGWaitForEvent.
std::set<int> BusWaitTimeouts(const std::string& client);
// Let MSGWaitForEvent return at once instead of waiting out its time-out.
void SetBusWaitsInstant(bool instant);
// Every handle of JQ_SDK_MSG_Initialize is a bus client of this name: what it sends is
// recorded under it, and JQ_SDK_MSG_SendHeartbeat counts as its watchdog feed.
inline constexpr char kMsgHandleClient[] = "JQ_SDK_MSG";

// ---- watchdog ----
uint64_t WatchdogFeedCount(const std::string& client);
// The tick that the client's last MSGFeedWatchDog gave; 0 before any.
uint64_t LastWatchdogFeedTick(const std::string& client);
// Every client that has fed the watchdog, with its count.
std::map<std::string, uint64_t> WatchdogFeeds();
bool WaitForWatchdogFeeds(const std::string& client, uint64_t count, int timeoutMs);
// The silence after which a client that has fed once is reported (default 10000 ms).
void SetWatchdogTimeoutMs(uint64_t ms);

// ---- log ----
struct LogLine {
    std::string module;
    int level = 0;
    std::string file;
    std::string func;
    int line = 0;
    std::string text;  // formatted text, as given (with its trailing newline)
};
// Lines at or below this level go to standard error (default 2; -1 silences it).
void SetLogLevel(int level);
int GetLogLevel();
// Capture keeps every line whatever its level, until stopped.
void StartLogCapture();
void StopLogCapture();
std::vector<LogLine> CapturedLogs();
bool WaitForLog(const std::function<bool(const LogLine&)>& match, int timeoutMs);
// Called for every line on the logging thread; empty function to remove.
void SetLogObserver(std::function<void(const LogLine&)> observer);

// ---- device wall clock ----
// The device clock runs at real speed from the time set (seconds since 1970, no zone). 64 bits
// on every build, so that a 32-bit build's clock goes past 2038 as the device's records do.
void SetWallClock(int64_t seconds);
int64_t WallClock();
// gettimeofday in this process answers the device clock above. A test that needs exact steps
// holds it at `micros` (microseconds since 1970): it stands there until held at another
// value or let go, whatever SetWallClock does meanwhile. Reset lets it go. The date and time
// calls of the SDK keep following the running device clock.
void HoldWallClockMicros(int64_t micros);
void ReleaseWallClock();
// When on, the device clock follows the time zone of the parameter store, as the recorder's
// own date-time service keeps local time: a write that changes "TIMEP"."TIMEZ" (minutes east
// of UTC, as decimal text) moves the clock by the difference. Off by default and after Reset,
// so that only SetWallClock moves it.
void SetLocalTimeFollowsZone(bool follows);
// The device's calendar: proleptic Gregorian on 64 bits on every build, seconds since 1970 with
// no zone. A 32-bit time_t ends in 2038 and the device's records in 2099, so no date of the
// device goes through the C library.
struct CivilTime {
    int64_t year = 1970;
    int month = 1, day = 1, hour = 0, minute = 0, second = 0;
    int weekday = 4;  // 0 Sunday
};
CivilTime CivilFromSeconds(int64_t seconds);
// Days since 1970-01-01 of a date; the fields are not checked.
int64_t DaysFromCivil(int64_t year, int month, int day);
int DaysInMonth(int64_t year, int month);

// ---- platform calls and threads ----
// How often an operation of the SDK was called since the last reset, by its name
// ("JQ_SDK_Global_Initialize", "OsUtilsCreateThread", ...).
uint64_t CallCount(const std::string& operation);
// Stack size and flag of every OsUtilsCreateThread call, in call order.
std::vector<std::pair<unsigned int, int>> CreatedThreads();
// While held, OsUtilsGetTickCount answers `ms` instead of the monotonic clock.
void HoldTickCount(uint64_t ms);
void ReleaseTickCount();
// The durations of the OsUtilsSleep calls made on the calling thread; with instant sleeps on,
// OsUtilsSleep returns at once (it is still recorded).
std::vector<unsigned int> SleepsOfThisThread();
void SetSleepsInstant(bool instant);
// Faults in platform calls, by the names CallCount uses; Reset clears them and opens gates.
// The next `count` calls throw std::bad_alloc, as an allocation inside them that failed would
// (every counted operation).
void ThrowBadAllocIn(const std::string& operation, int count);
// The next `count` calls fail (OsUtilsCreateThread: -1 and no thread). A thread created by
// OsUtilsCreateThread counts "OsUtilsThreadStart" before its entry runs, where a gate holds it,
// and the creating thread counts "OsUtilsThreadCreated" once the thread exists.
void FailCalls(const std::string& operation, int count);
// Calls stop at the operation's gate until it is opened: a platform call that takes as long
// as the test wants. WaitForCallAtGate waits until one is held there.
void CloseGate(const std::string& operation);
void OpenGate(const std::string& operation);
bool WaitForCallAtGate(const std::string& operation, int timeoutMs);
// What OsUtilsCreateThread answers when it did create the thread (default 0): a vendor's SDK
// may answer the new thread's id instead.
void SetCreatedThreadAnswer(int answer);
// Threads started with OsUtilsCreateThread that have not yet returned.
int RunningThreads();
bool WaitForThreadsToEnd(int timeoutMs);

// ---- device identity ----
// The serial number comes from the device profile; the next `count` requests fail.
void SetSerialNumberFailures(int count);

// ---- storage service ----
// What JQ_SDK_Storage_GetFuseMntPath answers (default: result -10, empty path).
void SetStorageMount(int32_t result, const std::string& path);
// Sends a report to every monitor, on the storage thread; the mount path above follows it.
void InjectStorageReport(int32_t result, const std::string& path);
// Sends raw bytes as a report (of any length) to every monitor, on the storage thread.
void InjectStorageRaw(const void* data, size_t length);
// Waits until the storage thread has delivered everything handed to it.
bool WaitForStorageIdle(int timeoutMs);

// ---- global parameter store ----
// The store is loaded by JQ_SDK_Global_Initialize from this file (default: the device path
// "/mnt/tmpfs/global.bsn" under the system root) and saved to the device path.
void SetParamStoreSource(const std::string& file);
// The store's document as compact text.
std::string ParamStoreText();
// Every request text handed to JQ_SDK_Global_GetParameter / JQ_SDK_Global_ListenParameter.
std::vector<std::string> ParamGetRequests();
std::vector<std::string> ParamListenRequests();
// Called on the writing thread for every document merged by JQ_SDK_Global_SetParameter, and
// for one merged with the function below. Empty function to remove.
void SetParamWriteObserver(std::function<void(const std::string& text)> observer);
// Merges a document into the store as JQ_SDK_Global_SetParameter does (the host's and the
// tests' way to change a parameter). 0, or -1 for a text that is not such a document.
int SetParameterDocument(const std::string& text);
// Waits until the parameter thread has delivered every reply and notification queued.
bool WaitForParamIdle(int timeoutMs);

// ---- device signals and the vehicle-bus port ----
// Hands raw bytes (any length, no terminator added) to every device-signal monitor, and to
// every CAN-port monitor, on the platform's signal thread and CAN thread respectively. Each
// monitor gets its own copy of exactly `length` bytes; null data is handed on as a null pointer
// with the length given.
void InjectDevSignal(const void* data, size_t length);
void InjectCanRecord(const void* data, size_t length);
// Waits until both threads have delivered everything handed to them.
bool WaitForPeripheralIdle(int timeoutMs);
// Monitors registered now (device-signal, CAN-port).
int DevSignalMonitorCount();
int CanPortMonitorCount();

// ---- simulated clock ----
// Off by default: the device runs on the machine's clock. When on, the device's clocks (the
// tick, the sleeps, the bus waits' time-outs, the wall clock behind the date-time calls and
// gettimeofday, the watchdog, the platform threads' waits) follow a clock of its own that
// stands still while any thread that takes part runs, and jumps to the next deadline when all
// of them wait on the device. Those threads ("runners") run one at a time, so the same program
// takes the same turns on every run: every thread started through OsUtilsCreateThread or by
// the stand-in itself, the thread that switched it on, and every thread one of them starts
// with pthread_create (the plug-in's std::threads), whose sleeps, condition waits, joins and
// monotonic clock readings then follow the device's clock.
//
// Switch it on before the device starts anything: the tick reads `startTickMs`, the wall clock
// reads on from where it was (set it after, for a run that is the same every time), and the
// calling thread becomes the first runner and holds the turn. Every wait of the control
// interface (WaitForSent, WaitForThreadsToEnd, ...) then counts device milliseconds.
void SimClockOn(uint64_t startTickMs);
// While one lives, the threads that the calling thread starts are the host's own: never
// runners, on the machine's clock whoever starts them.
class HostThreads {
public:
    HostThreads();
    ~HostThreads();
    HostThreads(const HostThreads&) = delete;
    HostThreads& operator=(const HostThreads&) = delete;
};
// Back to the machine's clock: every runner goes on from its wait (a bounded wait ends at
// once), the wall clock reads on. Call it from the thread that switched it on.
void SimClockOff();
bool SimClockIsOn();
// The device tick on the simulated clock.
uint64_t SimNowMs();
// Lets the device run until the tick reads `deviceMs` (at once when it has), on the turn of
// the calling runner: the driver's way to let device time pass.
void SimSleepUntil(uint64_t deviceMs);
// A runner that holds the turn for this long on the machine's clock without waiting on the
// device (blocked on a lock that a waiting runner holds, or spinning) stops the process with
// a report of every runner (default 20000; 0 for the default).
void SetSimStallLimitMs(int ms);
// Keeps the calling thread, and every thread it starts from now on, on the core it runs on now.
// On the simulated clock one runner runs at a time, so the device loses nothing by it, and a
// turn handed to a thread on the same core costs no wake-up across cores: on a virtual machine
// that is most of what a turn costs. False, with nothing changed, when the core is not known.
bool SimKeepToOneCore();

// Back to a fresh device: profile, failures, captures, sent messages, counters, clock,
// held tick, recorded threads and sleeps. The simulated clock stays on or off.
// Clients and threads that are still alive are left alone.
void Reset();

}  // namespace nvx

#endif
