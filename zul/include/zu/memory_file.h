// zu::BufferedMemoryFile: a file held in memory, loaded whole from the current file system.
#pragma once

#include <cstdint>

#include "zu/buffer.h"
#include "zu/export.h"
#include "zu/file_system.h"

namespace zu {

class ZUL_API BufferedMemoryFile {
public:
    BufferedMemoryFile() = default;
    ~BufferedMemoryFile() = default;
    BufferedMemoryFile(const BufferedMemoryFile&) = delete;
    BufferedMemoryFile& operator=(const BufferedMemoryFile&) = delete;

    // Reads the whole file at `path` through `fileSystem` (the current one when null).
    // False when it cannot be opened or read; the buffer is then empty.
    bool load(const char* path, FileSystem* fileSystem = nullptr);
    // Reads the rest of an open file from its current position.
    bool load(FileSystem& fileSystem, FileHandle* file);

    // Appends bytes at the end.
    void append(const void* data, uint64_t size);
    void clear();

    const uint8_t* getData() const { return m_data.data(); }
    uint64_t getSize() const { return m_size; }

    // Reading cursor over the buffer.
    uint64_t read(void* buffer, uint64_t count);
    uint64_t getPosition() const { return m_position; }
    void setPosition(uint64_t position) { m_position = position < m_size ? position : m_size; }

private:
    void reserve(uint64_t size);

    Buffer m_data;  // its size is the capacity
    uint64_t m_size = 0;
    uint64_t m_position = 0;
};

}  // namespace zu
