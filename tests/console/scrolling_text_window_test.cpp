#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "console/bounded_line_store.h"
#include "console/keyboard.h"
#include "dm/console.h"
#include "support/test_support.h"

namespace {

using dm::ScrollingTextWindow;
using dmtest::consoleLine;
using dmtest::consoleLinesOldestFirst;
using dmtest::RecordingShapeEngine;
using dmtest::visibleLine;
using Lines = std::vector<std::string>;

// Width of the scroll bar that the window takes from its text area.
constexpr float kScrollBarWidth = 0.003125f;

// A full-screen window (no margin): 0.975 high, 39 lines of 0.025 on screen, 99 characters
// wide.
struct WindowTest : dmtest::KeyboardWindowTest {
    void setTextAreaWidth(float width) { window.setWindowSize({width + kScrollBarWidth, 0.5f}); }
};

TEST(WindowConstruction, TakesItsGeometryFromTheMarginAndTheLineHeight) {
    // Binary fractions throughout, so the expectations are exact: line height 1/32.
    RecordingShapeEngine engine(0.03125f);
    ScrollingTextWindow window(&engine, 0.125f);
    EXPECT_EQ(window.getWindowPosition(), (m::Vector2Template<float>{0.125f, 0.125f}));
    EXPECT_EQ(window.getWindowSize(), (m::Vector2Template<float>{0.75f, 0.71875f}));
    EXPECT_EQ(window.getCommandLinePosition(), (m::Vector2Template<float>{0.125f, 0.84375f}));
    EXPECT_EQ(window.getCommandLineWidth(), 0.75f);
    EXPECT_EQ(window.getTextAreaSize(),
              (m::Vector2Template<float>{0.75f - kScrollBarWidth, 0.71875f}));
    EXPECT_EQ(window.getLinesOnScreen(), 23u);
    window.setWindowSize({0.5f, 0.328125f});
    EXPECT_EQ(window.getTextAreaSize(),
              (m::Vector2Template<float>{0.5f - kScrollBarWidth, 0.328125f}));
    EXPECT_EQ(window.getLinesOnScreen(), 10u);
    // About 98000 lines of 1/131072 fit, more than any screen shows: bounded.
    RecordingShapeEngine tiny(1.0f / 131072);
    ScrollingTextWindow tall(&tiny, 0.125f);
    EXPECT_EQ(tall.getLinesOnScreen(), 1u << 16);
}

TEST(WindowConstruction, RefusesANullShapeEngine) {
    try {
        ScrollingTextWindow window(nullptr, 0.1f);
        FAIL() << "constructed without a shape engine";
    } catch (const dm::ScrollingTextWindowException& error) {
        EXPECT_EQ(std::string(error.getError()).rfind("ScrollingTextWindow: ", 0), 0u);
    }
}

TEST(WindowConstruction, SurvivesAnEngineWithoutLineHeight) {
    RecordingShapeEngine engine(0.0f);
    ScrollingTextWindow window(&engine, 0.1f);
    EXPECT_EQ(window.getLinesOnScreen(), 0u);
    window.print("a\nb\nc\n");
    EXPECT_EQ(window.scroll(10), 3);  // nothing is on screen, so every line can be scrolled to
    window.scrollBottom();
    EXPECT_EQ(visibleLine(window, 0), "c\n");
}

TEST_F(WindowTest, CountsTheCharactersThatFitAWidth) {
    EXPECT_EQ(window.getCharacterFitCount("abcde", 0.03f), 2);
    EXPECT_EQ(window.getCharacterFitCount("abcde", 1.0f), 5);
    EXPECT_EQ(window.getCharacterFitCount("", 0.5f), 0);
    EXPECT_EQ(window.getCharacterFitCount("abcde", 0.0f), 0);
    EXPECT_EQ(window.getCharacterFitCount("abcde", -1.0f), 0);
}

TEST_F(WindowTest, PutsThePromptOrTheLinePrefixInFront) {
    window.printStringWithPrefix(true, "typed\n");
    window.printWithPrefix(true, "%d items\n", 3);
    window.printWithPrefix(false, "plain %s\n", "text");
    window.print("%s=%d\n", "a", 1);
    window.printString("\n");
    window.printStringWithPrefix(true, "\n");
    EXPECT_EQ(consoleLinesOldestFirst(window),
              (Lines{">typed\n", ">3 items\n", "plain text\n", "a=1\n", "\n", ">\n"}));
}

TEST_F(WindowTest, DropsAFormattedTextThatDoesNotFitWhole) {
    const std::string tooLong(5000, 'a');
    window.print("%s\n", tooLong.c_str());
    window.printWithPrefix(true, "%s\n", tooLong.c_str());
    window.print("ok\n");
    EXPECT_EQ(consoleLinesOldestFirst(window), (Lines{"ok\n"}));
    window.printString(nullptr);
    EXPECT_EQ(window.getConsoleLineCount(), 1u);
}

TEST_F(WindowTest, TakesTextsLongerThanItsWorkBuffer) {
    std::string text;
    Lines expected;
    for (int i = 0; i < 40; ++i) {
        expected.push_back("line " + std::to_string(i) + " " + std::string(60, 'x') + "\n");
        text += expected.back();
    }
    text += std::string(2000, 'y');  // a long unterminated tail waits as well
    window.printString(text.c_str());
    EXPECT_EQ(consoleLinesOldestFirst(window), expected);
    window.printString("\n");
    EXPECT_EQ(window.getConsoleLineCount(), 40u + 21u);  // 2000 characters in rows of 99 ...
    EXPECT_EQ(consoleLine(window, 0), std::string(20, 'y') + "\n");  // ... and 20
}

TEST(BoundedLineStore, NeverGrowsBeyondItsLimitNorReadsOutsideItsSlots) {
    dm::BoundedLineStore<zu::InplaceString<64>> store;
    store.maxLines = 1000;
    for (int i = 0; i < 1500; ++i) {
        store.add(zu::str("%d", i));
    }
    EXPECT_EQ(store.lines.capacity(), 1000u);
    EXPECT_EQ(std::string(store.line(0).c_str()), "1499");
    EXPECT_EQ(std::string(store.line(999).c_str()), "500");

    // Counters that do not match the stored lines, as a damaged saved state could leave them.
    store.clear();
    store.lines.emplace_back("a");
    store.lines.emplace_back("b");
    store.lineCounter = 10;
    EXPECT_EQ(std::string(store.line(0).c_str()), "");
    EXPECT_EQ(std::string(store.line(1).c_str()), "");
    store.lineCounter = 0;
    EXPECT_EQ(std::string(store.line(0).c_str()), "");
    store.maxLines = 0;  // no ring rule to apply, and nothing more is stored
    store.add("c");
    EXPECT_EQ(store.count(), 2u);
}

TEST_F(WindowTest, WrapsBetweenWordsAndEvenInATextAreaTooNarrowForACharacter) {
    setTextAreaWidth(0.1f);
    window.printStringWithPrefix(true, "alpha beta gamma\n");
    EXPECT_EQ(consoleLinesOldestFirst(window), (Lines{">alpha \n", ">beta \n", ">gamma\n"}));
    window.clear();
    setTextAreaWidth(0.0f);
    window.printString("abc\n");
    EXPECT_EQ(consoleLinesOldestFirst(window), (Lines{"a\n", "b\n", "c\n"}));
    window.setWindowSize({0.0f, 0.5f});  // a negative text area
    window.printStringWithPrefix(true, "de\n");
    EXPECT_EQ(consoleLine(window, 1), ">d\n");
    EXPECT_EQ(consoleLine(window, 0), ">e\n");
}

// Every row carries the prefix and a line feed, no row is wider than the text area unless it
// holds a single piece that cannot be cut further, and the rows together give the line back.
TEST_F(WindowTest, WrappedRowsFitAndGiveTheLineBack) {
    std::mt19937 random(77);
    std::uniform_int_distribution<int> columns(2, 100);
    std::uniform_int_distribution<int> wordLength(1, 120);
    std::uniform_int_distribution<int> letter('a', 'z');
    for (int round = 0; round < 300; ++round) {
        const float areaWidth = 0.01f * static_cast<float>(columns(random)) + 0.005f;
        setTextAreaWidth(areaWidth);
        window.clear();
        std::string line;
        while (line.size() < 300) {
            line += std::string(static_cast<size_t>(wordLength(random)),
                                static_cast<char>(letter(random)));
            line += round % 2 ? " " : ", ";
        }
        window.printStringWithPrefix(true, (line + "\n").c_str());
        std::string joined;
        for (const std::string& row : consoleLinesOldestFirst(window)) {
            ASSERT_GE(row.size(), 3u) << "an empty row in round " << round;
            ASSERT_EQ(row.front(), '>');
            ASSERT_EQ(row.back(), '\n');
            ASSERT_LT(0.01f * static_cast<float>(row.size() - 1), areaWidth + 0.001f)
                << "row wider than the area in round " << round << ": " << row;
            joined += row.substr(1, row.size() - 2);
        }
        ASSERT_EQ(joined, line) << "round " << round;
    }
}

TEST_F(WindowTest, ScrollStaysWithinTheStoredLines) {
    showTenLines();
    printNumberedLines(0, 5);
    EXPECT_EQ(window.scroll(5), 0);  // everything is on screen already

    printNumberedLines(5, 25);
    EXPECT_EQ(window.getUpmostShownConsoleLine(), 20u);
    EXPECT_EQ(window.scroll(-3), 0);
    EXPECT_EQ(window.scroll(1000), 20);
    EXPECT_EQ(visibleLine(window, 9), "line 0\n");
    EXPECT_EQ(window.scroll(1), 0);
    EXPECT_EQ(window.scroll(-5), -5);
    EXPECT_EQ(visibleLine(window, 0), "line 14\n");
    window.scrollBottom();
    EXPECT_EQ(visibleLine(window, 0), "line 29\n");
    EXPECT_EQ(window.scroll(-1), 0);
}

TEST_F(WindowTest, AViewAtTheBottomFollowsNewLinesAndAScrolledOneStaysOnItsText) {
    showTenLines();
    printNumberedLines(0, 30);
    EXPECT_EQ(visibleLine(window, 0), "line 29\n");
    printNumberedLines(30, 3);
    EXPECT_EQ(visibleLine(window, 0), "line 32\n");
    EXPECT_EQ(visibleLine(window, 9), "line 23\n");

    ASSERT_EQ(window.scroll(5), 5);
    ASSERT_EQ(visibleLine(window, 0), "line 27\n");
    printNumberedLines(33, 3);
    EXPECT_EQ(visibleLine(window, 0), "line 27\n");
    window.print("two\nrows\n");
    EXPECT_EQ(visibleLine(window, 0), "line 27\n");
    // With the ring full, the oldest lines go and the view stops at the top.
    printNumberedLines(36, 2000);
    EXPECT_EQ(window.scroll(0), 0);
    EXPECT_EQ(visibleLine(window, 9), consoleLine(window, 999));
}

TEST_F(WindowTest, ClearForgetsLinesAndTheWaitingTail) {
    printNumberedLines(0, 12);
    window.printString("unfinished");
    window.clear();
    EXPECT_EQ(window.getConsoleLineCount(), 0u);
    EXPECT_EQ(consoleLine(window, 0), "");
    window.printString("fresh\n");
    EXPECT_EQ(consoleLinesOldestFirst(window), (Lines{"fresh\n"}));
}

TEST_F(WindowTest, DumpToFileCreatesNoFile) {
    for (int i = 0; i < 1000; ++i) {  // far more text than the dump's minimum buffer holds
        window.print("%04d %s\n", i, std::string(90, 'd').c_str());
    }
    const std::string path = folder.file("console.txt");
    window.dumpToFile(path.c_str());
    window.dumpToFile(nullptr);
    window.dumpToFile("");
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
    EXPECT_EQ(window.getConsoleLineCount(), 1000u);
}

}  // namespace
