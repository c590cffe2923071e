// Platform log: formats one line per call, prints it to standard error at or below the set
// level, and hands it to the capture and the observer. As on the device, a line that nobody
// takes (above the print level, with no capture and no observer) is dropped before it is
// formatted, so that a quiet log costs its callers next to nothing.
#include <stdarg.h>
#include <stdio.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "Device.h"
#include "JQ_LOG.h"
#include "SimClock.h"

namespace nvx {
namespace {

struct LogState {
    std::mutex mutex;
    std::condition_variable changed;
    bool capturing = false;
    std::vector<LogLine> captured;
    std::function<void(const LogLine&)> observer;
};

LogState& State() {
    static LogState* state = new LogState;  // never destroyed, see Device.cpp
    return *state;
}

std::atomic<int> g_level{2};
// Whether a capture or an observer takes lines of every level; written under the state's
// mutex, read without it on every call.
std::atomic<bool> g_takesEveryLevel{false};

// With the state's mutex held, after a change of the capture or the observer.
void UpdateTakers(const LogState& s) {
    g_takesEveryLevel.store(s.capturing || static_cast<bool>(s.observer));
}

const char kLevelNames[] = "01234";

// Keeps a long-running capture from growing without bound.
constexpr size_t kMaxCaptured = 200000;

}  // namespace

void SetLogLevel(int level) {
    g_level.store(level);
}
int GetLogLevel() {
    return g_level.load();
}

void StartLogCapture() {
    LogState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.capturing = true;
    s.captured.clear();
    UpdateTakers(s);
}

void StopLogCapture() {
    LogState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.capturing = false;
    UpdateTakers(s);
}

std::vector<LogLine> CapturedLogs() {
    LogState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.captured;
}

bool WaitForLog(const std::function<bool(const LogLine&)>& match, int timeoutMs) {
    LogState& s = State();
    std::unique_lock<std::mutex> lock(s.mutex);
    size_t seen = 0;
    auto found = [&] {
        for (; seen < s.captured.size(); ++seen) {
            if (match(s.captured[seen])) {
                return true;
            }
        }
        return false;
    };
    return detail::WaitMs(s.changed, lock, timeoutMs, found, "WaitForLog");
}

void SetLogObserver(std::function<void(const LogLine&)> observer) {
    LogState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.observer = std::move(observer);
    UpdateTakers(s);
}

namespace detail {
void ResetLog() {
    LogState& s = State();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.capturing = false;
    s.captured.clear();
    UpdateTakers(s);
}
}  // namespace detail

}  // namespace nvx

namespace {

bool Taken(int level) {
    return level <= nvx::g_level.load(std::memory_order_relaxed) ||
           nvx::g_takesEveryLevel.load(std::memory_order_relaxed);
}

std::string FormatText(const char* format, va_list args) {
    std::string text;
    if (format == nullptr) {
        return text;
    }
    char small[512];
    va_list again;
    va_copy(again, args);
    int needed = vsnprintf(small, sizeof(small), format, args);
    if (needed >= static_cast<int>(sizeof(small))) {
        text.assign(static_cast<size_t>(needed) + 1, '\0');
        vsnprintf(&text[0], text.size(), format, again);
        text.resize(static_cast<size_t>(needed));
    } else if (needed > 0) {
        text.assign(small, static_cast<size_t>(needed));
    }
    va_end(again);
    return text;
}

void Emit(const nvx::LogLine& entry) {
    if (entry.level <= nvx::g_level.load()) {
        const char levelName = (entry.level >= 0 && entry.level <= 4) ? nvx::kLevelNames[entry.level] : '?';
        const bool newline = !entry.text.empty() && entry.text.back() == '\n';
        if (entry.module.empty() && entry.file.empty()) {
            fprintf(stderr, "%10llu L%c %s%s", static_cast<unsigned long long>(nvx::detail::ElapsedMs()),
                    levelName, entry.text.c_str(), newline ? "" : "\n");
        } else {
            fprintf(stderr, "%10llu L%c [%s] %s:%s:%d %s%s",
                    static_cast<unsigned long long>(nvx::detail::ElapsedMs()), levelName,
                    entry.module.c_str(), entry.file.c_str(), entry.func.c_str(), entry.line,
                    entry.text.c_str(), newline ? "" : "\n");
        }
    }

    nvx::LogState& s = nvx::State();
    std::function<void(const nvx::LogLine&)> observer;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        observer = s.observer;
        if (s.capturing && s.captured.size() < nvx::kMaxCaptured) {
            s.captured.push_back(entry);
        }
    }
    nvx::detail::NotifyAll(s.changed);
    if (observer) {
        observer(entry);
    }
}

}  // namespace

extern "C" int JQ_LOG_Output(const char* module, int level, const char* file, const char* func, int line,
                             const char* format, ...) {
    if (!Taken(level)) {
        return 0;
    }
    nvx::LogLine entry;
    entry.module = module != nullptr ? module : "";
    entry.level = level;
    entry.file = file != nullptr ? file : "";
    entry.func = func != nullptr ? func : "";
    entry.line = line;
    va_list args;
    va_start(args, format);
    entry.text = FormatText(format, args);
    va_end(args);
    Emit(entry);
    return 0;
}

extern "C" int JQ_LOG_Format(int level, const char* format, ...) {
    if (!Taken(level)) {
        return 0;
    }
    nvx::LogLine entry;
    entry.level = level;
    va_list args;
    va_start(args, format);
    entry.text = FormatText(format, args);
    va_end(args);
    Emit(entry);
    return 0;
}
