#include "fileserver/command_handler.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "zu/file_system.h"

namespace fileserver_tool {

namespace {

// Seconds between 1601-01-01 and 1970-01-01: file times count 100 ns from the former.
constexpr uint64_t kEpochDifference = 11644473600ull;

uint64_t fileTime(const struct stat& info) {
    const uint64_t seconds = static_cast<uint64_t>(info.st_mtim.tv_sec) + kEpochDifference;
    return seconds * 10000000ull + static_cast<uint64_t>(info.st_mtim.tv_nsec) / 100;
}

bool statPath(const std::string& path, struct stat& info) {
    return !path.empty() && stat(path.c_str(), &info) == 0;
}

bool isFile(const std::string& path) {
    struct stat info {};
    return statPath(path, info) && S_ISREG(info.st_mode);
}

bool isFolder(const std::string& path) {
    struct stat info {};
    return statPath(path, info) && S_ISDIR(info.st_mode);
}

// Closes a descriptor when it goes out of scope.
struct Descriptor {
    explicit Descriptor(int value) : fd(value) {}
    ~Descriptor() {
        if (fd >= 0) {
            close(fd);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int fd;
};

bool copyContents(const std::string& from, const std::string& to) {
    Descriptor source(open(from.c_str(), O_RDONLY | O_CLOEXEC));
    Descriptor target(open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (source.fd < 0 || target.fd < 0) {
        return false;
    }
    char block[64 * 1024];
    for (;;) {
        const ssize_t got = ::read(source.fd, block, sizeof(block));
        if (got == 0) {
            return true;
        }
        if (got < 0 || ::write(target.fd, block, static_cast<size_t>(got)) != got) {
            return false;
        }
    }
}

// "folder/pattern" split at its last separator: the folder with its separator, and the rest.
void splitPattern(const std::string& pattern, std::string& folder, std::string& name) {
    const size_t slash = pattern.find_last_of("/\\");
    folder = slash == std::string::npos ? std::string() : pattern.substr(0, slash + 1);
    name = slash == std::string::npos ? pattern : pattern.substr(slash + 1);
}

}  // namespace

// The arguments behind a command word: quoted texts and decimal numbers.
struct CommandHandler::Arguments {
    const char* cursor;

    void skipSpaces() {
        while (*cursor == ' ') {
            ++cursor;
        }
    }
    bool quoted(std::string& out) {
        skipSpaces();
        if (*cursor != '"') {
            return false;
        }
        const char* end = std::strchr(cursor + 1, '"');
        if (end == nullptr) {
            return false;
        }
        out.assign(cursor + 1, end);
        cursor = end + 1;
        return true;
    }
    bool number(long long& out) {
        skipSpaces();
        char* end = nullptr;
        errno = 0;
        out = std::strtoll(cursor, &end, 10);
        if (end == cursor || errno != 0) {
            return false;
        }
        cursor = end;
        return true;
    }
    bool finished() {
        skipSpaces();
        return *cursor == 0;
    }
};

Answer CommandHandler::handle(const char* text, const void* data, uint32_t dataSize) {
    m_mapping.unmap();  // the last answer has been sent
    const char* space = std::strchr(text, ' ');
    const std::string command = space != nullptr ? std::string(text, space) : std::string(text);
    Arguments arguments{space != nullptr ? space : text + std::strlen(text)};
    std::string first;
    std::string second;
    long long number = 0;

    if (command == "getMappedFolders") {
        return arguments.finished() ? mappedFolders() : answerYesNo(false);
    }
    if (command == "read") {
        return read(arguments);
    }
    if (command == "write") {
        return write(arguments, data, dataSize);
    }
    if (command == "findFilesRecursive") {
        if (!arguments.quoted(first) || !arguments.quoted(second) || !arguments.number(number) ||
            !arguments.finished()) {
            return answerYesNo(false);
        }
        return findFilesRecursive(first, second, number != 0);
    }
    if (command == "moveFile" || command == "copyFile") {
        if (!arguments.quoted(first) || !arguments.quoted(second) || !arguments.finished()) {
            return answerYesNo(false);
        }
        const std::string from = m_folders.resolve(first);
        const std::string to = m_folders.resolve(second);
        if (m_readOnly || from.empty() || to.empty() || isMappedRoot(from) || isMappedRoot(to)) {
            return answerYesNo(false);
        }
        if (command == "moveFile") {
            return answerYesNo(rename(from.c_str(), to.c_str()) == 0);
        }
        return answerYesNo(isFile(from) && copyContents(from, to));
    }
    if (!arguments.quoted(first) || !arguments.finished()) {
        return answerYesNo(false);
    }
    if (command == "findFiles") {
        return findFiles(first);
    }
    const std::string path = m_folders.resolve(first);
    struct stat info {};
    const bool exists = statPath(path, info);
    if (command == "fileExists") {
        return answerYesNo(exists && S_ISREG(info.st_mode));
    }
    if (command == "directoryExists") {
        return answerYesNo(exists && S_ISDIR(info.st_mode));
    }
    if (command == "isFileReadOnly") {
        return answerYesNo(exists && (m_readOnly || access(path.c_str(), W_OK) != 0));
    }
    if (command == "getFileSize") {
        return Answer{std::to_string(exists && S_ISREG(info.st_mode) ? info.st_size : 0)};
    }
    if (command == "getFileTime") {
        const uint64_t time = exists ? fileTime(info) : 0;
        char answer[32];
        std::snprintf(answer, sizeof(answer), "%i %i", static_cast<int32_t>(time & 0xFFFFFFFFu),
                      static_cast<int32_t>(time >> 32));
        return Answer{answer};
    }
    const bool writable = !m_readOnly && !path.empty() && !isMappedRoot(path);
    if (command == "deleteFile") {
        return answerYesNo(writable && exists && !S_ISDIR(info.st_mode) &&
                           unlink(path.c_str()) == 0);
    }
    if (command == "createDirectory") {
        return answerYesNo(writable && mkdir(path.c_str(), 0755) == 0);
    }
    if (command == "deleteDirectory") {
        return answerYesNo(writable && exists && rmdir(path.c_str()) == 0);
    }
    return answerYesNo(false);
}

bool CommandHandler::isMappedRoot(const std::string& hostPath) const {
    for (const MappedFolder& folder : m_folders.folders()) {
        if (hostPath == folder.hostRoot) {
            return true;
        }
    }
    return false;
}

Answer CommandHandler::read(Arguments& arguments) {
    long long position = 0;
    long long count = 0;
    std::string gamePath;
    if (!arguments.number(position) || !arguments.number(count) || !arguments.quoted(gamePath) ||
        !arguments.finished() || position < 0 || count < 0) {
        return answerYesNo(false);
    }
    const std::string path = m_folders.resolve(gamePath);
    Descriptor file(path.empty() ? -1 : open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat info {};
    if (file.fd < 0 || fstat(file.fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        return answerYesNo(false);
    }
    // Only what the file holds from the position on is read, so a large count asks for no
    // more memory than the file has bytes.
    const long long available = info.st_size > position ? info.st_size - position : 0;
    long long wanted = count < available ? count : available;
    wanted = wanted < kMaxReadBytes ? wanted : kMaxReadBytes;
    // The file's own pages are the answer's data; reading into a buffer is the way when the
    // system will not map them.
    if (wanted > 0 &&
        m_mapping.map(file.fd, static_cast<uint64_t>(position), static_cast<size_t>(wanted))) {
        return Answer{"true", m_mapping.data(), static_cast<uint32_t>(wanted)};
    }
    if (m_readBuffer.size() < static_cast<size_t>(wanted)) {
        // A read larger than the memory the server can get is refused; serving goes on.
        try {
            m_readBuffer.resize(static_cast<size_t>(wanted));
        } catch (const std::bad_alloc&) {
            std::vector<char>().swap(m_readBuffer);
            return answerYesNo(false);
        }
    }
    size_t done = 0;
    while (done < static_cast<size_t>(wanted)) {
        const ssize_t got =
            pread(file.fd, m_readBuffer.data() + done, static_cast<size_t>(wanted) - done,
                  static_cast<off_t>(position) + static_cast<off_t>(done));
        if (got <= 0) {
            break;
        }
        done += static_cast<size_t>(got);
    }
    return Answer{"true", m_readBuffer.data(), static_cast<uint32_t>(done)};
}

Answer CommandHandler::write(Arguments& arguments, const void* data, uint32_t dataSize) {
    long long position = 0;
    long long count = 0;
    std::string gamePath;
    if (!arguments.number(position) || !arguments.number(count) || !arguments.quoted(gamePath) ||
        !arguments.finished() || position < 0 || count < 0 || m_readOnly) {
        return Answer{"0"};
    }
    const std::string path = m_folders.resolve(gamePath);
    if (path.empty() || isFolder(path)) {
        return Answer{"0"};
    }
    Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    if (file.fd < 0) {
        return Answer{"0"};
    }
    // Never more than actually arrived, whatever the count says.
    const size_t wanted = static_cast<size_t>(count < dataSize ? count : dataSize);
    const char* bytes = static_cast<const char*>(data);
    size_t done = 0;
    while (done < wanted) {
        const ssize_t put = pwrite(file.fd, bytes + done, wanted - done,
                                   static_cast<off_t>(position) + static_cast<off_t>(done));
        if (put <= 0) {
            break;
        }
        done += static_cast<size_t>(put);
    }
    return Answer{std::to_string(done)};
}

Answer CommandHandler::list(const std::vector<std::string>& entries) {
    // Room for the count string in front; entries that would not fit are left out.
    constexpr size_t kCountRoom = 16;
    std::string body;
    size_t taken = 0;
    for (const std::string& entry : entries) {
        if (body.size() + entry.size() + 1 > kMaxListBytes - kCountRoom) {
            break;
        }
        body.append(entry).push_back('\0');
        ++taken;
    }
    m_listBuffer = std::to_string(taken);
    m_listBuffer.push_back('\0');
    m_listBuffer += body;
    return Answer{"true", m_listBuffer.data(), static_cast<uint32_t>(m_listBuffer.size())};
}

Answer CommandHandler::mappedFolders() {
    std::vector<std::string> entries;
    for (const MappedFolder& folder : m_folders.folders()) {
        entries.push_back(folder.name + "," + folder.hostRoot);
    }
    return list(entries);
}

Answer CommandHandler::findFiles(const std::string& pattern) {
    std::string folder;
    std::string namePattern;
    splitPattern(pattern, folder, namePattern);
    std::vector<std::string> entries;
    char entry[600];
    if (folder.empty()) {
        // The top level holds the mapped folders.
        for (const MappedFolder& mapped : m_folders.folders()) {
            const std::string name = mapped.name.substr(0, mapped.name.size() - 1);
            if (name.find('/') == std::string::npos &&
                zu::matchesWildcard(name.c_str(), namePattern.c_str())) {
                std::snprintf(entry, sizeof(entry), "1 0 0 \"%s\"", name.c_str());
                entries.push_back(entry);
            }
        }
        return list(entries);
    }
    const std::string hostFolder = m_folders.resolve(folder);
    DIR* directory = hostFolder.empty() ? nullptr : opendir(hostFolder.c_str());
    if (directory == nullptr) {
        return list(entries);
    }
    while (const dirent* found = readdir(directory)) {
        const std::string name = found->d_name;
        if (name == "." || name == ".." || name.find('"') != std::string::npos ||
            name.size() > 255 || !zu::matchesWildcard(name.c_str(), namePattern.c_str())) {
            continue;
        }
        // Entries reached through a link that leads out are not shown.
        const std::string hostPath = m_folders.resolve(folder + name);
        struct stat info {};
        if (!statPath(hostPath, info)) {
            continue;
        }
        std::snprintf(entry, sizeof(entry), "%i %" PRIu64 " %" PRIu64 " \"%s\"",
                      S_ISDIR(info.st_mode) ? 1 : 0,
                      S_ISDIR(info.st_mode) ? 0 : static_cast<uint64_t>(info.st_size),
                      fileTime(info), name.c_str());
        entries.push_back(entry);
    }
    closedir(directory);
    return list(entries);
}

Answer CommandHandler::findFilesRecursive(const std::string& folder, const std::string& filter,
                                          bool recursive) {
    std::vector<std::string> entries;
    std::string top = folder;
    if (!top.empty() && top.back() != '/' && top.back() != '\\') {
        top += '/';
    }
    // Folders still to read, as game paths ending in '/', with their depth.
    std::vector<std::pair<std::string, int>> pending{{top, 0}};
    while (!pending.empty()) {
        const auto [gameFolder, depth] = pending.back();
        pending.pop_back();
        const std::string hostFolder = m_folders.resolve(gameFolder);
        DIR* directory = hostFolder.empty() ? nullptr : opendir(hostFolder.c_str());
        if (directory == nullptr) {
            continue;
        }
        while (const dirent* found = readdir(directory)) {
            const std::string name = found->d_name;
            if (name == "." || name == ".." || name.find('"') != std::string::npos) {
                continue;
            }
            struct stat info {};
            if (lstat((hostFolder + "/" + name).c_str(), &info) != 0) {
                continue;
            }
            // Linked folders are not walked into: no loops, and nothing outside is listed.
            if (S_ISDIR(info.st_mode)) {
                if (recursive && depth < kMaxFindDepth) {
                    pending.push_back({gameFolder + name + "/", depth + 1});
                }
            } else if (S_ISREG(info.st_mode) && zu::matchesWildcard(name.c_str(), filter.c_str())) {
                entries.push_back("0 \"" + gameFolder + name + "\"");
            }
        }
        closedir(directory);
    }
    return list(entries);
}

}  // namespace fileserver_tool
