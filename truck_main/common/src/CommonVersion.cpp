// The module's version line, "truckservice <version> (<git commit>)", kept in the file so
// that it can be read without loading the module: `strings libtruckservice.so | grep
// '^truckservice '` on a device, and `truckhost --version`. Nothing reads it at run time;
// "used" keeps the otherwise unreferenced array in the object, and the export list keeps it
// out of the dynamic symbols. The header is written at build time from the checkout.
#include "TruckVersion.h"

namespace {

__attribute__((used)) const char s_truckVersionLine[] = TRUCK_VERSION_LINE;

}  // namespace
