// Pictures of what the media side would burn into one video channel: a plain background with
// a safe-area grid, and every overlay item of the channel drawn at its position and font size
// as white text with a dark outline. Drawn with cairo and a font of the system's font
// configuration; made only from a media-side snapshot.
#ifndef TRUCK_HOST_FRAMEWRITER_H
#define TRUCK_HOST_FRAMEWRITER_H

#include <stdint.h>

#include <string>

#include "MediaSide.h"

namespace media {

// Writes `channel` of `snapshot` as a PNG of `width` x `height` to `path`. False with `error`
// set when the picture or the file could not be made.
bool WriteFrame(const Snapshot& snapshot, int channel, int width, int height, const std::string& path,
                std::string& error);

// Frees the font machinery's process-wide caches; call once, when no frame is being drawn,
// before the process ends (keeps leak checkers quiet).
void ReleaseFrameResources();

}  // namespace media

#endif
