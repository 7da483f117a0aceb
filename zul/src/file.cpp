#include "zu/file.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "zu/exception.h"
#include "zu/memory.h"
#include "zu/mutex.h"
#include "zu/vector.h"

namespace zu {

namespace {

bool isSeparator(char c) {
    return c == '/' || c == '\\';
}

// The folder for written files. getFileSysPathForWrite hands out a plain pointer that callers
// keep, so every text ever set stays alive (each distinct one is stored once): a pointer from
// before a change still reads a whole, valid path.
class WritePathStore {
public:
    WritePathStore() {
        const char* fromEnvironment = std::getenv("DM_WRITE_PATH");
        set(fromEnvironment);
    }

    const char* get() const { return m_current.load(std::memory_order_acquire); }

    void set(const char* path) {
        InplaceString<256> folder(path != nullptr && path[0] != 0 ? path : "./");
        if (!isSeparator(folder[folder.length() - 1])) {
            folder.append('/');
        }
        ScopedLock lock(m_mutex);
        m_current.store(intern(folder), std::memory_order_release);
    }

private:
    const char* intern(const String& folder) ZU_REQUIRES(m_mutex) {
        for (const UniquePtr<String>& known : m_paths) {
            if (*known == folder) {
                return known->c_str();
            }
        }
        // Each text has a place of its own, so growing the list moves none of them.
        m_paths.push_back(makeUnique<String>(folder));
        return m_paths.back()->c_str();
    }

    Mutex m_mutex;
    Vector<UniquePtr<String>> m_paths ZU_GUARDED_BY(m_mutex);
    std::atomic<const char*> m_current{nullptr};
};

WritePathStore& writePaths() {
    // Never destroyed: pointers from get() may be used until the process ends.
    static WritePathStore* const s_store = newObject<WritePathStore>();
    return *s_store;
}

std::atomic<bool> g_fileSystemReadOnly{false};

}  // namespace

File::File(const char* path, Mode mode) {
    if (!open(path, mode)) {
        throw FileException_FileOpenFailed("File: cannot open \"%s\" (mode %u)",
                                           path != nullptr ? path : "",
                                           static_cast<unsigned>(mode));
    }
}

File::~File() {
    close();
}

bool File::open(const char* path, Mode mode) {
    close();
    if (path == nullptr) {
        return false;
    }
    // The handle belongs to the file system that opened it, even if another is installed later.
    FileSystem& fileSystem = getFileSystem();
    m_handle = fileSystem.openFile(path, mode);
    if (m_handle == nullptr) {
        return false;
    }
    m_fileSystem = &fileSystem;
    m_path = path;
    return true;
}

void File::close() {
    if (m_handle != nullptr) {
        m_fileSystem->closeFile(m_handle);
        m_handle = nullptr;
        m_fileSystem = nullptr;
    }
    m_path.clear();
}

uint64_t File::read(void* buffer, uint64_t count) {
    return m_handle != nullptr ? m_fileSystem->readFile(m_handle, buffer, count) : 0;
}

uint64_t File::write(const void* buffer, uint64_t count) {
    return m_handle != nullptr ? m_fileSystem->writeFile(m_handle, buffer, count) : 0;
}

uint64_t File::seek(int64_t offset, SeekMode mode) {
    return m_handle != nullptr ? m_fileSystem->seekFile(m_handle, offset, mode) : 0;
}

uint64_t File::getPosition() {
    return m_handle != nullptr ? m_fileSystem->getCurrentPosition(m_handle) : 0;
}

uint64_t File::getSize() {
    return m_handle != nullptr ? m_fileSystem->getFileSize(m_handle) : 0;
}

bool File::flush() {
    return m_handle != nullptr && m_fileSystem->flushFileBuffers(m_handle);
}

const char* File::getFileSysPathForWrite() {
    return writePaths().get();
}

void File::setFileSysPathForWrite(const char* path) {
    writePaths().set(path);
}

bool File::isFileSystemReadOnly() {
    return g_fileSystemReadOnly.load(std::memory_order_acquire);
}

void File::setFileSystemReadOnly(bool readOnly) {
    g_fileSystemReadOnly.store(readOnly, std::memory_order_release);
}

InplaceString<256> File::stripPath(const char* path) {
    if (path == nullptr) {
        return InplaceString<256>();
    }
    const char* name = path;
    for (const char* c = path; *c != 0; ++c) {
        if (isSeparator(*c)) {
            name = c + 1;
        }
    }
    return InplaceString<256>(name);
}

bool FileUtils::fileExists(const char* path) {
    return path != nullptr && getFileSystem().fileExists(path);
}

bool FileUtils::directoryExists(const char* path) {
    return path != nullptr && getFileSystem().directoryExists(path);
}

}  // namespace zu
