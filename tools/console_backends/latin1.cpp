#include "console_backends/latin1.h"

namespace dmconsole {

namespace {

bool isDrawn(unsigned char c) {
    return c >= 32 && c != 127;
}

}  // namespace

void appendLatin1AsUtf8(std::string& out, const char* text) {
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p != 0; ++p) {
        if (!isDrawn(*p)) {
            continue;
        }
        if (*p < 0x80) {
            out += static_cast<char>(*p);
        } else {
            out += static_cast<char>(0xC0 | (*p >> 6));
            out += static_cast<char>(0x80 | (*p & 0x3F));
        }
    }
}

size_t countDrawnCharacters(const char* text) {
    size_t count = 0;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p != 0; ++p) {
        count += isDrawn(*p) ? 1 : 0;
    }
    return count;
}

}  // namespace dmconsole
