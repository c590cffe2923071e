// Global parameter groups: the businesses fetch groups of the device's parameter store once,
// or watch them, naming the groups by a group map or by a 64-bit group mask.
//
// A fetch always names the full path {"PARAMETER": {"MDVR": {group: "?"}}}; a watch names
// the group map alone. Both go to the store as the compact one-line text of the JSON
// library, whose final newline is part of the text and of the length handed over.
#include "TruckServiceManage.h"

#include <exception>
#include <string>

#include "CommonDefine.h"

namespace {

// Bit n of a group mask names the group kGroupKeys[n]; the bits above the table name none.
const char* const kGroupKeys[] = {
    "GSP", "IOP", "DSM",   "PSNAP", "WIFI",  "WIFIEX", "MAIN",   "AR",    "IOOUT", "MCMS",
    "RIP", "PS",  "PSI",   "SAM",   "SAP",   "SSP",    "KEYS",   "VERS",  "TIMEP", "IPCCTR",
    "PCA", "VPP", "UAP",   "PRVAP", "RP",    "PSM",    "REDEV",  "PGDSM", "PWT",   "LPDOWN",
    "PSS", "FLM", "GPSAL", "GSAL",  "ENETE", "SAL",    "DDSNAP", "PGDS",  "NAVI",
};
constexpr unsigned int kGroupKeyCount = sizeof(kGroupKeys) / sizeof(kGroupKeys[0]);
static_assert(kGroupKeyCount == 39, "mask bits 0..38 name a group");

const char kPlaceholder[] = "?";

int SendGetRequest(const Json::Value& request, JQ_SDK_ParamCallback callback, void* user, void* context) {
    std::string text;
    if (!ConvertJsonToString(request, text)) {
        return -1;
    }
    return JQ_SDK_Global_GetParameter(text.c_str(), static_cast<int>(text.size()), callback, user, context);
}

int SendListenRequest(const Json::Value& groups, JQ_SDK_ParamCallback callback, void* user, void* context) {
    std::string text;
    if (!ConvertJsonToString(groups, text)) {
        return -1;
    }
    return JQ_SDK_Global_ListenParameter(text.c_str(), static_cast<int>(text.size()), callback, user,
                                         context);
}

}  // namespace

int CTruckServiceManage::basic_global_package_param(unsigned long long mask, Json::Value& request) {
    try {
        for (unsigned int bit = 0; bit < kGroupKeyCount; ++bit) {
            if ((mask & (1ULL << bit)) != 0) {
                request["PARAMETER"]["MDVR"][kGroupKeys[bit]] = kPlaceholder;
            }
        }
    } catch (const std::exception&) {
        // Only a caller's request that already holds something other than objects on the
        // path gets here: the library refuses to add members to it.
        return -1;
    }
    return 0;
}

int CTruckServiceManage::basic_global_get_param(Json::Value& groups, JQ_SDK_ParamCallback callback,
                                                void* user, void* context) {
    if (groups.empty()) {
        return -1;
    }
    Json::Value request;
    request["PARAMETER"]["MDVR"] = groups;
    return SendGetRequest(request, callback, user, context);
}

int CTruckServiceManage::basic_global_get_param(unsigned long long mask, JQ_SDK_ParamCallback callback,
                                                void* user, void* context) {
    Json::Value request;
    basic_global_package_param(mask, request);
    if (request.empty()) {
        return -1;
    }
    return SendGetRequest(request, callback, user, context);
}

int CTruckServiceManage::basic_global_listen_param(Json::Value& groups, JQ_SDK_ParamCallback callback,
                                                   void* user, void* context) {
    if (groups.empty()) {
        return -1;
    }
    return SendListenRequest(groups, callback, user, context);
}

int CTruckServiceManage::basic_global_listen_param(unsigned long long mask, JQ_SDK_ParamCallback callback,
                                                   void* user, void* context) {
    Json::Value request;
    basic_global_package_param(mask, request);
    if (request.empty()) {
        return -1;
    }
    return SendListenRequest(request["PARAMETER"]["MDVR"], callback, user, context);
}
