// The folders dm-fileserver serves: each maps a folder name the game uses ("data/") to a
// folder on this machine, and every request path is resolved through them or refused.
#pragma once

#include <string>
#include <vector>

namespace fileserver_tool {

struct MappedFolder {
    std::string name;      // as the game writes it, ending in '/': "data/"
    std::string hostRoot;  // the real, absolute folder it stands for, without a trailing '/'
};

class FolderMap {
public:
    // Adds "name/=host/folder"; false (with `error` set) when it is malformed or the folder
    // does not exist.
    bool add(const std::string& mapping, std::string& error);
    const std::vector<MappedFolder>& folders() const { return m_folders; }

    // The host path for a game path, or "" when the path is refused: not in a mapped folder,
    // holding a "..", "." or empty component, a drive prefix or ':' anywhere, a path that
    // begins with a separator after the folder name, or one whose existing part leads out of
    // its mapped folder through a symbolic link. The last component need not exist (a file to
    // create), but the folder holding it must.
    std::string resolve(const std::string& gamePath) const;
    // The mapped folder a game path lies in, or null.
    const MappedFolder* folderOf(const std::string& gamePath) const;

private:
    std::vector<MappedFolder> m_folders;
};

// True when `path` is `root` or lies below it (both absolute, without trailing '/').
bool isInside(const std::string& path, const std::string& root);

}  // namespace fileserver_tool
