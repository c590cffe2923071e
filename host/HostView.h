// What the host shows of the media side while the plug-in runs: on a terminal a status panel
// redrawn in place, elsewhere one plain line per change; and, when asked, PNG frames of chosen
// channels once a second and once at the end. Everything shown comes from the media side's
// snapshots and the simulated device's own counters, never from the plug-in.
#ifndef TRUCK_HOST_HOSTVIEW_H
#define TRUCK_HOST_HOSTVIEW_H

#include <stdint.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "MediaSide.h"

namespace truckhost {

struct ViewOptions {
    bool panel = false;     // redraw a panel in place (standard output is a terminal)
    std::string framesDir;  // empty: no frames
    std::vector<int> channels{0};
    int width = 1920, height = 1080;
};

// What the panel shows besides the media side's snapshot.
struct PanelInput {
    uint64_t tMs = 0;
    int64_t deviceClock = 0;  // seconds since 1970, no zone
    double messagesPerSecond = 0;
    std::map<std::string, uint64_t> watchdogFeeds;
    std::string lastStep;  // the last script step run, as written
    uint64_t framesWritten = 0;
    std::string framesNote;  // where the frames go, or why they stopped
    std::vector<std::string> recentLog;
    std::string note;  // why nothing is drawn, or empty
};

// The panel's lines, none wider than `columns` characters.
std::vector<std::string> RenderPanel(const media::Snapshot& snapshot, const PanelInput& input, int columns);

// Cuts `text` to at most `columns` characters, never inside a UTF-8 sequence.
std::string FitColumns(const std::string& text, int columns);

class HostView {
public:
    // `sinceStart` gives the host's milliseconds since start, the clock of the frames' names.
    HostView(media::MediaSide& media, ViewOptions options, std::function<uint64_t()> sinceStart);
    ~HostView();
    HostView(const HostView&) = delete;
    HostView& operator=(const HostView&) = delete;

    // False with a message when the frames folder cannot be made.
    bool Prepare(std::string& error);
    // With a thread of its own, which frames and refreshes on the machine's clock; without, the
    // caller calls Step once a second of its own clock (the simulated device's).
    void Start(bool ownThread = true);
    // The frames of the second `tMs` is in, and the lines or the panel (which is redrawn at
    // most as often as its own thread would).
    void Step(uint64_t tMs);
    // Writes the frames at exit and the last panel or lines; the view thread has ended after.
    void Stop();

    // Any thread.
    void OnLog(int level, const std::string& text);
    void OnStep(const std::string& source);
    // Why nothing is drawn, or empty: under the panel's head, or one line when it changes.
    void SetNote(const std::string& note);
    // True, with the system's reason, once a frame could not be written; no frame follows.
    bool FramesFailed(std::string& reason);
    uint64_t FramesWritten() const { return m_framesWritten.load(); }

private:
    void Run();
    void Refresh(uint64_t tMs, bool final);
    void WriteFrames(const std::string& tag);

    media::MediaSide& m_media;
    const ViewOptions m_options;
    const std::function<uint64_t()> m_sinceStart;

    std::mutex m_mutex;  // guards the members below
    std::condition_variable m_wake;
    bool m_stopping = false;
    bool m_started = false;
    std::deque<std::string> m_recentLog;
    std::string m_lastStep;
    std::string m_note;
    std::string m_framesFailure;
    std::thread m_thread;

    // View thread only.
    uint64_t m_lastMessages = 0;
    uint64_t m_lastRateMs = 0;
    double m_rate = 0;
    std::atomic<uint64_t> m_framesWritten{0};
    bool m_framesFailed = false;
    std::string m_framesNote;
    std::string m_noteShown;
    int m_panelLines = 0;
    std::chrono::steady_clock::time_point m_lastRefresh;  // Step only
};

}  // namespace truckhost

#endif
