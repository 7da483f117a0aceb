// The local file system on POSIX: file descriptors, stat, opendir and friends.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform_file_system.h"
#include "zu/memory.h"
#include "zu/vector.h"

#if defined(__linux__)
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#endif

namespace zu {

namespace {

constexpr uint64_t kTicksPerSecond = 10000000;
constexpr int64_t kSecondsFrom1601To1970 = 11644473600LL;
// read() and write() move at most this much per call; larger counts loop.
constexpr uint64_t kMaxTransfer = uint64_t(1) << 30;
constexpr size_t kCopyBufferSize = 64 * 1024;

// The caller's path with '\\' turned into '/', so that Windows-style paths work too.
class NativePath {
public:
    explicit NativePath(const char* path) : m_path(path != nullptr ? path : "") {
        for (size_t i = 0; i < m_path.length(); ++i) {
            if (m_path[i] == '\\') {
                m_path[i] = '/';
            }
        }
    }
    const char* c_str() const { return m_path.c_str(); }
    const String& text() const { return m_path; }

private:
    InplaceString<256> m_path;
};

struct LocalFile : FileHandle {
    explicit LocalFile(int descriptor) : fd(descriptor) {}
    int fd;
};

struct FindEntry {
    InplaceString<256> name;
    uint64_t size = 0;
    uint64_t time = 0;
    bool isDirectory = false;
};

struct LocalFind : FindFileHandle {
    Vector<FindEntry> entries;
    size_t current = 0;
};

int descriptorOf(FileHandle* file) {
    return file != nullptr ? static_cast<LocalFile*>(file)->fd : -1;
}

const FindEntry* currentEntry(FindFileHandle* find) {
    if (find == nullptr) {
        return nullptr;
    }
    LocalFind* local = static_cast<LocalFind*>(find);
    return local->current < local->entries.size() ? &local->entries[local->current] : nullptr;
}

const timespec& modificationTime(const struct stat& info) {
#if defined(__APPLE__)
    return info.st_mtimespec;
#else
    return info.st_mtim;
#endif
}

uint64_t toFileTicks(const timespec& time) {
    int64_t seconds = static_cast<int64_t>(time.tv_sec) + kSecondsFrom1601To1970;
    if (seconds < 0) {
        return 0;
    }
    return static_cast<uint64_t>(seconds) * kTicksPerSecond +
           static_cast<uint64_t>(time.tv_nsec) / 100;
}

timespec fromFileTicks(uint64_t ticks) {
    timespec time{};
    time.tv_sec =
        static_cast<time_t>(static_cast<int64_t>(ticks / kTicksPerSecond) - kSecondsFrom1601To1970);
    time.tv_nsec = static_cast<long>((ticks % kTicksPerSecond) * 100);
    return time;
}

bool statPath(const NativePath& path, struct stat& info) {
    return ::stat(path.c_str(), &info) == 0;
}

int openRetrying(const char* path, int flags, mode_t permissions = 0666) {
    int fd;
    do {
        fd = ::open(path, flags | O_CLOEXEC, permissions);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// Opens a regular file for blocking I/O; -1 for anything else. The open itself is non-blocking
// so that a FIFO or device in place of a file cannot stall the caller.
int openRegularFile(const char* path, int flags, mode_t permissions = 0666) {
    int fd = openRetrying(path, flags | O_NONBLOCK, permissions);
    if (fd < 0) {
        return -1;
    }
    struct stat info;
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) ||
        ::fcntl(fd, F_SETFL, flags & ~(O_CREAT | O_TRUNC | O_NONBLOCK)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

int openFlagsFor(BaseFile::Mode mode) {
    switch (mode) {
        case BaseFile::ModeRead:
            return O_RDONLY;
        case BaseFile::ModeReadWrite:
            return O_RDWR;
        case BaseFile::ModeWrite:
            return O_WRONLY | O_CREAT | O_TRUNC;
        case BaseFile::ModeAppend:
            return O_WRONLY | O_CREAT | O_APPEND;
    }
    return -1;
}

// Moves up to `count` bytes with `transfer` (read or write), looping over short transfers and
// interruptions. Returns the bytes moved.
template <typename Transfer>
uint64_t transferAll(uint64_t count, Transfer transfer) {
    uint64_t done = 0;
    while (done < count) {
        size_t chunk = static_cast<size_t>(std::min(count - done, kMaxTransfer));
        ssize_t moved = transfer(done, chunk);
        if (moved < 0 && errno == EINTR) {
            continue;
        }
        if (moved <= 0) {
            break;
        }
        done += static_cast<uint64_t>(moved);
    }
    return done;
}

bool copyContents(int from, int to) {
    char buffer[kCopyBufferSize];
    for (;;) {
        ssize_t got = ::read(from, buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return got == 0;
        }
        uint64_t size = static_cast<uint64_t>(got);
        uint64_t written = transferAll(
            size, [&](uint64_t done, size_t chunk) { return ::write(to, buffer + done, chunk); });
        if (written != size) {
            return false;
        }
    }
}

// Splits a find pattern into its folder and its name pattern.
void splitPattern(const NativePath& pattern, InplaceString<256>& folder,
                  InplaceString<256>& namePattern) {
    const String& text = pattern.text();
    size_t slash = String::npos;
    for (size_t i = 0; i < text.length(); ++i) {
        if (text[i] == '/') {
            slash = i;
        }
    }
    if (slash == String::npos) {
        folder = ".";
        namePattern = text;
    } else {
        folder.assign(text.c_str(), slash == 0 ? 1 : slash);
        namePattern.assign(text.c_str() + slash + 1);
    }
}

// Reads the matching entries of `folder` (all but "." and ".."), sorted by name.
void readMatchingEntries(const char* folder, const char* namePattern, Vector<FindEntry>& out) {
    DIR* dir = ::opendir(folder);
    if (dir == nullptr) {
        return;
    }
    while (dirent* entry = ::readdir(dir)) {
        const char* name = entry->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0 ||
            !matchesWildcard(name, namePattern)) {
            continue;
        }
        struct stat info;
        // A link whose target is gone is still listed, as the link itself.
        if (::fstatat(dirfd(dir), name, &info, 0) != 0 &&
            ::fstatat(dirfd(dir), name, &info, AT_SYMLINK_NOFOLLOW) != 0) {
            continue;
        }
        FindEntry& found = out.emplace_back();
        found.name = name;
        found.isDirectory = S_ISDIR(info.st_mode);
        found.size = found.isDirectory ? 0 : static_cast<uint64_t>(info.st_size);
        found.time = toFileTicks(modificationTime(info));
    }
    ::closedir(dir);
    std::sort(out.begin(), out.end(), [](const FindEntry& a, const FindEntry& b) {
        return std::strcmp(a.name.c_str(), b.name.c_str()) < 0;
    });
}

class LocalFileSystem : public FileSystem {
public:
    FileHandle* openFile(const char* path, BaseFile::Mode mode) override {
        int flags = openFlagsFor(mode);
        if (flags < 0) {
            return nullptr;
        }
        int fd = openRegularFile(NativePath(path).c_str(), flags);
        // The caller's until closeFile.
        return fd < 0 ? nullptr : makeUnique<LocalFile>(fd).release();
    }

    bool closeFile(FileHandle* file) override {
        if (file == nullptr) {
            return false;
        }
        // No retry on EINTR: the descriptor is gone either way on Linux.
        UniquePtr<LocalFile> closing(static_cast<LocalFile*>(file));
        return ::close(closing->fd) == 0;
    }

    bool fileExists(const char* path) override {
        struct stat info;
        return statPath(NativePath(path), info) && !S_ISDIR(info.st_mode);
    }

    bool directoryExists(const char* path) override {
        struct stat info;
        return statPath(NativePath(path), info) && S_ISDIR(info.st_mode);
    }

    // Read-only as the Windows attribute means it (no write permission bits at all), or not
    // writable for this process.
    bool isFileReadOnly(const char* path) override {
        NativePath native(path);
        struct stat info;
        if (!statPath(native, info)) {
            return false;
        }
        return (info.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0 ||
               ::access(native.c_str(), W_OK) != 0;
    }

    bool deleteFile(const char* path) override {
        NativePath native(path);
        struct stat info;
        if (::lstat(native.c_str(), &info) != 0 || S_ISDIR(info.st_mode)) {
            return false;
        }
        return ::unlink(native.c_str()) == 0;
    }

    // Creates one folder level; true when the folder exists afterwards.
    bool createDirectory(const char* path) override {
        NativePath native(path);
        if (::mkdir(native.c_str(), 0777) == 0) {
            return true;
        }
        struct stat info;
        return errno == EEXIST && statPath(native, info) && S_ISDIR(info.st_mode);
    }

    bool deleteDirectory(const char* path) override {
        return ::rmdir(NativePath(path).c_str()) == 0;
    }

    // Without `overwrite` an existing target makes it fail; the check and the rename are two
    // steps, so a target that appears in between is replaced.
    bool moveFile(const char* from, const char* to, bool overwrite) override {
        NativePath source(from);
        NativePath target(to);
        struct stat info;
        if (!overwrite && ::lstat(target.c_str(), &info) == 0) {
            return false;
        }
        if (::rename(source.c_str(), target.c_str()) == 0) {
            return true;
        }
        // Across file systems a file is copied and the source removed.
        return errno == EXDEV && fileExists(from) && copyFile(from, to) &&
               ::unlink(source.c_str()) == 0;
    }

    // Replaces an existing target; keeps the source's permissions and last write time.
    bool copyFile(const char* from, const char* to) override {
        NativePath source(from);
        NativePath target(to);
        int in = openRegularFile(source.c_str(), O_RDONLY);
        if (in < 0) {
            return false;
        }
        bool copied = copyOpenFile(in, target);
        ::close(in);
        return copied;
    }

    uint64_t getCurrentPosition(FileHandle* file) override {
        off_t position = ::lseek(descriptorOf(file), 0, SEEK_CUR);
        return position < 0 ? 0 : static_cast<uint64_t>(position);
    }

    uint64_t seekFile(FileHandle* file, int64_t offset, BaseFile::SeekMode mode) override {
        int fd = descriptorOf(file);
        if (fd < 0) {
            return 0;
        }
        int64_t target = 0;
        if (!seekTarget(file, offset, mode, target)) {
            return getCurrentPosition(file);
        }
        off_t position = ::lseek(fd, static_cast<off_t>(target < 0 ? 0 : target), SEEK_SET);
        return position < 0 ? getCurrentPosition(file) : static_cast<uint64_t>(position);
    }

    uint64_t getFileSize(FileHandle* file) override {
        struct stat info;
        if (::fstat(descriptorOf(file), &info) != 0) {
            return 0;
        }
        return static_cast<uint64_t>(info.st_size);
    }

    uint64_t readFile(FileHandle* file, void* buffer, uint64_t count) override {
        int fd = descriptorOf(file);
        if (fd < 0 || buffer == nullptr) {
            return 0;
        }
        char* bytes = static_cast<char*>(buffer);
        return transferAll(
            count, [&](uint64_t done, size_t chunk) { return ::read(fd, bytes + done, chunk); });
    }

    uint64_t writeFile(FileHandle* file, const void* buffer, uint64_t count) override {
        int fd = descriptorOf(file);
        if (fd < 0 || buffer == nullptr) {
            return 0;
        }
        const char* bytes = static_cast<const char*>(buffer);
        return transferAll(
            count, [&](uint64_t done, size_t chunk) { return ::write(fd, bytes + done, chunk); });
    }

    bool flushFileBuffers(FileHandle* file) override {
        int fd = descriptorOf(file);
        return fd >= 0 && ::fsync(fd) == 0;
    }

    FileTime getFileTime(FileHandle* file) override {
        struct stat info;
        if (::fstat(descriptorOf(file), &info) != 0) {
            return FileTime{};
        }
        return FileTime::fromValue(toFileTicks(modificationTime(info)));
    }

    // POSIX keeps no settable creation time, so only the last write time is set; a zero time
    // leaves it as it is.
    bool setFileTime(FileHandle* file, const FileTime&, const FileTime& lastWrite) override {
        int fd = descriptorOf(file);
        if (fd < 0) {
            return false;
        }
        timespec times[2];
        times[0].tv_sec = 0;
        times[0].tv_nsec = UTIME_OMIT;
        if (lastWrite.value() == 0) {
            times[1] = times[0];
        } else {
            times[1] = fromFileTicks(lastWrite.value());
        }
        return ::futimens(fd, times) == 0;
    }

    bool getFileAttributes(const char* path, uint64_t& size, uint64_t& time) override {
        struct stat info;
        if (!statPath(NativePath(path), info) || S_ISDIR(info.st_mode)) {
            return false;
        }
        size = static_cast<uint64_t>(info.st_size);
        time = toFileTicks(modificationTime(info));
        return true;
    }

    // Free space is what this process may use, without the blocks kept for the superuser.
    bool getDiskSpaceInfo(const char* path, uint64_t& freeBytes, uint64_t& totalBytes) override {
        struct statvfs info;
        if (::statvfs(NativePath(path).c_str(), &info) != 0) {
            return false;
        }
        uint64_t blockSize = info.f_frsize != 0 ? info.f_frsize : info.f_bsize;
        freeBytes = static_cast<uint64_t>(info.f_bavail) * blockSize;
        totalBytes = static_cast<uint64_t>(info.f_blocks) * blockSize;
        return true;
    }

    // The matches are read in one go, so that a find holds no descriptor between calls.
    FindFileHandle* findFirstFile(const char* pattern) override {
        InplaceString<256> folder;
        InplaceString<256> namePattern;
        splitPattern(NativePath(pattern), folder, namePattern);
        if (namePattern.empty()) {
            return nullptr;
        }
        UniquePtr<LocalFind> find = makeUnique<LocalFind>();
        readMatchingEntries(folder.c_str(), namePattern.c_str(), find->entries);
        if (find->entries.empty()) {
            return nullptr;
        }
        return find.release();  // the caller's until findNextFile ends the walk or findClose
    }

    FindFileHandle* findNextFile(FindFileHandle* find) override {
        if (find == nullptr) {
            return nullptr;
        }
        LocalFind* local = static_cast<LocalFind*>(find);
        if (++local->current < local->entries.size()) {
            return find;
        }
        UniquePtr<LocalFind> ended(local);  // the walk is over: the handle comes back to us
        return nullptr;
    }

    void findClose(FindFileHandle* find) override {
        UniquePtr<LocalFind> closing(static_cast<LocalFind*>(find));
    }

    const char* findGetFileName(FindFileHandle* find) override {
        const FindEntry* entry = currentEntry(find);
        return entry != nullptr ? entry->name.c_str() : "";
    }

    uint64_t findGetFileSize(FindFileHandle* find) override {
        const FindEntry* entry = currentEntry(find);
        return entry != nullptr ? entry->size : 0;
    }

    uint64_t findGetFileTime(FindFileHandle* find) override {
        const FindEntry* entry = currentEntry(find);
        return entry != nullptr ? entry->time : 0;
    }

    bool findIsDirectory(FindFileHandle* find) override {
        const FindEntry* entry = currentEntry(find);
        return entry != nullptr && entry->isDirectory;
    }

    // The physical offset of the file's first extent where the kernel tells it (Linux FIEMAP);
    // 0 elsewhere, for empty files and on file systems without extents (tmpfs).
    uint64_t getFileSortKey(FileHandle* file) override {
        int fd = descriptorOf(file);
        if (fd < 0) {
            return 0;
        }
#if defined(__linux__)
        alignas(fiemap) unsigned char request[sizeof(fiemap) + sizeof(fiemap_extent)] = {};
        fiemap* map = reinterpret_cast<fiemap*>(request);
        map->fm_start = 0;
        map->fm_length = FIEMAP_MAX_OFFSET;
        map->fm_extent_count = 1;
        if (::ioctl(fd, FS_IOC_FIEMAP, map) == 0 && map->fm_mapped_extents > 0) {
            return map->fm_extents[0].fe_physical;
        }
#endif
        return 0;
    }

private:
    // The absolute position a seek asks for, before clamping at 0; false on overflow.
    bool seekTarget(FileHandle* file, int64_t offset, BaseFile::SeekMode mode, int64_t& target) {
        switch (mode) {
            case BaseFile::SeekCurrent: {
                int64_t current = static_cast<int64_t>(getCurrentPosition(file));
                return !__builtin_add_overflow(current, offset, &target);
            }
            case BaseFile::SeekBegin:
                target = offset;
                return true;
            case BaseFile::SeekEnd: {
                int64_t size = static_cast<int64_t>(getFileSize(file));
                return !__builtin_sub_overflow(size, offset, &target);
            }
        }
        return false;
    }

    bool copyOpenFile(int in, const NativePath& target) {
        struct stat source;
        struct stat existing;
        if (::fstat(in, &source) != 0 || S_ISDIR(source.st_mode)) {
            return false;
        }
        // Copying a file onto itself would empty it before reading it.
        if (statPath(target, existing) && existing.st_dev == source.st_dev &&
            existing.st_ino == source.st_ino) {
            return false;
        }
        int out =
            openRegularFile(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC, source.st_mode & 0777);
        if (out < 0) {
            return false;
        }
        timespec times[2] = {timespec{0, UTIME_OMIT}, modificationTime(source)};
        bool copied = copyContents(in, out) && ::futimens(out, times) == 0;
        copied = ::close(out) == 0 && copied;
        if (!copied) {
            ::unlink(target.c_str());
        }
        return copied;
    }
};

}  // namespace

namespace detail {

FileSystem& getPlatformFileSystem() {
    static FileSystem* const s_localFileSystem = newObject<LocalFileSystem>();
    return *s_localFileSystem;
}

}  // namespace detail

}  // namespace zu
