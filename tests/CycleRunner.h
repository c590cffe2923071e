// Runs a manager's main cycle on a platform thread, as the service object does, so that a
// test can put businesses into the manager before the cycle starts.
#ifndef TRUCK_TESTS_CYCLERUNNER_H
#define TRUCK_TESTS_CYCLERUNNER_H

#include <string.h>

#include "OsUtils.h"
#include "TruckServiceManage.h"

struct CycleRunner {
    explicit CycleRunner(CTruckServiceManage* manage) : args{manage, &param} {
        param.ucReserved0 = 0;
        param.ucRunning.store(0);
        manage->basic_hold();
        pthread_t handle;
        OsUtilsCreateThread(&handle, service_thread_entry, &args, 0x80000, 1);
    }
    tag_ServiceParam param;
    CTruckService::ThreadArgs args;
};

inline tagGlobalConfig MakeGlobalConfig() {
    tagGlobalConfig config;
    memset(&config, 0, sizeof(config));
    return config;
}

#endif
