// Named mutexes on POSIX: a lock file in the temporary folder. Each holder keeps a shared
// flock on it; a probe that gets an exclusive lock without waiting knows that nobody holds it.
// The kernel drops a dead holder's lock with its descriptors.
//
// Lock files are removed when the name is free again (by the last holder, or by a probe that
// finds a file left by a crashed process), so the folder does not fill up. Creating, removing
// and probing all run under one exclusive guard lock, shared by every name: otherwise a probe
// could remove a file between a new holder's open and its lock.
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

#include "zu/named_mutex.h"

namespace zu {

namespace {

// A name that is longer or holds other characters than these gets a hash of the original
// appended, so that two names never share a file.
constexpr size_t kMaxPlainNameLength = 100;

bool isPlainNameCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == '.';
}

uint64_t hashName(const char* name) {
    uint64_t hash = 14695981039346656037ull;  // 64-bit FNV-1a
    for (const char* c = name; *c != 0; ++c) {
        hash = (hash ^ static_cast<unsigned char>(*c)) * 1099511628211ull;
    }
    return hash;
}

const char* temporaryFolder() {
    const char* folder = std::getenv("TMPDIR");
    return folder != nullptr && folder[0] != 0 ? folder : "/tmp";
}

InplaceString<256> lockFilePath(const char* name) {
    InplaceString<256> path;
    path.format("%s/zu-named-mutex-", temporaryFolder());
    bool plain = name[0] != 0;
    size_t length = 0;
    for (const char* c = name; *c != 0; ++c, ++length) {
        bool keep = isPlainNameCharacter(*c);
        plain = plain && keep;
        if (length < kMaxPlainNameLength) {
            path.append(keep ? *c : '_');
        }
    }
    if (!plain || length > kMaxPlainNameLength) {
        path.appendFormat("-%016llx", static_cast<unsigned long long>(hashName(name)));
    }
    path.append(".lock");
    return path;
}

int openLockFile(const char* path, int flags) {
    int fd;
    do {
        // No symlinks: a link planted in the shared temporary folder must not redirect us.
        fd = ::open(path, flags | O_CLOEXEC | O_NOFOLLOW, 0666);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// Lets other users' processes use the name too, whatever this process's umask; only for a
// lock file this user owns.
void shareWithOtherUsers(int fd) {
    struct stat info;
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == ::geteuid()) {
        ::fchmod(fd, 0666);
    }
}

int lockRetrying(int fd, int operation) {
    int result;
    do {
        result = ::flock(fd, operation);
    } while (result != 0 && errno == EINTR);
    return result;
}

// True while `fd` is still the file at `path`; something outside could have removed it.
bool isStillAtPath(int fd, const char* path) {
    struct stat open;
    struct stat named;
    return ::fstat(fd, &open) == 0 && ::stat(path, &named) == 0 && open.st_dev == named.st_dev &&
           open.st_ino == named.st_ino;
}

// The exclusive guard lock, held for its lifetime. Without a guard file (a read-only folder)
// there are no lock files either, so going on unguarded does no harm.
class GuardLock {
public:
    GuardLock() {
        InplaceString<256> path;
        path.format("%s/zu-named-mutex.guard", temporaryFolder());
        m_fd = openLockFile(path.c_str(), O_RDONLY | O_CREAT);
        if (m_fd >= 0) {
            shareWithOtherUsers(m_fd);
            lockRetrying(m_fd, LOCK_EX);
        }
    }
    ~GuardLock() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    GuardLock(const GuardLock&) = delete;
    GuardLock& operator=(const GuardLock&) = delete;

private:
    int m_fd;
};

// Opens the lock file and holds a shared lock on it; -1 when that fails.
int holdLockFile(const char* path) {
    GuardLock guard;
    int fd = openLockFile(path, O_RDONLY | O_CREAT);
    if (fd < 0) {
        return -1;
    }
    shareWithOtherUsers(fd);
    if (lockRetrying(fd, LOCK_SH) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

NamedMutex::NamedMutex(const char* name) : m_name(name != nullptr ? name : "") {
    int fd = holdLockFile(lockFilePath(m_name.c_str()).c_str());
    m_handle = fd >= 0 ? static_cast<NativeHandle>(fd) : kInvalidHandle;
}

NamedMutex::~NamedMutex() {
    if (m_handle == kInvalidHandle) {
        return;
    }
    int fd = static_cast<int>(m_handle);
    GuardLock guard;
    // The last holder removes the file. Turning the shared lock into an exclusive one is not
    // atomic, but this holder is leaving anyway.
    if (lockRetrying(fd, LOCK_EX | LOCK_NB) == 0) {
        InplaceString<256> path = lockFilePath(m_name.c_str());
        if (isStillAtPath(fd, path.c_str())) {
            ::unlink(path.c_str());
        }
    }
    ::close(fd);
}

bool NamedMutex::doesMutexExist(const char* name) {
    InplaceString<256> path = lockFilePath(name != nullptr ? name : "");
    GuardLock guard;
    int fd = openLockFile(path.c_str(), O_RDONLY);
    if (fd < 0) {
        return false;
    }
    bool held = false;
    if (lockRetrying(fd, LOCK_EX | LOCK_NB) == 0) {
        // Nobody holds it: the file is stale and goes.
        if (isStillAtPath(fd, path.c_str())) {
            ::unlink(path.c_str());
        }
    } else {
        held = errno == EWOULDBLOCK;
    }
    ::close(fd);
    return held;
}

}  // namespace zu
