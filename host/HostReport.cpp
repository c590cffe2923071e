// The end of a run: HostRun::Report (see HostRun.h).
#include "HostRun.h"

#include <stdio.h>
#include <unistd.h>

#include <algorithm>

#include "NvxControl.h"

namespace truckhost {

int HostRun::Report(RunResult result) {
    // Platform threads that outlived stop must end before the process tears itself down;
    // one that does not is a fault of the plug-in, reported without running destructors
    // under it.
    const bool threadsEnded = nvx::WaitForThreadsToEnd(5000);
    if (m_options.simClock) {
        // The run's device time stands from here on; the rest of the exit is the machine's.
        m_simEndMs = SinceStart();
        nvx::SimClockOff();
    }
    nvx::SetSendObserver(nullptr);
    nvx::SetParamWriteObserver(nullptr);
    if (!result.failure.empty()) {
        fprintf(stderr, "truckhost: %s\n", result.failure.c_str());
    }
    if (result.status == kExitOk && m_options.check) {
        // A shorter run is compared over the span it replayed: past its end the recording
        // has what the replay never got to send.
        const uint64_t recordedMs = m_device.recording.endMs;
        const uint64_t comparedMs = std::min(EndMs(), recordedMs);
        if (comparedMs < recordedMs) {
            fprintf(stderr, "truckhost: comparing the first %llu ms of the recording's %llu ms\n",
                    static_cast<unsigned long long>(comparedMs), static_cast<unsigned long long>(recordedMs));
        }
        std::string difference;
        std::lock_guard<std::mutex> lock(m_sentMutex);
        // A recording of the simulated clock is the same run again: compared with no slack.
        const bool agrees =
            m_device.recording.run.simClock
                ? CompareExactly(m_device.recording.messages, m_sent, comparedMs, difference)
                : CompareRecordings(m_device.recording.messages, m_sent, comparedMs, difference);
        if (agrees) {
            fprintf(stderr, "truckhost: the replay agrees with %s\n", m_options.replay.c_str());
        } else {
            fprintf(stderr, "truckhost: the replay differs from %s: %s\n", m_options.replay.c_str(),
                    difference.c_str());
            result.status = kExitRunFailed;
        }
    }
    if (!threadsEnded) {
        fprintf(stderr, "truckhost: %d plug-in thread(s) still running after stop\n", nvx::RunningThreads());
        result.status = kExitThreadsLeft;
    }
    WriteSummary(result.status);
    if (m_logBus) {
        m_busLog.WriteEnd(SinceStart(), result.status);
    }
    fflush(stdout);
    fflush(stderr);
    if (!threadsEnded) {
        _exit(result.status);
    }
    return result.status;
}

void HostRun::WriteSummary(int status) {
    if (!m_sampling) {
        return;
    }
    m_sampler.Stop();
    RunSummary summary;
    summary.exitStatus = status;
    summary.seconds = static_cast<double>(SinceStart()) / 1000.0;
    if (m_options.simClock) {
        summary.clock = "sim";
        summary.wallSeconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - m_started).count();
    }
    summary.threads = m_sampler.Figures();
    summary.days = m_days;
    {
        std::lock_guard<std::mutex> lock(m_sentMutex);
        summary.messages = m_messageCounts;
    }
    summary.frames = m_view.FramesWritten();
    summary.overlaps = m_media.Take().overlapsSeen;
    if (m_options.stats) {
        fputs(StatsTable(summary).c_str(), stderr);
    }
    std::string error;
    if (!m_options.summary.empty() && !WriteSummaryFile(m_options.summary, summary, error)) {
        fprintf(stderr, "truckhost: %s\n", error.c_str());
    }
}

}  // namespace truckhost
