// The media side's PNG frames: where each item's text lands, on which channel, at which size,
// and the frames that cannot be made.
#include <cairo/cairo.h>  // the frames library keeps cairo's include path to itself
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "FrameWriter.h"
#include "TestSupport.h"

namespace {

using media::Item;
using media::Snapshot;

// Lets LeakSanitizer see only what the frames themselves would leak.
class FontCaches : public ::testing::Environment {
public:
    void TearDown() override { media::ReleaseFrameResources(); }
};
[[maybe_unused]] const auto* const kFontCaches = ::testing::AddGlobalTestEnvironment(new FontCaches);

struct Picture {
    int width = 0, height = 0;
    std::vector<uint32_t> pixels;  // cairo's xRGB, row after row

    // Text is white; nothing else in a frame comes near it.
    int White(int x0, int y0, int x1, int y1) const {
        int count = 0;
        for (int y = std::max(y0, 0); y < std::min(y1, height); ++y) {
            for (int x = std::max(x0, 0); x < std::min(x1, width); ++x) {
                const uint32_t p = pixels[static_cast<size_t>(y) * width + x];
                count += ((p >> 16) & 0xFF) >= 200 && ((p >> 8) & 0xFF) >= 200 && (p & 0xFF) >= 200;
            }
        }
        return count;
    }
    // The frames are grey: one channel says how light a pixel is; -1 off the picture.
    int Level(int x, int y) const {
        return x < width && y < height ? (pixels[static_cast<size_t>(y) * width + x] >> 8) & 0xFF : -1;
    }
};

class MediaFrames : public ::testing::Test {
protected:
    // Writes the frame, which must succeed, and reads it back.
    Picture Frame(const Snapshot& snapshot, int channel, int width = 1920, int height = 1080) {
        const std::string path = m_folder.path() + "/frame.png";
        std::string error;
        EXPECT_TRUE(media::WriteFrame(snapshot, channel, width, height, path, error)) << error;
        Picture picture;
        cairo_surface_t* png = cairo_image_surface_create_from_png(path.c_str());
        EXPECT_EQ(cairo_surface_status(png), CAIRO_STATUS_SUCCESS) << path;
        if (cairo_surface_status(png) == CAIRO_STATUS_SUCCESS) {
            picture.width = cairo_image_surface_get_width(png);
            picture.height = cairo_image_surface_get_height(png);
            const int stride = cairo_image_surface_get_stride(png);
            const unsigned char* data = cairo_image_surface_get_data(png);
            picture.pixels.resize(static_cast<size_t>(picture.width) * picture.height);
            for (int y = 0; y < picture.height; ++y) {
                memcpy(&picture.pixels[static_cast<size_t>(y) * picture.width], data + y * stride,
                       picture.width * sizeof(uint32_t));
            }
        }
        cairo_surface_destroy(png);
        return picture;
    }

    TempFolder m_folder{"media-frames"};
};

Snapshot WithItem(int channel, uint8_t kind, const std::string& text, uint16_t x, uint16_t y, uint8_t size) {
    Snapshot s;
    s.channels[channel][kind] = Item{text, x, y, size};
    return s;
}

}  // namespace

TEST(MediaFrameFonts, HeightsFollowTheCodeTable) {
    EXPECT_EQ(media::FontPixelHeight(0), 24);
    EXPECT_EQ(media::FontPixelHeight(1), 32);
    EXPECT_EQ(media::FontPixelHeight(2), 40);
    EXPECT_EQ(media::FontPixelHeight(3), 48);
    EXPECT_EQ(media::FontPixelHeight(4), 32);
    EXPECT_EQ(media::FontPixelHeight(255), 32);
}

TEST_F(MediaFrames, AnItemHangsBelowAndRightOfItsPositionOnItsChannelOnly) {
    Snapshot s = WithItem(0, media::kKindTime, "2026-03-08 03:00:01", 300, 30, 1);
    s.channels[1][media::kKindSpeed] = Item{"64KM/H", 300, 600, 1};
    const Picture p = Frame(s, 0);
    ASSERT_EQ(p.width, 1920);
    ASSERT_EQ(p.height, 1080);
    // 19 characters of a 32-row cell are some 380 columns wide.
    EXPECT_GT(p.White(300, 30, 760, 62), 500);
    EXPECT_EQ(p.White(0, 0, 1920, 30), 0) << "text above its top edge";
    EXPECT_EQ(p.White(0, 0, 300, 1080), 0) << "text left of its left edge";
    EXPECT_EQ(p.White(0, 62, 1920, 1080), 0) << "text below its cell, or channel 1's item";
    EXPECT_LT(p.Level(960, 1000), 100) << "the background is dark";
}

TEST_F(MediaFrames, AnEmptyChannelShowsOnlyTheDimGrid) {
    const Picture p = Frame(WithItem(2, media::kKindTime, "12:00", 100, 100, 3), 0);
    EXPECT_EQ(p.White(0, 0, 1920, 1080), 0);
    EXPECT_GT(p.Level(192, 20), p.Level(190, 20)) << "a tenth line";
    EXPECT_GT(p.Level(500, 54), p.Level(500, 20)) << "the action-safe frame";
    EXPECT_LT(p.Level(192, 20), 140);
}

TEST_F(MediaFrames, ASmallerPictureScalesPositionsAndSize) {
    const Snapshot s = WithItem(0, media::kKindSpeed, "88KM/H", 800, 600, 3);
    const Picture p = Frame(s, 0, 960, 540);
    ASSERT_EQ(p.width, 960);
    ASSERT_EQ(p.height, 540);
    // Half of a 48-row cell at half of (800, 600).
    EXPECT_GT(p.White(400, 300, 600, 324), 100);
    EXPECT_EQ(p.White(0, 0, 960, 300) + p.White(0, 324, 960, 540) + p.White(0, 0, 400, 540), 0);
}

TEST_F(MediaFrames, TheCardTextShowsOnEveryChannelAtTheSevenLinesSize) {
    Snapshot s;
    s.hasCard = true;
    s.card.text = "DRIVER 0042 J.DOE";
    s.card.x = 400;
    s.card.y = 80;
    // Without a Seven line on the channel, a 32-row cell: nothing reaches row 112.
    Picture p = Frame(s, 5);
    EXPECT_GT(p.White(400, 80, 760, 112), 500);
    EXPECT_EQ(p.White(0, 112, 1920, 1080), 0);
    // The Seven line's code 3 makes it a 48-row cell, wherever that line itself stands.
    s.channels[5][media::kKindSeven] = Item{"", 1000, 900, 3};
    p = Frame(s, 5);
    EXPECT_GT(p.White(400, 112, 760, 128), 100);
    EXPECT_EQ(p.White(0, 128, 1920, 1080), 0);

    s.card.text.clear();
    EXPECT_EQ(Frame(s, 5).White(0, 0, 1920, 1080), 0) << "an empty card shows nothing";
}

TEST_F(MediaFrames, UnreadableBytesAreDrawnAsMarksNotRefused) {
    const Snapshot s = WithItem(0, 9, std::string("\xff\xfe\x01ok\x80\xc3", 7), 100, 100, 2);
    EXPECT_GT(Frame(s, 0).White(100, 100, 400, 140), 100);
}

TEST_F(MediaFrames, FramesThatCannotBeMadeSayWhy) {
    const Snapshot s = WithItem(0, media::kKindTime, "12:00", 10, 10, 1);
    std::string error;
    const std::string missing = m_folder.path() + "/no-such-folder/frame.png";
    EXPECT_FALSE(media::WriteFrame(s, 0, 1920, 1080, missing, error));
    EXPECT_NE(error.find("cannot write " + missing + ": "), std::string::npos) << error;

    const std::string path = m_folder.path() + "/bad.png";
    for (const auto& size : {std::pair<int, int>{15, 1080}, {1920, 8193}, {0, 0}, {-1920, 1080}}) {
        error.clear();
        EXPECT_FALSE(media::WriteFrame(s, 0, size.first, size.second, path, error));
        EXPECT_NE(error.find("outside"), std::string::npos) << error;
    }
    error.clear();
    EXPECT_FALSE(media::WriteFrame(s, media::kMaxChannels, 1920, 1080, path, error));
    EXPECT_NE(error, "");
    EXPECT_FALSE(std::filesystem::exists(path));
}
