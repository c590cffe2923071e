// The host's timed script (--script): steps read from a JSON array, each injected into the
// simulated device at its time while the plug-in runs. Reading and payload building touch
// nothing of the device, so a script is refused whole before the plug-in starts.
#ifndef TRUCK_HOST_HOSTSCRIPT_H
#define TRUCK_HOST_HOSTSCRIPT_H

#include <stddef.h>
#include <stdint.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace truckhost {

// The swipe notification's body length has 23 bits and the body is 13 bytes besides the text.
constexpr size_t kMaxSwipeText = 0x7FFFFF - 13;

// How a step reaches the device; "speed" and "swipe" are bus events with a built payload.
// kRestart and kRepeat are the host's own: the one stops the plug-in and starts it again in the
// same process, the other plays the script again from its first step.
enum class Injection {
    kBusEvent,
    kDevSignal,
    kCanRecord,
    kParameters,
    kWallClock,
    kStorageReport,
    kRestart,
    kRepeat
};

// The longest pause a restart step may ask for between stop and start.
constexpr int64_t kMaxRestartGapMs = 600000;

struct ScriptStep {
    size_t number = 0;  // position in the file, counted from 1
    uint64_t atMs = 0;
    Injection injection = Injection::kBusEvent;
    int event = 0;               // kBusEvent
    std::vector<uint8_t> bytes;  // kBusEvent, kDevSignal, kCanRecord
    std::string text;            // kParameters: the document, compact; kStorageReport: the path
    int64_t seconds = 0;         // kWallClock
    int32_t result = 0;          // kStorageReport
    uint64_t gapMs = 0;          // kRestart: the pause between stop and start
    std::string source;          // the step as written, compact, for the logs
};

struct ParsedScript {
    std::vector<ScriptStep> steps;  // in the order they run: by time, ties in file order
    std::string error;              // empty for a good script, else "step N: what is wrong"
};

ParsedScript ParseScript(const std::string& text);
// The step kinds ParseScript knows, a line each as --help lists them: "  speed    speed (u32), ...".
std::string ScriptKindsHelp();

std::vector<uint8_t> SpeedPayload(uint32_t speed, uint8_t unit);
// `text` is at most kMaxSwipeText bytes.
std::vector<uint8_t> SwipePayload(const std::string& text);

// Hands the step to the simulated device; a restart is left to the caller.
void RunStep(const ScriptStep& step);

// The steps in running order, with the repeats played out: a repeat step at N starts them again
// from the first, each at its time plus N (and its source saying so), so that a day's drive
// needs no day-long file. A repeat that no step precedes ends the script.
class ScriptCursor {
public:
    explicit ScriptCursor(const std::vector<ScriptStep>& steps) : m_steps(steps) {}
    // The next step to run; false when none is left.
    bool Next(ScriptStep& out);

private:
    const std::vector<ScriptStep>& m_steps;
    size_t m_index = 0;
    uint64_t m_offsetMs = 0;
};

// Performs steps on a thread of its own, each when its time after `origin` has come.
class ScriptTimeline {
public:
    using Perform = std::function<void(const ScriptStep&)>;

    ScriptTimeline() = default;
    ~ScriptTimeline() { Stop(); }
    ScriptTimeline(const ScriptTimeline&) = delete;
    ScriptTimeline& operator=(const ScriptTimeline&) = delete;

    // `steps` in running order; those due at or after `endMs` never run. Once only.
    void Start(std::vector<ScriptStep> steps, std::chrono::steady_clock::time_point origin, uint64_t endMs,
               Perform perform);
    // Returns once no step runs any more; a step under way finishes first.
    void Stop();
    // Waits until every step that is to run has run; false at the time-out.
    bool WaitUntilDone(std::chrono::milliseconds timeout);

private:
    void Run();

    std::vector<ScriptStep> m_steps;
    std::chrono::steady_clock::time_point m_origin;
    uint64_t m_endMs = 0;
    Perform m_perform;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stopping = false;
    bool m_done = false;
    std::thread m_thread;
};

}  // namespace truckhost

#endif
