// Common helpers of the application libraries.
#ifndef NORVIX_APPLIBCOMMON_H
#define NORVIX_APPLIBCOMMON_H

#include <exception>
#include <type_traits>

#include <json/json.h>

#include "JQ_LOG.h"

namespace norvix_detail {
// Keeps a template parameter out of deduction, so that a literal default such as 0 does not
// clash with an unsigned char out-reference.
template <typename T>
struct NonDeduced {
    using type = T;
};
}  // namespace norvix_detail

// Reads an integral JSON value into out: 0 when read, -1 when not (then out = defaultValue if
// useDefault, else out is untouched). Values are cut to the width of T without a range check,
// so 300 reads as 44 into an unsigned char and -1 as 255. Floating values without a fraction
// count as integral; strings never do.
template <typename T>
int GetJsonIntegral(const Json::Value& v, T& out, bool useDefault,
                    typename norvix_detail::NonDeduced<T>::type defaultValue) {
    static_assert(std::is_integral<T>::value, "GetJsonIntegral reads integral types only");
    if (!v.empty() && v.isIntegral()) {
        try {
            // asInt refuses (throws) what fits neither unsigned nor signed 32 bits.
            out = v.isUInt() ? static_cast<T>(v.asUInt()) : static_cast<T>(v.asInt());
            return 0;
        } catch (const std::exception&) {
            // The line number is fixed so the line reads the same in every library built on
            // this header.
            JQ_LOG_Output("APPCOM", 4, "norvixsdk/include/AppLibCommon", "GetJsonIntegral", 219,
                          "Exception when parse json: %s\n", v.toStyledString().c_str());
        }
    }
    if (useDefault) {
        out = defaultValue;
    }
    return -1;
}

#endif
