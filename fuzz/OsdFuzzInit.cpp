// The start of the OSD intake targets that need nothing but the shared business.
#include "OsdFuzzBusiness.h"

// Refused inputs are logged; thousands of lines a second would only slow the search.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    nvx::SetLogLevel(-1);
    osdfuzz::Businesses();
    return 0;
}
