#include "fs/file_server_commands.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "dm/comm.h"
#include "zu/mutex.h"

namespace dm {
namespace fileserver {

namespace {

// Serialises the use of s_listBuffer, from sending the request until the list is parsed.
zu::Mutex s_listLock;
// The one buffer every list answer lands in, with room for a terminating zero behind the
// largest answer, so that even an answer without any zero byte ends inside it.
char s_listBuffer[kListBufferSize + 1] ZU_GUARDED_BY(s_listLock);

// Longest name or path taken from one entry; longer ones are cut here.
constexpr int kMaxEntryText = 511;

// Calls `take` with each zero-terminated string of the list, after the count string. Never
// reads past `size` bytes: data[size] is zero, so the last string ends there at the latest.
template <typename Take>
void walkStrings(const char* data, uint32_t size, Take&& take) {
    uint32_t remaining = size;
    const char* cursor = data;
    bool first = true;
    while (remaining > 0) {
        size_t length = strnlen(cursor, remaining);
        if (!first) {
            take(cursor);
        }
        first = false;
        const size_t step = length + 1 < remaining ? length + 1 : remaining;
        cursor += step;
        remaining -= static_cast<uint32_t>(step);
    }
}

// The count string in front of a list: used only to reserve room. A bogus count cannot make
// us reserve more than the entries that could fit in the received bytes.
size_t plausibleCount(const char* data, uint32_t size) {
    if (size == 0) {
        return 0;
    }
    char countText[32] = {};
    const size_t length =
        strnlen(data, size < sizeof(countText) - 1 ? size : sizeof(countText) - 1);
    std::memcpy(countText, data, length);
    if (char* comma = std::strchr(countText, ',')) {
        *comma = 0;
    }
    const long long count = std::atoll(countText);
    const size_t mostThatFit = size / 2;
    if (count <= 0) {
        return 0;
    }
    return static_cast<size_t>(count) < mostThatFit ? static_cast<size_t>(count) : mostThatFit;
}

// Sends a list command with the answer going to s_listBuffer.
uint32_t receiveList(const char* command) ZU_REQUIRES(s_listLock) {
    uint32_t received = 0;
    send(command, s_listBuffer, kListBufferSize, &received);
    if (received > kListBufferSize) {
        received = kListBufferSize;  // the rest did not fit and was not copied
    }
    s_listBuffer[received] = 0;
    return received;
}

bool holdsQuote(const char* text) {
    return text != nullptr && std::strchr(text, '"') != nullptr;
}

}  // namespace

zu::InplaceString<128> send(const char* command, void* responseBuffer, uint32_t capacity,
                            uint32_t* outReceived, const void* data, uint32_t dataSize) {
    if (outReceived != nullptr) {
        *outReceived = 0;
    }
    CommunicationPipe* pipe = getCommunicationPipe(kPipeName);
    if (pipe == nullptr) {
        return zu::InplaceString<128>();
    }
    return pipe->sendRequest(command, 0, responseBuffer, capacity, outReceived, data, dataSize);
}

bool isTrue(const zu::String& answer) {
    return answer.equalsIgnoreCase("true");
}

bool sendYesNo(const char* command) {
    return isTrue(send(command));
}

int64_t sendNumber(const char* command) {
    zu::InplaceString<128> answer = send(command);
    long long value = 0;
    if (std::sscanf(answer.c_str(), "%lld", &value) != 1) {
        return 0;
    }
    return value;
}

void walkFileEntries(const char* data, uint32_t size, FileEntryList& out) {
    out.clear();
    out.reserve(plausibleCount(data, size));
    walkStrings(data, size, [&out](const char* entry) {
        int flag = 0;
        uint64_t fileSize = 0;
        uint64_t time = 0;
        char name[kMaxEntryText + 1] = {};
        // An entry without a name (an empty string, zero padding) is no entry at all.
        if (std::sscanf(entry, "%i %" SCNu64 " %" SCNu64 " \"%511[^\"]", &flag, &fileSize, &time,
                        name) != 4) {
            return;
        }
        FileEntry& taken = out.emplace_back();
        taken.isDirectory = flag == 1;
        taken.name = name;
        taken.size = fileSize;
        taken.time = time;
    });
}

void walkPathEntries(const char* data, uint32_t size, NameList& out) {
    out.clear();
    out.reserve(plausibleCount(data, size));
    walkStrings(data, size, [&out](const char* entry) {
        int unused = 0;
        char path[kMaxEntryText + 1] = {};
        if (std::sscanf(entry, "%i \"%511[^\"]", &unused, path) != 2) {
            return;
        }
        out.push_back(zu::InplaceString<256>(path));
    });
}

void walkMappedFolders(const char* data, uint32_t size, FolderList& out) {
    out.clear();
    out.reserve(plausibleCount(data, size));
    walkStrings(data, size, [&out](const char* entry) {
        const char* comma = std::strchr(entry, ',');
        const size_t length =
            comma != nullptr ? static_cast<size_t>(comma - entry) : std::strlen(entry);
        if (length == 0) {
            return;
        }
        out.push_back(zu::InplaceString<128>(entry, length));
    });
}

void findFiles(const char* pattern, FileEntryList& out) {
    out.clear();
    if (holdsQuote(pattern)) {
        return;
    }
    zu::InplaceString<640> command;
    command.format("findFiles \"%s\"", pattern);
    zu::ScopedLock lock(s_listLock);
    walkFileEntries(s_listBuffer, receiveList(command.c_str()), out);
}

void findFilesRecursive(const char* directory, const char* filter, bool recursive, NameList& out) {
    out.clear();
    const char* sentFilter = filter != nullptr ? filter : "*";
    if (holdsQuote(directory) || holdsQuote(sentFilter)) {
        return;
    }
    zu::InplaceString<640> command;
    command.format("findFilesRecursive \"%s\" \"%s\" %i", directory, sentFilter, recursive ? 1 : 0);
    zu::ScopedLock lock(s_listLock);
    walkPathEntries(s_listBuffer, receiveList(command.c_str()), out);
}

void getMappedFolders(FolderList& out) {
    zu::ScopedLock lock(s_listLock);
    walkMappedFolders(s_listBuffer, receiveList("getMappedFolders"), out);
}

}  // namespace fileserver
}  // namespace dm
