// The local file system behind a wrapper whose operations a test overrides one by one, to
// play a disk that fills up or a remote side that lies.
#pragma once

#include "zu/file_system.h"

namespace dmtest {

class ForwardingFileSystem : public zu::FileSystem {
public:
    using Handle = zu::FileHandle*;
    using Find = zu::FindFileHandle*;

    Handle openFile(const char* path, zu::BaseFile::Mode mode) override {
        return local.openFile(path, mode);
    }
    bool closeFile(Handle file) override { return local.closeFile(file); }
    bool fileExists(const char* path) override { return local.fileExists(path); }
    bool directoryExists(const char* path) override { return local.directoryExists(path); }
    bool isFileReadOnly(const char* path) override { return local.isFileReadOnly(path); }
    bool deleteFile(const char* path) override { return local.deleteFile(path); }
    bool createDirectory(const char* path) override { return local.createDirectory(path); }
    bool deleteDirectory(const char* path) override { return local.deleteDirectory(path); }
    bool moveFile(const char* from, const char* to, bool overwrite) override {
        return local.moveFile(from, to, overwrite);
    }
    bool copyFile(const char* from, const char* to) override { return local.copyFile(from, to); }
    uint64_t getCurrentPosition(Handle file) override { return local.getCurrentPosition(file); }
    uint64_t seekFile(Handle file, int64_t offset, zu::BaseFile::SeekMode mode) override {
        return local.seekFile(file, offset, mode);
    }
    uint64_t getFileSize(Handle file) override { return local.getFileSize(file); }
    uint64_t readFile(Handle file, void* buffer, uint64_t count) override {
        return local.readFile(file, buffer, count);
    }
    uint64_t writeFile(Handle file, const void* buffer, uint64_t count) override {
        return local.writeFile(file, buffer, count);
    }
    bool flushFileBuffers(Handle file) override { return local.flushFileBuffers(file); }
    zu::FileTime getFileTime(Handle file) override { return local.getFileTime(file); }
    bool setFileTime(Handle file, const zu::FileTime& created,
                     const zu::FileTime& written) override {
        return local.setFileTime(file, created, written);
    }
    bool getFileAttributes(const char* path, uint64_t& size, uint64_t& time) override {
        return local.getFileAttributes(path, size, time);
    }
    bool getDiskSpaceInfo(const char* path, uint64_t& freeBytes, uint64_t& totalBytes) override {
        return local.getDiskSpaceInfo(path, freeBytes, totalBytes);
    }
    Find findFirstFile(const char* pattern) override { return local.findFirstFile(pattern); }
    Find findNextFile(Find find) override { return local.findNextFile(find); }
    void findClose(Find find) override { local.findClose(find); }
    const char* findGetFileName(Find find) override { return local.findGetFileName(find); }
    uint64_t findGetFileSize(Find find) override { return local.findGetFileSize(find); }
    uint64_t findGetFileTime(Find find) override { return local.findGetFileTime(find); }
    bool findIsDirectory(Find find) override { return local.findIsDirectory(find); }
    uint64_t getFileSortKey(Handle file) override { return local.getFileSortKey(file); }

protected:
    zu::FileSystem& local = zu::getLocalFileSystem();
};

// Installs a file system as the current one for as long as it lives.
struct InstalledFileSystem {
    explicit InstalledFileSystem(zu::FileSystem& fileSystem) { zu::setFileSystem(&fileSystem); }
    ~InstalledFileSystem() { zu::setFileSystem(nullptr); }
};

}  // namespace dmtest
