// The kernel command-line reader on arbitrary bytes, cut and terminated the way the reader
// takes them from the file: at most 512 bytes, text up to the first NUL.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "NvxControl.h"
#include "TruckServiceManage.h"

// Refused inputs are logged; thousands of lines a second would only slow the search.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    nvx::SetLogLevel(-1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    char text[513];
    const size_t length = size < 512 ? size : 512;
    memcpy(text, data, length);
    text[length] = '\0';
    unsigned int flashSize = 0;
    unsigned int chipType = 0;
    CTruckServiceManage::basic_parse_cmdline(text, flashSize, chipType);
    // A value can only come from its key.
    if ((flashSize != 0 && strstr(text, "flashsize=") == nullptr) ||
        (chipType != 0 && strstr(text, "chiptype=") == nullptr)) {
        __builtin_trap();
    }
    return 0;
}
