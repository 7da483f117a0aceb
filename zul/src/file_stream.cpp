#include "zu/file_stream.h"

#include <cstring>
#include <utility>

namespace zu {

namespace {

constexpr size_t kTextChunkSize = 4096;

void encodeLittleEndian(uint32_t value, unsigned char (&bytes)[4]) {
    bytes[0] = static_cast<unsigned char>(value);
    bytes[1] = static_cast<unsigned char>(value >> 8);
    bytes[2] = static_cast<unsigned char>(value >> 16);
    bytes[3] = static_cast<unsigned char>(value >> 24);
}

uint32_t decodeLittleEndian(const unsigned char (&bytes)[4]) {
    return static_cast<uint32_t>(bytes[0]) | (static_cast<uint32_t>(bytes[1]) << 8) |
           (static_cast<uint32_t>(bytes[2]) << 16) | (static_cast<uint32_t>(bytes[3]) << 24);
}

}  // namespace

FileStream& FileStream::operator<<(int value) {
    return *this << static_cast<unsigned int>(value);
}

FileStream& FileStream::operator<<(unsigned int value) {
    unsigned char bytes[4];
    encodeLittleEndian(static_cast<uint32_t>(value), bytes);
    writeBytes(bytes, sizeof(bytes));
    return *this;
}

FileStream& FileStream::operator<<(const String& text) {
    if (text.length() > kMaxTextLength) {
        throw FileException_WriteFailed(
            "FileStream: text of %zu bytes for \"%s\" is longer than the limit of %u bytes",
            text.length(), m_file.getPath(), kMaxTextLength);
    }
    *this << static_cast<unsigned int>(text.length());
    writeBytes(text.c_str(), static_cast<uint32_t>(text.length()));
    return *this;
}

FileStream& FileStream::operator<<(const char* text) {
    return *this << String(text != nullptr ? text : "");
}

FileStream& FileStream::operator>>(int& value) {
    unsigned int raw = 0;
    *this >> raw;
    value = static_cast<int>(raw);
    return *this;
}

FileStream& FileStream::operator>>(unsigned int& value) {
    unsigned char bytes[4];
    readBytes(bytes, sizeof(bytes));
    value = decodeLittleEndian(bytes);
    return *this;
}

// The length is checked against the limit and the rest of the file before anything is
// allocated, so a corrupt length costs nothing.
FileStream& FileStream::operator>>(String& text) {
    unsigned int length = 0;
    *this >> length;
    uint64_t remaining = getRemaining();
    if (length > kMaxTextLength) {
        throw FileException_ReadFailed(
            "FileStream: text length %u in \"%s\" is over the limit of %u bytes", length,
            m_file.getPath(), kMaxTextLength);
    }
    if (length > remaining) {
        throw FileException_ReadFailed(
            "FileStream: text length %u in \"%s\" is more than the %llu bytes left", length,
            m_file.getPath(), static_cast<unsigned long long>(remaining));
    }
    String read;
    read.reserve(length);
    char chunk[kTextChunkSize];
    for (uint32_t left = length; left > 0;) {
        uint32_t size = left < kTextChunkSize ? left : static_cast<uint32_t>(kTextChunkSize);
        readBytes(chunk, size);
        if (std::memchr(chunk, 0, size) != nullptr) {
            throw FileException_ReadFailed("FileStream: text in \"%s\" holds a 0 byte",
                                           m_file.getPath());
        }
        read.append(chunk, size);
        left -= size;
    }
    text = std::move(read);
    return *this;
}

uint64_t FileStream::getRemaining() {
    uint64_t size = m_file.getSize();
    uint64_t position = m_file.getPosition();
    return position < size ? size - position : 0;
}

void FileStream::writeBytes(const void* data, uint32_t size) {
    uint64_t written = m_file.write(data, size);
    if (written != size) {
        throw FileException_WriteFailed("FileStream: wrote %llu of %u bytes to \"%s\"",
                                        static_cast<unsigned long long>(written), size,
                                        m_file.getPath());
    }
}

void FileStream::readBytes(void* data, uint32_t size) {
    uint64_t read = m_file.read(data, size);
    if (read != size) {
        throw FileException_ReadFailed("FileStream: read past the end of \"%s\" (%llu of %u bytes)",
                                       m_file.getPath(), static_cast<unsigned long long>(read),
                                       size);
    }
}

}  // namespace zu
