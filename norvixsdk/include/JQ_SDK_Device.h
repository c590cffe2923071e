// Device identity services.
#ifndef NORVIX_JQ_SDK_DEVICE_H
#define NORVIX_JQ_SDK_DEVICE_H

// Writes the device serial number, NUL-terminated, into a buffer of 16 bytes. 0, or a
// non-zero code while it is not available.
int JQ_SDK_Device_GetDeviceSerialNumber(char* out);

#endif
