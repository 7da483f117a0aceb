// Console text is Latin-1, one byte per character; drawing libraries and terminals want UTF-8.
#pragma once

#include <string>

namespace dmconsole {

// Appends `text` to `out` as UTF-8, leaving out control characters (below 32, and 127), which
// draw nothing.
void appendLatin1AsUtf8(std::string& out, const char* text);

// The number of characters of `text` that draw something.
size_t countDrawnCharacters(const char* text);

}  // namespace dmconsole
