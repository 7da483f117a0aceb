// zu::File, an open file on the current file system, and small file helpers.
#pragma once

#include <cstdint>

#include "zu/export.h"
#include "zu/file_system.h"
#include "zu/string.h"

namespace zu {

class ZUL_API File : public BaseFile {
public:
    using Time = FileTime;

    File() = default;
    // Opens `path`; throws FileException_FileOpenFailed when that fails.
    File(const char* path, Mode mode);
    ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    // Opens `path`, closing any file open before; false when it fails.
    bool open(const char* path, Mode mode);
    void close();
    bool isOpen() const { return m_handle != nullptr; }

    // Return the bytes moved; a short count means end of file or an error.
    uint64_t read(void* buffer, uint64_t count);
    uint64_t write(const void* buffer, uint64_t count);
    uint64_t seek(int64_t offset, SeekMode mode);
    uint64_t getPosition();
    uint64_t getSize();
    bool flush();
    const char* getPath() const { return m_path.c_str(); }

    // Folder for files that the game writes (caches, logs), ending in a separator.
    static const char* getFileSysPathForWrite();
    static void setFileSysPathForWrite(const char* path);
    // True when the game may not write files (for example on a read-only medium).
    static bool isFileSystemReadOnly();
    static void setFileSystemReadOnly(bool readOnly);
    // The file name of `path` without its folders.
    static InplaceString<256> stripPath(const char* path);

private:
    FileSystem* m_fileSystem = nullptr;
    FileHandle* m_handle = nullptr;
    InplaceString<256> m_path;
};

struct ZUL_API FileUtils {
    static bool fileExists(const char* path);
    static bool directoryExists(const char* path);
};

}  // namespace zu
