// The client side of the file-server command protocol: one request per file operation on the
// pipe "fileserver", yes/no and number answers, and the list answers that travel through one
// process-wide buffer.
#pragma once

#include <cstdint>

#include "zu/string.h"
#include "zu/vector.h"

namespace dm {
namespace fileserver {

constexpr const char* kPipeName = "fileserver";
// Every list answer lands in one buffer of this size; what does not fit is cut off.
constexpr uint32_t kListBufferSize = 655360;

struct FileEntry {
    bool isDirectory = false;
    zu::InplaceString<256> name;
    uint64_t size = 0;
    uint64_t time = 0;
};

using FileEntryList = zu::Vector<FileEntry>;
using NameList = zu::Vector<zu::InplaceString<256>>;
using FolderList = zu::Vector<zu::InplaceString<128>>;

// Sends `command` and returns the answer text ("" when the pipe "fileserver" does not exist).
// The answer's data goes to `responseBuffer` (up to `capacity` bytes; the number received to
// `outReceived`); `data` is sent along as the request data.
zu::InplaceString<128> send(const char* command, void* responseBuffer = nullptr,
                            uint32_t capacity = 0, uint32_t* outReceived = nullptr,
                            const void* data = nullptr, uint32_t dataSize = 0);
// "true" in any letter case.
bool isTrue(const zu::String& answer);
bool sendYesNo(const char* command);
// A decimal answer; 0 when it is not a number.
int64_t sendNumber(const char* command);

// The list commands: each takes the process-wide list lock for the whole exchange, empties
// `out` and fills it from the answer.
void findFiles(const char* pattern, FileEntryList& out);
void findFilesRecursive(const char* directory, const char* filter, bool recursive, NameList& out);
void getMappedFolders(FolderList& out);

// The walks over a received list (`size` bytes at `data`, with a zero byte at data[size]).
// Exposed for the list lock's holders and for checks of hostile answers.
void walkFileEntries(const char* data, uint32_t size, FileEntryList& out);
void walkPathEntries(const char* data, uint32_t size, NameList& out);
void walkMappedFolders(const char* data, uint32_t size, FolderList& out);

}  // namespace fileserver
}  // namespace dm
