#include "Device.h"

namespace nvx {
namespace detail {
void ResetStorage() {}
}  // namespace detail
}  // namespace nvx
