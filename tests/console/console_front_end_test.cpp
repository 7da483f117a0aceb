#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "console/keyboard.h"
#include "console/recording_shape_engine.h"
#include "dm/console.h"
#include "support/test_support.h"

namespace {

using dm::Console;
using Commands = std::vector<std::string>;

constexpr int kEnter = 13;
constexpr int kToggle = 220;

// Keeps every command it is given.
class RecordingIO : public dm::IOInterface {
public:
    void executeCommand(const zu::InplaceString<128>& command) override {
        commands.push_back(command.c_str());
        if (throwOnNext) {
            throwOnNext = false;
            throw dm::ScrollingTextWindowException("ScrollingTextWindow: %s", "refused");
        }
    }
    Commands commands;
    bool throwOnNext = false;
};

struct ConsoleTest : ::testing::Test {
    dmtest::ScopedWritableFolder folder;
    dmtest::RecordingShapeEngine engine;
    Console console{&engine, 0.0f};
    RecordingIO io;

    ConsoleTest() { console.setIOInterface(&io); }
    dm::ScrollingTextWindow& window() { return *console.getScrollingTextWindow(); }
    // Types `text` key by key, as a keyboard would.
    void type(const std::string& text) {
        for (char c : text) {
            console.deliverKeystroke(dmtest::Keyboard::keyOf(c), c, false, false, false);
        }
    }
    void open() {
        if (!console.isVisible()) {
            console.deliverKeystroke(kToggle, 0, false, false, false);
        }
    }
    void enter(bool alt = false) { console.deliverKeystroke(kEnter, '\r', alt, false, false); }
    // Types `line` into the open console and presses Enter.
    void run(const std::string& line) {
        open();
        type(line);
        enter();
    }
    std::string lineFromNewest(uint64_t k) { return window().getConsoleLine(k).c_str(); }
    std::string newestLine() { return lineFromNewest(0); }
};

TEST(ConsoleInstance, TheLatestConsoleIsTheInstanceUntilItIsGone) {
    dmtest::ScopedWritableFolder folder;
    dmtest::RecordingShapeEngine engine;
    EXPECT_EQ(Console::getInstance(), nullptr);
    {
        Console first(&engine, 0.1f);
        EXPECT_EQ(Console::getInstance(), &first);
        EXPECT_FALSE(first.isVisible());
        {
            Console second(&engine, 0.1f);
            EXPECT_EQ(Console::getInstance(), &second);
        }
        EXPECT_EQ(Console::getInstance(), nullptr) << "the earlier console was replaced";
    }
    EXPECT_EQ(Console::getInstance(), nullptr);
}

TEST_F(ConsoleTest, TheToggleKeyOpensAndClosesTheConsole) {
    console.deliverKeystroke(kToggle, 'x', false, false, false);
    EXPECT_TRUE(console.isVisible());
    EXPECT_EQ(window().getText(), "") << "the toggle key types nothing";
    console.deliverKeystroke(kToggle, 0, true, true, true);
    EXPECT_FALSE(console.isVisible());
    open();
    console.close();
    EXPECT_FALSE(console.isVisible());
    engine.reset();
    console.render();
    EXPECT_TRUE(engine.calls().empty()) << "a closed console draws nothing";
}

TEST_F(ConsoleTest, EnterRunsTheLineAsCommandsEndingWithSemicolons) {
    window().accessAliasesMap()["both"] = "first;second";
    const struct {
        const char* line;
        Commands commands;
    } cases[] = {
        {"echo hi", {"echo hi;"}},
        {"  a ;  b", {"a ;", "b;"}},  // leading blanks of each command dropped
        {"one;two;", {"one;", "two;"}},
        {"alias x a;b", {"alias x a;b;"}},  // alias and bind lines stay whole
        {"BIND k c;d", {"BIND k c;d;"}},
        {"both;third", {"first;", "second;", "third;"}},  // aliases replaced before the split
        {"say 100%s %n %% %d", {"say 100%s %n %% %d;"}},
    };
    for (const auto& each : cases) {
        io.commands.clear();
        run(each.line);
        EXPECT_EQ(io.commands, each.commands) << each.line;
        EXPECT_EQ(window().getText(), "");
    }
    EXPECT_EQ(newestLine(), ">say 100%s %n %% %d;\n") << "echoed behind the prompt, as typed";
}

TEST_F(ConsoleTest, EmptyEnterAndAltEnterDoNothing) {
    open();
    const uint64_t lines = window().getConsoleLineCount();
    enter();
    EXPECT_TRUE(io.commands.empty());
    EXPECT_EQ(window().getConsoleLineCount(), lines) << "no echo";

    type("a");
    enter(true);
    console.close();
    enter(true);
    EXPECT_TRUE(io.commands.empty());
    EXPECT_EQ(window().getText(), "a");
    enter();
    EXPECT_EQ(io.commands, (Commands{"a;"})) << "Enter runs the line also while closed";
}

TEST_F(ConsoleTest, WithoutAnIOInterfaceEachCommandPrintsAnError) {
    console.setIOInterface(nullptr);
    run("a;b");
    EXPECT_EQ(newestLine(), "ERROR: Unable to process command, no IO interface attached\n");
    EXPECT_EQ(lineFromNewest(1), ">b;\n");
    EXPECT_EQ(lineFromNewest(2), "ERROR: Unable to process command, no IO interface attached\n");
    EXPECT_EQ(lineFromNewest(3), ">a;\n");
    EXPECT_TRUE(io.commands.empty());
}

TEST_F(ConsoleTest, BoundKeysRunTheirCommandsOnlyWhileClosed) {
    console.bind('k', "show;hide");
    console.bind('j', "jump");
    type("k");
    EXPECT_EQ(io.commands, (Commands{"show;", "hide;"}));
    EXPECT_EQ(window().getConsoleLineCount(), 0u) << "bound commands are not echoed";
    type("xj");
    EXPECT_EQ(io.commands, (Commands{"show;", "hide;", "jump;"})) << "unbound keys do nothing";

    io.commands.clear();
    open();
    type("k");
    EXPECT_TRUE(io.commands.empty());
    EXPECT_EQ(window().getText(), "k") << "typed into the command line while open";
    enter();
    window().appendInput(dmtest::vk::Up, 0, false, false, false);
    EXPECT_EQ(window().getText(), "k") << "only typed lines go into the history";

    // A binding replaces what was typed; characters above 127 bind too.
    console.close();
    io.commands.clear();
    console.bind(static_cast<unsigned char>('\xE4'), "umlaut");
    console.deliverKeystroke(0xDE, '\xE4', false, false, false);
    EXPECT_EQ(io.commands, (Commands{"umlaut;"}));
    EXPECT_EQ(window().getText(), "");
}

TEST_F(ConsoleTest, BindingABoundKeyReplacesItAndUnbindingZeroRemovesAll) {
    console.bind('a', "one");
    console.bind('a', "two");
    console.bind('b', "three");
    console.bind(0, "zero");
    EXPECT_EQ(console.getBindingsMap().size(), 3u);
    EXPECT_EQ(console.getBindingsMap().at('a'), "two");
    console.unbind('a');
    console.unbind('q');
    EXPECT_EQ(console.getBindingsMap().size(), 2u);
    console.unbind(0);
    EXPECT_TRUE(console.getBindingsMap().empty());
}

TEST_F(ConsoleTest, AFailingCommandPassesItsExceptionOnAndTheNextLineRunsAfresh) {
    io.throwOnNext = true;
    open();
    type("bad;good");
    EXPECT_THROW(enter(), dm::ScrollingTextWindowException);
    EXPECT_EQ(io.commands, (Commands{"bad;"}));
    run("next");
    EXPECT_EQ(io.commands, (Commands{"bad;", "next;"}));
}

TEST_F(ConsoleTest, PrintClearAndSetTextForwardToTheWindow) {
    console.print("%d %s\n", 42, "text");
    EXPECT_EQ(newestLine(), "42 text\n");
    console.clear();
    EXPECT_EQ(window().getConsoleLineCount(), 0u);
    console.setText("prepared");
    EXPECT_EQ(window().getText(), "prepared");
    enter();
    EXPECT_EQ(io.commands, (Commands{"prepared;"}));
}

TEST_F(ConsoleTest, UpdateSavesTheCacheAtMostOnceASecond) {
    run("remember me");
    console.update();
    EXPECT_FALSE(std::filesystem::exists(folder.cacheFile())) << "too soon after the start";
    EXPECT_TRUE(dmtest::waitUntil([&] {
        console.update();
        return std::filesystem::exists(folder.cacheFile());
    }));
    dmtest::RecordingShapeEngine otherEngine;
    Console next(&otherEngine, 0.0f);
    next.getScrollingTextWindow()->appendInput(dmtest::vk::Up, 0, false, false, false);
    EXPECT_EQ(next.getScrollingTextWindow()->getText(), "remember me") << "history survives";
}

}  // namespace
