// What a ScrollingTextWindow holds: its line stores, command line, completion and alias state,
// geometry, colours, colouring cache and printing's work buffers.
#pragma once

#include <cstdint>

#include "console/bounded_line_store.h"
#include "dm/console.h"
#include "zu/memory.h"
#include "zu/mutex.h"

namespace dm {

class InputLine;

// Owned by its ScrollingTextWindow. `mutex` guards what printing threads touch: the console
// lines, the scroll position, the view and the colouring cache, and the print buffers. The
// rest belongs to the thread that drives the console; of it, the command stack is changed under
// `mutex` along with the lines it is saved with, and the text area's size because printing
// reads it.
struct ScrollingTextWindowState {
    using ConsoleLine = ScrollingTextWindow::ConsoleLine;
    using KnownWordMap = ScrollingTextWindow::KnownWordMap;
    using AliasMap = ScrollingTextWindow::AliasMap;
    using FormattedLineRing = ScrollingTextWindow::FormattedLineRing;

    zu::Mutex mutex;

    ShapeEngineInterface* shapeEngine = nullptr;
    BoundedLineStore<ConsoleLine> consoleLines ZU_GUARDED_BY(mutex);
    int32_t scrollOffset ZU_GUARDED_BY(mutex) = 0;
    BoundedLineStore<zu::InplaceString<256>> commandStack;
    int32_t commandStackIndex = -1;
    zu::UniquePtr<InputLine> inputLine;
    int32_t commandLineScroll = 0;
    ConsoleLine pendingLine ZU_GUARDED_BY(mutex);
    int32_t lastKey = -1;
    int32_t keyRepeatCount = 0;
    zu::InplaceString<128> prompt;
    zu::InplaceString<128> cursorText;
    zu::InplaceString<128> linePrefix;
    KnownWordMap knownWords;
    KnownWordMap::iterator completionIterator = knownWords.end();
    zu::InplaceString<256> completionPrefix;
    zu::InplaceString<128> completionHead;
    AliasMap aliases;
    g::Color colors[6];
    bool visible = false;
    FormattedLineRing formattedLines ZU_GUARDED_BY(mutex);
    int32_t viewLine ZU_GUARDED_BY(mutex) = 0;
    int32_t cachedViewLine ZU_GUARDED_BY(mutex) = 0;
    m::Vector2Template<float> windowPosition;
    m::Vector2Template<float> windowSize{1.0f, 1.0f};
    m::Vector2Template<float> commandLinePosition;
    m::Vector2Template<float> textAreaSize{1.0f, 1.0f};
    float commandLineWidth = 1.0f;
    float scrollBarWidth = 0.003125f;
    float scrollBarMinLength = 0.025f;
    bool cacheDirty ZU_GUARDED_BY(mutex) = false;

    // Printing's work buffers, reused by every call under `mutex` so that printing allocates
    // nothing once they have grown; one set per window, so windows never share them.
    zu::InplaceString<1024> printBuffer ZU_GUARDED_BY(mutex);
    zu::InplaceString<1024> printLine ZU_GUARDED_BY(mutex);
    ConsoleLine printRow ZU_GUARDED_BY(mutex);
    ConsoleWordList printTokens ZU_GUARDED_BY(mutex);
};

inline zu::Mutex& ScrollingTextWindow::stateLock() const ZU_RETURN_CAPABILITY(state->mutex) {
    return state->mutex;
}

}  // namespace dm
