// The business configuration reader on arbitrary text: parsed as the file would be, then
// checked element by element.
#include <stddef.h>
#include <stdint.h>

#include <list>

#include "CommonDefine.h"
#include "JQ_LOG.h"
#include "NvxControl.h"
#include "TruckServiceManage.h"

// Refused inputs are logged; thousands of lines a second would only slow the search.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    nvx::SetLogLevel(-1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Json::Value root;
    if (!ConvertStringToJson(reinterpret_cast<const char*>(data), static_cast<unsigned int>(size), root)) {
        return 0;
    }
    std::list<BusinessLoadAttr_t> out;
    CTruckServiceManage::basic_parse_basic_config(root, out);
    for (const BusinessLoadAttr_t& attr : out) {
        // Every name handed on must be terminated inside its field.
        if (attr.name[sizeof(attr.name) - 1] != '\0') {
            __builtin_trap();
        }
    }
    return 0;
}
