#include "HostRun.h"

#include <malloc.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <thread>

#include "NvxControl.h"

namespace truckhost {

namespace {

volatile sig_atomic_t g_stopRequested = 0;

// The device's tick when the simulated clock starts: a recorder some time after boot, the same
// on every run.
constexpr uint64_t kSimStartTickMs = 60000;
constexpr uint64_t kDayMs = 86400000;

void OnSignal(int) {
    g_stopRequested = 1;
}

ViewOptions ViewOptionsOf(const Options& options) {
    ViewOptions view;
    view.panel = isatty(STDOUT_FILENO) != 0;
    view.framesDir = options.framesDir;
    if (!options.channels.empty()) {
        view.channels = options.channels;
    }
    view.width = options.frameWidth;
    view.height = options.frameHeight;
    return view;
}

}  // namespace

HostRun::HostRun(const Options& options, const Device& device)
    : m_options(options),
      m_device(device),
      m_started(std::chrono::steady_clock::now()),
      m_view(m_media, ViewOptionsOf(options), [this] { return SinceStart(); }) {}

uint64_t HostRun::SinceStart() const {
    if (m_options.simClock) {
        return nvx::SimClockIsOn() ? nvx::SimNowMs() - kSimStartTickMs : m_simEndMs.load();
    }
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - m_started)
            .count());
}

bool HostRun::SetUp(std::string& error) {
    if (!m_options.simClock) {
        return SetUpDevice(error);
    }
    // Before anything of the device runs, so that all of it runs on the clock; this thread is
    // its first runner, the driver. Its threads take turns on one core, which more than halves
    // the wall time a turn costs here; the machine's own sharing of its cores is left as it is.
    nvx::SimKeepToOneCore();
    nvx::SimClockOn(kSimStartTickMs);
    // The stand-in keeps the last 100 000 messages sent for its tests (the host counts its own):
    // some 16 MB, which a recorder does not hold, shifting the heap by tens of kilobytes from one
    // day's end to the next and, spread among what the plug-in holds, keeping megabytes of pages
    // resident or not as it happens. None kept on every run of this clock, sampled or not, so
    // that the figures of a sampled run are those of any.
    nvx::KeepSentMessages(0);
    if (!SetUpDevice(error)) {
        nvx::SimClockOff();
        return false;
    }
    return true;
}

bool HostRun::SetUpDevice(std::string& error) {
    nvx::SetLogLevel(m_options.logLevel);
    nvx::SetSystemRoot(m_options.sysroot);
    nvx::SetDeviceProfile(m_device.profile);
    nvx::SetParamStoreSource(m_device.paramStore);
    // The simulated recorder boots with its hard disk mounted.
    nvx::SetStorageMount(0, "/mnt/hd1");
    // Set also when not given: the device's seconds then turn a whole number of seconds
    // after this moment, in a run and in its replay alike.
    nvx::SetWallClock(m_options.startTimeGiven ? m_options.startTime : nvx::WallClock());
    // A time-zone change moves the simulated device's local time, as the recorder's own
    // date-time service does.
    nvx::SetLocalTimeFollowsZone(true);
    if (!m_options.busLog.empty() && !OpenBusLog(error)) {
        return false;
    }
    if (!m_view.Prepare(error)) {
        return false;
    }
    // The media side sees exactly what leaves the plug-in on the bus, as the recorder's
    // media process would.
    nvx::SetSendObserver([this](const nvx::BusMessage& m) {
        const uint64_t now = SinceStart();
        if (m_logBus) {
            m_busLog.WriteBus(now, m);
        }
        {
            std::lock_guard<std::mutex> lock(m_sentMutex);
            ++m_messageCounts[m.event];
            if (m_options.check) {
                m_sent.push_back(RecordedMessage{now, m.event, m.payload, m.client});
            }
        }
        m_media.OnBusMessage(now, m.event, m.payload.data(), m.payload.size());
    });
    nvx::SetParamWriteObserver([this](const std::string& text) {
        const uint64_t now = SinceStart();
        if (m_logBus) {
            m_busLog.WriteParameter(now, text);
        }
        m_media.OnParameterWrite(now, text);
    });
    if (!m_plugin.Open(m_options.plugin, error)) {
        return false;
    }
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = OnSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    m_sampling = !m_options.summary.empty() || m_options.stats;
    if (m_sampling) {
        ThreadSampler::DeviceClock deviceClock;
        if (m_options.simClock) {
            deviceClock = [this] { return static_cast<double>(SinceStart()) / 1000.0; };
        }
        nvx::HostThreads hostThreads;  // samples on the machine's clock, also with the device on its own
        m_sampler.Start(ThreadSampler::kDefaultInterval, std::move(deviceClock));
    }
    return true;
}

bool HostRun::OpenBusLog(std::string& error) {
    if (!m_busLog.Open(m_options.busLog, error)) {
        return false;
    }
    m_logBus = true;
    RunInfo run;
    // The clock as it stands now, given or not, so that a replay starts from the same second.
    run.startTime = nvx::WallClock();
    run.simClock = m_options.simClock;
    run.sysroot = m_options.sysroot;
    run.device = m_device.profile;
    run.plugin = m_options.plugin;
    std::string ignored;
    ReadPluginVersion(m_options.plugin, run.version, ignored);
    run.paramsText = m_device.paramStoreText;
    m_busLog.WriteRun(run);
    return true;
}

RunResult HostRun::Run() {
    RunResult result;
    // The panel owns the terminal while it runs: status lines wait for its end, platform
    // log lines go to its foot. A failed start keeps its lines on standard error, where
    // they stay readable.
    const bool panel = isatty(STDOUT_FILENO) != 0;
    m_plugin.HoldStatusLines(panel);
    m_plugin.Load();
    const int startRc = m_plugin.Start();
    if (startRc != 0) {
        m_plugin.HoldStatusLines(false);
        result.status = kExitRunFailed;
        return result;
    }
    if (panel) {
        const int shownLevel = m_options.logLevel;
        nvx::SetLogObserver([this, shownLevel](const nvx::LogLine& line) {
            if (line.level <= shownLevel) {
                m_view.OnLog(line.level, line.text);
            }
        });
        nvx::SetLogLevel(-1);
    }
    m_logSteps = m_options.logLevel >= 3 && !panel;
    std::string framesFailure;
    m_view.Start(!m_options.simClock);
    if (m_options.simClock) {
        DriveSimulated(framesFailure);
    } else {
        DriveReal(framesFailure);
    }
    // Nothing is injected into a plug-in that is stopping.
    m_timeline.Stop();
    SampleThreads();
    m_plugin.Stop();
    m_view.Stop();
    m_plugin.HoldStatusLines(false);
    if (panel) {
        nvx::SetLogObserver(nullptr);
        nvx::SetLogLevel(m_options.logLevel);
    }
    if (!framesFailure.empty() || m_view.FramesFailed(framesFailure)) {
        result.status = kExitRunFailed;
        result.failure = framesFailure;
    }
    if (m_restartFailed) {
        result.status = kExitRunFailed;
        result.failure = "the plug-in did not start again after the script's restart";
    }
    return result;
}

bool HostRun::Ended() const {
    return m_options.duration >= 0 && static_cast<double>(SinceStart()) >= m_options.duration * 1000.0;
}

uint64_t HostRun::EndMs() const {
    const double durationMs = m_options.duration * 1000.0;
    return m_options.duration < 0 || durationMs >= 1e18 ? std::numeric_limits<uint64_t>::max()
                                                        : static_cast<uint64_t>(durationMs);
}

void HostRun::StartScript() {
    if (m_options.script.empty()) {
        return;
    }
    m_timeline.Start(m_options.script, m_started, EndMs(),
                     [this](const ScriptStep& step) { PerformStep(step); });
}

// Steps are written to the logs before they run: what the plug-in sends in answer comes after
// its cause.
void HostRun::PerformStep(const ScriptStep& step) {
    const uint64_t now = SinceStart();
    if (m_logBus) {
        m_busLog.WriteStep(now, step.number, step.source);
    }
    if (m_logSteps) {
        fprintf(stderr, "truckhost: %llu ms: script step %zu: %s\n", static_cast<unsigned long long>(now),
                step.number, step.source.c_str());
    }
    m_view.OnStep(step.source);
    if (step.injection == Injection::kRestart) {
        // The stopping run's threads keep their figures up to the stop; the next run's
        // threads are told apart by its number.
        SampleThreads();
        if (!m_plugin.Restart(step.gapMs, [this] {
                if (m_sampling) {
                    m_sampler.NextRun();
                }
            })) {
            m_restartFailed = true;
        }
        return;
    }
    RunStep(step);
}

// The script's steps run on their own thread; this one watches for the end and says each
// second why nothing is drawn, if nothing is.
void HostRun::DriveReal(std::string& framesFailure) {
    StartScript();
    uint64_t nextNoteMs = 0;
    while (g_stopRequested == 0 && !Ended() && !m_restartFailed) {
        if (m_view.FramesFailed(framesFailure)) {
            break;
        }
        if (SinceStart() >= nextNoteMs) {
            UpdateNote();
            nextNoteMs = SinceStart() + 1000;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

// The driver lets the device run up to the next thing due (a step, a second's frame, the end),
// then does it on its turn: the device waits meanwhile, so each happens at its exact device
// millisecond. A signal is seen at the next of them, a second of device time at most.
void HostRun::DriveSimulated(std::string& framesFailure) {
    const uint64_t endMs = EndMs();
    ScriptCursor cursor(m_options.script);
    ScriptStep step;
    bool stepDue = cursor.Next(step);
    uint64_t nextSecondMs = 1000;
    uint64_t nextDayMs = kDayMs;  // a whole second: the loop stops there
    while (g_stopRequested == 0 && !m_restartFailed) {
        const uint64_t next = std::min({endMs, nextSecondMs, stepDue ? step.atMs : endMs});
        nvx::SimSleepUntil(kSimStartTickMs + next);
        const uint64_t now = SinceStart();
        // Before the end, so that a run of whole days has its last; before the steps, so that
        // a day's counts hold nothing of the next day's first step.
        if (now >= nextDayMs) {
            SampleDay();
            nextDayMs += kDayMs;
        }
        if (now >= endMs) {
            break;
        }
        while (stepDue && step.atMs <= now && !m_restartFailed) {
            PerformStep(step);
            stepDue = cursor.Next(step);
        }
        if (now >= nextSecondMs) {
            UpdateNote();
            m_view.Step(now);
            if (m_view.FramesFailed(framesFailure)) {
                break;
            }
            nextSecondMs = (now / 1000 + 1) * 1000;
        }
    }
}

// On the driver's turn every other runner of the device waits, so the heap and the threads are
// as the day left them.
void HostRun::SampleDay() {
    if (!m_sampling) {
        return;
    }
    // Free pages the allocator keeps stay resident as the day's peak left them; handed back
    // first, the resident figure follows what is held, as the heap's does.
    malloc_trim(0);
    DaySample day = SampleProcess();
    day.day = static_cast<int>(m_days.size()) + 1;
    {
        std::lock_guard<std::mutex> lock(m_sentMutex);
        for (const auto& [event, count] : m_messageCounts) {
            day.messages[event] = count - m_countsBefore[event];
        }
        m_countsBefore = m_messageCounts;
    }
    m_days.push_back(std::move(day));
}

// The plug-in's threads end at a stop: their last figures are taken just before it.
void HostRun::SampleThreads() {
    if (m_sampling) {
        m_sampler.SampleNow();
    }
}

// Said while nothing is drawn and the device's files tell why.
void HostRun::UpdateNote() {
    m_view.SetNote(m_media.Drawn() ? std::string() : NothingDrawnReason(m_options.sysroot));
}

}  // namespace truckhost
