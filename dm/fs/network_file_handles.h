// The handles NetworkFileSystem gives out for open files and ongoing finds.
#pragma once

#include <cstddef>
#include <cstdint>

#include "fs/file_server_commands.h"
#include "zu/file_system.h"
#include "zu/string.h"

namespace dm {

class NetworkFileSystem;

// An open file: remote exactly when localHandle is null.
class NetworkFileHandle final : public zu::FileHandle {
public:
    NetworkFileHandle(NetworkFileSystem& fileSystem, const char* remotePath,
                      zu::BaseFile::Mode openMode, zu::FileHandle* local)
        : owner(fileSystem), path(remotePath), mode(openMode), localHandle(local) {}

    bool isRemote() const { return localHandle == nullptr; }

    // The longest remote path a handle holds; longer ones are refused, never cut short.
    static constexpr size_t kMaxPathLength = 255;

    NetworkFileSystem& owner;
    zu::InplaceString<kMaxPathLength + 1> path;  // empty for a local file
    uint64_t position = 0;
    uint64_t size = 0;  // a remote file's size, as of opening or the last write
    zu::BaseFile::Mode mode;
    zu::FileHandle* localHandle;
};

// An ongoing find over the merged, sorted entries of both sides.
class NetworkFindHandle final : public zu::FindFileHandle {
public:
    NetworkFindHandle(NetworkFileSystem& fileSystem, const char* findPattern)
        : owner(fileSystem), pattern(findPattern) {}

    const fileserver::FileEntry* currentEntry() const {
        return current < entries.size() ? &entries[current] : nullptr;
    }

    NetworkFileSystem& owner;
    fileserver::FileEntryList entries;
    uint32_t current = 0;
    zu::InplaceString<256> pattern;
};

}  // namespace dm
