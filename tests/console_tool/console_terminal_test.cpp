// dm-console in a terminal: the tool runs in a tmux pane, keys are sent to it as a person
// would type them, and the screen is read back from tmux, text and colours.
#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace {

constexpr int kColumns = 100;
constexpr int kRows = 30;

// A tmux server of the test's own (its socket in a temporary folder) with one pane.
class TmuxPane {
public:
    TmuxPane(const std::string& socket, const std::string& command) : m_socket(socket) {
        m_started = tmux({"-f", "/dev/null", "new-session", "-d", "-x", std::to_string(kColumns),
                          "-y", std::to_string(kRows), command});
    }
    ~TmuxPane() { tmux({"kill-server"}); }
    TmuxPane(const TmuxPane&) = delete;
    TmuxPane& operator=(const TmuxPane&) = delete;

    bool started() const { return m_started; }
    // Types `text` literally.
    void type(const std::string& text) { tmux({"send-keys", "-l", text}); }
    // Presses keys by tmux's names ("Enter", "Up", "C-c", "Tab").
    void press(const std::string& key) { tmux({"send-keys", key}); }
    // The screen's text, or with `colours` its text with the colour escapes tmux keeps.
    std::string screen(bool colours = false) {
        std::vector<std::string> args = {"capture-pane", "-p"};
        if (colours) {
            args.push_back("-e");
        }
        std::string output;
        tmux(args, &output);
        return output;
    }
    // Waits until the screen holds `text`.
    bool waitFor(const std::string& text, bool colours = false) {
        return dmtest::waitUntil([&] { return screen(colours).find(text) != std::string::npos; });
    }
    // The last screen row that has text on it.
    std::string lastRow() {
        std::istringstream rows(screen());
        std::string last;
        for (std::string row; std::getline(rows, row);) {
            last = row.find_first_not_of(' ') != std::string::npos ? row : last;
        }
        return last;
    }

private:
    bool tmux(std::vector<std::string> args, std::string* output = nullptr) {
        args.insert(args.begin(), {"-S", m_socket});
        dmtest::ChildProcess process(DM_TMUX, args);
        const int code = process.wait(std::chrono::seconds(10));
        if (output != nullptr) {
            *output = process.output();
        }
        return code == 0;
    }

    std::string m_socket;
    bool m_started = false;
};

class ConsoleTerminal : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::string(DM_TMUX).empty()) {
            GTEST_SKIP() << "tmux is not installed (.ci/run installs it)";
        }
    }
    std::string command() const {
        return std::string(DM_CONSOLE_TOOL) + " --folder " + folder.path();
    }
    std::string socket(const char* name) const { return folder.file(name); }

    dmtest::TempDir folder;
};

TEST_F(ConsoleTerminal, CommandsRunAndShowInTheirColours) {
    TmuxPane pane(socket("tmux-1"), command());
    ASSERT_TRUE(pane.started());
    ASSERT_TRUE(pane.waitFor("dm-console: type help")) << pane.screen();
    pane.type("set speed 7");
    pane.press("Enter");
    pane.type("get speed");
    pane.press("Enter");
    // A capture may land in the middle of drawing a frame: wait for the whole of it.
    ASSERT_TRUE(dmtest::waitUntil([&] {
        return pane.screen().find("speed = 7\n") != std::string::npos && pane.lastRow() == ">_";
    })) << pane.screen();
    EXPECT_NE(pane.screen().find(">get speed;"), std::string::npos) << "the echo";
    EXPECT_EQ(pane.lastRow(), ">_") << "an empty command line with its cursor";

    std::string colours;
    dmtest::waitUntil([&] {
        colours = pane.screen(true);
        return colours.find("\x1b[48;2;215;209;209m") != std::string::npos;
    });
    // A known word, then a number, each in its palette colour (tmux keeps 24-bit colours).
    EXPECT_NE(colours.find("\x1b[38;2;176;176;176mspeed"), std::string::npos) << colours;
    EXPECT_NE(colours.find("\x1b[38;2;160;255;255m7"), std::string::npos) << colours;
    // The scroll bar's handle stands in the last column, on the darkened scene.
    EXPECT_NE(colours.find("\x1b[48;2;215;209;209m"), std::string::npos);
}

TEST_F(ConsoleTerminal, TabCompletesAClosedConsoleRunsBindingsAndTheHistorySurvivesARestart) {
    {
        TmuxPane pane(socket("tmux-2"), command());
        ASSERT_TRUE(pane.started());
        ASSERT_TRUE(pane.waitFor("dm-console: type help")) << pane.screen();
        pane.type("unal");
        pane.press("Tab");
        ASSERT_TRUE(pane.waitFor(">unalias_")) << pane.screen();
        // A terminal's Escape byte also starts the sequences of other keys: what follows it at
        // once would read as Alt with that key, so the next keys wait until it has taken effect.
        pane.press("Escape");
        ASSERT_TRUE(dmtest::waitUntil([&] { return pane.lastRow() == ">_"; })) << pane.screen();
        pane.type("bind k echo the k key ran");
        pane.press("Enter");
        ASSERT_TRUE(pane.waitFor("bind k echo the k key ran\n")) << pane.screen();

        pane.type("`");
        ASSERT_TRUE(pane.waitFor("the console is closed")) << pane.screen();
        pane.type("k");
        EXPECT_TRUE(pane.waitFor("last line: the k key ran")) << pane.screen();
        pane.type("`");
        EXPECT_TRUE(pane.waitFor(">_")) << pane.screen();
        EXPECT_EQ(pane.screen().find("the console is closed"), std::string::npos);
        pane.press("C-c");  // saves the cache on the way out
        ASSERT_TRUE(dmtest::waitUntil([&] { return !pane.started() || pane.screen().empty(); }));
    }
    TmuxPane pane(socket("tmux-3"), command());
    ASSERT_TRUE(pane.started());
    ASSERT_TRUE(pane.waitFor(">bind k echo the k key ran;"))
        << "the lines came back: " << pane.screen();
    pane.press("Up");
    EXPECT_TRUE(pane.waitFor(">bind k echo the k key ran_")) << pane.screen();
}

}  // namespace
