// The remote file system: NetworkFileSystem sends the operations on paths in the file server's
// mapped folders as commands over the pipe "fileserver" (protocol: docs/fileserver-protocol.md)
// to a file server on the development machine, such as the host tool dm-fileserver; every
// other path goes to the local file system it stands in front of.
//
// Set-up: make a client pipe manager that reaches the file server and is the only manager of
// the process (the pipe is found by its name alone), then allocate the file system with
// zu::newObject and install it with zu::setFileSystem. Remote calls block until the server has
// answered; while the server is away they wait for it to come back.
#pragma once

#include <atomic>
#include <cstdint>

#include "dm/export.h"
#include "zu/file_system.h"
#include "zu/mutex.h"
#include "zu/string.h"
#include "zu/vector.h"

namespace dm {

class CommunicationPipe;

class DM_API NetworkFileSystem : public zu::FileSystem {
public:
    // The pipe "fileserver" should exist before: its connections make the folder list be
    // fetched again. Becomes the instance that getInstance returns.
    explicit NetworkFileSystem(zu::FileSystem& localFileSystem);
    ~NetworkFileSystem() override;
    NetworkFileSystem(const NetworkFileSystem&) = delete;
    NetworkFileSystem& operator=(const NetworkFileSystem&) = delete;

    zu::FileHandle* openFile(const char* path, zu::BaseFile::Mode mode) override;
    bool closeFile(zu::FileHandle* file) override;
    bool fileExists(const char* path) override;
    bool directoryExists(const char* path) override;
    bool isFileReadOnly(const char* path) override;
    bool deleteFile(const char* path) override;
    bool createDirectory(const char* path) override;
    bool deleteDirectory(const char* path) override;
    // Remote only when both paths are; any other pair goes to the local file system.
    bool moveFile(const char* from, const char* to, bool overwrite) override;
    // A remote and a local path are copied through memory.
    bool copyFile(const char* from, const char* to) override;
    uint64_t getCurrentPosition(zu::FileHandle* file) override;
    // On a remote file, SeekEnd counts back from the end: position = size - offset.
    uint64_t seekFile(zu::FileHandle* file, int64_t offset, zu::BaseFile::SeekMode mode) override;
    // A remote file's size as of its opening or its last write through this handle.
    uint64_t getFileSize(zu::FileHandle* file) override;
    // A remote read or write is one request; its position and count go as 32-bit numbers, so
    // one whose count or position is 2 GiB or more is refused on remote files (0, nothing sent).
    uint64_t readFile(zu::FileHandle* file, void* buffer, uint64_t count) override;
    uint64_t writeFile(zu::FileHandle* file, const void* buffer, uint64_t count) override;
    bool flushFileBuffers(zu::FileHandle* file) override;
    zu::FileTime getFileTime(zu::FileHandle* file) override;
    // Does nothing on a remote file.
    bool setFileTime(zu::FileHandle* file, const zu::FileTime& creation,
                     const zu::FileTime& lastWrite) override;
    bool getFileAttributes(const char* path, uint64_t& size, uint64_t& time) override;
    // Always the local file system's.
    bool getDiskSpaceInfo(const char* path, uint64_t& freeBytes, uint64_t& totalBytes) override;
    // Lists the server's matches and, for a local pattern, the local ones too: sorted by name,
    // each name once (letter case ignored).
    zu::FindFileHandle* findFirstFile(const char* pattern) override;
    zu::FindFileHandle* findNextFile(zu::FindFileHandle* find) override;
    void findClose(zu::FindFileHandle* find) override;
    const char* findGetFileName(zu::FindFileHandle* find) override;
    uint64_t findGetFileSize(zu::FindFileHandle* find) override;
    uint64_t findGetFileTime(zu::FindFileHandle* find) override;
    bool findIsDirectory(zu::FindFileHandle* find) override;
    uint64_t getFileSortKey(zu::FileHandle* file) override;

    // The one instance; only valid while one exists.
    static NetworkFileSystem& getInstance();
    // Destroys the instance, which must have been made with zu::newObject; none is fine.
    static void deleteInstance();

    // Kept for callers that build local paths; paths are passed on unchanged.
    void setLocalRoot(const char* root);
    const char* getLocalRoot() const { return m_localRoot.c_str(); }
    // True once the pipe "fileserver" has been connected.
    bool isPipeAcquired() const { return m_pipeAcquired.load(); }
    // True when `path` lies in one of the server's mapped folders (fetching them if needed).
    bool isRemotePath(const char* path);

private:
    void findFilesInternal(zu::FilePathList& out, const char* path, const char* filter,
                           zu::FileAcceptDelegate& accept, bool recursive) override;

    static void onPipeConnected(void* context, CommunicationPipe* pipe);
    void loadMappedFolders();
    bool startsWithMappedFolder(const char* name);
    bool copyThroughMemory(const char* from, const char* to);

    zu::FileSystem& m_localFileSystem;
    zu::InplaceString<128> m_localRoot;
    zu::Mutex m_foldersLock;
    zu::Vector<zu::InplaceString<128>> m_mappedFolders ZU_GUARDED_BY(m_foldersLock);
    std::atomic<bool> m_mappedFoldersLoaded{false};
    std::atomic<bool> m_pipeAcquired{false};

    static std::atomic<NetworkFileSystem*> s_pNetworkInstance;
};

}  // namespace dm
