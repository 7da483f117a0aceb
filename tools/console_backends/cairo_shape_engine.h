// The console drawn into an image with Cairo: normalised screen units are mapped onto the
// image's pixels, text is set in DejaVu Sans Mono and measured with the font's own extents.
#pragma once

#include <string>

#include "dm/console.h"

typedef struct _cairo cairo_t;
typedef struct _cairo_surface cairo_surface_t;

namespace dmconsole {

class CairoShapeEngine : public dm::ShapeEngineInterface {
public:
    static constexpr const char* kFontFamily = "DejaVu Sans Mono";

    // An opaque black image of the given size; throws std::runtime_error when Cairo cannot
    // make it.
    CairoShapeEngine(int widthPixels, int heightPixels);
    ~CairoShapeEngine() override;
    CairoShapeEngine(const CairoShapeEngine&) = delete;
    CairoShapeEngine& operator=(const CairoShapeEngine&) = delete;

    // Starts a frame; it is drawn over what the image holds (the game's scene).
    void begin() override;
    // The font's size in pixels is `size` times the image's height.
    void setTextSize(float size) override;
    // The font's ascent and descent, in screen units.
    float getLineHeight() override;
    // The text's advance (x) and the line height (y), in screen units; control characters
    // take no room.
    m::Vector2Template<float> getTextExtent(const char* text) override;
    void setColor(const g::Color& color) override;
    // Filled and blended with the colour's alpha.
    void drawRectangle(const m::Vector2Template<float>& position,
                       const m::Vector2Template<float>& size) override;
    // Latin-1 text whose top-left corner is at `position`; control characters are left out.
    void drawText(const m::Vector2Template<float>& position, const char* text) override;

    // Fills the whole image with `color` (a game's scene under the console, for instance).
    void fill(const g::Color& color);
    // Writes the image as PNG; false when it cannot.
    bool writePng(const std::string& path);

    int width() const { return m_width; }
    int height() const { return m_height; }
    cairo_surface_t* surface() { return m_surface; }

private:
    cairo_surface_t* m_surface = nullptr;
    cairo_t* m_cairo = nullptr;
    int m_width;
    int m_height;
    std::string m_utf8;
};

}  // namespace dmconsole
