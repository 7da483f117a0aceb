#include "fileserver/folder_map.h"

#include <limits.h>
#include <stdlib.h>
#include <strings.h>
#include <sys/stat.h>

namespace fileserver_tool {

namespace {

std::string realPath(const std::string& path) {
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : std::string();
}

// Splits the part of a game path below its mapped folder into components; false when one of
// them could walk anywhere but down.
bool splitSafely(const std::string& relative, std::vector<std::string>& components) {
    if (relative.find(':') != std::string::npos) {
        return false;  // drive prefixes ("C:") and stream names
    }
    if (!relative.empty() && (relative[0] == '/' || relative[0] == '\\')) {
        return false;  // an absolute path behind the folder name
    }
    std::vector<std::string> pieces(1);
    for (char c : relative) {
        if (c == '/' || c == '\\') {
            pieces.emplace_back();
        } else {
            pieces.back() += c;
        }
    }
    for (size_t index = 0; index < pieces.size(); ++index) {
        const std::string& piece = pieces[index];
        if (piece.empty() && index + 1 < pieces.size()) {
            return false;  // "a//b"
        }
        if (piece == "." || piece == "..") {
            return false;
        }
        if (!piece.empty()) {
            components.push_back(piece);
        }
    }
    return true;
}

}  // namespace

bool isInside(const std::string& path, const std::string& root) {
    return path == root || (path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
                            (path[root.size()] == '/' || root == "/"));
}

bool FolderMap::add(const std::string& mapping, std::string& error) {
    const size_t equals = mapping.find('=');
    if (equals == std::string::npos || equals == 0 || equals + 1 == mapping.size()) {
        error = "a mapping is written FOLDER/=HOST-FOLDER: \"" + mapping + "\"";
        return false;
    }
    std::string name = mapping.substr(0, equals);
    for (char& c : name) {
        c = c == '\\' ? '/' : c;
    }
    if (name.back() != '/') {
        name += '/';
    }
    if (name.find('"') != std::string::npos || name.find(',') != std::string::npos ||
        name[0] == '/') {
        error = "a folder name holds no '\"' or ',' and does not begin with '/': \"" + name + "\"";
        return false;
    }
    const std::string host = realPath(mapping.substr(equals + 1));
    struct stat info {};
    if (host.empty() || stat(host.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        error = "no such folder: \"" + mapping.substr(equals + 1) + "\"";
        return false;
    }
    m_folders.push_back({name, host});
    return true;
}

const MappedFolder* FolderMap::folderOf(const std::string& gamePath) const {
    for (const MappedFolder& folder : m_folders) {
        if (strncasecmp(gamePath.c_str(), folder.name.c_str(), folder.name.size()) == 0) {
            return &folder;
        }
    }
    return nullptr;
}

std::string FolderMap::resolve(const std::string& gamePath) const {
    const MappedFolder* folder = folderOf(gamePath);
    std::vector<std::string> components;
    if (folder == nullptr || !splitSafely(gamePath.substr(folder->name.size()), components)) {
        return std::string();
    }
    std::string path = folder->hostRoot;
    for (const std::string& component : components) {
        path += '/';
        path += component;
    }
    // Whatever exists of the path must stay inside the folder once links are followed: the
    // whole path when it exists, else the folder that is to hold it.
    std::string real = realPath(path);
    if (real.empty()) {
        const size_t slash = path.rfind('/');
        struct stat info {};
        if (lstat(path.c_str(), &info) == 0) {
            return std::string();  // a dangling link: it could be made to point anywhere
        }
        real = realPath(path.substr(0, slash));
    }
    if (real.empty() || !isInside(real, folder->hostRoot)) {
        return std::string();
    }
    return path;
}

}  // namespace fileserver_tool
