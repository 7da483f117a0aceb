// Texts of the runtime. zu::String is the base type used in signatures; zu::InplaceString<N>
// keeps up to N-1 characters inline and moves to the heap when it grows beyond them, so a text
// is never truncated. Texts hold any byte but 0.
//
// Equality (==) is exact. Ordering (<) ignores letter case byte-wise, as _stricmp does: only
// 'A'-'Z' fold to 'a'-'z'. Maps keyed by zu strings therefore treat "Pipe" and "pipe" as one key.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "zu/export.h"

namespace zu {

// Byte-wise comparison ignoring ASCII letter case: <0, 0 or >0 like strcmp.
ZUL_API int stricmp(const char* a, const char* b);
// As stricmp over at most `count` bytes.
ZUL_API int strnicmp(const char* a, const char* b, size_t count);

class ZUL_API String {
public:
    static constexpr size_t npos = static_cast<size_t>(-1);

    String();
    String(const char* text);  // NOLINT: implicit on purpose, texts flow into String parameters
    String(const char* text, size_t length);
    String(const String& other);
    String(String&& other) noexcept;
    ~String();

    String& operator=(const String& other);
    String& operator=(String&& other) noexcept;
    String& operator=(const char* text);

    const char* c_str() const { return m_data; }
    size_t length() const { return m_length; }
    size_t size() const { return m_length; }
    bool empty() const { return m_length == 0; }
    // Characters it can hold without allocating.
    size_t capacity() const { return m_capacity; }
    // True while the characters live in the inline buffer of an InplaceString.
    bool isInline() const { return m_data == m_inline; }

    // Unchecked in release builds; index length() reads the terminating 0.
    char operator[](size_t index) const { return m_data[index]; }
    char& operator[](size_t index) { return m_data[index]; }
    const char* begin() const { return m_data; }
    const char* end() const { return m_data + m_length; }

    void clear();
    String& assign(const char* text, size_t length);
    String& assign(const char* text);
    String& append(const char* text, size_t length);
    String& append(const char* text);
    String& append(const String& text) { return append(text.c_str(), text.length()); }
    String& append(char c) { return append(&c, 1); }
    String& operator+=(const char* text) { return append(text); }
    String& operator+=(const String& text) { return append(text); }
    String& operator+=(char c) { return append(c); }

    // Inserts one byte before `position` (clamped to the length).
    void insert(size_t position, char c);
    // Removes up to `count` bytes from `position`; out-of-range parts are ignored.
    void erase(size_t position, size_t count = npos);
    // Cuts the text to at most `length` bytes.
    void truncate(size_t length);
    // Makes sure `length` characters fit without a further allocation.
    void reserve(size_t length);

    // Index of the first `c` (or `text`) at or after `from`, or -1.
    int find(char c, size_t from = 0) const;
    int find(const char* text, size_t from = 0) const;
    // Copy of up to `count` bytes from `position`.
    String substr(size_t position, size_t count = npos) const;

    // printf-style formatting; the result replaces / extends the text, never truncated.
    void format(const char* format, ...) ZU_PRINTF(2, 3);
    void appendFormat(const char* format, ...) ZU_PRINTF(2, 3);
    void formatV(const char* format, va_list args);
    void appendFormatV(const char* format, va_list args);

    void toLower();
    bool equalsIgnoreCase(const char* text) const;
    int compareIgnoreCase(const char* text) const { return stricmp(m_data, text); }
    bool startsWithIgnoreCase(const char* prefix) const;
    bool endsWith(char c) const { return m_length > 0 && m_data[m_length - 1] == c; }

protected:
    struct InlineBuffer {};
    // For InplaceString: `buffer` of `bufferSize` bytes, which holds bufferSize-1 characters.
    String(InlineBuffer, char* buffer, size_t bufferSize);
    void moveFrom(String& other);

private:
    void growTo(size_t length);
    void releaseHeap();

    char* m_data;
    char* m_inline;
    uint32_t m_length = 0;
    uint32_t m_capacity = 0;
    uint32_t m_inlineCapacity = 0;
};

ZUL_API bool operator==(const String& a, const String& b);
ZUL_API bool operator==(const String& a, const char* b);
inline bool operator==(const char* a, const String& b) {
    return b == a;
}
inline bool operator!=(const String& a, const String& b) {
    return !(a == b);
}
inline bool operator!=(const String& a, const char* b) {
    return !(a == b);
}
inline bool operator!=(const char* a, const String& b) {
    return !(b == a);
}
// Case-insensitive ordering (see the file comment).
inline bool operator<(const String& a, const String& b) {
    return stricmp(a.c_str(), b.c_str()) < 0;
}

// Case-insensitive "less" for ordered containers keyed by texts.
struct LessNoCase {
    bool operator()(const String& a, const String& b) const {
        return stricmp(a.c_str(), b.c_str()) < 0;
    }
};

template <size_t N>
class InplaceString : public String {
    static_assert(N >= 2, "an InplaceString needs room for one character and its terminator");

public:
    InplaceString() : String(InlineBuffer{}, m_buffer, N) {}
    InplaceString(const char* text) : String(InlineBuffer{}, m_buffer, N) {
        assign(text);
    }  // NOLINT
    InplaceString(const char* text, size_t length) : String(InlineBuffer{}, m_buffer, N) {
        assign(text, length);
    }
    InplaceString(const String& text) : String(InlineBuffer{}, m_buffer, N) {  // NOLINT
        assign(text.c_str(), text.length());
    }
    InplaceString(const InplaceString& other) : String(InlineBuffer{}, m_buffer, N) {
        assign(other.c_str(), other.length());
    }
    InplaceString(InplaceString&& other) noexcept : String(InlineBuffer{}, m_buffer, N) {
        moveFrom(other);
    }

    InplaceString& operator=(const InplaceString& other) {
        String::operator=(other);
        return *this;
    }
    InplaceString& operator=(InplaceString&& other) noexcept {
        String::operator=(static_cast<String&&>(other));
        return *this;
    }
    InplaceString& operator=(const String& other) {
        String::operator=(other);
        return *this;
    }
    InplaceString& operator=(const char* text) {
        String::operator=(text);
        return *this;
    }

private:
    char m_buffer[N];
};

// printf-style formatting into a new text.
ZUL_API InplaceString<256> str(const char* format, ...) ZU_PRINTF(1, 2);

}  // namespace zu
