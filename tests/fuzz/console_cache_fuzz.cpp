// The console cache loader: the input is the file "consolecache.bin" in the writable folder.
// A window built on it either loads it or refuses it with a zu::Exception (and keeps its
// defaults); whatever it loaded can be browsed, printed to, scrolled, saved, and the file it
// saves loads again to the same lines.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "console/recording_shape_engine.h"
#include "dm/console.h"
#include "fuzz/check.h"
#include "zu/file.h"

namespace {

constexpr int kUp = 38;
constexpr int kDown = 40;
constexpr int kPageUp = 33;

// A folder of this run's own, made the writable folder once.
const std::string& cacheFolder() {
    static const std::string folder = [] {
        char pattern[] = "/tmp/dm_console_cache_fuzz_XXXXXX";
        if (!mkdtemp(pattern)) {
            std::abort();
        }
        const std::string path = std::string(pattern) + "/";
        zu::File::setFileSysPathForWrite(path.c_str());
        return path;
    }();
    return folder;
}

void writeCacheFile(const uint8_t* data, size_t size) {
    const std::string path = cacheFolder() + dm::ScrollingTextWindow::kCacheFileName;
    FILE* file = std::fopen(path.c_str(), "wb");
    check(file != nullptr);
    check(size == 0 || std::fwrite(data, 1, size, file) == size);
    std::fclose(file);
}

std::string allLines(const dm::ScrollingTextWindow& window) {
    std::string lines;
    for (uint64_t k = 0; k < window.getConsoleLineCount(); ++k) {
        lines += window.getConsoleLine(k).c_str();
    }
    return lines;
}

// Uses what was loaded the way a player would.
void exercise(dm::ScrollingTextWindow& window) {
    for (int key : {kUp, kUp, kDown, kDown, kDown, kPageUp}) {
        window.appendInput(key, 0, false, false, false);
    }
    check(window.getText().length() <= 256 * 4);
    window.scroll(3);
    for (uint64_t k = 0; k < window.getLinesOnScreen(); ++k) {
        window.getVisibleLine(k);
    }
    window.printString("fuzzed line\n");
    window.addToCommandStack("fuzzed command");
    window.appendInput(kUp, 0, false, false, false);
    check(window.getText() == "fuzzed command");
    window.scrollBottom();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    writeCacheFile(data, size);
    dmtest::RecordingShapeEngine engine;
    dm::ScrollingTextWindow window(&engine, 0.05f);
    try {
        window.load();
    } catch (const zu::Exception&) {
        // Refused: the window keeps what it had.
    }
    exercise(window);
    window.save();
    dm::ScrollingTextWindow reloaded(&engine, 0.05f);
    check(allLines(reloaded) == allLines(window));
    return 0;
}
