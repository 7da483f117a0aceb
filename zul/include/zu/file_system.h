// The file-system interface of the runtime and its process-wide current instance.
//
// Paths use '/' or '\\' as separators. Find patterns are a folder and a file pattern with '*'
// and '?' wildcards ("data/levels/*.lvl"); find results are bare names, without "." and "..".
// Name matching is case-sensitive on POSIX; the pattern "*.*" matches every name, as it does on
// Windows. File times are 64-bit counts of 100-nanosecond intervals since 1601-01-01 UTC, so
// tools on Windows read them as FILETIME values. Operations report failure with false, null
// or 0; they do not throw.
#pragma once

#include <cstdint>
#include "zu/export.h"
#include "zu/fast_delegate.h"
#include "zu/string.h"
#include "zu/vector.h"

namespace zu {

struct BaseFile {
    enum Mode : uint32_t {
        ModeRead = 0,       // existing file, reading
        ModeReadWrite = 1,  // existing file, reading and writing
        ModeWrite = 2,      // new empty file (an existing one is emptied), writing
        ModeAppend = 3,     // file created when missing, writing at its end
    };
    enum SeekMode : uint32_t {
        SeekCurrent = 0,  // from the current position
        SeekBegin = 1,    // from the start
        SeekEnd = 2,      // back from the end: position = size - offset
    };
};

struct FileTime {
    uint32_t low = 0;
    uint32_t high = 0;

    uint64_t value() const { return (static_cast<uint64_t>(high) << 32) | low; }
    static FileTime fromValue(uint64_t value) {
        return {static_cast<uint32_t>(value), static_cast<uint32_t>(value >> 32)};
    }
};

// An open file of some FileSystem; only that file system knows what is inside.
class ZUL_API FileHandle {
public:
    virtual ~FileHandle();
};

// An ongoing find of some FileSystem, positioned at one entry.
class ZUL_API FindFileHandle {
public:
    virtual ~FindFileHandle();
};

using FilePathList = Vector<InplaceString<256>, HeapAllocator>;
// Decides whether a found file is taken: (file name, full path) -> take it.
using FileAcceptDelegate = fastdelegate::FastDelegate2<const char*, const char*, bool>;

class ZUL_API FileSystem {
public:
    virtual ~FileSystem();

    // Null when the file cannot be opened in that mode.
    virtual FileHandle* openFile(const char* path, BaseFile::Mode mode) = 0;
    // Closes and frees the handle.
    virtual bool closeFile(FileHandle* file) = 0;
    virtual bool fileExists(const char* path) = 0;
    virtual bool directoryExists(const char* path) = 0;
    virtual bool isFileReadOnly(const char* path) = 0;
    virtual bool deleteFile(const char* path) = 0;
    virtual bool createDirectory(const char* path) = 0;
    // Removes an empty folder.
    virtual bool deleteDirectory(const char* path) = 0;
    virtual bool moveFile(const char* from, const char* to, bool overwrite) = 0;
    virtual bool copyFile(const char* from, const char* to) = 0;
    virtual uint64_t getCurrentPosition(FileHandle* file) = 0;
    // Returns the new position.
    virtual uint64_t seekFile(FileHandle* file, int64_t offset, BaseFile::SeekMode mode) = 0;
    virtual uint64_t getFileSize(FileHandle* file) = 0;
    // Returns the bytes read.
    virtual uint64_t readFile(FileHandle* file, void* buffer, uint64_t count) = 0;
    // Reads `count` bytes at `offset` without moving the position. Returns the bytes read.
    // The base reads synchronously through seekFile and readFile.
    virtual uint64_t readFileAsync(FileHandle* file, void* buffer, uint64_t count, uint64_t offset);
    // Returns the bytes written.
    virtual uint64_t writeFile(FileHandle* file, const void* buffer, uint64_t count) = 0;
    virtual bool flushFileBuffers(FileHandle* file) = 0;
    // Last write time.
    virtual FileTime getFileTime(FileHandle* file) = 0;
    virtual bool setFileTime(FileHandle* file, const FileTime& creation,
                             const FileTime& lastWrite) = 0;
    virtual bool getFileAttributes(const char* path, uint64_t& size, uint64_t& time) = 0;
    virtual bool getDiskSpaceInfo(const char* path, uint64_t& freeBytes, uint64_t& totalBytes) = 0;
    // Appends the names of the folders directly inside `path`. The base walks the find calls.
    virtual void findSubfolders(FilePathList& out, const char* path);
    // Null when nothing matches; else positioned at the first match.
    virtual FindFileHandle* findFirstFile(const char* pattern) = 0;
    // The same handle at the next match, or null at the end (the handle is then freed).
    virtual FindFileHandle* findNextFile(FindFileHandle* find) = 0;
    // Frees a find handle still open; null is allowed.
    virtual void findClose(FindFileHandle* find) = 0;
    virtual const char* findGetFileName(FindFileHandle* find) = 0;
    virtual uint64_t findGetFileSize(FindFileHandle* find) = 0;
    virtual uint64_t findGetFileTime(FindFileHandle* find) = 0;
    virtual bool findIsDirectory(FindFileHandle* find) = 0;
    // A key that orders files by where they lie on the medium; 0 when unknown.
    virtual uint64_t getFileSortKey(FileHandle* file) = 0;

    // Lists the files below `path` whose names match `filter` ("*" when null), taking those that
    // `accept` takes (all when it is empty), down into subfolders when `recursive`. `out` is
    // emptied first and receives full paths: `path`, a '/' unless `path` is empty or already
    // ends in a separator, then the path below it. Folders themselves are not listed. Goes
    // through findFilesInternal.
    void listFiles(FilePathList& out, const char* path, const char* filter,
                   FileAcceptDelegate& accept, bool recursive);

    // How many folder levels below its start a recursive listing goes at most.
    static constexpr int kMaxFindDepth = 64;

protected:
    // The walk of listFiles over this object's own find calls; appends to `out`. Each folder is
    // read once with the pattern "*"; names are matched against `filter` here. The walk stops
    // at kMaxFindDepth levels below `path`, so a folder that links to its parent ends.
    void findFiles(FilePathList& out, const char* path, const char* filter,
                   FileAcceptDelegate& accept, bool recursive);

private:
    // What listFiles does; the base runs findFiles.
    virtual void findFilesInternal(FilePathList& out, const char* path, const char* filter,
                                   FileAcceptDelegate& accept, bool recursive);
};

// True when `name` matches `pattern`: '*' stands for any run of characters, '?' for exactly
// one, everything else for itself (case-sensitive). "*.*" matches every name.
ZUL_API bool matchesWildcard(const char* name, const char* pattern);

// The file system of this machine.
ZUL_API FileSystem& getLocalFileSystem();
// The file system that zu::File and friends use: the local one unless another was installed.
ZUL_API FileSystem& getFileSystem();
// Installs `fileSystem` (not owned) as the current one; null puts the local one back.
ZUL_API void setFileSystem(FileSystem* fileSystem);

}  // namespace zu
