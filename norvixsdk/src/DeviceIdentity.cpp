// Device identity: the serial number of the device profile, with injected failures.
#include <string.h>

#include <atomic>

#include "Device.h"
#include "JQ_SDK_Device.h"

namespace nvx {
namespace {

// Requests still to fail; each failing request takes one.
std::atomic<int> g_serialFailures{0};

// The platform's buffer is 16 bytes: 15 characters and the terminator.
constexpr size_t kSerialNumberSize = 16;
// What the device answers while the identity chip has not been read yet.
constexpr int kSerialNotReady = -2;

bool TakeFailure() {
    int left = g_serialFailures.load();
    while (left > 0) {
        if (g_serialFailures.compare_exchange_weak(left, left - 1)) {
            return true;
        }
    }
    return false;
}

}  // namespace

void SetSerialNumberFailures(int count) {
    g_serialFailures.store(count > 0 ? count : 0);
}

namespace detail {
void ResetIdentity() {
    g_serialFailures.store(0);
}
}  // namespace detail

}  // namespace nvx

int JQ_SDK_Device_GetDeviceSerialNumber(char* out) {
    nvx::detail::CountCall("JQ_SDK_Device_GetDeviceSerialNumber");
    if (out == nullptr) {
        return -1;
    }
    if (nvx::TakeFailure()) {
        return nvx::kSerialNotReady;
    }
    const std::string serial = nvx::GetDeviceProfile().serialNumber;
    const size_t length =
        serial.size() < nvx::kSerialNumberSize - 1 ? serial.size() : nvx::kSerialNumberSize - 1;
    memcpy(out, serial.data(), length);
    out[length] = '\0';
    return 0;
}
