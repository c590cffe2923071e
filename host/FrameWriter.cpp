#include "FrameWriter.h"

#include <cairo.h>
#include <errno.h>
#include <fontconfig/fontconfig.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>

namespace media {

namespace {

constexpr int kMinSide = 16;
constexpr int kMaxSide = 8192;

// A bold monospaced face comes closest to the fixed-cell fonts recorders burn into the
// picture; fontconfig substitutes its nearest match where DejaVu is not installed.
constexpr const char* kFontFamily = "DejaVu Sans Mono";

struct SurfaceDeleter {
    void operator()(cairo_surface_t* s) const { cairo_surface_destroy(s); }
};
struct ContextDeleter {
    void operator()(cairo_t* cr) const { cairo_destroy(cr); }
};
struct PatternDeleter {
    void operator()(cairo_pattern_t* p) const { cairo_pattern_destroy(p); }
};
using Surface = std::unique_ptr<cairo_surface_t, SurfaceDeleter>;
using Context = std::unique_ptr<cairo_t, ContextDeleter>;
using Pattern = std::unique_ptr<cairo_pattern_t, PatternDeleter>;

// The picture is all greys, so it is drawn on a one-channel surface whose alpha stands for
// the grey level: cairo writes such a surface as an 8-bit greyscale PNG, a third of the bytes
// of RGB, and compressing those is most of the cost of a frame. With the SOURCE operator a
// shape's edge blends the new level into the old one, as painting on an opaque picture would.
void SetGrey(cairo_t* cr, double level) {
    cairo_set_source_rgba(cr, 0, 0, 0, level);
}

// Plain like a channel with no signal, a little lighter at the top so the picture does not
// read as a blank file; constant rows keep the PNG small and quick to compress.
void DrawBackground(cairo_t* cr, int height) {
    Pattern ramp(cairo_pattern_create_linear(0, 0, 0, height));
    cairo_pattern_add_color_stop_rgba(ramp.get(), 0, 0, 0, 0, 0.19);
    cairo_pattern_add_color_stop_rgba(ramp.get(), 1, 0, 0, 0, 0.11);
    cairo_set_source(cr, ramp.get());
    cairo_paint(cr);
}

// Dim tenths to read positions off, and the action-safe (5%) and title-safe (10%) frames a
// little brighter: an item outside them would be cut on many monitors.
void DrawGrid(cairo_t* cr, int width, int height) {
    cairo_set_antialias(cr, CAIRO_ANTIALIAS_NONE);
    cairo_set_line_width(cr, 1);
    SetGrey(cr, 0.25);
    for (int i = 1; i < 10; ++i) {
        // Half-pixel centres keep a one-pixel line on one column or row.
        const double x = width * i / 10 + 0.5;
        const double y = height * i / 10 + 0.5;
        cairo_move_to(cr, x, 0);
        cairo_line_to(cr, x, height);
        cairo_move_to(cr, 0, y);
        cairo_line_to(cr, width, y);
    }
    cairo_stroke(cr);
    SetGrey(cr, 0.36);
    for (const int percent : {5, 10}) {
        const int dx = width * percent / 100;
        const int dy = height * percent / 100;
        cairo_rectangle(cr, dx + 0.5, dy + 0.5, width - 2 * dx - 1, height - 2 * dy - 1);
    }
    cairo_stroke(cr);
    cairo_set_antialias(cr, CAIRO_ANTIALIAS_DEFAULT);
}

// Font sizing for the chosen face, per pixel of cell height.
struct CellMetrics {
    double emPerPixel = 1;  // cairo font size that gives a cell one pixel high
    double ascent = 1;      // of that one-pixel cell
};

// The table's height is the height of the character cell, ascent plus descent, not the em:
// a recorder's font of 32 fills 32 rows, so items the business stacks 32 rows apart touch
// without overlapping. Metrics scale linearly, so one measure at a large size serves all.
CellMetrics MeasureCell(cairo_t* cr) {
    constexpr double kProbe = 100;
    cairo_set_font_size(cr, kProbe);
    cairo_font_extents_t fe;
    cairo_font_extents(cr, &fe);
    CellMetrics m;
    const double cell = fe.ascent + fe.descent;
    if (cell > 0) {
        m.emPerPixel = kProbe / cell;
        m.ascent = fe.ascent / cell;
    }
    return m;
}

// White with a dark rim, the way the picture keeps burnt-in text legible on any scene.
void DrawText(cairo_t* cr, const CellMetrics& m, const std::string& text, double x, double y,
              double pixelHeight) {
    const std::string shown = Printable(text);
    if (shown.empty()) {
        return;
    }
    cairo_set_font_size(cr, pixelHeight * m.emPerPixel);
    cairo_new_path(cr);
    cairo_move_to(cr, x, y + pixelHeight * m.ascent);
    cairo_text_path(cr, shown.c_str());
    cairo_set_line_width(cr, std::max(2.0, pixelHeight / 8));
    // Mitred corners of thin strokes (the middle of an M) would spike out of the rim.
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    SetGrey(cr, 0.04);
    cairo_stroke_preserve(cr);
    SetGrey(cr, 1);
    cairo_fill(cr);
}

struct PngSink {
    FILE* file;
    int error;  // errno of the first write that failed
    static cairo_status_t Write(void* closure, const unsigned char* data, unsigned int length) {
        PngSink* sink = static_cast<PngSink*>(closure);
        if (fwrite(data, 1, length, sink->file) != length) {
            sink->error = errno;
            return CAIRO_STATUS_WRITE_ERROR;
        }
        return CAIRO_STATUS_SUCCESS;
    }
};

}  // namespace

bool WriteFrame(const Snapshot& snapshot, int channel, int width, int height, const std::string& path,
                std::string& error) {
    if (width < kMinSide || width > kMaxSide || height < kMinSide || height > kMaxSide) {
        error = "frame size " + std::to_string(width) + "x" + std::to_string(height) + " outside " +
                std::to_string(kMinSide) + ".." + std::to_string(kMaxSide);
        return false;
    }
    if (channel < 0 || channel >= kMaxChannels) {
        error = "channel " + std::to_string(channel) + " outside 0.." + std::to_string(kMaxChannels - 1);
        return false;
    }
    Surface surface(cairo_image_surface_create(CAIRO_FORMAT_A8, width, height));
    Context cr(cairo_create(surface.get()));
    cairo_set_operator(cr.get(), CAIRO_OPERATOR_SOURCE);
    cairo_status_t status = cairo_status(cr.get());
    if (status == CAIRO_STATUS_SUCCESS) {
        DrawBackground(cr.get(), height);
        DrawGrid(cr.get(), width, height);

        // Positions scale per axis; a font follows the height alone, so that text keeps its
        // shape on a picture of another aspect and items stacked by rows stay apart.
        const double sx = static_cast<double>(width) / kReferenceWidth;
        const double sy = static_cast<double>(height) / kReferenceHeight;
        cairo_select_font_face(cr.get(), kFontFamily, CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_BOLD);
        const CellMetrics metrics = MeasureCell(cr.get());

        static const std::map<uint8_t, Item> kNoItems;
        const auto found = snapshot.channels.find(channel);
        const std::map<uint8_t, Item>& items = found != snapshot.channels.end() ? found->second : kNoItems;
        for (const auto& entry : items) {
            const Item& item = entry.second;
            DrawText(cr.get(), metrics, item.text, item.x * sx, item.y * sy,
                     FontPixelHeight(item.fontSize) * sy);
        }
        if (snapshot.hasCard && !snapshot.card.text.empty()) {
            const uint8_t code = CardFontSize(snapshot, channel);
            DrawText(cr.get(), metrics, snapshot.card.text, snapshot.card.x * sx, snapshot.card.y * sy,
                     FontPixelHeight(code) * sy);
        }
        status = cairo_status(cr.get());
    }
    if (status != CAIRO_STATUS_SUCCESS) {
        error = "cannot draw " + path + ": " + cairo_status_to_string(status);
        return false;
    }
    cairo_surface_flush(surface.get());
    // The file is written here rather than by cairo, which reports every failure as one
    // "error while writing to output stream": the user is told the system's reason.
    FILE* file = fopen(path.c_str(), "wb");
    if (file == nullptr) {
        error = "cannot write " + path + ": " + strerror(errno);
        return false;
    }
    PngSink sink{file, 0};
    status = cairo_surface_write_to_png_stream(surface.get(), PngSink::Write, &sink);
    const bool closed = fclose(file) == 0;
    const int reason = sink.error != 0 ? sink.error : errno;
    if (status != CAIRO_STATUS_SUCCESS || !closed) {
        error = "cannot write " + path + ": " +
                (sink.error != 0 || !closed ? strerror(reason) : cairo_status_to_string(status));
        return false;
    }
    return true;
}

// Only for the end of the process: this tears down state cairo and fontconfig share with
// every later caller, and neither promises a clean start for a frame drawn after it.
void ReleaseFrameResources() {
    cairo_debug_reset_static_data();
    FcFini();
}

}  // namespace media
