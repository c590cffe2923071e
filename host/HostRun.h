// One run of the plug-in inside the simulated device, in three jobs:
//   SetUp (HostRun.cpp): the device's clock, store and mount, the bus log, the views and the
//     observers that feed them, the plug-in's module, the signals that end the run;
//   Run (HostRun.cpp): load and start, the script's steps at their times, the loop that waits
//     for the end (duration, signal, a failed frame or restart), stop. On the simulated clock
//     the thread that runs it is the driver, a runner of the clock: it performs the steps,
//     the restarts and the frames itself, each at its device time, and no other host thread
//     waits on the device (the view has no thread then; the sampler reads /proc on the
//     machine's clock and of the device only its time);
//   Report (HostReport.cpp): the plug-in's threads waited for, the replay compared with its
//     recording, the summary, the bus log's end, the exit status.
// The bus observers run on the plug-in's threads and the script's steps on the script's thread.
// What they reach here is set before they start, guards itself (the bus log, the media side,
// the view, the plug-in's lifecycle), is atomic, or is under m_sentMutex.
#ifndef TRUCK_HOST_HOSTRUN_H
#define TRUCK_HOST_HOSTRUN_H

#include <stdint.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "BusRecord.h"
#include "DevicePrep.h"
#include "HostOptions.h"
#include "HostScript.h"
#include "HostView.h"
#include "MediaSide.h"
#include "PluginModule.h"
#include "RunSummary.h"

namespace truckhost {

struct RunResult {
    int status = kExitOk;
    std::string failure;  // printed on standard error
};

class HostRun {
public:
    HostRun(const Options& options, const Device& device);
    HostRun(const HostRun&) = delete;
    HostRun& operator=(const HostRun&) = delete;

    // False with the reason when the run cannot start; nothing of the plug-in has run then.
    bool SetUp(std::string& error);
    RunResult Run();
    // The exit status. A plug-in thread that outlived its stop ends the process here.
    int Report(RunResult result);

private:
    bool SetUpDevice(std::string& error);
    // The host's milliseconds since start: the machine's, or the device's on the simulated clock.
    uint64_t SinceStart() const;
    bool OpenBusLog(std::string& error);
    bool Ended() const;
    void StartScript();
    void PerformStep(const ScriptStep& step);
    // The run loops on the machine's clock and on the simulated one; a frame that failed leaves
    // its reason.
    void DriveReal(std::string& framesFailure);
    void DriveSimulated(std::string& framesFailure);
    uint64_t EndMs() const;
    void SampleThreads();
    // The process at the end of a device day, and what was sent that day (--summary, --stats).
    void SampleDay();
    void UpdateNote();
    void WriteSummary(int status);

    const Options& m_options;
    const Device& m_device;
    const std::chrono::steady_clock::time_point m_started;
    std::atomic<uint64_t> m_simEndMs{0};  // the device time the clock was switched off at
    bool m_logSteps = false;              // each step on stderr
    media::MediaSide m_media;
    HostView m_view;
    BusLogWriter m_busLog;
    bool m_logBus = false;
    PluginService m_plugin;
    ScriptTimeline m_timeline;
    ThreadSampler m_sampler;
    bool m_sampling = false;
    std::atomic<bool> m_restartFailed{false};  // set on the script's thread
    std::mutex m_sentMutex;                    // guards the two below
    std::map<int, uint64_t> m_messageCounts;
    std::vector<RecordedMessage> m_sent;     // with --check
    std::map<int, uint64_t> m_countsBefore;  // at the latest day's end; the driver's own
    std::vector<DaySample> m_days;           // the driver's own
};

}  // namespace truckhost

#endif
