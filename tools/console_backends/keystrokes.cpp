#include "console_backends/keystrokes.h"

#include <cctype>
#include <cstring>

namespace dmconsole {

namespace {

constexpr char kEscape = 0x1B;

struct NamedKey {
    const char* name;
    int key;
    char character;
};

const NamedKey kNamedKeys[] = {
    {"Enter", vk::Enter, '\r'},  {"Tab", vk::Tab, '\t'},          {"Esc", vk::Escape, 0},
    {"Escape", vk::Escape, 0},   {"Backspace", vk::Backspace, 0}, {"Delete", vk::Delete, 0},
    {"Insert", vk::Insert, 0},   {"Left", vk::Left, 0},           {"Right", vk::Right, 0},
    {"Up", vk::Up, 0},           {"Down", vk::Down, 0},           {"Home", vk::Home, 0},
    {"End", vk::End, 0},         {"PageUp", vk::PageUp, 0},       {"PageDown", vk::PageDown, 0},
    {"Console", vk::Console, 0}, {"Space", vk::Space, ' '},
};

// Punctuation keys of a US keyboard: the character without and with Shift.
struct PunctuationKey {
    int key;
    char plain;
    char shifted;
};

const PunctuationKey kPunctuationKeys[] = {
    {0xBA, ';', ':'}, {0xBB, '=', '+'},  {0xBC, ',', '<'}, {0xBD, '-', '_'},
    {0xBE, '.', '>'}, {0xBF, '/', '?'},  {0xDB, '[', '{'}, {0xE2, '\\', '|'},
    {0xDD, ']', '}'}, {0xDE, '\'', '"'}, {0xC0, '~', '~'},
};

const char kShiftedDigits[] = ")!@#$%^&*(";

// xterm's modifier parameter: 1 + (shift 1, alt 2, control 4).
Keystroke withModifiers(int key, int parameter) {
    Keystroke stroke;
    stroke.key = key;
    const int bits = parameter > 1 ? parameter - 1 : 0;
    stroke.shift = (bits & 1) != 0;
    stroke.alt = (bits & 2) != 0;
    stroke.control = (bits & 4) != 0;
    return stroke;
}

int keyOfFinalByte(char final) {
    switch (final) {
        case 'A':
            return vk::Up;
        case 'B':
            return vk::Down;
        case 'C':
            return vk::Right;
        case 'D':
            return vk::Left;
        case 'H':
            return vk::Home;
        case 'F':
            return vk::End;
        default:
            return 0;
    }
}

int keyOfTildeNumber(int number) {
    switch (number) {
        case 1:
        case 7:
            return vk::Home;
        case 2:
            return vk::Insert;
        case 3:
            return vk::Delete;
        case 4:
        case 8:
            return vk::End;
        case 5:
            return vk::PageUp;
        case 6:
            return vk::PageDown;
        default:
            return 0;
    }
}

}  // namespace

bool operator==(const Keystroke& a, const Keystroke& b) {
    return a.key == b.key && a.character == b.character && a.alt == b.alt &&
           a.control == b.control && a.shift == b.shift;
}

Keystroke keystrokeForCharacter(char c) {
    Keystroke stroke;
    stroke.character = c;
    const unsigned char byte = static_cast<unsigned char>(c);
    if (c == '`') {
        stroke.key = vk::Console;
        stroke.character = 0;
    } else if (std::isalpha(byte) && byte < 0x80) {
        stroke.key = std::toupper(byte);
        stroke.shift = std::isupper(byte) != 0;
    } else if ((c >= '0' && c <= '9') || c == ' ') {
        stroke.key = c;
    } else if (c != 0 && std::strchr(kShiftedDigits, c) != nullptr) {
        stroke.key = '0' + static_cast<int>(std::strchr(kShiftedDigits, c) - kShiftedDigits);
        stroke.shift = true;
    } else if (c == '\r' || c == '\n') {
        stroke.key = vk::Enter;
        stroke.character = '\r';
    } else if (c == '\t') {
        stroke.key = vk::Tab;
    } else {
        stroke.key = 0xDF;  // a key of its own for characters beyond the US layout
        for (const PunctuationKey& punctuation : kPunctuationKeys) {
            if (c == punctuation.plain || c == punctuation.shifted) {
                stroke.key = punctuation.key;
                stroke.shift = c == punctuation.shifted && c != punctuation.plain;
            }
        }
    }
    return stroke;
}

void TerminalKeyDecoder::feed(const std::string& bytes, std::vector<Keystroke>& keys) {
    m_pending += bytes;
    while (!m_pending.empty()) {
        const size_t used = decodeOne(keys, false);
        if (used == 0) {
            return;
        }
        m_pending.erase(0, used);
    }
}

void TerminalKeyDecoder::flush(std::vector<Keystroke>& keys) {
    while (!m_pending.empty()) {
        const size_t used = decodeOne(keys, true);
        m_pending.erase(0, used == 0 ? m_pending.size() : used);
    }
}

size_t TerminalKeyDecoder::decodeOne(std::vector<Keystroke>& keys, bool final) {
    const unsigned char first = static_cast<unsigned char>(m_pending[0]);
    if (first == kEscape) {
        return decodeEscape(keys, final);
    }
    if (first >= 0x80) {
        return decodeUtf8(keys, final);
    }
    if (first == 3 || first == 4) {
        keys.push_back({vk::Quit, 0, false, true, false});
    } else if (first == 0x7F || first == 8) {
        keys.push_back({vk::Backspace, 0, false, false, false});
    } else if (first == '\r' || first == '\n') {
        keys.push_back({vk::Enter, '\r', false, false, false});
    } else if (first == '\t') {
        keys.push_back({vk::Tab, 0, false, false, false});
    } else if (first >= 32) {
        keys.push_back(keystrokeForCharacter(static_cast<char>(first)));
    }  // other control bytes type nothing
    return 1;
}

// ESC [ params final, ESC O final, or ESC with one more key (Alt held).
size_t TerminalKeyDecoder::decodeEscape(std::vector<Keystroke>& keys, bool final) {
    if (m_pending.size() == 1) {
        if (final) {
            keys.push_back({vk::Escape, 0, false, false, false});
            return 1;
        }
        return 0;
    }
    const char introducer = m_pending[1];
    if (introducer != '[' && introducer != 'O') {
        // Alt with a key: decode the key alone and mark it.
        const std::string rest = m_pending.substr(1);
        std::vector<Keystroke> inner;
        TerminalKeyDecoder decoder;
        decoder.m_pending = rest;
        const size_t used = decoder.decodeOne(inner, final);
        if (used == 0) {
            return 0;
        }
        for (Keystroke& stroke : inner) {
            stroke.alt = true;
            keys.push_back(stroke);
        }
        return used + 1;
    }
    size_t end = 2;
    while (end < m_pending.size() &&
           (std::isdigit(static_cast<unsigned char>(m_pending[end])) || m_pending[end] == ';')) {
        ++end;
    }
    if (end >= m_pending.size()) {
        return final ? m_pending.size() : 0;  // cut short: dropped
    }
    const char last = m_pending[end];
    const std::string parameters = m_pending.substr(2, end - 2);
    const int number = parameters.empty() ? 0 : std::atoi(parameters.c_str());
    const size_t semicolon = parameters.find(';');
    const int modifier =
        semicolon == std::string::npos ? 1 : std::atoi(parameters.c_str() + semicolon + 1);
    if (last == 'Z') {
        keys.push_back({vk::Tab, 0, false, false, true});
    } else if (last == '~') {
        if (const int key = keyOfTildeNumber(number)) {
            keys.push_back(withModifiers(key, modifier));
        }
    } else if (const int key = keyOfFinalByte(last)) {
        keys.push_back(withModifiers(key, modifier));
    }
    return end + 1;
}

size_t TerminalKeyDecoder::decodeUtf8(std::vector<Keystroke>& keys, bool final) {
    const unsigned char first = static_cast<unsigned char>(m_pending[0]);
    const size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : first >= 0xC0 ? 2 : 1;
    if (m_pending.size() < length) {
        return final ? m_pending.size() : 0;
    }
    if (length == 2) {
        const unsigned code =
            ((first & 0x1Fu) << 6) | (static_cast<unsigned char>(m_pending[1]) & 0x3Fu);
        if (code == 0xA7) {  // '§', where the console key sits on Nordic keyboards
            keys.push_back({vk::Console, 0, false, false, false});
        } else if (code >= 0xA0 && code <= 0xFF) {
            keys.push_back(keystrokeForCharacter(static_cast<char>(code)));
        }
    }
    return length;
}

bool parseKeystrokeScript(const std::string& script, std::vector<Keystroke>& keys,
                          std::string& error) {
    size_t position = 0;
    int lineNumber = 1;
    bool lineStart = true;
    while (position < script.size()) {
        const char c = script[position];
        if (lineStart && c == '#') {
            const size_t lineEnd = script.find('\n', position);
            position = lineEnd == std::string::npos ? script.size() : lineEnd + 1;
            ++lineNumber;
            continue;
        }
        lineStart = false;
        if (c == '\\' && (position + 1 == script.size() || script[position + 1] == '\n')) {
            position += 2;  // the line goes on without Enter
            ++lineNumber;
            lineStart = true;
            continue;
        }
        if (c == '\n') {
            keys.push_back({vk::Enter, '\r', false, false, false});
            ++position;
            ++lineNumber;
            lineStart = true;
            continue;
        }
        if (c == '{' && position + 1 < script.size() && script[position + 1] == '{') {
            keys.push_back(keystrokeForCharacter('{'));
            position += 2;
            continue;
        }
        if (c != '{') {
            if (c != '\r') {
                keys.push_back(keystrokeForCharacter(c));
            }
            ++position;
            continue;
        }
        const size_t close = script.find('}', position);
        if (close == std::string::npos || script.find('\n', position) < close) {
            error =
                "line " + std::to_string(lineNumber) + ": \"{\" without \"}\" (type it as \"{{\")";
            return false;
        }
        std::string name = script.substr(position + 1, close - position - 1);
        Keystroke stroke;
        for (bool more = true; more;) {
            more = false;
            for (const char* prefix : {"Ctrl+", "Alt+", "Shift+"}) {
                if (name.rfind(prefix, 0) == 0) {
                    stroke.control |= prefix[0] == 'C';
                    stroke.alt |= prefix[0] == 'A';
                    stroke.shift |= prefix[0] == 'S';
                    name.erase(0, std::strlen(prefix));
                    more = true;
                }
            }
        }
        bool known = false;
        for (const NamedKey& named : kNamedKeys) {
            if (name == named.name) {
                stroke.key = named.key;
                stroke.character = named.character;
                known = true;
            }
        }
        if (!known) {
            error = "line " + std::to_string(lineNumber) + ": no key named \"" + name + "\"";
            return false;
        }
        keys.push_back(stroke);
        position = close + 1;
    }
    return true;
}

}  // namespace dmconsole
