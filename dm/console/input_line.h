// The console's command line: the text being typed and the insertion cursor.
#pragma once

#include <cstdint>

#include "zu/string.h"

namespace dm {

// Owned by ScrollingTextWindow. The editing operations (keys, inserting text, replacing it)
// belong to the command side and are added with it.
class InputLine {
public:
    InputLine() = default;
    InputLine(const InputLine&) = delete;
    InputLine& operator=(const InputLine&) = delete;

    const zu::String& getText() const { return text; }
    // Insertion position, within 0 and the text's length.
    int32_t getCursor() const { return cursor; }

private:
    zu::InplaceString<128> text;
    int32_t cursor = 0;
};

}  // namespace dm
