// Answers the file-server commands (docs/fileserver-protocol.md) from the host folders of a
// FolderMap. Never touches anything outside them; a request it cannot carry out, a malformed
// or an unknown one gets a "false" (or "0") answer.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fileserver/folder_map.h"
#include "fileserver/mapped_read.h"

namespace fileserver_tool {

struct Answer {
    std::string text;
    const void* data = nullptr;  // valid until the next handle call
    uint32_t dataSize = 0;
};

class CommandHandler {
public:
    // List answers are cut to this many bytes, the size of the game's list buffer.
    static constexpr size_t kMaxListBytes = 655360;
    // A single read answers at most this many bytes.
    static constexpr uint32_t kMaxReadBytes = 512u * 1024u * 1024u;
    // How deep a recursive find goes below its folder.
    static constexpr int kMaxFindDepth = 64;

    CommandHandler(const FolderMap& folders, bool readOnly)
        : m_folders(folders), m_readOnly(readOnly) {}

    Answer handle(const char* text, const void* data, uint32_t dataSize);

private:
    struct Arguments;

    Answer answerYesNo(bool yes) const { return Answer{yes ? "true" : "false"}; }
    Answer read(Arguments& arguments);
    Answer write(Arguments& arguments, const void* data, uint32_t dataSize);
    Answer findFiles(const std::string& pattern);
    Answer findFilesRecursive(const std::string& folder, const std::string& filter, bool recursive);
    Answer mappedFolders();
    Answer list(const std::vector<std::string>& entries);
    bool isMappedRoot(const std::string& hostPath) const;

    const FolderMap& m_folders;
    const bool m_readOnly;
    MappedRead m_mapping;            // the last read's answer, straight from the file
    std::vector<char> m_readBuffer;  // for reads that cannot be mapped; reused
    std::string m_listBuffer;
};

}  // namespace fileserver_tool
