// The console's text pane: the store of printed lines, printing with wrapping, scrolling and
// the pane's geometry.
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "console/input_line.h"
#include "console/scrolling_text_window_state.h"
#include "dm/console.h"
#include "zu/buffer.h"

namespace dm {

namespace {

constexpr float kTextSize = 0.02f;
constexpr float kCharacterWidth = 0.01f;
constexpr uint32_t kMaxConsoleLines = 1000;
constexpr uint32_t kMaxCommands = 30;
constexpr size_t kFormatBufferSize = 4096;
constexpr size_t kDumpBufferMinimum = 10000;
// Far beyond any real screen; keeps a degenerate line height from sizing the colouring cache
// without bound.
constexpr uint32_t kMaxLinesOnScreen = 1u << 16;

// Syntax colours: plain words and white space, quoted strings, numbers, known words, other
// characters, aliases.
constexpr g::Color kPalette[6] = {{208, 208, 96, 255},  {128, 208, 208, 255}, {160, 255, 255, 255},
                                  {176, 176, 176, 255}, {255, 255, 255, 255}, {0, 255, 255, 255}};

// Formats like the bounds-checked vsnprintf with a count of the whole buffer: a result that does
// not fit leaves the buffer empty rather than cut.
void formatBounded(char (&buffer)[kFormatBufferSize], const char* format, va_list args) {
    const int written = std::vsnprintf(buffer, kFormatBufferSize, format ? format : "", args);
    if (written < 0 || static_cast<size_t>(written) >= kFormatBufferSize) {
        buffer[0] = 0;
    }
}

// viewLine only counts view movement, so it may wrap around rather than overflow.
int32_t addWrapping(int32_t value, int64_t delta) {
    return static_cast<int32_t>(static_cast<uint32_t>(value) + static_cast<uint32_t>(delta));
}

}  // namespace

ShapeEngineInterface::~ShapeEngineInterface() = default;

ZU_DEFINE_EXCEPTION(ScrollingTextWindowException);

ScrollingTextWindow::ScrollingTextWindow(ShapeEngineInterface* engine, float margin) {
    if (engine == nullptr) {
        throw ScrollingTextWindowException("ScrollingTextWindow: %s", "no shape engine given");
    }
    state = zu::makeUnique<ScrollingTextWindowState>();
    initializeMembers();
    state->shapeEngine = engine;
    state->consoleLines.maxLines = kMaxConsoleLines;
    state->commandStack.maxLines = kMaxCommands;
    for (size_t i = 0; i < 6; ++i) {
        state->colors[i] = kPalette[i];
    }
    state->shapeEngine->setTextSize(kTextSize);
    const float lineHeight = state->shapeEngine->getLineHeight();
    state->windowPosition = {margin, margin};
    setWindowSize({1.0f - 2.0f * margin, 1.0f - (lineHeight + 2.0f * margin)});
    // The command line sits on the last text line above the bottom margin, under the window.
    state->commandLinePosition = {margin, 1.0f - (lineHeight + margin)};
    state->commandLineWidth = 1.0f - 2.0f * margin;
    state->inputLine = zu::makeUnique<InputLine>();
    // The lines and history of the previous run replace the empty stores; a cache that cannot
    // be loaded leaves them empty and does not fail the construction.
    loadCacheOrKeepDefaults();
}

ScrollingTextWindow::~ScrollingTextWindow() = default;

void ScrollingTextWindow::setWindowPosition(const m::Vector2Template<float>& position) {
    state->windowPosition = position;
}

void ScrollingTextWindow::setCommandLinePosition(const m::Vector2Template<float>& position) {
    state->commandLinePosition = position;
}

void ScrollingTextWindow::setCommandLineWidth(float width) {
    state->commandLineWidth = width;
}

void ScrollingTextWindow::setVisibility(bool isVisible) {
    state->visible = isVisible;
}

const m::Vector2Template<float>& ScrollingTextWindow::getWindowSize() const {
    return state->windowSize;
}

const m::Vector2Template<float>& ScrollingTextWindow::getWindowPosition() const {
    return state->windowPosition;
}

const m::Vector2Template<float>& ScrollingTextWindow::getCommandLinePosition() const {
    return state->commandLinePosition;
}

const m::Vector2Template<float>& ScrollingTextWindow::getTextAreaSize() const {
    return state->textAreaSize;
}

float ScrollingTextWindow::getCommandLineWidth() const {
    return state->commandLineWidth;
}

const g::Color& ScrollingTextWindow::getPaletteColor(PaletteEntry entry) const {
    return state->colors[entry];
}

const ScrollingTextWindow::AliasMap& ScrollingTextWindow::getAliasesMap() const {
    return state->aliases;
}

ScrollingTextWindow::AliasMap& ScrollingTextWindow::accessAliasesMap() {
    return state->aliases;
}

void ScrollingTextWindow::initializeMembers() {
    // Nothing prints yet; the lock only keeps the rules of the guarded members uniform.
    zu::ScopedLock lock(stateLock());
    state->consoleLines.lineCounter = 0;
    state->commandStack.lineCounter = 0;
    state->scrollOffset = 0;
    state->commandStackIndex = -1;
    state->commandLineScroll = 0;
    state->pendingLine.clear();
    state->prompt = ">";
    state->cursorText = "_";
    state->linePrefix.clear();
    state->lastKey = -1;
    state->keyRepeatCount = 0;
    for (g::Color& color : state->colors) {
        color = g::Color::Black;
    }
    state->windowPosition = {0.0f, 0.0f};
    state->windowSize = {1.0f, 1.0f};
    state->commandLinePosition = {0.0f, 0.0f};
    state->textAreaSize = {1.0f, 1.0f};
    state->commandLineWidth = 1.0f;
    state->scrollBarWidth = 0.003125f;
    state->scrollBarMinLength = 0.025f;
    state->knownWords.clear();
    state->aliases.clear();
    state->completionIterator = state->knownWords.end();
    state->completionPrefix.clear();
    state->completionHead.clear();
    state->visible = false;
    state->cacheDirty = false;
}

void ScrollingTextWindow::print(const char* format, ...) {
    char buffer[kFormatBufferSize];
    va_list args;
    va_start(args, format);
    formatBounded(buffer, format, args);
    va_end(args);
    printString(buffer);
}

void ScrollingTextWindow::printString(const char* text) {
    printStringWithPrefix(false, text);
}

void ScrollingTextWindow::printWithPrefix(bool withPrefix, const char* format, ...) {
    char buffer[kFormatBufferSize];
    va_list args;
    va_start(args, format);
    formatBounded(buffer, format, args);
    va_end(args);
    printStringWithPrefix(withPrefix, buffer);
}

void ScrollingTextWindow::printStringWithPrefix(bool withPrefix, const char* text) {
    zu::ScopedLock lock(state->mutex);
    state->printBuffer = state->pendingLine;
    state->printBuffer.append(text);
    state->pendingLine.clear();
    const zu::String& prefix = withPrefix ? state->prompt : state->linePrefix;
    size_t lineStart = 0;
    for (int lineFeed = state->printBuffer.find('\n'); lineFeed >= 0;
         lineFeed = state->printBuffer.find('\n', lineStart)) {
        const size_t lineEnd = static_cast<size_t>(lineFeed);
        state->printLine.assign(state->printBuffer.c_str() + lineStart, lineEnd - lineStart);
        lineStart = lineEnd + 1;
        keepViewAfterPrinting(addWrappedLine(prefix, state->printLine, withPrefix));
    }
    // Shown once a later call brings its line feed.
    state->pendingLine.assign(state->printBuffer.c_str() + lineStart,
                              state->printBuffer.length() - lineStart);
}

uint32_t ScrollingTextWindow::addWrappedLine(const zu::String& prefix, const zu::String& line,
                                             bool withPrefix) {
    state->printTokens.clear();
    tokenizeLine(state->printTokens, line);
    if (state->printTokens.empty()) {
        addRow(prefix, 0, 0, withPrefix);
        return 1;
    }
    breakWideTokens(state->textAreaSize.x - getStringWidth(prefix));
    return layOutRows(prefix, withPrefix);
}

// Splits every token wider than `room` into pieces that fit, each piece a token of its own
// right behind the one before, so that wrapping only ever splits tokens that cannot fit.
void ScrollingTextWindow::breakWideTokens(float room) {
    for (size_t i = 0; i < state->printTokens.size(); ++i) {
        const ConsoleWord& token = state->printTokens[i];
        if (getStringWidth(token) <= room) {
            continue;
        }
        // In an area too narrow for a single character every piece still takes one, so that
        // the line ends up in a bounded number of rows.
        int32_t fit = getCharacterFitCount(token, room);
        fit = fit < 1 ? 1 : fit;
        if (static_cast<size_t>(fit) >= token.length()) {
            continue;
        }
        const ConsoleWord rest(token.c_str() + fit, token.length() - static_cast<size_t>(fit));
        state->printTokens[i].truncate(static_cast<size_t>(fit));
        state->printTokens.insert(i + 1, rest);
    }
}

// Packs the tokens into rows no wider than the text area; a row that would stay empty takes
// its first token anyway.
uint32_t ScrollingTextWindow::layOutRows(const zu::String& prefix, bool withPrefix) {
    const float prefixWidth = getStringWidth(prefix);
    const float areaWidth = state->textAreaSize.x;
    const size_t tokenCount = state->printTokens.size();
    uint32_t rows = 0;
    size_t rowStart = 0;
    float width = prefixWidth;
    for (size_t i = 0; i < tokenCount; ++i) {
        width += getStringWidth(state->printTokens[i]);
        const bool isLast = i + 1 == tokenCount;
        if (width < areaWidth && !isLast) {
            continue;
        }
        if (width < areaWidth || i == rowStart) {
            addRow(prefix, rowStart, i + 1, withPrefix);
            ++rows;
            rowStart = i + 1;
            width = prefixWidth;
            continue;
        }
        // Token i does not fit: the row ends before it and it starts the next one.
        addRow(prefix, rowStart, i, withPrefix);
        ++rows;
        rowStart = i;
        width = prefixWidth + getStringWidth(state->printTokens[i]);
        if (isLast) {
            addRow(prefix, i, tokenCount, withPrefix);
            ++rows;
        }
    }
    return rows;
}

void ScrollingTextWindow::addRow(const zu::String& prefix, size_t firstToken, size_t endToken,
                                 bool withPrefix) {
    state->printRow = prefix;
    for (size_t i = firstToken; i < endToken; ++i) {
        state->printRow += state->printTokens[i];
    }
    state->printRow += '\n';
    addConsoleLine(state->printRow);
    if (withPrefix) {
        state->cacheDirty = true;
    }
}

void ScrollingTextWindow::addConsoleLine(const zu::String& line) {
    state->consoleLines.add(line);
}

// A view scrolled into the middle keeps showing the same text; at the bottom (or at the very
// top) it follows, and the drawing side learns through viewLine that new lines came in.
void ScrollingTextWindow::keepViewAfterPrinting(uint32_t addedLines) {
    // The colouring cache holds one entry per line on screen, as measured by the last
    // setWindowSize; using its size keeps printing threads from calling into the game's
    // drawing interface while the game draws with it.
    const uint64_t stored = state->consoleLines.count();
    const uint64_t onScreen = state->formattedLines.lines.size();
    const int64_t upmost = stored > onScreen ? static_cast<int64_t>(stored - onScreen) : 0;
    if (state->scrollOffset != 0 && state->scrollOffset != upmost) {
        int64_t offset = static_cast<int64_t>(state->scrollOffset) + addedLines;
        offset = offset < 0 ? 0 : (offset > upmost ? upmost : offset);
        state->scrollOffset = static_cast<int32_t>(offset);
    } else {
        moveViewLine(-static_cast<int64_t>(addedLines));
    }
}

void ScrollingTextWindow::moveViewLine(int64_t lines) {
    state->viewLine = addWrapping(state->viewLine, lines);
}

void ScrollingTextWindow::dumpToFile(const char* fileName) {
    // Dumping is switched off: the text is put together as a dump would hold it and dropped,
    // and the file system is never touched, whatever `fileName` says.
    (void)fileName;
    zu::ScopedLock lock(state->mutex);
    const uint64_t count = state->consoleLines.count();
    size_t total = 1;
    for (uint64_t k = 0; k < count; ++k) {
        total += state->consoleLines.line(k).length();
    }
    const size_t size = total > kDumpBufferMinimum ? total : kDumpBufferMinimum;
    zu::Buffer dump(size);
    char* text = dump.chars();
    size_t used = 0;
    for (uint64_t k = count; k-- > 0;) {
        const ConsoleLine& line = state->consoleLines.line(k);
        std::memcpy(text + used, line.c_str(), line.length());
        used += line.length();
    }
    text[used] = 0;
}

void ScrollingTextWindow::setWindowSize(const m::Vector2Template<float>& size) {
    zu::ScopedLock lock(state->mutex);
    state->windowSize = size;
    emptyFormattedLines();
    const uint32_t linesOnScreen = getLinesOnScreen();
    state->formattedLines.position = 0;
    state->formattedLines.lines.resize(linesOnScreen);
    emptyFormattedLines();
    if (linesOnScreen != 0) {
        // Makes the next frame colour every line on screen anew.
        state->cachedViewLine = addWrapping(state->viewLine, linesOnScreen);
    }
    state->textAreaSize = {size.x - state->scrollBarWidth, size.y};
}

void ScrollingTextWindow::emptyFormattedLines() {
    for (FormattedLine& line : state->formattedLines.lines) {
        line.runs.clear();
    }
}

int ScrollingTextWindow::scroll(int lines) {
    zu::ScopedLock lock(state->mutex);
    return scrollLocked(lines);
}

int ScrollingTextWindow::scrollLocked(int lines) {
    const int64_t old = state->scrollOffset;
    const int64_t upmost = upmostShownLineLocked();
    int64_t offset = old + lines;
    offset = offset < 0 ? 0 : (offset > upmost ? upmost : offset);
    state->scrollOffset = static_cast<int32_t>(offset);
    return static_cast<int>(offset - old);
}

void ScrollingTextWindow::scrollBottom() {
    zu::ScopedLock lock(state->mutex);
    const int64_t old = state->scrollOffset;
    const int64_t upmost = upmostShownLineLocked();
    int64_t offset = old - static_cast<int64_t>(state->consoleLines.count());
    offset = offset < 0 ? 0 : (offset > upmost ? upmost : offset);
    state->scrollOffset = static_cast<int32_t>(offset);
    moveViewLine(offset - old);
}

void ScrollingTextWindow::clear() {
    zu::ScopedLock lock(state->mutex);
    state->consoleLines.clear();
    emptyFormattedLines();
    state->cachedViewLine = state->viewLine;
    state->pendingLine.clear();
    state->cacheDirty = true;
}

uint64_t ScrollingTextWindow::getConsoleLineCount() const {
    zu::ScopedLock lock(state->mutex);
    return state->consoleLines.count();
}

ScrollingTextWindow::ConsoleLine ScrollingTextWindow::getConsoleLine(uint64_t k) const {
    zu::ScopedLock lock(state->mutex);
    return state->consoleLines.line(k);
}

ScrollingTextWindow::ConsoleLine ScrollingTextWindow::getVisibleLine(uint64_t k) const {
    zu::ScopedLock lock(state->mutex);
    return state->consoleLines.line(static_cast<uint64_t>(state->scrollOffset) + k);
}

uint32_t ScrollingTextWindow::getLinesOnScreen() const {
    state->shapeEngine->setTextSize(kTextSize);
    const float lineHeight = state->shapeEngine->getLineHeight();
    if (!(lineHeight > 0.0f)) {
        return 0;
    }
    const float lines = std::floor(state->windowSize.y / lineHeight);
    if (!(lines > 0.0f)) {
        return 0;
    }
    return lines >= static_cast<float>(kMaxLinesOnScreen) ? kMaxLinesOnScreen
                                                          : static_cast<uint32_t>(lines);
}

uint32_t ScrollingTextWindow::getUpmostShownConsoleLine() const {
    // Under the lock: printing threads add lines meanwhile.
    zu::ScopedLock lock(stateLock());
    return upmostShownLineLocked();
}

uint32_t ScrollingTextWindow::upmostShownLineLocked() const {
    const uint64_t stored = state->consoleLines.count();
    const uint64_t onScreen = getLinesOnScreen();
    return stored > onScreen ? static_cast<uint32_t>(stored - onScreen) : 0;
}

float ScrollingTextWindow::getStringWidth(const zu::String& text) const {
    return static_cast<float>(text.length()) * kCharacterWidth;
}

int32_t ScrollingTextWindow::getCharacterFitCount(const zu::String& text, float width) const {
    float runningWidth = 0.0f;
    const size_t length = text.length();
    for (size_t k = 0; k < length; ++k) {
        runningWidth += kCharacterWidth;
        if (runningWidth >= width) {
            return static_cast<int32_t>(k);
        }
    }
    return static_cast<int32_t>(length);
}

}  // namespace dm
