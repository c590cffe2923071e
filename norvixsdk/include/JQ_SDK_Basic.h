// Basic device services SDK.
#ifndef NORVIX_JQ_SDK_BASIC_H
#define NORVIX_JQ_SDK_BASIC_H

typedef void* JQ_BASIC_HANDLE;

// Returns the SDK handle, null on failure. Both arguments are reserved and given as 0.
JQ_BASIC_HANDLE JQ_SDK_Basic_Initialize(int reserved0, int reserved1);
int JQ_SDK_Basic_Deinitialize(JQ_BASIC_HANDLE handle);

// A peripheral callback: the record's bytes, their length, the caller's pointer and a
// reserved pointer (null).
typedef void (*JQ_SDK_PeripheralCallback)(const char* data, int length, void* user, void* reserved);

// Reports every record of the vehicle-bus (CAN) port, on the platform's CAN thread. One
// monitor per user: a second call with the same user replaces its callback, a null callback
// withdraws it; once a withdrawal has returned no call for that user is running or will come.
// 0, or -1 for a null handle. `reserved` is 0.
int JQ_SDK_Basic_Peripheral_MonitorCanPortEvent(JQ_BASIC_HANDLE handle, JQ_SDK_PeripheralCallback callback,
                                                void* user, int reserved);

#endif
