// Device identity services.
#ifndef NORVIX_JQ_SDK_DEVICE_H
#define NORVIX_JQ_SDK_DEVICE_H

// Writes the device serial number, NUL-terminated, into a buffer of 16 bytes. 0, or a
// non-zero code while it is not available.
int JQ_SDK_Device_GetDeviceSerialNumber(char* out);

// A device-signal or peripheral callback: the record's bytes (not NUL-terminated), their
// length, the caller's pointer and a reserved pointer (null).
typedef void (*JQ_SDK_DeviceDataCallback)(const char* data, int length, void* user, void* reserved);

// Reports every change of the device's signal inputs (IO lines, turn signals, ...) as a JSON
// text, on the platform's signal thread. One monitor per user: a second call with the same
// user replaces its callback, a null callback withdraws it; once a withdrawal has returned no
// call for that user is running or will come. `reserved` is 0.
int JQ_SDK_Device_MonitorDevSignalData(JQ_SDK_DeviceDataCallback callback, void* user, int reserved);

#endif
