#include "console_backends/cairo_shape_engine.h"

#include <cairo.h>

#include <stdexcept>

#include "console_backends/latin1.h"

namespace dmconsole {

CairoShapeEngine::CairoShapeEngine(int widthPixels, int heightPixels)
    : m_width(widthPixels), m_height(heightPixels) {
    m_surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, widthPixels, heightPixels);
    m_cairo = cairo_create(m_surface);
    if (cairo_status(m_cairo) != CAIRO_STATUS_SUCCESS || widthPixels <= 0 || heightPixels <= 0) {
        cairo_destroy(m_cairo);
        cairo_surface_destroy(m_surface);
        throw std::runtime_error("cannot make an image of that size");
    }
    cairo_select_font_face(m_cairo, kFontFamily, CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
    // Whole-pixel metrics and outlines keep the glyphs' stems crisp and their colours pure.
    cairo_font_options_t* options = cairo_font_options_create();
    cairo_font_options_set_hint_metrics(options, CAIRO_HINT_METRICS_ON);
    cairo_font_options_set_hint_style(options, CAIRO_HINT_STYLE_FULL);
    cairo_set_font_options(m_cairo, options);
    cairo_font_options_destroy(options);
    fill(g::Color::Black);
}

CairoShapeEngine::~CairoShapeEngine() {
    cairo_destroy(m_cairo);
    cairo_surface_destroy(m_surface);
}

void CairoShapeEngine::begin() {
    cairo_new_path(m_cairo);
}

void CairoShapeEngine::setTextSize(float size) {
    cairo_set_font_size(m_cairo, static_cast<double>(size) * m_height);
}

float CairoShapeEngine::getLineHeight() {
    cairo_font_extents_t extents;
    cairo_font_extents(m_cairo, &extents);
    return static_cast<float>((extents.ascent + extents.descent) / m_height);
}

m::Vector2Template<float> CairoShapeEngine::getTextExtent(const char* text) {
    m_utf8.clear();
    appendLatin1AsUtf8(m_utf8, text);
    cairo_text_extents_t extents;
    cairo_text_extents(m_cairo, m_utf8.c_str(), &extents);
    return {static_cast<float>(extents.x_advance / m_width), getLineHeight()};
}

void CairoShapeEngine::setColor(const g::Color& color) {
    cairo_set_source_rgba(m_cairo, color.red / 255.0, color.green / 255.0, color.blue / 255.0,
                          color.alpha / 255.0);
}

void CairoShapeEngine::drawRectangle(const m::Vector2Template<float>& position,
                                     const m::Vector2Template<float>& size) {
    cairo_rectangle(m_cairo, position.x * m_width, position.y * m_height, size.x * m_width,
                    size.y * m_height);
    cairo_fill(m_cairo);
}

void CairoShapeEngine::drawText(const m::Vector2Template<float>& position, const char* text) {
    m_utf8.clear();
    appendLatin1AsUtf8(m_utf8, text);
    if (m_utf8.empty()) {
        return;
    }
    cairo_font_extents_t extents;
    cairo_font_extents(m_cairo, &extents);
    cairo_move_to(m_cairo, position.x * m_width, position.y * m_height + extents.ascent);
    cairo_show_text(m_cairo, m_utf8.c_str());
    cairo_new_path(m_cairo);
}

void CairoShapeEngine::fill(const g::Color& color) {
    cairo_save(m_cairo);
    cairo_set_operator(m_cairo, CAIRO_OPERATOR_SOURCE);
    setColor(color);
    cairo_paint(m_cairo);
    cairo_restore(m_cairo);
}

bool CairoShapeEngine::writePng(const std::string& path) {
    cairo_surface_flush(m_surface);
    return cairo_surface_write_to_png(m_surface, path.c_str()) == CAIRO_STATUS_SUCCESS;
}

}  // namespace dmconsole

#if defined(__SANITIZE_ADDRESS__)
// Fontconfig, under Cairo's text, keeps its configuration and caches for the life of the
// process on purpose; LeakSanitizer would report them at every exit of a program that drew text.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:libfontconfig.so\n";
}
#endif
