#include "HostView.h"

#include <dirent.h>
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iterator>

#include "HostText.h"
#include "NvxControl.h"

#ifdef TRUCK_HOST_FRAMES
#include "FrameWriter.h"
#endif

namespace truckhost {

namespace {

constexpr size_t kRecentLogLines = 4;
constexpr std::chrono::milliseconds kRefresh{250};

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
    char text[256];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    return text;
}

// A frame's name: the device second it shows.
std::string SecondTag(uint64_t ms) {
    return Format("%04llu", static_cast<unsigned long long>(ms / 1000));
}

// The turn mark at the end of the speed text, as the driver reads it.
std::string TurnShown(const std::string& speedText) {
    if (speedText.find("(L R)") != std::string::npos) {
        return media::TurnName(3);
    }
    if (speedText.find("(L)") != std::string::npos) {
        return media::TurnName(1);
    }
    if (speedText.find("(R)") != std::string::npos) {
        return media::TurnName(2);
    }
    return media::TurnName(0);
}

using media::Quoted;

// One overlay item of the panel's channel list.
std::string ItemLine(const std::string& channels, uint8_t kind, uint16_t x, uint16_t y, uint8_t fontSize,
                     const std::string& text) {
    return Format("  %-8s %-7s at %4u,%-4u size %u  ", channels.c_str(), media::KindName(kind).c_str(), x, y,
                  fontSize) +
           Quoted(text);
}

// Makes `dir` and its missing parents; false, with errno set, when it is not a folder after.
bool MakeFramesFolder(const std::string& dir) {
    struct stat info;
    if (!nvx::MakeFolders(dir, 0777) || stat(dir.c_str(), &info) != 0) {
        return false;
    }
    if (!S_ISDIR(info.st_mode)) {
        errno = EEXIST;
        return false;
    }
    return true;
}

// A previous run's frames would mix with this run's: "ch<N>_<tag>.png" files go, and
// nothing else of the folder. False with the system's reason for one that cannot go.
bool RemoveEarlierFrames(const std::string& dir, std::string& error) {
    DIR* folder = opendir(dir.c_str());
    if (folder == nullptr) {
        error = "cannot read the frames folder '" + dir + "': " + strerror(errno);
        return false;
    }
    bool removed = true;
    for (struct dirent* entry = readdir(folder); entry != nullptr && removed; entry = readdir(folder)) {
        const std::string name = entry->d_name;
        unsigned channel = 0;
        int consumed = 0;
        const bool isFrame = sscanf(name.c_str(), "ch%u_%n", &channel, &consumed) == 1 && consumed > 0 &&
                             name.size() > 4 && name.compare(name.size() - 4, 4, ".png") == 0;
        const std::string path = dir + "/" + name;
        struct stat info;
        if (isFrame && lstat(path.c_str(), &info) == 0 && !S_ISDIR(info.st_mode) &&
            unlink(path.c_str()) != 0) {
            error = "cannot remove the earlier frame '" + path + "': " + strerror(errno);
            removed = false;
        }
    }
    closedir(folder);
    return removed;
}

// A tab would be drawn as a control character: it becomes the spaces to the next column of
// eight, counted in characters.
std::string ExpandTabs(const std::string& text) {
    std::string out;
    size_t column = 0;
    for (char c : text) {
        if (c == '\t') {
            const size_t spaces = 8 - column % 8;
            out.append(spaces, ' ');
            column += spaces;
        } else {
            out.push_back(c);
            column += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
        }
    }
    return out;
}

int TerminalColumns() {
    struct winsize size;
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col >= 20) {
        return size.ws_col;
    }
    return 100;
}

}  // namespace

std::string FitColumns(const std::string& text, int columns) {
    int count = 0;
    for (size_t at = 0; at < text.size(); ++at) {
        // Only lead bytes start a character; continuation bytes ride along.
        if ((static_cast<unsigned char>(text[at]) & 0xC0) != 0x80 && count++ == columns) {
            return text.substr(0, at);
        }
    }
    return text;
}

std::vector<std::string> RenderPanel(const media::Snapshot& s, const PanelInput& in, int columns) {
    std::vector<std::string> lines;
    lines.push_back(
        Format("truckhost %7.1f s   device clock %s   bus %.1f msg/s   media %llu read, %llu unreadable",
               static_cast<double>(in.tMs) / 1000.0, DeviceTimeText(in.deviceClock, ' ').c_str(),
               in.messagesPerSecond, static_cast<unsigned long long>(s.decoded),
               static_cast<unsigned long long>(s.undecodable)));

    if (!in.note.empty()) {
        lines.push_back(in.note);
    }
    // The speed line of the lowest channel that shows one.
    std::string speed;
    for (const auto& channel : s.channels) {
        auto item = channel.second.find(media::kKindSpeed);
        if (item != channel.second.end()) {
            speed = item->second.text;
            break;
        }
    }
    std::string status = "speed " + (speed.empty() ? std::string("-") : Quoted(speed)) + "   turn shown " +
                         TurnShown(speed) + "   IO turn " +
                         (s.hasIoTurn ? media::TurnName(s.ioTurn) : std::string("-")) + "   daylight saving ";
    status += s.hasDst ? media::DstText(s.dst) : std::string("-");
    lines.push_back(status);
    lines.push_back("card record " + (s.hasCard && !s.card.text.empty()
                                          ? Quoted(s.card.text) + Format(" at %u,%u", s.card.x, s.card.y)
                                          : std::string("-")));

    // Channels that show the same items share their lines.
    lines.push_back("channels");
    for (auto it = s.channels.begin(); it != s.channels.end();) {
        auto last = it;
        auto next = std::next(it);
        while (next != s.channels.end() && next->first == last->first + 1 && next->second == it->second) {
            last = next++;
        }
        std::string name = it->first == last->first ? Format("ch %d", it->first)
                                                    : Format("ch %d-%d", it->first, last->first);
        if (it->second.empty()) {
            lines.push_back(Format("  %-8s (nothing)", name.c_str()));
        }
        for (const auto& item : it->second) {
            lines.push_back(ItemLine(name, item.first, item.second.x, item.second.y, item.second.fontSize,
                                     item.second.text));
            name.clear();
        }
        it = next;
    }
    if (s.channels.empty()) {
        lines.push_back("  (no overlay yet)");
    }
    // A card-reader device sends its free line with the mask 0: it is read, but reaches no channel.
    for (const auto& last : s.lastOverlay) {
        if (last.second.mask == 0 && last.second.hasText) {
            lines.push_back(ItemLine("none", last.first, last.second.x, last.second.y, last.second.fontSize,
                                     last.second.text));
        }
    }

    for (const std::string& overlap : s.overlaps) {
        lines.push_back("overlap: " + overlap);
    }
    lines.push_back(s.parameterWrites == 0 ? std::string("last parameter change -")
                                           : Format("last parameter change at %.1f s: ",
                                                    static_cast<double>(s.lastParameterMs) / 1000.0) +
                                                 media::Printable(s.lastParameter));
    lines.push_back("last script step " + (in.lastStep.empty() ? std::string("-") : in.lastStep));
    std::string feeds = "watchdog feeds";
    for (const auto& feed : in.watchdogFeeds) {
        feeds += Format("  %s %llu", feed.first.c_str(), static_cast<unsigned long long>(feed.second));
    }
    lines.push_back(in.watchdogFeeds.empty() ? feeds + " -" : feeds);
    if (!in.framesNote.empty()) {
        lines.push_back(Format("frames %llu  ", static_cast<unsigned long long>(in.framesWritten)) +
                        in.framesNote);
    }
    if (s.undecodable != 0) {
        lines.push_back("last unreadable: " + s.lastProblem);
    }
    if (!in.recentLog.empty()) {
        lines.push_back("log");
        for (const std::string& line : in.recentLog) {
            lines.push_back("  " + media::Printable(ExpandTabs(line)));
        }
    }
    for (std::string& line : lines) {
        line = FitColumns(line, columns);
    }
    return lines;
}

HostView::HostView(media::MediaSide& media, ViewOptions options, std::function<uint64_t()> sinceStart)
    : m_media(media), m_options(std::move(options)), m_sinceStart(std::move(sinceStart)) {}

HostView::~HostView() {
    Stop();
}

bool HostView::Prepare(std::string& error) {
    if (m_options.framesDir.empty()) {
        return true;
    }
#ifdef TRUCK_HOST_FRAMES
    if (!MakeFramesFolder(m_options.framesDir)) {
        error = "cannot make the frames folder '" + m_options.framesDir + "': " + strerror(errno);
        return false;
    }
    if (!RemoveEarlierFrames(m_options.framesDir, error)) {
        return false;
    }
    std::string channels;
    for (int ch : m_options.channels) {
        channels += (channels.empty() ? "ch " : ",") + std::to_string(ch);
    }
    m_framesNote =
        "in " + m_options.framesDir + " (" + channels + Format(", %dx%d)", m_options.width, m_options.height);
    return true;
#else
    (void)MakeFramesFolder;
    (void)RemoveEarlierFrames;
    error = "this truckhost was built without frames (TRUCK_HOST_FRAMES off)";
    return false;
#endif
}

void HostView::Start(bool ownThread) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_started) {
        return;
    }
    m_started = true;
    m_stopping = false;
    if (m_options.panel) {
        fputs("\x1b[?25l\x1b[2J", stdout);  // hide the cursor, clear the screen
        fflush(stdout);
    }
    if (ownThread) {
        m_thread = std::thread(&HostView::Run, this);
    }
}

void HostView::Step(uint64_t tMs) {
    WriteFrames(SecondTag(tMs));
    const auto now = std::chrono::steady_clock::now();
    if (!m_options.panel || now - m_lastRefresh >= kRefresh) {
        m_lastRefresh = now;
        Refresh(tMs, false);
    }
}

void HostView::Stop() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_started) {
            return;
        }
        m_started = false;
        m_stopping = true;
    }
    m_wake.notify_all();
    if (m_thread.joinable()) {
        m_thread.join();
    }
    const uint64_t now = m_sinceStart();
    WriteFrames("exit");
    Refresh(now, true);
#ifdef TRUCK_HOST_FRAMES
    if (!m_options.framesDir.empty()) {
        media::ReleaseFrameResources();
    }
#endif
    if (m_options.panel) {
        fputs("\x1b[?25h", stdout);
        fflush(stdout);
    }
}

void HostView::OnLog(int level, const std::string& text) {
    std::string line = Format("L%d ", level) + text;
    while (!line.empty() && line.back() == '\n') {
        line.pop_back();
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_recentLog.size() == kRecentLogLines) {
        m_recentLog.pop_front();
    }
    m_recentLog.push_back(std::move(line));
}

void HostView::OnStep(const std::string& source) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lastStep = Format("at %.1f s: ", static_cast<double>(m_sinceStart()) / 1000.0) + source;
}

void HostView::SetNote(const std::string& note) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_note = note;
}

bool HostView::FramesFailed(std::string& reason) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_framesFailure.empty()) {
        return false;
    }
    reason = m_framesFailure;
    return true;
}

void HostView::Run() {
    prctl(PR_SET_NAME, "host-view", 0, 0, 0);
    uint64_t nextFrameMs = 1000;
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stopping) {
        const uint64_t now = m_sinceStart();
        const uint64_t untilFrame = nextFrameMs > now ? nextFrameMs - now : 0;
        const auto wait = std::min(kRefresh, std::chrono::milliseconds(untilFrame));
        if (m_wake.wait_for(lock, wait, [this] { return m_stopping; })) {
            break;
        }
        lock.unlock();
        const uint64_t t = m_sinceStart();
        if (t >= nextFrameMs) {
            // A late wake names its frame by the second it is in and skips the ones missed.
            WriteFrames(SecondTag(t));
            nextFrameMs = (t / 1000 + 1) * 1000;
        }
        Refresh(t, false);
        lock.lock();
    }
}

// Called every device second: the media side is copied only when there are frames to draw.
void HostView::WriteFrames(const std::string& tag) {
#ifdef TRUCK_HOST_FRAMES
    if (m_options.framesDir.empty() || m_framesFailed) {
        return;
    }
    const media::Snapshot snapshot = m_media.Take();
    for (int ch : m_options.channels) {
        const std::string path = m_options.framesDir + Format("/ch%d_", ch) + tag + ".png";
        std::string error;
        if (!media::WriteFrame(snapshot, ch, m_options.width, m_options.height, path, error)) {
            // One report, then no more frames: a full disk would otherwise fill the screen.
            m_framesFailed = true;
            m_framesNote = "stopped: " + error;
            std::lock_guard<std::mutex> lock(m_mutex);
            m_framesFailure = error;
            return;
        }
        ++m_framesWritten;
    }
#else
    (void)tag;
#endif
}

void HostView::Refresh(uint64_t tMs, bool final) {
    uint64_t dropped = 0;
    std::vector<std::string> changes = m_media.TakeChanges(&dropped);
    std::string note;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        note = m_note;
    }
    if (!m_options.panel) {
        if (note != m_noteShown && !note.empty()) {
            printf("%s\n", note.c_str());
        }
        m_noteShown = note;
        if (dropped != 0) {
            printf("%llu change lines dropped: the view fell behind\n",
                   static_cast<unsigned long long>(dropped));
        }
        for (const std::string& line : changes) {
            printf("%s\n", line.c_str());
        }
        if (final && m_framesWritten != 0) {
            printf("%llu frames written %s\n", static_cast<unsigned long long>(m_framesWritten.load()),
                   m_framesNote.c_str());
        }
        fflush(stdout);
        return;
    }
    // Only the panel shows the state and the rate. The rate is measured over a second at least;
    // the last refresh keeps the one before it.
    const media::Snapshot snapshot = m_media.Take();
    if (tMs >= m_lastRateMs + 1000) {
        const uint64_t span = tMs - m_lastRateMs;
        m_rate = span == 0 ? 0 : static_cast<double>(snapshot.messages - m_lastMessages) * 1000.0 / span;
        m_lastMessages = snapshot.messages;
        m_lastRateMs = tMs;
    }
    PanelInput in;
    in.tMs = tMs;
    in.deviceClock = nvx::WallClock();
    in.messagesPerSecond = m_rate;
    in.watchdogFeeds = nvx::WatchdogFeeds();
    in.framesWritten = m_framesWritten;
    in.framesNote = m_framesNote;
    in.note = note;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        in.lastStep = m_lastStep;
        in.recentLog.assign(m_recentLog.begin(), m_recentLog.end());
    }
    std::vector<std::string> lines = RenderPanel(snapshot, in, TerminalColumns());
    std::string out = "\x1b[H";
    for (const std::string& line : lines) {
        out += line + "\x1b[K\n";
    }
    out += "\x1b[J";
    fputs(out.c_str(), stdout);
    fflush(stdout);
}

}  // namespace truckhost
