#include "zu/string.h"

#include <cstdio>
#include <cstring>

#include "zu/memory.h"

namespace zu {

namespace {

char g_emptyText[1] = {0};

inline unsigned char foldCase(unsigned char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c + ('a' - 'A')) : c;
}

}  // namespace

int stricmp(const char* a, const char* b) {
    const unsigned char* x = reinterpret_cast<const unsigned char*>(a);
    const unsigned char* y = reinterpret_cast<const unsigned char*>(b);
    for (;; ++x, ++y) {
        if (*x == *y) {  // most compared names match byte for byte: no folding for those
            if (*x == 0) {
                return 0;
            }
            continue;
        }
        int difference = foldCase(*x) - foldCase(*y);
        if (difference != 0) {
            return difference;
        }
    }
}

int strnicmp(const char* a, const char* b, size_t count) {
    const unsigned char* x = reinterpret_cast<const unsigned char*>(a);
    const unsigned char* y = reinterpret_cast<const unsigned char*>(b);
    for (; count > 0; --count, ++x, ++y) {
        int difference = foldCase(*x) - foldCase(*y);
        if (difference != 0 || *x == 0) {
            return difference;
        }
    }
    return 0;
}

String::String() : m_data(g_emptyText), m_inline(nullptr) {}

String::String(InlineBuffer, char* buffer, size_t bufferSize)
    : m_data(buffer),
      m_inline(buffer),
      m_capacity(static_cast<uint32_t>(bufferSize - 1)),
      m_inlineCapacity(static_cast<uint32_t>(bufferSize - 1)) {
    buffer[0] = 0;
}

String::String(const char* text) : String() {
    assign(text);
}

String::String(const char* text, size_t length) : String() {
    assign(text, length);
}

String::String(const String& other) : String() {
    assign(other.m_data, other.m_length);
}

String::String(String&& other) noexcept : String() {
    moveFrom(other);
}

String::~String() {
    releaseHeap();
}

String& String::operator=(const String& other) {
    if (this != &other) {
        assign(other.m_data, other.m_length);
    }
    return *this;
}

String& String::operator=(String&& other) noexcept {
    if (this != &other) {
        moveFrom(other);
    }
    return *this;
}

String& String::operator=(const char* text) {
    return assign(text);
}

void String::moveFrom(String& other) {
    if (other.isInline() || other.m_data == g_emptyText) {
        assign(other.m_data, other.m_length);
        other.clear();
        return;
    }
    // Take over the other's heap block; it falls back to its own (inline or empty) storage.
    releaseHeap();
    m_data = other.m_data;
    m_length = other.m_length;
    m_capacity = other.m_capacity;
    if (other.m_inline) {
        other.m_data = other.m_inline;
        other.m_capacity = other.m_inlineCapacity;
        other.m_data[0] = 0;
    } else {
        other.m_data = g_emptyText;
        other.m_capacity = 0;
    }
    other.m_length = 0;
}

void String::releaseHeap() {
    if (m_data != m_inline && m_data != g_emptyText) {
        deleteMemory(m_data);
    }
}

void String::growTo(size_t length) {
    if (length <= m_capacity) {
        return;
    }
    size_t capacity = m_capacity + m_capacity / 2;
    if (capacity < length) {
        capacity = length;
    }
    if (capacity < 15) {
        capacity = 15;
    }
    char* data = static_cast<char*>(allocateMemory(capacity + 1));
    std::memcpy(data, m_data, m_length + 1);
    releaseHeap();
    m_data = data;
    m_capacity = static_cast<uint32_t>(capacity);
}

void String::reserve(size_t length) {
    growTo(length);
}

void String::clear() {
    m_length = 0;
    if (m_data != g_emptyText) {
        m_data[0] = 0;
    }
}

String& String::assign(const char* text, size_t length) {
    if (text >= m_data && text <= m_data + m_length) {
        // Assigning a part of this very text: move it down in place.
        std::memmove(m_data, text, length);
        m_length = static_cast<uint32_t>(length);
        if (m_data != g_emptyText) {
            m_data[length] = 0;
        }
        return *this;
    }
    m_length = 0;
    if (m_data != g_emptyText) {
        m_data[0] = 0;
    }
    return append(text, length);
}

String& String::assign(const char* text) {
    return assign(text ? text : "", text ? std::strlen(text) : 0);
}

String& String::append(const char* text, size_t length) {
    if (length == 0) {
        return *this;
    }
    if (m_length + length > m_capacity) {
        if (text >= m_data && text < m_data + m_length) {
            String copy(text, length);
            return append(copy.m_data, copy.m_length);
        }
        growTo(m_length + length);
    }
    std::memcpy(m_data + m_length, text, length);
    m_length += static_cast<uint32_t>(length);
    m_data[m_length] = 0;
    return *this;
}

String& String::append(const char* text) {
    return text ? append(text, std::strlen(text)) : *this;
}

void String::insert(size_t position, char c) {
    if (position > m_length) {
        position = m_length;
    }
    growTo(m_length + 1);
    std::memmove(m_data + position + 1, m_data + position, m_length - position + 1);
    m_data[position] = c;
    ++m_length;
}

void String::erase(size_t position, size_t count) {
    if (position >= m_length) {
        return;
    }
    if (count > m_length - position) {
        count = m_length - position;
    }
    std::memmove(m_data + position, m_data + position + count, m_length - position - count + 1);
    m_length -= static_cast<uint32_t>(count);
}

void String::truncate(size_t length) {
    if (length < m_length) {
        m_length = static_cast<uint32_t>(length);
        m_data[length] = 0;
    }
}

int String::find(char c, size_t from) const {
    for (size_t i = from; i < m_length; ++i) {
        if (m_data[i] == c) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

int String::find(const char* text, size_t from) const {
    if (from > m_length || text == nullptr) {
        return -1;
    }
    const char* found = std::strstr(m_data + from, text);
    return found ? static_cast<int>(found - m_data) : -1;
}

String String::substr(size_t position, size_t count) const {
    if (position >= m_length) {
        return String();
    }
    if (count > m_length - position) {
        count = m_length - position;
    }
    return String(m_data + position, count);
}

void String::formatV(const char* format, va_list args) {
    clear();
    appendFormatV(format, args);
}

void String::appendFormatV(const char* format, va_list args) {
    va_list measure;
    va_copy(measure, args);
    int needed = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (needed <= 0) {
        return;
    }
    growTo(m_length + static_cast<size_t>(needed));
    std::vsnprintf(m_data + m_length, static_cast<size_t>(needed) + 1, format, args);
    m_length += static_cast<uint32_t>(needed);
}

void String::format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    formatV(format, args);
    va_end(args);
}

void String::appendFormat(const char* format, ...) {
    va_list args;
    va_start(args, format);
    appendFormatV(format, args);
    va_end(args);
}

void String::toLower() {
    for (uint32_t i = 0; i < m_length; ++i) {
        m_data[i] = static_cast<char>(foldCase(static_cast<unsigned char>(m_data[i])));
    }
}

bool String::equalsIgnoreCase(const char* text) const {
    return stricmp(m_data, text ? text : "") == 0;
}

bool String::startsWithIgnoreCase(const char* prefix) const {
    size_t length = std::strlen(prefix);
    return length <= m_length && strnicmp(m_data, prefix, length) == 0;
}

bool operator==(const String& a, const String& b) {
    return a.length() == b.length() && std::memcmp(a.c_str(), b.c_str(), a.length()) == 0;
}

bool operator==(const String& a, const char* b) {
    return std::strcmp(a.c_str(), b ? b : "") == 0;
}

InplaceString<256> str(const char* format, ...) {
    InplaceString<256> result;
    va_list args;
    va_start(args, format);
    result.formatV(format, args);
    va_end(args);
    return result;
}

}  // namespace zu
