#include "zu/file_system.h"

#include <atomic>
#include <cstring>

#include "platform_file_system.h"

namespace zu {

namespace {

std::atomic<FileSystem*> g_currentFileSystem{nullptr};

bool isSeparator(char c) {
    return c == '/' || c == '\\';
}

bool isDotEntry(const char* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

// `folder` and `name` joined by '/', unless `folder` is empty or already ends in a separator.
InplaceString<256> joinPath(const char* folder, const char* name) {
    InplaceString<256> joined(folder);
    if (!joined.empty() && !isSeparator(joined[joined.length() - 1])) {
        joined.append('/');
    }
    joined.append(name);
    return joined;
}

struct FindWalk {
    FileSystem& fileSystem;
    FilePathList& out;
    const char* filter;
    FileAcceptDelegate& accept;
    bool recursive;

    // Lists the matching files of `folder`, then walks its subfolders. Subfolders are collected
    // first so that only one find handle is open at a time.
    void walk(const char* folder, int depth) {
        FilePathList subfolders;
        InplaceString<256> pattern = joinPath(folder, "*");
        for (FindFileHandle* find = fileSystem.findFirstFile(pattern.c_str()); find != nullptr;
             find = fileSystem.findNextFile(find)) {
            const char* name = fileSystem.findGetFileName(find);
            if (isDotEntry(name)) {
                continue;
            }
            if (fileSystem.findIsDirectory(find)) {
                if (recursive) {
                    subfolders.push_back(joinPath(folder, name));
                }
            } else if (matchesWildcard(name, filter)) {
                take(joinPath(folder, name), name);
            }
        }
        if (depth >= FileSystem::kMaxFindDepth) {
            return;
        }
        for (const InplaceString<256>& subfolder : subfolders) {
            walk(subfolder.c_str(), depth + 1);
        }
    }

    void take(const InplaceString<256>& path, const char* name) {
        if (!accept || accept(name, path.c_str())) {
            out.push_back(path);
        }
    }
};

}  // namespace

bool matchesWildcard(const char* name, const char* pattern) {
    if (name == nullptr || pattern == nullptr) {
        return false;
    }
    if (std::strcmp(pattern, "*.*") == 0) {
        return true;
    }
    // Greedy matching with one backtrack point: on a mismatch after a '*', that '*' takes one
    // more character. Linear in practice, never exponential.
    const char* starPattern = nullptr;
    const char* starName = nullptr;
    while (*name != 0) {
        if (*pattern == '*') {
            starPattern = ++pattern;
            starName = name;
        } else if (*pattern == '?' || *pattern == *name) {
            ++pattern;
            ++name;
        } else if (starPattern != nullptr) {
            pattern = starPattern;
            name = ++starName;
        } else {
            return false;
        }
    }
    while (*pattern == '*') {
        ++pattern;
    }
    return *pattern == 0;
}

FileHandle::~FileHandle() = default;
FindFileHandle::~FindFileHandle() = default;
FileSystem::~FileSystem() = default;

uint64_t FileSystem::readFileAsync(FileHandle* file, void* buffer, uint64_t count,
                                   uint64_t offset) {
    if (file == nullptr || offset > static_cast<uint64_t>(INT64_MAX)) {
        return 0;
    }
    uint64_t saved = getCurrentPosition(file);
    uint64_t read = 0;
    if (seekFile(file, static_cast<int64_t>(offset), BaseFile::SeekBegin) == offset) {
        read = readFile(file, buffer, count);
    }
    seekFile(file, static_cast<int64_t>(saved), BaseFile::SeekBegin);
    return read;
}

void FileSystem::findSubfolders(FilePathList& out, const char* path) {
    InplaceString<256> pattern = joinPath(path, "*");
    for (FindFileHandle* find = findFirstFile(pattern.c_str()); find != nullptr;
         find = findNextFile(find)) {
        const char* name = findGetFileName(find);
        if (findIsDirectory(find) && !isDotEntry(name)) {
            out.push_back(InplaceString<256>(name));
        }
    }
}

void FileSystem::listFiles(FilePathList& out, const char* path, const char* filter,
                           FileAcceptDelegate& accept, bool recursive) {
    out.clear();
    findFilesInternal(out, path, filter, accept, recursive);
}

void FileSystem::findFiles(FilePathList& out, const char* path, const char* filter,
                           FileAcceptDelegate& accept, bool recursive) {
    FindWalk walk{*this, out, filter != nullptr ? filter : "*", accept, recursive};
    walk.walk(path != nullptr ? path : "", 0);
}

void FileSystem::findFilesInternal(FilePathList& out, const char* path, const char* filter,
                                   FileAcceptDelegate& accept, bool recursive) {
    findFiles(out, path, filter, accept, recursive);
}

FileSystem& getLocalFileSystem() {
    return detail::getPlatformFileSystem();
}

FileSystem& getFileSystem() {
    FileSystem* current = g_currentFileSystem.load(std::memory_order_acquire);
    return current != nullptr ? *current : getLocalFileSystem();
}

void setFileSystem(FileSystem* fileSystem) {
    g_currentFileSystem.store(fileSystem, std::memory_order_release);
}

}  // namespace zu
