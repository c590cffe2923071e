#include "Device.h"

namespace nvx {
namespace detail {
void ResetIdentity() {}
}  // namespace detail
}  // namespace nvx
