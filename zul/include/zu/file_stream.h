// zu::FileStream: typed values to and from an open zu::File, in a fixed little-endian
// encoding (docs/file-stream.md):
//   int, unsigned int: 4 bytes, little-endian;
//   text: its byte length as 4 bytes, then the bytes, no terminator.
// Reading past the end, or a text longer than what is left of the file or than
// kMaxTextLength, throws FileException_ReadFailed; nothing is allocated for a bad length, and the
// target of a failed read keeps its value. A text read with a 0 byte inside is malformed and
// throws too.
#pragma once

#include <cstdint>

#include "zu/exception.h"
#include "zu/export.h"
#include "zu/file.h"
#include "zu/string.h"

namespace zu {

class ZUL_API FileStream {
public:
    static constexpr uint32_t kMaxTextLength = 1024 * 1024;

    explicit FileStream(File& file) : m_file(file) {}
    FileStream(const FileStream&) = delete;
    FileStream& operator=(const FileStream&) = delete;

    // Writes throw FileException_WriteFailed when the file takes fewer bytes than given, and for
    // a text longer than kMaxTextLength (it could not be read back). A null text writes as "".
    FileStream& operator<<(int value);
    FileStream& operator<<(unsigned int value);
    FileStream& operator<<(const String& text);
    FileStream& operator<<(const char* text);

    FileStream& operator>>(int& value);
    FileStream& operator>>(unsigned int& value);
    FileStream& operator>>(String& text);

    // Bytes from the current position to the end of the file.
    uint64_t getRemaining();

private:
    void writeBytes(const void* data, uint32_t size);
    void readBytes(void* data, uint32_t size);

    File& m_file;
};

}  // namespace zu
