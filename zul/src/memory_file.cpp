#include "zu/memory_file.h"

#include <cstring>

#include "zu/exception.h"
#include "zu/memory.h"

#if !defined(_WIN32)
#include <unistd.h>
#endif

namespace zu {

namespace {

// The largest file load takes: half the machine's memory, so that a bogus size (a corrupt or
// remote file system may report anything) fails cleanly instead of exhausting memory.
uint64_t maxLoadSize() {
    uint64_t limit = static_cast<uint64_t>(SIZE_MAX) / 2;
#if !defined(_WIN32)
    long pages = sysconf(_SC_PHYS_PAGES);
    long pageSize = sysconf(_SC_PAGESIZE);
    if (pages > 0 && pageSize > 0) {
        uint64_t physical = static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize);
        if (physical / 2 < limit) {
            limit = physical / 2;
        }
    }
#endif
    return limit;
}

}  // namespace

bool BufferedMemoryFile::load(const char* path, FileSystem* fileSystem) {
    clear();
    FileSystem& source = fileSystem != nullptr ? *fileSystem : getFileSystem();
    FileHandle* file = path != nullptr ? source.openFile(path, BaseFile::ModeRead) : nullptr;
    if (file == nullptr) {
        return false;
    }
    bool loaded = load(source, file);
    source.closeFile(file);
    return loaded;
}

bool BufferedMemoryFile::load(FileSystem& fileSystem, FileHandle* file) {
    clear();
    if (file == nullptr) {
        return false;
    }
    uint64_t size = fileSystem.getFileSize(file);
    uint64_t position = fileSystem.getCurrentPosition(file);
    uint64_t remaining = position < size ? size - position : 0;
    if (remaining > maxLoadSize()) {
        return false;
    }
    try {
        reserve(remaining);
    } catch (const OutOfMemoryException&) {
        return false;
    }
    if (fileSystem.readFile(file, m_data.data(), remaining) != remaining) {
        clear();
        return false;
    }
    m_size = remaining;
    return true;
}

void BufferedMemoryFile::append(const void* data, uint64_t size) {
    if (size == 0 || data == nullptr) {
        return;
    }
    if (size > UINT64_MAX - m_size) {
        throw OutOfMemoryException("BufferedMemoryFile: appending %llu bytes overflows",
                                   static_cast<unsigned long long>(size));
    }
    uint64_t needed = m_size + size;
    const uint64_t capacity = m_data.size();
    if (needed > capacity) {
        // Doubling keeps a run of small appends linear.
        uint64_t doubled = capacity > UINT64_MAX / 2 ? UINT64_MAX : capacity * 2;
        reserve(needed > doubled ? needed : doubled);
    }
    std::memcpy(m_data.data() + m_size, data, static_cast<size_t>(size));
    m_size = needed;
}

void BufferedMemoryFile::clear() {
    m_data.reset();
    m_size = 0;
    m_position = 0;
}

uint64_t BufferedMemoryFile::read(void* buffer, uint64_t count) {
    uint64_t available = m_size - m_position;
    uint64_t taken = count < available ? count : available;
    if (taken == 0 || buffer == nullptr) {
        return 0;
    }
    std::memcpy(buffer, m_data.data() + m_position, static_cast<size_t>(taken));
    m_position += taken;
    return taken;
}

// Grows the buffer to hold `size` bytes, keeping its contents; throws OutOfMemoryException.
void BufferedMemoryFile::reserve(uint64_t size) {
    if (size <= m_data.size()) {
        return;
    }
    if (size > static_cast<uint64_t>(SIZE_MAX)) {
        throw OutOfMemoryException("BufferedMemoryFile: %llu bytes do not fit in memory",
                                   static_cast<unsigned long long>(size));
    }
    Buffer grown(static_cast<size_t>(size));
    if (m_size > 0) {
        std::memcpy(grown.data(), m_data.data(), static_cast<size_t>(m_size));
    }
    m_data = std::move(grown);
}

}  // namespace zu
