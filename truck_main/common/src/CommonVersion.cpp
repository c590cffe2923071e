// The module's version line, "truckservice <version> (<git commit>)", kept in the file so
// that it can be read without loading the module: `strings libtruckservice.so | grep
// '^truckservice [0-9]'` on a device, and `truckhost --version`. Nothing reads it at run time;
// "used" keeps the otherwise unreferenced array in the object, and the export list keeps it
// out of the dynamic symbols. The header is written at build time from the checkout.
#include "TruckVersion.h"

namespace {

// Not const: GCC copies a constant array's value into the debug information too, and the
// unstripped module would then show the line twice.
__attribute__((used)) char s_truckVersionLine[] = TRUCK_VERSION_LINE;

}  // namespace
