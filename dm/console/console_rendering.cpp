// Drawing the console window through the game's ShapeEngineInterface, and the cache of
// coloured lines that keeps colouring to the lines that came into view.
//
// One frame, in this order: begin; the backdrop; text size 0.02, white, the line height; the
// prompt; the shown part of the command line; the cursor; the cache brought up to the view; the
// lines on screen from the bottom up, run by run; the scroll bar's track and handle.
#include "console/scrolling_text_window_state.h"
#include "dm/console.h"

#include "console/input_line.h"

namespace dm {

namespace {

constexpr float kTextSize = 0.02f;
constexpr g::Color kBackdropColor{0, 0, 0, 127};
constexpr g::Color kScrollTrackColor{80, 80, 80, 255};
constexpr g::Color kScrollHandleColor{215, 209, 209, 255};

// The shown command text and the cursor's work string: reused every frame so that drawing
// allocates nothing; one set per drawing thread.
thread_local zu::InplaceString<256> t_shownText;
thread_local zu::InplaceString<256> t_cursorPrefix;

// The signed distance from `from` to `to` on a counter that wraps around.
int64_t wrappedDistance(int32_t from, int32_t to) {
    return static_cast<int32_t>(static_cast<uint32_t>(to) - static_cast<uint32_t>(from));
}

uint32_t smaller(int64_t a, uint64_t b) {
    const uint64_t positive = a < 0 ? 0 : static_cast<uint64_t>(a);
    return static_cast<uint32_t>(positive < b ? positive : b);
}

}  // namespace

void ScrollingTextWindow::renderVisibleText() {
    if (!state->visible) {
        return;
    }
    state->shapeEngine->begin();
    state->shapeEngine->setColor(kBackdropColor);
    state->shapeEngine->drawRectangle({0.0f, 0.0f}, {1.0f, 1.0f});
    state->shapeEngine->setTextSize(kTextSize);
    state->shapeEngine->setColor(g::Color::White);
    const float lineHeight = state->shapeEngine->getLineHeight();
    drawCommandLine();
    // Printing threads change the lines and viewLine, and clear() empties the cache, under the
    // lock.
    zu::ScopedLock lock(state->mutex);
    updateFormattedLines();
    drawFormattedLines(lineHeight);
    renderScrollBar();
}

void ScrollingTextWindow::drawCommandLine() {
    state->shapeEngine->drawText(state->commandLinePosition, state->prompt.c_str());
    const float promptWidth = textWidth(state->prompt.c_str());
    const float cursorWidth = textWidth(state->cursorText.c_str());
    int32_t first = 0;
    int32_t end = 0;
    chooseShownCommandText(promptWidth, cursorWidth, first, end);
    const zu::String& text = state->inputLine->getText();
    t_shownText.assign(text.c_str() + first, static_cast<size_t>(end - first));
    state->shapeEngine->drawText(
        {state->commandLinePosition.x + promptWidth, state->commandLinePosition.y},
        t_shownText.c_str());
    // The cursor stands behind the prompt and the shown characters before it.
    const int32_t cursor = state->inputLine->getCursor();
    t_cursorPrefix = state->prompt;
    t_cursorPrefix.append(text.c_str() + state->commandLineScroll,
                          static_cast<size_t>(cursor - state->commandLineScroll));
    const float cursorX = state->commandLinePosition.x + textWidth(t_cursorPrefix.c_str());
    state->shapeEngine->drawText({cursorX, state->commandLinePosition.y},
                                 state->cursorText.c_str());
}

// Walks the text from commandLineScroll until it no longer fits the line. When the cursor
// lies beyond that point, the window is moved so that it ends at the cursor instead, walking
// back from the cursor; a cursor at the end of the text needs room for the cursor glyph too.
// The walks measure each character alone, through the engine.
void ScrollingTextWindow::chooseShownCommandText(float promptWidth, float cursorWidth,
                                                 int32_t& first, int32_t& end) {
    const zu::String& text = state->inputLine->getText();
    const int32_t length = static_cast<int32_t>(text.length());
    const int32_t cursor = state->inputLine->getCursor();
    if (state->commandLineScroll > cursor) {
        state->commandLineScroll = cursor;
    }
    if (state->commandLineScroll < 0) {
        state->commandLineScroll = 0;
    }
    first = state->commandLineScroll;
    end = length;
    const float startWidth = promptWidth + (cursor == length ? cursorWidth : 0.0f);
    float width = startWidth;
    for (int32_t i = state->commandLineScroll; i < length; ++i) {
        width += characterWidth(text[static_cast<size_t>(i)]);
        if (width < state->commandLineWidth) {
            continue;
        }
        if (cursor <= i) {
            end = i + 1;  // the character that crosses the edge is still shown
            return;
        }
        width = startWidth;
        for (int32_t j = cursor == length ? cursor - 1 : cursor; j >= 0; --j) {
            width += characterWidth(text[static_cast<size_t>(j)]);
            if (width >= state->commandLineWidth) {
                state->commandLineScroll = j + 1;
                first = j + 1;
                end = cursor < length ? cursor + 1 : length;
                return;
            }
        }
        return;
    }
    // The rest fits: the window stays where it is (a cursor left of it moved it above).
}

float ScrollingTextWindow::characterWidth(char character) const {
    const char single[2] = {character, 0};
    return state->shapeEngine->getTextExtent(single).x;
}

float ScrollingTextWindow::textWidth(const char* text) const {
    return state->shapeEngine->getTextExtent(text).x;
}

ScrollingTextWindow::FormattedLine& ScrollingTextWindow::formattedLineOfRow(uint32_t row) {
    const int64_t size = static_cast<int64_t>(state->formattedLines.lines.size());
    const int64_t slot =
        ((state->formattedLines.position - static_cast<int64_t>(row) - 1) % size + size) % size;
    return state->formattedLines.lines[static_cast<size_t>(slot)];
}

void ScrollingTextWindow::updateFormattedLines() {
    const int64_t moved = wrappedDistance(state->cachedViewLine, state->viewLine);
    if (moved != 0 && !state->formattedLines.lines.empty()) {
        if (moved < 0) {
            colorNewLinesAtBottom(smaller(-moved, state->formattedLines.lines.size()));
        } else {
            colorOldLinesAtTop(smaller(moved, state->formattedLines.lines.size()));
        }
    }
    state->cachedViewLine = state->viewLine;
}

// New lines came in at the bottom: the ring turns by one per line, and each new line is
// coloured into the slot that the turn frees at the bottom, so older entries move up a row.
void ScrollingTextWindow::colorNewLinesAtBottom(uint32_t shift) {
    const int32_t size = static_cast<int32_t>(state->formattedLines.lines.size());
    for (uint32_t i = 0; i < shift; ++i) {
        const int32_t slot = (state->formattedLines.position + static_cast<int32_t>(i)) % size;
        state->formattedLines.lines[static_cast<size_t>(slot)].runs.clear();
    }
    const uint32_t coloured = smaller(shift, state->consoleLines.count());
    for (uint32_t row = coloured; row-- > 0;) {
        state->formattedLines.position = (state->formattedLines.position + 1) % size;
        syntaxColorLine(formattedLineOfRow(0),
                        state->consoleLines.line(static_cast<uint64_t>(state->scrollOffset) + row));
    }
}

// The view moved up: the ring turns back, and the lines that came into view at the top are
// coloured into the top rows.
void ScrollingTextWindow::colorOldLinesAtTop(uint32_t shift) {
    const int32_t size = static_cast<int32_t>(state->formattedLines.lines.size());
    for (uint32_t i = 0; i < shift; ++i) {
        state->formattedLines.position = (state->formattedLines.position - 1 + size) % size;
        state->formattedLines.lines[static_cast<size_t>(state->formattedLines.position)]
            .runs.clear();
    }
    const uint32_t coloured = smaller(shift, state->consoleLines.count());
    for (uint32_t row = static_cast<uint32_t>(size) - coloured; row < static_cast<uint32_t>(size);
         ++row) {
        syntaxColorLine(formattedLineOfRow(row),
                        state->consoleLines.line(static_cast<uint64_t>(state->scrollOffset) + row));
    }
}

void ScrollingTextWindow::drawFormattedLines(float lineHeight) {
    const uint32_t rows = static_cast<uint32_t>(state->formattedLines.lines.size());
    float y = state->windowPosition.y + state->windowSize.y - lineHeight;
    for (uint32_t row = 0; row < rows; ++row) {
        float x = state->windowPosition.x;
        for (const FormattedRun& run : formattedLineOfRow(row).runs) {
            state->shapeEngine->setColor(run.color);
            state->shapeEngine->drawText({x, y}, run.text.c_str());
            x += textWidth(run.text.c_str());
        }
        y -= lineHeight;
    }
}

// The handle's length is the share of the lines that fit on screen; scrolled to the newest
// line it stands at the bottom of the track, scrolled fully up at its top.
void ScrollingTextWindow::renderScrollBar() {
    const uint64_t stored = state->consoleLines.count();
    const uint64_t onScreen = getLinesOnScreen();
    const uint64_t total = stored > onScreen ? stored : onScreen;
    float handleLength =
        total == 0 ? state->windowSize.y
                   : static_cast<float>(onScreen) / static_cast<float>(total) * state->windowSize.y;
    if (handleLength < state->scrollBarMinLength) {
        handleLength = state->scrollBarMinLength;
    }
    const float barX = state->windowPosition.x + state->windowSize.x - state->scrollBarWidth;
    float handleY = state->windowPosition.y;
    if (stored > onScreen) {
        const float share =
            static_cast<float>(state->scrollOffset) / static_cast<float>(stored - onScreen);
        handleY = state->windowPosition.y + state->windowSize.y -
                  share * (state->windowSize.y - handleLength) - handleLength;
    }
    state->shapeEngine->setColor(kScrollTrackColor);
    state->shapeEngine->drawRectangle({barX, state->windowPosition.y},
                                      {state->scrollBarWidth, state->windowSize.y});
    state->shapeEngine->setColor(kScrollHandleColor);
    state->shapeEngine->drawRectangle({barX, handleY}, {state->scrollBarWidth, handleLength});
}

}  // namespace dm
