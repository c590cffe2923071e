#include "Device.h"

namespace nvx {
namespace detail {
void ResetParamStore() {}
}  // namespace detail
}  // namespace nvx
