// The console tokenizer: cuts command lines, printed lines and lines to be coloured into words.
// Character classes are decided per byte (Latin-1).
#include "dm/console.h"

namespace dm {

namespace {

// The bytes of a text with its length, so that scanning never reads past the end.
struct Bytes {
    explicit Bytes(const zu::String& text)
        : data(reinterpret_cast<const unsigned char*>(text.c_str())),
          length(static_cast<int>(text.length())) {}

    bool contains(int position) const { return position >= 0 && position < length; }
    unsigned char operator[](int position) const { return data[position]; }

    const unsigned char* data;
    int length;
};

// Form feed (12) is deliberately not white space.
bool isWhitespace(unsigned char c) {
    return c == 0 || c == '\t' || c == '\n' || c == '\v' || c == '\r' || c == ' ';
}

bool isDigit(unsigned char c) {
    return c >= '0' && c <= '9';
}

// ASCII letters, '_' and the six Latin-1 letters of the Nordic alphabets; no other byte above
// 127 counts.
bool isLetter(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || c == 0xC4 || c == 0xC5 ||
           c == 0xD6 || c == 0xE4 || c == 0xE5 || c == 0xF6;
}

bool isIdentifierCharacter(unsigned char c) {
    return isLetter(c) || isDigit(c);
}

bool isSign(unsigned char c) {
    return c == '+' || c == '-';
}

bool isFloatCharacter(unsigned char c) {
    return isDigit(c) || c == '.' || c == 'e' || c == 'E' || c == 'f' || c == 'F';
}

// Upper-case 'A'-'F' are deliberately not hex digits.
bool isHexCharacter(unsigned char c) {
    return isDigit(c) || (c >= 'a' && c <= 'f') || c == 'x' || c == 'X';
}

template <typename Predicate>
int runLength(const Bytes& text, int position, Predicate inClass) {
    int end = position;
    while (end < text.length && inClass(text[end])) {
        ++end;
    }
    return end - position;
}

// A number is a word of its own only in front of white space or at the end of the text.
bool endsNumber(const Bytes& text, int end) {
    return end >= text.length || isWhitespace(text[end]);
}

// An optional sign and a run of `inClass` bytes, ended properly; -1 otherwise.
template <typename Predicate>
int scanSignedRun(const Bytes& text, int position, Predicate inClass) {
    if (!text.contains(position)) {
        return -1;
    }
    const bool hasSign = isSign(text[position]);
    const int signLength = hasSign ? 1 : 0;
    const int length = signLength + runLength(text, position + signLength, inClass);
    if (length == 0 || (hasSign && length < 2)) {
        return -1;
    }
    return endsNumber(text, position + length) ? length : -1;
}

template <typename Predicate>
int scanRun(const zu::String& string, int position, Predicate inClass) {
    const Bytes text(string);
    if (!text.contains(position)) {
        return -1;
    }
    const int length = runLength(text, position, inClass);
    return length > 0 ? length : -1;
}

// Where the last run of float characters that failed as a number ends. Every later start inside
// that run reaches the same end and fails the same way, so it is not scanned again: without this,
// "1.1.1.1...x" would be scanned to its end from every digit, in quadratic time.
struct FailedFloatRun {
    int end = -1;

    bool covers(int position) const { return position < end; }
};

int scanNumber(const zu::String& string, const Bytes& text, int position,
               FailedFloatRun& failedFloat) {
    int length = scanInteger(string, position);
    if (length < 0 && !failedFloat.covers(position)) {
        length = scanFloat(string, position);
        if (length < 0) {
            const int digits = position + (isSign(text[position]) ? 1 : 0);
            failedFloat.end = digits + runLength(text, digits, isFloatCharacter);
        }
    }
    if (length < 0) {
        length = scanHex(string, position);
    }
    return length;
}

// Length of the word that starts at `position` (always at least 1).
int wordLength(const zu::String& string, const Bytes& text, int position,
               FailedFloatRun& failedFloat) {
    const unsigned char c = text[position];
    if (isWhitespace(c)) {
        return runLength(text, position, isWhitespace);
    }
    if (c == '"') {
        const int quoted = scanQuoted(string, position);
        return quoted > 0 ? quoted : 1;  // an unclosed quote is a word of its own
    }
    if (isSign(c) || isDigit(c)) {
        const int number = scanNumber(string, text, position, failedFloat);
        if (number > 0) {
            return number;
        }
    }
    if (isIdentifierCharacter(c)) {
        return runLength(text, position, isIdentifierCharacter);
    }
    return 1;
}

}  // namespace

int scanWhitespace(const zu::String& text, int position) {
    return scanRun(text, position, isWhitespace);
}

int scanIdentifier(const zu::String& text, int position) {
    return scanRun(text, position, isIdentifierCharacter);
}

int scanInteger(const zu::String& text, int position) {
    return scanSignedRun(Bytes(text), position, isDigit);
}

int scanFloat(const zu::String& text, int position) {
    return scanSignedRun(Bytes(text), position, isFloatCharacter);
}

int scanHex(const zu::String& string, int position) {
    const Bytes text(string);
    // The whole text's length counts here, not what is left behind `position`.
    if (text.length < 3 || !text.contains(position) || !text.contains(position + 1)) {
        return -1;
    }
    if (text[position] != '0' || (text[position + 1] != 'x' && text[position + 1] != 'X')) {
        return -1;
    }
    const int length = 2 + runLength(text, position + 2, isHexCharacter);
    return endsNumber(text, position + length) ? length : -1;
}

int scanQuoted(const zu::String& string, int position) {
    const Bytes text(string);
    if (!text.contains(position) || text[position] != '"') {
        return -1;
    }
    for (int end = position + 1; end < text.length; ++end) {
        if (text[end] == '"') {
            return end - position + 1;
        }
    }
    return -1;
}

void tokenizeLine(ConsoleWordList& words, const zu::String& string) {
    const Bytes text(string);
    FailedFloatRun failedFloat;
    for (int position = 0; position < text.length;) {
        const int length = wordLength(string, text, position, failedFloat);
        words.emplace_back(string.c_str() + position, static_cast<size_t>(length));
        position += length;
    }
}

}  // namespace dm
