// Basic device services SDK.
#ifndef NORVIX_JQ_SDK_BASIC_H
#define NORVIX_JQ_SDK_BASIC_H

typedef void* JQ_BASIC_HANDLE;

// Returns the SDK handle, null on failure. Both arguments are reserved and given as 0.
JQ_BASIC_HANDLE JQ_SDK_Basic_Initialize(int reserved0, int reserved1);
int JQ_SDK_Basic_Deinitialize(JQ_BASIC_HANDLE handle);

#endif
