// Global-parameter SDK: the global configuration block and the platform's parameter service.
#ifndef NORVIX_JQ_SDK_GLOBAL_H
#define NORVIX_JQ_SDK_GLOBAL_H

#include <stddef.h>
#include <stdint.h>

// The platform's global configuration block. Only the fields named here are read by
// services; the rest is the platform's own.
typedef struct tagGlobalConfig {
    uint32_t uiProductType;  // offset 0
    uint32_t uiSystemType;   // offset 4
    uint8_t aucReserved0[10];
    uint16_t usVideoInNum;  // offset 18: local (non-IP) video inputs
    uint16_t usVideoIpNum;  // offset 20: IP video channels
    uint8_t aucReserved1[42];
} tagGlobalConfig;

static_assert(sizeof(tagGlobalConfig) == 64, "global configuration block is 64 bytes");
static_assert(offsetof(tagGlobalConfig, uiProductType) == 0, "product type at 0");
static_assert(offsetof(tagGlobalConfig, uiSystemType) == 4, "system type at 4");
static_assert(offsetof(tagGlobalConfig, usVideoInNum) == 18, "video inputs at 18");
static_assert(offsetof(tagGlobalConfig, usVideoIpNum) == 20, "IP channels at 20");

// Loads the parameter store at `path` and returns the global configuration block, which
// also serves as the SDK's handle; null on failure. The block stays valid for the process.
tagGlobalConfig* JQ_SDK_Global_Initialize(const char* path);
int JQ_SDK_Global_StartService(tagGlobalConfig* config);
int JQ_SDK_Global_Deinitialize(void);

#endif
