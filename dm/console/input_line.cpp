// Editing the console's command line, the routing of keys that reach the window, and the
// history of entered commands.
#include "console/input_line.h"

#include "console/scrolling_text_window_state.h"
#include "dm/console.h"

namespace dm {

namespace {

// Keys that the window handles before the command line sees them (Windows virtual-key codes);
// with Control, End and Home (InputLine::KeyEnd, KeyHome) are among them too.
enum WindowKey : int {
    KeyTab = 9,
    KeyPageUp = 33,
    KeyPageDown = 34,
    KeyUp = 38,
    KeyDown = 40,
};

}  // namespace

void InputLine::handleKey(int key, char character, bool insertCharacter) {
    switch (key) {
        case KeyBackspace:
            if (cursor > 0) {
                --cursor;
                text.erase(static_cast<size_t>(cursor), 1);
            }
            break;
        case KeyEscape:
            text.clear();
            cursor = 0;
            break;
        case KeyEnd:
            moveCursorToEnd();
            break;
        case KeyHome:
            cursor = 0;
            break;
        case KeyLeft:
            --cursor;
            break;
        case KeyRight:
            ++cursor;
            break;
        case KeyDelete:
            // At the end there is nothing to delete; erase ignores that position.
            text.erase(static_cast<size_t>(cursor), 1);
            break;
        default:
            if (insertCharacter && character != 0) {
                insert(character);
            }
            break;
    }
    clampCursor();
}

void InputLine::appendText(const zu::String& added) {
    for (char c : added) {
        if (c == '\t') {
            continue;
        }
        insert(c == '\r' || c == '\n' ? ' ' : c);
    }
    clampCursor();
}

void InputLine::setText(const char* newText, bool cursorToEnd) {
    text = newText != nullptr ? newText : "";
    if (cursorToEnd) {
        moveCursorToEnd();
    }
    clampCursor();
}

void InputLine::setCursor(int32_t position) {
    cursor = position;
    clampCursor();
}

void InputLine::insert(char character) {
    text.insert(static_cast<size_t>(cursor), character);
    ++cursor;
}

void InputLine::clampCursor() {
    cursor = cursor < 0 ? 0 : (cursor > length() ? length() : cursor);
}

void ScrollingTextWindow::appendInput(int key, char character, bool alt, bool control, bool shift) {
    // Shift never starts a new run of presses, so Shift+Tab continues the Tab cycle.
    if (key != state->lastKey && !shift) {
        state->keyRepeatCount = 1;
        state->lastKey = key;
    } else {
        ++state->keyRepeatCount;
    }
    switch (key) {
        case KeyTab:
            if (!alt) {
                completeCommand(!shift, state->keyRepeatCount == 1);
            }
            break;
        case KeyPageUp:
            scrollView(static_cast<int64_t>(getLinesOnScreen()) - 1);
            break;
        case KeyPageDown:
            scrollView(1 - static_cast<int64_t>(getLinesOnScreen()));
            break;
        case InputLine::KeyEnd:
        case InputLine::KeyHome:
            if (control) {
                // The count under the lock: printing threads add lines meanwhile.
                zu::ScopedLock lock(state->mutex);
                const int64_t storedLines = static_cast<int64_t>(state->consoleLines.count());
                scrollViewLocked(key == InputLine::KeyEnd ? -storedLines : storedLines);
            } else {
                state->inputLine->handleKey(key, character, true);
            }
            break;
        case KeyUp:
        case KeyDown:
            if (control) {
                scrollView(key == KeyUp ? 1 : -1);
            } else {
                scrollCommands(key == KeyUp ? 1 : -1);
            }
            break;
        default:
            state->inputLine->handleKey(key, character, true);
            break;
    }
}

void ScrollingTextWindow::scrollView(int64_t lines) {
    // Under the lock, since printing threads move viewLine too.
    zu::ScopedLock lock(state->mutex);
    scrollViewLocked(lines);
}

void ScrollingTextWindow::scrollViewLocked(int64_t lines) {
    constexpr int64_t kIntMax = 0x7fffffff;
    const int64_t clamped = lines < -kIntMax ? -kIntMax : (lines > kIntMax ? kIntMax : lines);
    moveViewLine(scrollLocked(static_cast<int>(clamped)));
}

const zu::String& ScrollingTextWindow::getText() const {
    return state->inputLine->getText();
}

void ScrollingTextWindow::setText(const zu::String& text) {
    state->inputLine->setText(text.c_str(), true);
}

void ScrollingTextWindow::appendText(const zu::String& text) {
    state->inputLine->appendText(text);
}

void ScrollingTextWindow::addToCommandStack(const zu::InplaceString<128>& command) {
    zu::ScopedLock lock(state->mutex);
    state->commandStack.add(command);
    state->cacheDirty = true;
    state->commandStackIndex = -1;
}

// Up from rest shows the newest command, Down from rest the oldest; both wrap.
void ScrollingTextWindow::scrollCommands(int delta) {
    const int64_t entries = static_cast<int64_t>(state->commandStack.count());
    if (entries == 0) {
        return;
    }
    int64_t index = static_cast<int64_t>(state->commandStackIndex) + delta;
    if (index >= entries) {
        index = 0;
    }
    if (index < 0) {
        index = entries - 1;
    }
    state->commandStackIndex = static_cast<int32_t>(index);
    state->inputLine->setText(state->commandStack.line(static_cast<uint64_t>(index)).c_str(), true);
}

}  // namespace dm
