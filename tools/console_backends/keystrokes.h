// Keystrokes as the console takes them (Windows virtual-key codes, the character typed and the
// modifiers), made from what a terminal sends and from keystroke scripts.
#pragma once

#include <string>
#include <vector>

#include "dm/console.h"

namespace dmconsole {

struct Keystroke {
    int key = 0;
    char character = 0;
    bool alt = false;
    bool control = false;
    bool shift = false;
};

bool operator==(const Keystroke& a, const Keystroke& b);

namespace vk {
using namespace dm::console_key;
constexpr int Console = 220;  // the key under Escape that opens and closes the console
// Not a key: the terminal asked to end the program (Control+C, Control+D).
constexpr int Quit = -1;
}  // namespace vk

// The keystroke that types the Latin-1 character `c` on a US keyboard: letters and digits by
// their own codes, punctuation by its key with Shift where the character needs it. The backquote
// is the console key and types nothing.
Keystroke keystrokeForCharacter(char c);

// Turns the bytes a terminal sends in raw mode into keystrokes: UTF-8 text (characters beyond
// Latin-1 are dropped), Enter, Tab, Backspace, Control+C and Control+D as Quit, and the escape
// sequences of the arrow and editing keys with their modifiers (xterm style). An Escape byte
// may start a sequence: it is held until more bytes come or flush() says that none will.
class TerminalKeyDecoder {
public:
    // Appends the keystrokes that `bytes` complete to `keys`.
    void feed(const std::string& bytes, std::vector<Keystroke>& keys);
    // No more bytes came for a while: what is held is a lone Escape, or Alt with a key.
    void flush(std::vector<Keystroke>& keys);
    bool holdsBytes() const { return !m_pending.empty(); }

private:
    // Decodes one key from the front of m_pending; 0 when more bytes are needed, else how
    // many bytes it took.
    size_t decodeOne(std::vector<Keystroke>& keys, bool final);
    size_t decodeEscape(std::vector<Keystroke>& keys, bool final);
    size_t decodeUtf8(std::vector<Keystroke>& keys, bool final);

    std::string m_pending;
};

// Reads a keystroke script (see docs/console-script.md): characters are typed, a line feed is
// Enter unless the line ends with a backslash, "{Name}" is a named key with optional "Ctrl+",
// "Alt+" and "Shift+" in front, "{{" types "{", and lines that start with "#" are comments.
// Returns false and says why in `error` for an unknown key name or an unclosed brace.
bool parseKeystrokeScript(const std::string& script, std::vector<Keystroke>& keys,
                          std::string& error);

}  // namespace dmconsole
