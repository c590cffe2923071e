// Business configuration and loading: which businesses run, under which names, on which
// thread and with which parameters, and the factory that maps a business id to its class.
#include <stdio.h>
#include <string.h>

#include <new>

#include "CommonDefine.h"
#include "TruckLockCheck.h"
#include "TruckOsdService.h"
#include "TruckServiceBase.h"
#include "TruckServiceManage.h"

namespace {
const char kBusinessConfigPath[] = "/usr/local/cfg/truckbusiness.jsn";
const unsigned int kBusinessIdOsd = 7;

bool IsStringTrue(const Json::Value& element, const char* key) {
    return JsonUtils::IsStringMember(element, key) && element[key].asString() == "true";
}
}  // namespace

CTruckServiceBase* CreateBusinessInstance(CTruckServiceManage* manager, CMsgClientManage* client,
                                          unsigned int id, char* name, unsigned char type,
                                          Json::Value& param) {
    switch (id) {
        case kBusinessIdOsd:
            return new (std::nothrow) CTruckOsdService(manager, client, id, name, type, param);
        default:
            return nullptr;
    }
}

int CTruckServiceManage::basic_analyze_basic_config(std::list<BusinessLoadAttr_t>& out) {
    const std::string path = TruckDevicePath(kBusinessConfigPath);
    if (LoadJsonFile(path.c_str(), m_businessConfig) != 0) {
        TRUCK_LOG(1, "Get basic config json failed [%s]\n", kBusinessConfigPath);
        return -1;
    }
    return basic_parse_basic_config(m_businessConfig, out);
}

int CTruckServiceManage::basic_parse_basic_config(const Json::Value& root,
                                                  std::list<BusinessLoadAttr_t>& out) {
    if (!JsonUtils::IsArrayMember(root, "BUSINESS_CONFIG")) {
        TRUCK_LOG(1, "Config json error or config_size <= 0\n");
        return -1;
    }
    const Json::Value& elements = root["BUSINESS_CONFIG"];
    for (Json::ArrayIndex i = 0; i < elements.size(); ++i) {
        const Json::Value& element = elements[i];
        // Every test below is a member test, which is false for an element that is not an
        // object, so such an element is skipped like a disabled one.
        if (!IsStringTrue(element, "BUSINESS_ENABLE") || !JsonUtils::IsIntMember(element, "BUSINESS_ID")) {
            continue;
        }
        BusinessLoadAttr_t attr;
        attr.id = static_cast<unsigned int>(element["BUSINESS_ID"].asInt());
        attr.type = 0;
        attr.bEnable = 1;
        attr.bThread = IsStringTrue(element, "BUSINESS_THREAD") ? 1 : 0;
        if (JsonUtils::IsStringMember(element, "BUSINESS_NAME")) {
            StringCopy(attr.name, sizeof(attr.name), element["BUSINESS_NAME"].asCString());
        } else {
            memset(attr.name, 0, sizeof(attr.name));
            snprintf(attr.name, sizeof(attr.name), "default_business_%d", static_cast<int>(attr.id));
        }
        attr.param = element.isMember("BUSINESS_PARAM") ? element["BUSINESS_PARAM"] : Json::Value();
        out.push_back(attr);
    }
    return 0;
}

int CTruckServiceManage::basic_load_business() {
    std::list<BusinessLoadAttr_t> businesses;
    if (basic_analyze_basic_config(businesses) != 0) {
        return -1;
    }
    for (BusinessLoadAttr_t& attr : businesses) {
        Json::Value document(Json::objectValue);
        document["MAIN_PARAM"] = attr.param;
        // A business that cannot be built (no memory) is left out; the others still load.
        TruckGuardThread("business load", [&] {
            basic_start_business(attr.id, attr.name, attr.type, attr.bThread != 0, document);
        });
    }
    return 0;
}

int CTruckServiceManage::basic_start_business(unsigned int id, char* name, unsigned char type, bool bThread,
                                              Json::Value& param) {
    TRUCK_CHECK(basic_may_write_map());
    if (m_mapBusiness.count(id) != 0) {
        TRUCK_LOG(2, "Business id[%d, %s] is alardy created, and continue\n", static_cast<int>(id), name);
        return 0;
    }
    // A stop that came while an earlier step was busy: nothing more is started.
    if (basic_stop_requested()) {
        return -1;
    }
    CTruckServiceBase* business =
        CreateBusinessInstance(this, bThread ? nullptr : m_pMsgClient, id, name, type, param);
    if (business == nullptr) {
        TRUCK_LOG(2, "Create business instance failed, id = %d, name = %s\n", static_cast<int>(id), name);
        return -1;
    }
    // A business that does not make it into the map is stopped and retired, not deleted: its own
    // thread, which may be late or still in business_init, holds the manager, and the manager
    // destroys it when that thread and every callback into it have let go.
    if (basic_stop_requested()) {
        basic_retire_business(business);
        return -1;
    }
    // Undoes what a started business's init registered before it goes to the manager.
    const auto stopAndRetire = [this, business] {
        business->business_stop();
        basic_retire_business(business);
    };
    int started = -1;
    try {
        started = business->business_start();
    } catch (...) {
        stopAndRetire();
        throw;
    }
    if (started != 0) {
        TRUCK_LOG(0, "Create business instance failed, id = %d, name = %s\n", static_cast<int>(id), name);
        // A business that failed its start never runs.
        stopAndRetire();
        return -1;
    }
    // A stop that came during the start has not seen this business: stop it here.
    if (basic_register_business(id, business) != 0) {
        stopAndRetire();
        return -1;
    }
    TRUCK_LOG(1, "Create business instance, id = %d, name = %s, type = %d, bThread = %d, size = %d\n",
              static_cast<int>(id), name, static_cast<int>(type), bThread ? 1 : 0,
              static_cast<int>(m_mapBusiness.size()));
    return 0;
}

CTruckServiceBase* CTruckServiceManage::basic_get_business(unsigned int id) {
    MutexLocker locker(m_runStateMutex);
    const auto entry = m_mapBusiness.find(id);
    return entry != m_mapBusiness.end() ? entry->second : nullptr;
}
