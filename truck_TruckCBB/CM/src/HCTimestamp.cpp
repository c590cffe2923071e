// The timestamp clock: a thread samples the wall clock every 500 us and adds up only the
// steps that can be real time passing, so the count keeps the pace of real time but does not
// jump when the device's date and time are set.
//
// One writer, the sampling thread; the counters are read by any thread without a lock. A
// 64-bit counter on the 32-bit target is only safe to share if it is lock-free, i.e. read and
// written whole by the processor's doubleword exclusives.
#include <sys/time.h>
#include <unistd.h>

#include <iostream>

#include "CommonDefine.h"
#include "HC.h"

static_assert(std::atomic<uint64_t>::is_always_lock_free, "the clock's counters are read and written whole");

namespace {

const unsigned int kSampleMicros = 500;
// A step of a second or more between two samples 500 us apart is a setting of the clock.
const int64_t kLargestStepMicros = 999999;

}  // namespace

BTime* BTime::GetInstance() {
    static BTime instance;
    return &instance;
}

BTime::BTime()
    : running(false),
      stampThread(nullptr),
      stampMicros(0),
      stampMillis(0),
      wallMicros(static_cast<uint64_t>(GetMicroOfSecond())),
      wallMillis(static_cast<uint64_t>(GetMicroOfSecond() / 1000)),
      stopping(false) {
    stampThread = new std::thread(&BTime::SampleLoop, this);
}

BTime::~BTime() {
    // running is raised by the thread after its first reading; stopping covers the time before.
    stopping.store(true);
    running.store(false);
    if (stampThread == nullptr) {
        return;
    }
    if (stampThread->get_id() == std::this_thread::get_id()) {
        stampThread->detach();
    } else if (stampThread->joinable()) {
        stampThread->join();
    }
    delete stampThread;
    stampThread = nullptr;
}

int64_t BTime::GetMicroOfSecond() {
    struct timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<int64_t>(now.tv_sec) * 1000000 + static_cast<int64_t>(now.tv_usec);
}

void BTime::SampleLoop() {
    TRUCK_THREAD_INFO_PRINT("BTime");
    std::cout << "TimeStamp thread started!" << std::endl;
    int64_t prev = GetMicroOfSecond();
    running.store(true);
    uint64_t sum = 0;
    while (running.load() && !stopping.load()) {
        const int64_t now = GetMicroOfSecond();
        wallMicros.store(static_cast<uint64_t>(now));
        wallMillis.store(static_cast<uint64_t>(now / 1000));
        const int64_t delta = now - prev;
        if (delta >= 1 && delta <= kLargestStepMicros) {
            sum += static_cast<uint64_t>(delta);
            stampMicros.store(sum);
            stampMillis.store(sum / 1000);
        } else if (delta != 0) {
            std::cout << "Stamp expired is not abnormal:" << delta << std::endl;
        }
        prev = now;
        usleep(kSampleMicros);
    }
}
