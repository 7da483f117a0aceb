// The console cache: the window's stored lines and command history, kept from one run to the
// next in the file "consolecache.bin" of the writable folder.
//
// The file is a sequence of zu::FileStream values (encoding in docs/file-stream.md: 4-byte
// little-endian numbers, texts as a 4-byte length and their bytes), in this order:
//   int           lineCounter of the console lines
//   unsigned int  maxLines of the console lines (1000 by default)
//   int           N, the number of stored console lines
//   N texts       the console lines, in slot order
//   int           lineCounter of the command history
//   unsigned int  maxLines of the command history (30 by default)
//   int           M, the number of stored commands
//   M texts       the commands, in slot order (not oldest first)
//
// A cache file is data from disk and may be cut short or damaged. load() reads it into stores
// of its own and checks every count and limit before anything is sized from it, so a bad file
// costs at most what it can hold and is refused with an exception that says what is wrong;
// only a file read whole and found sound replaces the window's lines and history.
#include <cstdarg>

#include "console/scrolling_text_window_state.h"
#include "dm/console.h"
#include "zu/file.h"
#include "zu/file_stream.h"

namespace dm {

namespace {

// Every stored text takes at least its 4-byte length in the file.
constexpr uint64_t kMinBytesPerLine = 4;

zu::InplaceString<256> cacheFilePath() {
    zu::InplaceString<256> path;
    path.format("%s%s", zu::File::getFileSysPathForWrite(), ScrollingTextWindow::kCacheFileName);
    return path;
}

// The file is written under this name first and renamed over the cache once complete.
zu::InplaceString<256> temporaryCacheFilePath() {
    zu::InplaceString<256> path = cacheFilePath();
    path.append(".tmp");
    return path;
}

template <typename Line>
void writeLineStore(zu::FileStream& stream, const BoundedLineStore<Line>& store) {
    stream << static_cast<int>(store.lineCounter) << static_cast<unsigned int>(store.maxLines)
           << static_cast<int>(store.count());
    for (const Line& line : store.lines) {
        stream << line;
    }
}

// Throws the refusal of a cache file: "ScrollingTextWindow: console cache "<path>": <problem>".
[[noreturn]] void refuseCache(const char* format, ...) ZU_PRINTF(1, 2);

void refuseCache(const char* format, ...) {
    zu::InplaceString<256> problem;
    va_list args;
    va_start(args, format);
    problem.formatV(format, args);
    va_end(args);
    throw ScrollingTextWindowException("ScrollingTextWindow: console cache \"%s\": %s",
                                       cacheFilePath().c_str(), problem.c_str());
}

// Reads one store's counters and lines into `store`, which the caller has left empty. Sizes
// nothing before its count has been found sound: within the limit read before it, and no more
// lines than the rest of the file can hold.
template <typename Line>
void readLineStore(zu::FileStream& stream, BoundedLineStore<Line>& store, const char* what) {
    int counter = 0;
    unsigned int limit = 0;
    int count = 0;
    stream >> counter >> limit >> count;
    if (limit == 0 || limit > ScrollingTextWindow::kMaxCachedLineLimit) {
        refuseCache("a limit of %u %ss is not between 1 and %u", limit, what,
                    ScrollingTextWindow::kMaxCachedLineLimit);
    }
    if (count < 0 || static_cast<unsigned int>(count) > limit) {
        refuseCache("a count of %d %ss is not between 0 and its limit of %u", count, what, limit);
    }
    const uint64_t room = stream.getRemaining() / kMinBytesPerLine;
    if (static_cast<uint64_t>(count) > room) {
        refuseCache("%d %ss do not fit in the rest of the file, which holds %llu at most", count,
                    what, static_cast<unsigned long long>(room));
    }
    // A store that is not full yet has stored every line ever added to it.
    const uint32_t added = static_cast<uint32_t>(counter);
    if (static_cast<unsigned int>(count) < limit && added != static_cast<uint32_t>(count)) {
        refuseCache("%u %ss added, but %d stored below the limit of %u", added, what, count, limit);
    }
    store.maxLines = limit;
    store.lineCounter = added;
    store.lines.resize(static_cast<size_t>(count));
    for (Line& line : store.lines) {
        stream >> line;
    }
}

// No flush to the medium before the rename: a cache is not worth a stall of the game's thread,
// and a crash right after a save loses at most that save.
void writeCacheFile(const char* path,
                    const BoundedLineStore<ScrollingTextWindow::ConsoleLine>& lines,
                    const BoundedLineStore<zu::InplaceString<256>>& commands) {
    zu::File file(path, zu::File::ModeWrite);
    zu::FileStream stream(file);
    writeLineStore(stream, lines);
    writeLineStore(stream, commands);
}

}  // namespace

// A cache that cannot be loaded is no error of the window: it starts empty, as on a first run,
// and its next save replaces the file.
void ScrollingTextWindow::loadCacheOrKeepDefaults() {
    try {
        load();
    } catch (const zu::Exception&) {
        // load() changed nothing; the defaults stay.
    }
}

void ScrollingTextWindow::load() {
    const zu::InplaceString<256> path = cacheFilePath();
    if (!zu::FileUtils::fileExists(path.c_str())) {
        return;
    }
    BoundedLineStore<ConsoleLine> loadedLines;
    BoundedLineStore<zu::InplaceString<256>> loadedCommands;
    {
        zu::File file(path.c_str(), zu::File::ModeRead);
        zu::FileStream stream(file);
        readLineStore(stream, loadedLines, "console line");
        readLineStore(stream, loadedCommands, "command");
    }
    zu::ScopedLock lock(state->mutex);
    state->consoleLines.lines.swap(loadedLines.lines);
    state->consoleLines.maxLines = loadedLines.maxLines;
    state->consoleLines.lineCounter = loadedLines.lineCounter;
    state->commandStack.lines.swap(loadedCommands.lines);
    state->commandStack.maxLines = loadedCommands.maxLines;
    state->commandStack.lineCounter = loadedCommands.lineCounter;
    state->commandStackIndex = -1;
    state->scrollOffset = 0;
    // Every line on screen is new: the next frame colours them all.
    emptyFormattedLines();
    state->cachedViewLine =
        static_cast<int32_t>(static_cast<uint32_t>(state->viewLine) +
                             static_cast<uint32_t>(state->formattedLines.lines.size()));
}

// Copies the stores under the lock and writes the copy without it: printing threads wait for a
// copy of the lines, not for the file. A line printed after the copy marks the cache dirty
// again and goes into the next save. Runs on the thread that updates the console, one save at a
// time.
void ScrollingTextWindow::save() {
    BoundedLineStore<ConsoleLine> lines;
    BoundedLineStore<zu::InplaceString<256>> commands;
    {
        zu::ScopedLock lock(state->mutex);
        if (!state->cacheDirty) {
            return;
        }
        state->cacheDirty = false;
        if (zu::File::isFileSystemReadOnly()) {
            return;
        }
        lines = state->consoleLines;
        commands = state->commandStack;
    }
    const zu::InplaceString<256> temporaryPath = temporaryCacheFilePath();
    zu::FileSystem& fileSystem = zu::getFileSystem();
    try {
        writeCacheFile(temporaryPath.c_str(), lines, commands);
    } catch (const zu::FileException&) {
        // No room, no folder, no permission: no cache this time, and the old file stays.
        fileSystem.deleteFile(temporaryPath.c_str());
        return;
    } catch (...) {
        fileSystem.deleteFile(temporaryPath.c_str());
        zu::ScopedLock lock(state->mutex);
        state->cacheDirty = true;
        throw;
    }
    if (!fileSystem.moveFile(temporaryPath.c_str(), cacheFilePath().c_str(), true)) {
        fileSystem.deleteFile(temporaryPath.c_str());
    }
}

}  // namespace dm
