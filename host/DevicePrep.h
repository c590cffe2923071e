// The simulated device made ready before the plug-in starts: its identity, the parameter store
// it starts from and, for a replay, the recorded run that stands in for the options. Whatever
// is refused is refused here, before start.
#ifndef TRUCK_HOST_DEVICEPREP_H
#define TRUCK_HOST_DEVICEPREP_H

#include <string>

#include "BusRecord.h"
#include "HostOptions.h"
#include "NvxControl.h"

namespace truckhost {

struct Device {
    nvx::DeviceProfile profile;
    std::string paramStore;      // the file the store starts from; empty: the device's own
    std::string paramStoreText;  // its text as it was at start, for the record
    std::string tempStore;       // a replay's store, removed at exit
    Recording recording;
    Device() = default;
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;
    ~Device();
};

// Checks everything the device needs and fills `device`; a replay also fills `options` with
// what its recording fixes. False with the reason.
bool PrepareDevice(Options& options, Device& device, std::string& error);

// Why nothing is drawn, when the device's own files say; empty when they do not.
std::string NothingDrawnReason(const std::string& sysroot);

}  // namespace truckhost

#endif
