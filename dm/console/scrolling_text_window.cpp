// The console's text pane: the store of printed lines, printing with wrapping, scrolling and
// the pane's geometry.
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "console/input_line.h"
#include "dm/console.h"

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
    initializeMembers();
    shapeEngine = engine;
    consoleLines.maxLines = kMaxConsoleLines;
    commandStack.maxLines = kMaxCommands;
    for (size_t i = 0; i < 6; ++i) {
        colors[i] = kPalette[i];
    }
    shapeEngine->setTextSize(kTextSize);
    const float lineHeight = shapeEngine->getLineHeight();
    windowPosition = {margin, margin};
    setWindowSize({1.0f - 2.0f * margin, 1.0f - (lineHeight + 2.0f * margin)});
    // The command line sits on the last text line above the bottom margin, under the window.
    commandLinePosition = {margin, 1.0f - (lineHeight + margin)};
    commandLineWidth = 1.0f - 2.0f * margin;
    inputLine = zu::newObject<InputLine>();
    // The lines and history of the previous run replace the empty stores; a cache that cannot
    // be loaded leaves them empty and does not fail the construction.
    loadCacheOrKeepDefaults();
}

ScrollingTextWindow::~ScrollingTextWindow() {
    zu::deleteObject(inputLine);
}

void ScrollingTextWindow::initializeMembers() {
    consoleLines.lineCounter = 0;
    commandStack.lineCounter = 0;
    scrollOffset = 0;
    commandStackIndex = -1;
    commandLineScroll = 0;
    pendingLine.clear();
    prompt = ">";
    cursorText = "_";
    linePrefix.clear();
    lastKey = -1;
    keyRepeatCount = 0;
    for (g::Color& color : colors) {
        color = g::Color::Black;
    }
    windowPosition = {0.0f, 0.0f};
    windowSize = {1.0f, 1.0f};
    commandLinePosition = {0.0f, 0.0f};
    textAreaSize = {1.0f, 1.0f};
    commandLineWidth = 1.0f;
    scrollBarWidth = 0.003125f;
    scrollBarMinLength = 0.025f;
    knownWords.clear();
    aliases.clear();
    completionIterator = knownWords.end();
    completionPrefix.clear();
    completionHead.clear();
    visible = false;
    cacheDirty = false;
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
    zu::ScopedLock lock(mutex);
    printBuffer = pendingLine;
    printBuffer.append(text);
    pendingLine.clear();
    const zu::String& prefix = withPrefix ? prompt : linePrefix;
    size_t lineStart = 0;
    for (int lineFeed = printBuffer.find('\n'); lineFeed >= 0;
         lineFeed = printBuffer.find('\n', lineStart)) {
        const size_t lineEnd = static_cast<size_t>(lineFeed);
        printLine.assign(printBuffer.c_str() + lineStart, lineEnd - lineStart);
        lineStart = lineEnd + 1;
        keepViewAfterPrinting(addWrappedLine(prefix, printLine, withPrefix));
    }
    // Shown once a later call brings its line feed.
    pendingLine.assign(printBuffer.c_str() + lineStart, printBuffer.length() - lineStart);
}

uint32_t ScrollingTextWindow::addWrappedLine(const zu::String& prefix, const zu::String& line,
                                             bool withPrefix) {
    printTokens.clear();
    tokenizeLine(printTokens, line);
    if (printTokens.empty()) {
        addRow(prefix, 0, 0, withPrefix);
        return 1;
    }
    breakWideTokens(textAreaSize.x - getStringWidth(prefix));
    return layOutRows(prefix, withPrefix);
}

// Splits every token wider than `room` into pieces that fit, each piece a token of its own
// right behind the one before, so that wrapping only ever splits tokens that cannot fit.
void ScrollingTextWindow::breakWideTokens(float room) {
    for (size_t i = 0; i < printTokens.size(); ++i) {
        const ConsoleWord& token = printTokens[i];
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
        printTokens[i].truncate(static_cast<size_t>(fit));
        printTokens.insert(i + 1, rest);
    }
}

// Packs the tokens into rows no wider than the text area; a row that would stay empty takes
// its first token anyway.
uint32_t ScrollingTextWindow::layOutRows(const zu::String& prefix, bool withPrefix) {
    const float prefixWidth = getStringWidth(prefix);
    const float areaWidth = textAreaSize.x;
    const size_t tokenCount = printTokens.size();
    uint32_t rows = 0;
    size_t rowStart = 0;
    float width = prefixWidth;
    for (size_t i = 0; i < tokenCount; ++i) {
        width += getStringWidth(printTokens[i]);
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
        width = prefixWidth + getStringWidth(printTokens[i]);
        if (isLast) {
            addRow(prefix, i, tokenCount, withPrefix);
            ++rows;
        }
    }
    return rows;
}

void ScrollingTextWindow::addRow(const zu::String& prefix, size_t firstToken, size_t endToken,
                                 bool withPrefix) {
    printRow = prefix;
    for (size_t i = firstToken; i < endToken; ++i) {
        printRow += printTokens[i];
    }
    printRow += '\n';
    addConsoleLine(printRow);
    if (withPrefix) {
        cacheDirty = true;
    }
}

void ScrollingTextWindow::addConsoleLine(const zu::String& line) {
    consoleLines.add(line);
}

// A view scrolled into the middle keeps showing the same text; at the bottom (or at the very
// top) it follows, and the drawing side learns through viewLine that new lines came in.
void ScrollingTextWindow::keepViewAfterPrinting(uint32_t addedLines) {
    // The colouring cache holds one entry per line on screen, as measured by the last
    // setWindowSize; using its size keeps printing threads from calling into the game's
    // drawing interface while the game draws with it.
    const uint64_t stored = consoleLines.count();
    const uint64_t onScreen = formattedLines.lines.size();
    const int64_t upmost = stored > onScreen ? static_cast<int64_t>(stored - onScreen) : 0;
    if (scrollOffset != 0 && scrollOffset != upmost) {
        int64_t offset = static_cast<int64_t>(scrollOffset) + addedLines;
        offset = offset < 0 ? 0 : (offset > upmost ? upmost : offset);
        scrollOffset = static_cast<int32_t>(offset);
    } else {
        moveViewLine(-static_cast<int64_t>(addedLines));
    }
}

void ScrollingTextWindow::moveViewLine(int64_t lines) {
    viewLine = addWrapping(viewLine, lines);
}

void ScrollingTextWindow::dumpToFile(const char* fileName) {
    // Dumping is switched off: the text is put together as a dump would hold it and dropped,
    // and the file system is never touched, whatever `fileName` says.
    (void)fileName;
    zu::ScopedLock lock(mutex);
    const uint64_t count = consoleLines.count();
    size_t total = 1;
    for (uint64_t k = 0; k < count; ++k) {
        total += consoleLines.line(k).length();
    }
    const size_t size = total > kDumpBufferMinimum ? total : kDumpBufferMinimum;
    char* text = static_cast<char*>(zu::allocateMemory(size));
    size_t used = 0;
    for (uint64_t k = count; k-- > 0;) {
        const ConsoleLine& line = consoleLines.line(k);
        std::memcpy(text + used, line.c_str(), line.length());
        used += line.length();
    }
    text[used] = 0;
    zu::deleteMemory(text);
}

void ScrollingTextWindow::setWindowSize(const m::Vector2Template<float>& size) {
    zu::ScopedLock lock(mutex);
    windowSize = size;
    emptyFormattedLines();
    const uint32_t linesOnScreen = getLinesOnScreen();
    formattedLines.position = 0;
    formattedLines.lines.resize(linesOnScreen);
    emptyFormattedLines();
    if (linesOnScreen != 0) {
        // Makes the next frame colour every line on screen anew.
        cachedViewLine = addWrapping(viewLine, linesOnScreen);
    }
    textAreaSize = {size.x - scrollBarWidth, size.y};
}

void ScrollingTextWindow::emptyFormattedLines() {
    for (FormattedLine& line : formattedLines.lines) {
        line.runs.clear();
    }
}

int ScrollingTextWindow::scroll(int lines) {
    zu::ScopedLock lock(mutex);
    const int64_t old = scrollOffset;
    const int64_t upmost = getUpmostShownConsoleLine();
    int64_t offset = old + lines;
    offset = offset < 0 ? 0 : (offset > upmost ? upmost : offset);
    scrollOffset = static_cast<int32_t>(offset);
    return static_cast<int>(offset - old);
}

void ScrollingTextWindow::scrollBottom() {
    zu::ScopedLock lock(mutex);
    const int64_t old = scrollOffset;
    const int64_t upmost = getUpmostShownConsoleLine();
    int64_t offset = old - static_cast<int64_t>(consoleLines.count());
    offset = offset < 0 ? 0 : (offset > upmost ? upmost : offset);
    scrollOffset = static_cast<int32_t>(offset);
    moveViewLine(offset - old);
}

void ScrollingTextWindow::clear() {
    zu::ScopedLock lock(mutex);
    consoleLines.clear();
    emptyFormattedLines();
    cachedViewLine = viewLine;
    pendingLine.clear();
    cacheDirty = true;
}

uint64_t ScrollingTextWindow::getConsoleLineCount() const {
    zu::ScopedLock lock(mutex);
    return consoleLines.count();
}

ScrollingTextWindow::ConsoleLine ScrollingTextWindow::getConsoleLine(uint64_t k) const {
    zu::ScopedLock lock(mutex);
    return consoleLines.line(k);
}

ScrollingTextWindow::ConsoleLine ScrollingTextWindow::getVisibleLine(uint64_t k) const {
    zu::ScopedLock lock(mutex);
    return consoleLines.line(static_cast<uint64_t>(scrollOffset) + k);
}

uint32_t ScrollingTextWindow::getLinesOnScreen() const {
    shapeEngine->setTextSize(kTextSize);
    const float lineHeight = shapeEngine->getLineHeight();
    if (!(lineHeight > 0.0f)) {
        return 0;
    }
    const float lines = std::floor(windowSize.y / lineHeight);
    if (!(lines > 0.0f)) {
        return 0;
    }
    return lines >= static_cast<float>(kMaxLinesOnScreen) ? kMaxLinesOnScreen
                                                          : static_cast<uint32_t>(lines);
}

uint32_t ScrollingTextWindow::getUpmostShownConsoleLine() const {
    const uint64_t stored = consoleLines.count();
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
