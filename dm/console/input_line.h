// The console's command line: the text being typed and the insertion cursor.
#pragma once

#include <cstdint>

#include "zu/string.h"

namespace dm {

// Owned by ScrollingTextWindow. Every operation leaves the cursor within 0 and the text's
// length; moving it beyond either end stops there. There is no limit on the length and no
// filter on the characters typed.
class InputLine {
public:
    InputLine() = default;
    InputLine(const InputLine&) = delete;
    InputLine& operator=(const InputLine&) = delete;

    // Key codes of the editing keys (Windows virtual-key codes).
    enum Key : int {
        KeyBackspace = 8,
        KeyEscape = 27,
        KeyEnd = 35,
        KeyHome = 36,
        KeyLeft = 37,
        KeyRight = 39,
        KeyDelete = 46,
    };

    // Backspace and Delete remove the character before / at the cursor, Escape empties the
    // line, End / Home / Left / Right move the cursor; any other key inserts `character` at
    // the cursor when `insertCharacter` is set and `character` is not 0.
    void handleKey(int key, char character, bool insertCharacter);
    // Inserts `text` at the cursor, byte by byte: CR and LF as spaces, tabs dropped.
    void appendText(const zu::String& text);
    // Replaces the text; the cursor goes to its end, or with `cursorToEnd` false stays where
    // it was as far as the new text allows.
    void setText(const char* text, bool cursorToEnd);

    const zu::String& getText() const { return text; }
    // Insertion position, within 0 and the text's length.
    int32_t getCursor() const { return cursor; }
    void setCursor(int32_t position);
    void moveCursorToEnd() { cursor = length(); }
    bool isCursorAtEnd() const { return cursor == length(); }

private:
    int32_t length() const { return static_cast<int32_t>(text.length()); }
    void insert(char character);
    void clampCursor();

    zu::InplaceString<128> text;
    int32_t cursor = 0;
};

}  // namespace dm
