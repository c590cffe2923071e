// Storage service: where the recording storage is mounted, and changes of it.
#ifndef NORVIX_JQ_SDK_STORAGE_H
#define NORVIX_JQ_SDK_STORAGE_H

#include <stddef.h>
#include <stdint.h>

// The storage service's report.
typedef struct tag_fuseMntPathAck {
    int32_t iResult;     // 0: the mount path is valid; otherwise the service's status code
    char szMntPath[32];  // NUL-terminated directory path
} tag_fuseMntPathAck;
static_assert(sizeof(tag_fuseMntPathAck) == 36, "storage report is 36 bytes");
static_assert(offsetof(tag_fuseMntPathAck, szMntPath) == 4, "mount path at 4");

// `data` points at a report of `length` bytes; `user` is the caller's pointer.
typedef void (*JQ_SDK_StorageCallback)(void* data, int length, void* user);

// Reports the current mount path once, on the storage service's thread. `reserved` is 0.
int JQ_SDK_Storage_GetFuseMntPath(JQ_SDK_StorageCallback callback, void* user, int reserved);
// Reports every change of the mount status, on the storage service's thread. One monitor per
// user: a second call with the same user replaces its callback. Nothing is promised for a
// null callback, and there is no way to withdraw a monitor.
int JQ_SDK_Storage_MonitorFuseStatus(JQ_SDK_StorageCallback callback, void* user, int reserved);

#endif
