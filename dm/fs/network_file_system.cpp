#include "dm/fs.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "dm/comm.h"
#include "fs/file_server_commands.h"
#include "fs/network_file_handles.h"
#include "zu/file.h"
#include "zu/memory.h"
#include "zu/memory_file.h"
#include "zu/mutex.h"

namespace dm {

std::atomic<NetworkFileSystem*> NetworkFileSystem::s_pNetworkInstance{nullptr};

namespace {

constexpr const char* kDefaultLocalRoot = "devkit:\\PLX\\";

// Keeps the pipe's connection callback and the instance's destruction apart: the callback runs
// on the pipe manager's thread.
zu::Mutex s_instanceLock;

using Command = zu::InplaceString<640>;

Command pathCommand(const char* name, const char* path) {
    Command command;
    command.format("%s \"%s\"", name, path);
    return command;
}

bool holdsQuote(const char* path) {
    return std::strchr(path, '"') != nullptr;
}

// A yes/no command on one path; a path that cannot be sent is a no.
bool askAboutPath(const char* name, const char* path) {
    return !holdsQuote(path) && fileserver::sendYesNo(pathCommand(name, path).c_str());
}

uint64_t remoteFileSize(const char* path) {
    const int64_t size = fileserver::sendNumber(pathCommand("getFileSize", path).c_str());
    return size > 0 ? static_cast<uint64_t>(size) : 0;
}

NetworkFileHandle* asHandle(zu::FileHandle* file) {
    return static_cast<NetworkFileHandle*>(file);
}

NetworkFindHandle* asFind(zu::FindFileHandle* find) {
    return static_cast<NetworkFindHandle*>(find);
}

// The protocol carries positions and counts as signed 32-bit numbers. Anything larger is
// refused here: its low 32 bits would name another place in the file.
bool fitsProtocol(uint64_t position, uint64_t count) {
    return position <= INT32_MAX && count <= INT32_MAX;
}

}  // namespace

NetworkFileSystem::NetworkFileSystem(zu::FileSystem& localFileSystem)
    : m_localFileSystem(localFileSystem), m_localRoot(kDefaultLocalRoot) {
    {
        zu::ScopedLock lock(s_instanceLock);
        s_pNetworkInstance = this;
    }
    if (CommunicationPipe* pipe = getCommunicationPipe(fileserver::kPipeName)) {
        pipe->setConnectionCallback({nullptr, &NetworkFileSystem::onPipeConnected});
        // A pipe that was connected before the callback was set counts as acquired too.
        if (pipe->isConnected()) {
            m_pipeAcquired = true;
        }
    }
}

NetworkFileSystem::~NetworkFileSystem() {
    zu::ScopedLock lock(s_instanceLock);
    if (s_pNetworkInstance == this) {
        s_pNetworkInstance = nullptr;
    }
}

void NetworkFileSystem::onPipeConnected(void*, CommunicationPipe*) {
    zu::ScopedLock lock(s_instanceLock);
    if (NetworkFileSystem* instance = s_pNetworkInstance.load()) {
        instance->m_mappedFoldersLoaded = false;
        instance->m_pipeAcquired = true;
    }
}

NetworkFileSystem& NetworkFileSystem::getInstance() {
    return *s_pNetworkInstance.load();
}

void NetworkFileSystem::deleteInstance() {
    // Made by its user with zu::newObject (or makeUnique and released); its destructor clears
    // s_pNetworkInstance.
    zu::UniquePtr<NetworkFileSystem> instance(s_pNetworkInstance.load());
}

void NetworkFileSystem::setLocalRoot(const char* root) {
    m_localRoot = root != nullptr ? root : "";
}

// --- Remote or local ---

void NetworkFileSystem::loadMappedFolders() {
    // Held over the request: a thread that finds the flag set waits in startsWithMappedFolder
    // for the list instead of deciding on an empty one.
    zu::ScopedLock lock(m_foldersLock);
    if (m_mappedFoldersLoaded) {
        return;  // another thread loaded them while this one waited
    }
    // Set before the request: a reconnection while it is under way makes the next use load
    // them again.
    m_mappedFoldersLoaded = true;
    fileserver::getMappedFolders(m_mappedFolders);
}

bool NetworkFileSystem::startsWithMappedFolder(const char* name) {
    zu::ScopedLock lock(m_foldersLock);
    for (const zu::InplaceString<128>& folder : m_mappedFolders) {
        if (zu::strnicmp(name, folder.c_str(), folder.length()) == 0) {
            return true;
        }
    }
    return false;
}

bool NetworkFileSystem::isRemotePath(const char* path) {
    if (path == nullptr) {
        return false;
    }
    if (!m_mappedFoldersLoaded) {
        loadMappedFolders();
    }
    return startsWithMappedFolder(path);
}

// --- Files ---

zu::FileHandle* NetworkFileSystem::openFile(const char* path, zu::BaseFile::Mode mode) {
    if (path == nullptr) {
        return nullptr;
    }
    if (!isRemotePath(path)) {
        zu::FileHandle* local = m_localFileSystem.openFile(path, mode);
        // The caller's until closeFile.
        return local != nullptr
                   ? zu::makeUnique<NetworkFileHandle>(*this, "", mode, local).release()
                   : nullptr;
    }
    if (holdsQuote(path) || std::strlen(path) > NetworkFileHandle::kMaxPathLength) {
        return nullptr;
    }
    if (mode == zu::BaseFile::ModeRead && !fileExists(path)) {
        return nullptr;
    }
    if (mode == zu::BaseFile::ModeWrite) {
        deleteFile(path);  // so that the file starts empty; it need not exist
    }
    zu::UniquePtr<NetworkFileHandle> handle =
        zu::makeUnique<NetworkFileHandle>(*this, path, mode, nullptr);
    handle->size = remoteFileSize(path);
    return handle.release();  // the caller's until closeFile
}

bool NetworkFileSystem::closeFile(zu::FileHandle* file) {
    zu::UniquePtr<NetworkFileHandle> handle(asHandle(file));
    if (handle == nullptr) {
        return false;
    }
    if (!handle->isRemote()) {
        m_localFileSystem.closeFile(handle->localHandle);
    }
    return true;
}

bool NetworkFileSystem::fileExists(const char* path) {
    return isRemotePath(path) ? askAboutPath("fileExists", path)
                              : m_localFileSystem.fileExists(path);
}

bool NetworkFileSystem::directoryExists(const char* path) {
    return isRemotePath(path) ? askAboutPath("directoryExists", path)
                              : m_localFileSystem.directoryExists(path);
}

bool NetworkFileSystem::isFileReadOnly(const char* path) {
    return isRemotePath(path) ? askAboutPath("isFileReadOnly", path)
                              : m_localFileSystem.isFileReadOnly(path);
}

bool NetworkFileSystem::deleteFile(const char* path) {
    return isRemotePath(path) ? askAboutPath("deleteFile", path)
                              : m_localFileSystem.deleteFile(path);
}

bool NetworkFileSystem::createDirectory(const char* path) {
    return isRemotePath(path) ? askAboutPath("createDirectory", path)
                              : m_localFileSystem.createDirectory(path);
}

bool NetworkFileSystem::deleteDirectory(const char* path) {
    return isRemotePath(path) ? askAboutPath("deleteDirectory", path)
                              : m_localFileSystem.deleteDirectory(path);
}

bool NetworkFileSystem::moveFile(const char* from, const char* to, bool overwrite) {
    if (from == nullptr || to == nullptr) {
        return false;
    }
    if (!isRemotePath(from) || !isRemotePath(to)) {
        return m_localFileSystem.moveFile(from, to, overwrite);
    }
    if (holdsQuote(from) || holdsQuote(to)) {
        return false;
    }
    Command command;
    command.format("moveFile \"%s\" \"%s\"", from, to);
    return fileserver::sendYesNo(command.c_str());
}

bool NetworkFileSystem::copyFile(const char* from, const char* to) {
    if (from == nullptr || to == nullptr) {
        return false;
    }
    const bool remoteSource = isRemotePath(from);
    const bool remoteDestination = isRemotePath(to);
    if (!remoteSource && !remoteDestination) {
        return m_localFileSystem.copyFile(from, to);
    }
    if (remoteSource != remoteDestination) {
        return copyThroughMemory(from, to);
    }
    if (holdsQuote(from) || holdsQuote(to)) {
        return false;
    }
    Command command;
    command.format("copyFile \"%s\" \"%s\"", from, to);
    return fileserver::sendYesNo(command.c_str());
}

bool NetworkFileSystem::copyThroughMemory(const char* from, const char* to) {
    zu::BufferedMemoryFile contents;
    if (!contents.load(from, this)) {
        return false;
    }
    zu::FileHandle* destination = openFile(to, zu::BaseFile::ModeWrite);
    if (destination == nullptr) {
        return false;
    }
    const uint64_t written = writeFile(destination, contents.getData(), contents.getSize());
    flushFileBuffers(destination);
    closeFile(destination);
    return written == contents.getSize();
}

uint64_t NetworkFileSystem::getCurrentPosition(zu::FileHandle* file) {
    NetworkFileHandle* handle = asHandle(file);
    if (handle == nullptr) {
        return 0;
    }
    return handle->isRemote() ? handle->position
                              : m_localFileSystem.getCurrentPosition(handle->localHandle);
}

uint64_t NetworkFileSystem::seekFile(zu::FileHandle* file, int64_t offset,
                                     zu::BaseFile::SeekMode mode) {
    NetworkFileHandle* handle = asHandle(file);
    if (handle == nullptr) {
        return 0;
    }
    if (!handle->isRemote()) {
        return m_localFileSystem.seekFile(handle->localHandle, offset, mode);
    }
    // Unsigned arithmetic: a seek before the start wraps around, as the position is unsigned.
    const uint64_t distance = static_cast<uint64_t>(offset);
    switch (mode) {
        case zu::BaseFile::SeekBegin:
            handle->position = distance;
            break;
        case zu::BaseFile::SeekCurrent:
            handle->position += distance;
            break;
        case zu::BaseFile::SeekEnd:
            handle->position = handle->size - distance;
            break;
        default:
            break;
    }
    return handle->position;
}

uint64_t NetworkFileSystem::getFileSize(zu::FileHandle* file) {
    NetworkFileHandle* handle = asHandle(file);
    if (handle == nullptr) {
        return 0;
    }
    return handle->isRemote() ? handle->size : m_localFileSystem.getFileSize(handle->localHandle);
}

uint64_t NetworkFileSystem::readFile(zu::FileHandle* file, void* buffer, uint64_t count) {
    NetworkFileHandle* handle = asHandle(file);
    if (handle == nullptr || buffer == nullptr) {
        return 0;
    }
    if (!handle->isRemote()) {
        return m_localFileSystem.readFile(handle->localHandle, buffer, count);
    }
    if (!fitsProtocol(handle->position, count)) {
        return 0;
    }
    Command command;
    command.format("read %i %i \"%s\"", static_cast<int>(handle->position), static_cast<int>(count),
                   handle->path.c_str());
    // The answer's text says nothing that the received count does not.
    uint32_t received = 0;
    fileserver::send(command.c_str(), buffer, static_cast<uint32_t>(count), &received);
    // Never more than the caller's buffer took, whatever the server claims to have sent.
    const uint64_t read = std::min<uint64_t>(received, static_cast<uint32_t>(count));
    handle->position += read;
    return read;
}

uint64_t NetworkFileSystem::writeFile(zu::FileHandle* file, const void* buffer, uint64_t count) {
    NetworkFileHandle* handle = asHandle(file);
    if (handle == nullptr || (buffer == nullptr && count != 0)) {
        return 0;
    }
    if (!handle->isRemote()) {
        return m_localFileSystem.writeFile(handle->localHandle, buffer, count);
    }
    if (!fitsProtocol(handle->position, count)) {
        return 0;
    }
    Command command;
    command.format("write %i %i \"%s\"", static_cast<int>(handle->position),
                   static_cast<int>(count), handle->path.c_str());
    zu::InplaceString<128> answer = fileserver::send(command.c_str(), nullptr, 0, nullptr, buffer,
                                                     static_cast<uint32_t>(count));
    int written = 0;
    std::sscanf(answer.c_str(), "%i", &written);
    // A server cannot make us believe in more bytes than were sent.
    const uint64_t taken = written > 0 ? std::min<uint64_t>(static_cast<uint32_t>(written),
                                                            static_cast<uint32_t>(count))
                                       : 0;
    handle->position += taken;
    handle->size = remoteFileSize(handle->path.c_str());
    return taken;
}

bool NetworkFileSystem::flushFileBuffers(zu::FileHandle* file) {
    NetworkFileHandle* handle = asHandle(file);
    if (handle == nullptr) {
        return false;
    }
    return handle->isRemote() || m_localFileSystem.flushFileBuffers(handle->localHandle);
}

zu::FileTime NetworkFileSystem::getFileTime(zu::FileHandle* file) {
    NetworkFileHandle* handle = asHandle(file);
    if (handle == nullptr) {
        return zu::FileTime();
    }
    if (!handle->isRemote()) {
        return m_localFileSystem.getFileTime(handle->localHandle);
    }
    zu::InplaceString<128> answer =
        fileserver::send(pathCommand("getFileTime", handle->path.c_str()).c_str());
    int low = 0;
    int high = 0;
    std::sscanf(answer.c_str(), "%i %i", &low, &high);
    return {static_cast<uint32_t>(low), static_cast<uint32_t>(high)};
}

bool NetworkFileSystem::setFileTime(zu::FileHandle* file, const zu::FileTime& creation,
                                    const zu::FileTime& lastWrite) {
    NetworkFileHandle* handle = asHandle(file);
    if (handle == nullptr || handle->isRemote()) {
        return handle != nullptr;
    }
    return m_localFileSystem.setFileTime(handle->localHandle, creation, lastWrite);
}

bool NetworkFileSystem::getFileAttributes(const char* path, uint64_t& size, uint64_t& time) {
    zu::FileHandle* file = openFile(path, zu::BaseFile::ModeRead);
    if (file == nullptr) {
        return false;
    }
    size = getFileSize(file);
    time = getFileTime(file).value();
    closeFile(file);
    return true;
}

bool NetworkFileSystem::getDiskSpaceInfo(const char* path, uint64_t& freeBytes,
                                         uint64_t& totalBytes) {
    return m_localFileSystem.getDiskSpaceInfo(path, freeBytes, totalBytes);
}

uint64_t NetworkFileSystem::getFileSortKey(zu::FileHandle*) {
    return 0;
}

// --- Finds ---

zu::FindFileHandle* NetworkFileSystem::findFirstFile(const char* pattern) {
    if (pattern == nullptr) {
        return nullptr;
    }
    zu::UniquePtr<NetworkFindHandle> find = zu::makeUnique<NetworkFindHandle>(*this, pattern);
    fileserver::findFiles(pattern, find->entries);
    if (!isRemotePath(pattern)) {
        for (zu::FindFileHandle* local = m_localFileSystem.findFirstFile(pattern); local != nullptr;
             local = m_localFileSystem.findNextFile(local)) {
            const char* name = m_localFileSystem.findGetFileName(local);
            if (startsWithMappedFolder(name)) {
                continue;
            }
            fileserver::FileEntry& entry = find->entries.emplace_back();
            entry.isDirectory = m_localFileSystem.findIsDirectory(local);
            entry.name = name;
            entry.size = m_localFileSystem.findGetFileSize(local);
            entry.time = m_localFileSystem.findGetFileTime(local);
        }
    }
    fileserver::FileEntryList& entries = find->entries;
    std::stable_sort(entries.begin(), entries.end(),
                     [](const fileserver::FileEntry& a, const fileserver::FileEntry& b) {
                         return a.name < b.name;
                     });
    for (size_t index = entries.size(); index-- > 1;) {
        const zu::String& name = entries[index].name;
        const zu::String& previous = entries[index - 1].name;
        if (name.length() == previous.length() && name.equalsIgnoreCase(previous.c_str())) {
            entries.erase(index);
        }
    }
    if (entries.empty()) {
        return nullptr;
    }
    return find.release();  // the caller's until findNextFile ends the walk or findClose
}

zu::FindFileHandle* NetworkFileSystem::findNextFile(zu::FindFileHandle* find) {
    NetworkFindHandle* handle = asFind(find);
    if (handle == nullptr) {
        return nullptr;
    }
    ++handle->current;
    if (handle->current < handle->entries.size()) {
        return handle;
    }
    zu::UniquePtr<NetworkFindHandle> ended(handle);  // the walk is over: the handle comes back
    return nullptr;
}

void NetworkFileSystem::findClose(zu::FindFileHandle* find) {
    zu::UniquePtr<NetworkFindHandle> closing(asFind(find));
}

const char* NetworkFileSystem::findGetFileName(zu::FindFileHandle* find) {
    const fileserver::FileEntry* entry = find != nullptr ? asFind(find)->currentEntry() : nullptr;
    return entry != nullptr ? entry->name.c_str() : "";
}

uint64_t NetworkFileSystem::findGetFileSize(zu::FindFileHandle* find) {
    const fileserver::FileEntry* entry = find != nullptr ? asFind(find)->currentEntry() : nullptr;
    return entry != nullptr ? entry->size : 0;
}

uint64_t NetworkFileSystem::findGetFileTime(zu::FindFileHandle* find) {
    const fileserver::FileEntry* entry = find != nullptr ? asFind(find)->currentEntry() : nullptr;
    return entry != nullptr ? entry->time : 0;
}

bool NetworkFileSystem::findIsDirectory(zu::FindFileHandle* find) {
    const fileserver::FileEntry* entry = find != nullptr ? asFind(find)->currentEntry() : nullptr;
    return entry != nullptr && entry->isDirectory;
}

void NetworkFileSystem::findFilesInternal(zu::FilePathList& out, const char* path,
                                          const char* filter, zu::FileAcceptDelegate& accept,
                                          bool recursive) {
    if (!isRemotePath(path)) {
        findFiles(out, path, filter, accept, recursive);
        return;
    }
    out.clear();
    fileserver::NameList found;
    fileserver::findFilesRecursive(path, filter, recursive, found);
    for (const zu::InplaceString<256>& entry : found) {
        if (!accept || accept(zu::File::stripPath(entry.c_str()).c_str(), entry.c_str())) {
            out.push_back(entry);
        }
    }
}

}  // namespace dm
