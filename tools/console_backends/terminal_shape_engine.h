// The console drawn onto a terminal's character grid with 24-bit colours: screen units are
// mapped onto columns and rows, one text line per row and one character per column.
#pragma once

#include <string>
#include <vector>

#include "dm/console.h"

namespace dmconsole {

// The width the console gives every character when it wraps its lines.
constexpr float kConsoleCharacterWidth = 0.01f;

class TerminalShapeEngine : public dm::ShapeEngineInterface {
public:
    // One cell of the grid: a Latin-1 character, its colour and the cell's background.
    struct Cell {
        char character = ' ';
        g::Color foreground{255, 255, 255, 255};
        g::Color background{0, 0, 0, 255};
    };

    // A grid of `columns` by `rows` cells. The screen's height (1.0) is spread over the rows;
    // a column is `columnWidth` wide, by default a share of the screen's width (1.0) as well.
    // A host whose console should wrap its lines at the grid's edge passes the console's own
    // character width (0.01) and sizes the console's window to the grid.
    TerminalShapeEngine(int columns, int rows, float columnWidth = 0.0f);

    // Starts a frame; it is drawn over what the grid holds (see clear()).
    void begin() override;
    // Every size is drawn one character to a cell.
    void setTextSize(float size) override;
    // One row.
    float getLineHeight() override;
    // One column per character that draws something, one row high.
    m::Vector2Template<float> getTextExtent(const char* text) override;
    void setColor(const g::Color& color) override;
    // Blends the colour into the background of every cell whose centre the rectangle covers
    // (at least the cell at its corner); an opaque rectangle also blanks the cells' text.
    void drawRectangle(const m::Vector2Template<float>& position,
                       const m::Vector2Template<float>& size) override;
    // Writes the characters into the cells from the one at `position` rightwards, clipped at
    // the grid's edge; control characters take no cell.
    void drawText(const m::Vector2Template<float>& position, const char* text) override;

    // Blanks every cell on `background` (a game's scene under the console starts here).
    void clear(const g::Color& background);
    // A new grid size, blank; the column width stays as it was unless one is given.
    void resize(int columns, int rows, float columnWidth = 0.0f);
    // The grid as terminal output: cursor home, then every row with 24-bit colour escapes and
    // UTF-8 text, ending with the colours reset.
    std::string toAnsi() const;

    int columns() const { return m_columns; }
    int rows() const { return m_rows; }
    float columnWidth() const { return m_columnWidth; }
    const Cell& cell(int column, int row) const {
        return m_cells[static_cast<size_t>(row * m_columns + column)];
    }
    // The characters of one row.
    std::string rowText(int row) const;

private:
    int columnOf(float x) const;
    int rowOf(float y) const;
    Cell& at(int column, int row) { return m_cells[static_cast<size_t>(row * m_columns + column)]; }

    int m_columns;
    int m_rows;
    float m_columnWidth;
    g::Color m_color{255, 255, 255, 255};
    std::vector<Cell> m_cells;
};

}  // namespace dmconsole
