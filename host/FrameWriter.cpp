#include "FrameWriter.h"

namespace media {

int FontPixelHeight(uint8_t code) {
    return code <= 3 ? 24 + 8 * code : 32;
}

bool WriteFrame(const Snapshot&, int, int, int, const std::string&, std::string& error) {
    error = "not yet drawn";
    return false;
}

void ReleaseFrameResources() {}

}  // namespace media
