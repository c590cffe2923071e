// Overlay positions of the EOSD group and the watermark layouts written back to it.
#include <atomic>
#include <exception>
#include <string>

#include "AppLibCommon.h"
#include "CommonDefine.h"
#include "HCTimeWheel.h"
#include "JQ_SDK_Global.h"
#include "TruckOsdService.h"

namespace {

// Cleared by the first EOSD notification that carries "WME", for the life of the process.
std::atomic<uint8_t> s_isFirst{1};

struct LayoutPoint {
    const char* xKey;
    const char* yKey;
    int x;
    int y;
};

// The two text lines of "COSD", then the other items, as written to the store.
const int kNormalCosd[2][2] = {{400, 80}, {15, 380}};
const LayoutPoint kNormalItems[] = {
    {"DX", "DY", 30, 180},  {"GX", "GY", 35, 700}, {"NX", "NY", 30, 105},
    {"SX", "SY", 1024, 30}, {"TX", "TY", 300, 30}, {"VX", "VY", 30, 35},
};
const int kWatermarkY = 768;
const int kWatermarkCosd[2][2] = {{180, kWatermarkY}, {1024, kWatermarkY}};
const LayoutPoint kWatermarkItems[] = {
    {"DX", "DY", 465, kWatermarkY}, {"GX", "GY", 0, kWatermarkY},   {"NX", "NY", 545, kWatermarkY},
    {"SX", "SY", 610, kWatermarkY}, {"TX", "TY", 250, kWatermarkY}, {"VX", "VY", 385, kWatermarkY},
};

template <size_t N>
void BuildAndWriteLayout(const int (&cosd)[2][2], const LayoutPoint (&items)[N]) {
    Json::Value element(Json::objectValue);
    Json::Value lines(Json::arrayValue);
    for (int i = 0; i < 2; ++i) {
        Json::Value line(Json::objectValue);
        line["X"] = cosd[i][0];
        line["Y"] = cosd[i][1];
        lines.append(line);
    }
    element["COSD"] = lines;
    for (const LayoutPoint& point : items) {
        element[point.xKey] = point.x;
        element[point.yKey] = point.y;
    }
    Json::Value document;
    document["PARAMETER"]["MDVR"]["EOSD"][0] = element;
    std::string text;
    if (!ConvertJsonToString(document, text)) {
        return;
    }
    JQ_SDK_Global_SetParameter(text.c_str(), static_cast<int>(text.size()));
}

// Runs on whichever thread shifts the wheel; a layout that cannot be built is simply not
// written, as when the store refuses it.
template <size_t N>
void WriteLayout(const int (&cosd)[2][2], const LayoutPoint (&items)[N]) {
    try {
        BuildAndWriteLayout(cosd, items);
    } catch (const std::exception&) {
    }
}

}  // namespace

int CTruckOsdService::HandleParamParseEOSD(const Json::Value& eosd) {
    if (!eosd.isArray() || eosd.empty() || !JsonUtils::IsMember(eosd[0], "WME")) {
        return 0;
    }
    uint8_t wme = 0;
    GetJsonIntegral<uint8_t>(eosd[0]["WME"], wme, true, 0);
    int result = 0;
    if (wme != m_ucWaterEn) {
        TRUCK_LOG(1, "isFirst:%d, m_ucWaterEn:[%d]->[%d].\n", static_cast<int>(s_isFirst.load()),
                  static_cast<int>(m_ucWaterEn), static_cast<int>(wme));
        m_ucWaterEn = wme;
        if (wme == 1 && s_isFirst.load() == 0) {
            WriteLayout(kNormalCosd, kNormalItems);
            // The watermark layout follows two wheel shifts later, once the store's notice
            // of the normal layout has been applied. Without a node, nothing retries it.
            TimeWheel::GetInstance()->AddTimer(1, 1, &CTruckOsdService::SetWatermarkDefaultPosition);
            result = 1;
        }
    }
    s_isFirst.store(0);
    return result;
}

void CTruckOsdService::SetWatermarkDefaultPosition() {
    WriteLayout(kWatermarkCosd, kWatermarkItems);
}
