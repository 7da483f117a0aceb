// Drives a console window as a Windows keyboard would: virtual-key codes, the character typed,
// and the modifiers. Also points the writable folder, where the window keeps its cache, at a
// folder of the test's own.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <string>

#include "console/recording_shape_engine.h"
#include "dm/console.h"
#include "support/test_support.h"
#include "zu/file.h"

namespace dmtest {

namespace vk {
using namespace dm::console_key;
constexpr int Punctuation = 0xBA;  // one of the keys that carry punctuation
}  // namespace vk

class Keyboard {
public:
    explicit Keyboard(dm::ScrollingTextWindow& window) : m_window(window) {}

    // A key that types nothing (editing, browsing, Tab).
    void press(int key, bool shift = false, bool control = false, bool alt = false) {
        m_window.appendInput(key, 0, alt, control, shift);
    }
    void pressTimes(int key, int times) {
        for (int i = 0; i < times; ++i) {
            press(key);
        }
    }
    // Types each character with its key; capitals and shifted punctuation with Shift held.
    void type(const std::string& text) {
        for (char c : text) {
            const bool shifted = std::isupper(static_cast<unsigned char>(c)) ||
                                 std::strchr("!\"#$%&()*+:<>?@^_{|}~", c) != nullptr;
            m_window.appendInput(keyOf(c), c, false, false, shifted);
        }
    }
    // The words of Enter: the line is parsed, stored in the history and emptied.
    dm::ConsoleWordList enter() {
        dm::ConsoleWordList words;
        m_window.parseCommandLine(words, true);
        return words;
    }
    // The command line with '|' typed at the cursor; the '|' is taken out again with Backspace
    // (which ends a run of Tab presses).
    std::string lineWithCursor() {
        type("|");
        std::string shown = m_window.getText().c_str();
        press(vk::Backspace);
        return shown;
    }
    std::string line() const { return m_window.getText().c_str(); }

    // The key that types `c` (letters by their capital's code).
    static int keyOf(char c) {
        if (std::isalpha(static_cast<unsigned char>(c))) {
            return std::toupper(static_cast<unsigned char>(c));
        }
        if (std::isdigit(static_cast<unsigned char>(c)) || c == ' ') {
            return c;
        }
        return vk::Punctuation;
    }

private:
    dm::ScrollingTextWindow& m_window;
};

// Joins words back into a line, with '|' between them.
inline std::string joinWords(const dm::ConsoleWordList& words) {
    std::string joined;
    for (size_t i = 0; i < words.size(); ++i) {
        joined += (i == 0 ? "" : "|");
        joined += words[i].c_str();
    }
    return joined;
}

// Points the writable folder at a fresh folder for as long as it lives; puts the one before
// back afterwards.
class ScopedWritableFolder {
public:
    ScopedWritableFolder() : m_previous(zu::File::getFileSysPathForWrite()) {
        zu::File::setFileSysPathForWrite((m_folder.path() + "/").c_str());
    }
    ~ScopedWritableFolder() { zu::File::setFileSysPathForWrite(m_previous.c_str()); }
    ScopedWritableFolder(const ScopedWritableFolder&) = delete;
    ScopedWritableFolder& operator=(const ScopedWritableFolder&) = delete;

    const std::string& path() const { return m_folder.path(); }
    std::string file(const std::string& name) const { return m_folder.file(name); }
    std::string cacheFile() const { return file(dm::ScrollingTextWindow::kCacheFileName); }

private:
    std::string m_previous;
    TempDir m_folder;
};

// A console window in a writable folder of its own, drawing into a recording engine, with a
// keyboard at it.
struct KeyboardWindowTest : ::testing::Test {
    ScopedWritableFolder folder;
    RecordingShapeEngine engine;
    dm::ScrollingTextWindow window{&engine, 0.0f};
    Keyboard keys{window};

    void printNumberedLines(int first, int count) {
        for (int i = first; i < first + count; ++i) {
            window.print("line %d\n", i);
        }
    }
    // Leaves ten and a half lines of height, so exactly ten are on screen.
    void showTenLines() { window.setWindowSize({1.0f, 0.2625f}); }
};

}  // namespace dmtest
