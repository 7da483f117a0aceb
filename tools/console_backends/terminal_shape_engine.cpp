#include "console_backends/terminal_shape_engine.h"

#include <cmath>
#include <cstdio>

#include "console_backends/latin1.h"

namespace dmconsole {

namespace {

// Positions fall on cell edges up to float rounding; this much of a cell still counts as the
// edge.
constexpr float kEdgeTolerance = 0.01f;

uint8_t blendChannel(uint8_t under, uint8_t over, uint8_t alpha) {
    return static_cast<uint8_t>((over * alpha + under * (255 - alpha) + 127) / 255);
}

g::Color blend(const g::Color& under, const g::Color& over) {
    return {blendChannel(under.red, over.red, over.alpha),
            blendChannel(under.green, over.green, over.alpha),
            blendChannel(under.blue, over.blue, over.alpha), 255};
}

void appendColor(std::string& out, int layer, const g::Color& color) {
    char code[32];
    std::snprintf(code, sizeof code, "\x1b[%d;2;%d;%d;%dm", layer, color.red, color.green,
                  color.blue);
    out += code;
}

}  // namespace

TerminalShapeEngine::TerminalShapeEngine(int columns, int rows, float columnWidth)
    : m_columns(columns < 1 ? 1 : columns),
      m_rows(rows < 1 ? 1 : rows),
      m_columnWidth(columnWidth > 0.0f ? columnWidth : 1.0f / static_cast<float>(m_columns)),
      m_cells(static_cast<size_t>(m_columns * m_rows)) {}

void TerminalShapeEngine::begin() {}

void TerminalShapeEngine::clear(const g::Color& background) {
    for (Cell& each : m_cells) {
        each = Cell{' ', {255, 255, 255, 255}, background};
    }
}

void TerminalShapeEngine::resize(int columns, int rows, float columnWidth) {
    const bool proportional = m_columnWidth == 1.0f / static_cast<float>(m_columns);
    m_columns = columns < 1 ? 1 : columns;
    m_rows = rows < 1 ? 1 : rows;
    if (columnWidth > 0.0f) {
        m_columnWidth = columnWidth;
    } else if (proportional) {
        m_columnWidth = 1.0f / static_cast<float>(m_columns);
    }
    m_cells.assign(static_cast<size_t>(m_columns * m_rows), Cell{});
}

void TerminalShapeEngine::setTextSize(float) {}

float TerminalShapeEngine::getLineHeight() {
    return 1.0f / static_cast<float>(m_rows);
}

m::Vector2Template<float> TerminalShapeEngine::getTextExtent(const char* text) {
    return {static_cast<float>(countDrawnCharacters(text)) * m_columnWidth, getLineHeight()};
}

void TerminalShapeEngine::setColor(const g::Color& color) {
    m_color = color;
}

int TerminalShapeEngine::columnOf(float x) const {
    return static_cast<int>(std::floor(x / m_columnWidth + kEdgeTolerance));
}

int TerminalShapeEngine::rowOf(float y) const {
    return static_cast<int>(std::floor(y * static_cast<float>(m_rows) + kEdgeTolerance));
}

void TerminalShapeEngine::drawRectangle(const m::Vector2Template<float>& position,
                                        const m::Vector2Template<float>& size) {
    const int left = columnOf(position.x);
    const int top = rowOf(position.y);
    int right = static_cast<int>(std::lround((position.x + size.x) / m_columnWidth));
    int bottom = static_cast<int>(std::lround((position.y + size.y) * static_cast<float>(m_rows)));
    right = right > left ? right : left + 1;
    bottom = bottom > top ? bottom : top + 1;
    for (int row = top < 0 ? 0 : top; row < bottom && row < m_rows; ++row) {
        for (int column = left < 0 ? 0 : left; column < right && column < m_columns; ++column) {
            Cell& covered = at(column, row);
            covered.background = blend(covered.background, m_color);
            if (m_color.alpha == 255) {
                covered.character = ' ';
            }
        }
    }
}

void TerminalShapeEngine::drawText(const m::Vector2Template<float>& position, const char* text) {
    const int row = rowOf(position.y);
    if (row < 0 || row >= m_rows) {
        return;
    }
    int column = columnOf(position.x);
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p != 0; ++p) {
        if (*p < 32 || *p == 127) {
            continue;
        }
        if (column >= 0 && column < m_columns) {
            Cell& written = at(column, row);
            written.character = static_cast<char>(*p);
            written.foreground = blend(written.background, m_color);
        }
        ++column;
    }
}

std::string TerminalShapeEngine::toAnsi() const {
    std::string out = "\x1b[H";
    for (int row = 0; row < m_rows; ++row) {
        char move[24];
        std::snprintf(move, sizeof move, "\x1b[%d;1H", row + 1);
        out += move;
        const Cell* previous = nullptr;
        for (int column = 0; column < m_columns; ++column) {
            const Cell& each = cell(column, row);
            if (previous == nullptr || previous->foreground != each.foreground) {
                appendColor(out, 38, each.foreground);
            }
            if (previous == nullptr || previous->background != each.background) {
                appendColor(out, 48, each.background);
            }
            const char text[2] = {each.character, 0};
            appendLatin1AsUtf8(out, text);
            previous = &each;
        }
    }
    out += "\x1b[0m";
    return out;
}

std::string TerminalShapeEngine::rowText(int row) const {
    std::string text;
    for (int column = 0; column < m_columns; ++column) {
        text += cell(column, row).character;
    }
    return text;
}

}  // namespace dmconsole
