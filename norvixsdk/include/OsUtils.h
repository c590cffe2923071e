// Thread, tick and sleep utilities of the platform.
#ifndef NORVIX_OSUTILS_H
#define NORVIX_OSUTILS_H

#include <pthread.h>

typedef void* (*OsUtilsThreadEntry)(void* arg);

// Starts `entry(arg)` on a new thread with a stack of `stackSize` bytes (0: the system's
// default). `flag` 1 starts it detached: nobody joins it and the handle is only informative;
// 0 leaves it joinable. What it answers is the platform's own and has no documented
// convention (the simulated device answers 0, or -1 when it could not create the thread,
// unless told otherwise), so a caller must not rely on it.
int OsUtilsCreateThread(pthread_t* handle, OsUtilsThreadEntry entry, void* arg, unsigned int stackSize,
                        int flag);

// Monotonic milliseconds since an arbitrary origin (boot); never jumps with the wall clock.
unsigned long long OsUtilsGetTickCount(void);

void OsUtilsSleep(unsigned int ms);

// Monotonic whole seconds since an arbitrary origin (boot); never jumps with the wall clock.
unsigned int OsUtilsGetSeconds(void);

#endif
