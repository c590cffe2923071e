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

// Parameter replies and change notifications: the text of a document
// {"PARAMETER": {"MDVR": {group: value, ...}}}, its length, and the caller's two pointers.
typedef void (*JQ_SDK_ParamCallback)(const char* text, int length, void* user, void* context);

// Asks for the groups named in the request document (each value the placeholder "?"). The
// reply comes later, once, on the platform's parameter thread, with every placeholder of a
// known group filled in. 0, or a negative code when the request cannot be taken.
int JQ_SDK_Global_GetParameter(const char* text, int length, JQ_SDK_ParamCallback callback, void* user,
                               void* context);
// Watches the groups named in a group map {group: "?", ...}: every later change of one of
// them is reported on the parameter thread with the changed groups. 0, or a negative code.
int JQ_SDK_Global_ListenParameter(const char* text, int length, JQ_SDK_ParamCallback callback, void* user,
                                  void* context);
// Merges a document {"PARAMETER": {"MDVR": {...}}} into the store, saves it and notifies the
// listeners of the changed groups. 0, or a negative code for a text that is not such a document.
int JQ_SDK_Global_SetParameter(const char* text, int length);

#endif
