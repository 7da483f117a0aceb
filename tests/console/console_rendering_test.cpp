#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "console/keyboard.h"
#include "dm/console.h"

namespace {

using dm::ScrollingTextWindow;
using dmtest::RecordingShapeEngine;
using Calls = std::vector<std::string>;
using Lines = std::vector<std::vector<RecordingShapeEngine::Run>>;

constexpr float kScrollBarWidth = 0.003125f;
// Ten and a half lines of height: ten lines on screen.
constexpr float kTenLinesHigh = 0.2625f;

// A visible full-screen window (no margin) that shows ten lines, in a folder of its own.
struct RenderingTest : dmtest::KeyboardWindowTest {
    RenderingTest() {
        window.setWindowSize({1.0f, kTenLinesHigh});
        window.setVisibility(true);
    }
    // Draws one frame and returns the console lines it drew, from the bottom up.
    Lines frame() {
        engine.reset();
        window.renderVisibleText();
        return engine.linesDrawnAbove(window.getCommandLinePosition().y);
    }
    g::Color color(ScrollingTextWindow::PaletteEntry entry) const {
        return window.getPaletteColor(entry);
    }
    void defineAlias(const char* name) { window.accessAliasesMap()[name] = "x"; }

    const std::string plain =
        RecordingShapeEngine::colorText(color(ScrollingTextWindow::kPlainColor));
    const std::string alias =
        RecordingShapeEngine::colorText(color(ScrollingTextWindow::kAliasColor));
};

// The text of a drawn line, its runs joined.
std::string textOf(const std::vector<RecordingShapeEngine::Run>& runs) {
    std::string text;
    for (const auto& run : runs) {
        text += run.text;
    }
    return text;
}

// The colour of the first run of every drawn line, bottom up.
std::vector<std::string> firstRunColors(const Lines& lines) {
    std::vector<std::string> colors;
    for (const auto& line : lines) {
        colors.push_back(RecordingShapeEngine::colorText(line.at(0).color));
    }
    return colors;
}

TEST_F(RenderingTest, OneFrameCallsTheEngineInItsOrder) {
    window.print("x 1\n");
    window.setText("ab");
    frame();
    const Calls expected = {
        "begin",
        "setColor 0,0,0,127",
        "drawRectangle 0,0 1,1",  // the backdrop
        "setTextSize 0.02",
        "setColor 255,255,255,255",
        "getLineHeight",
        "drawText 0,0.975 >",  // the prompt
        "getTextExtent >",
        "getTextExtent _",
        "getTextExtent a",
        "getTextExtent b",
        "drawText 0.01,0.975 ab",  // the command text
        "getTextExtent >ab",
        "drawText 0.03,0.975 _",  // the cursor
        "setColor 208,208,96,255",
        "drawText 0,0.2375 x",  // the line, run by run
        "getTextExtent x",
        "setColor 208,208,96,255",
        "drawText 0.01,0.2375  ",
        "getTextExtent  ",
        "setColor 160,255,255,255",
        "drawText 0.02,0.2375 1",
        "getTextExtent 1",
        "setColor 208,208,96,255",
        "drawText 0.03,0.2375 \n",
        "getTextExtent \n",
        "setTextSize 0.02",  // the scroll bar measures the lines on screen
        "getLineHeight",
        "setColor 80,80,80,255",
        "drawRectangle 0.99687,0 0.003125,0.2625",
        "setColor 215,209,209,255",
        "drawRectangle 0.99687,0 0.003125,0.2625",
    };
    EXPECT_EQ(engine.calls(), expected);
}

// The text drawn as the command line and the cursor's x, from the last frame.
struct CommandLineShown {
    std::string text;
    float cursorX;
};

CommandLineShown commandLineShown(const RecordingShapeEngine& engine) {
    const auto& texts = engine.texts();
    return {texts.at(1).text, texts.at(2).position.x};
}

TEST_F(RenderingTest, TheCommandLineKeepsTheCursorInView) {
    // Prompt and cursor glyph take 0.01 each; 0.205 leaves room for about 18 characters.
    window.setCommandLineWidth(0.205f);
    const std::string text = "abcdefghijklmnopqrstuvwxyz0123";
    window.setText(text.c_str());
    frame();
    CommandLineShown shown = commandLineShown(engine);
    EXPECT_EQ(shown.text, "mnopqrstuvwxyz0123") << "the end, with room for the cursor";
    EXPECT_FLOAT_EQ(shown.cursorX, 0.19f);

    keys.pressTimes(dmtest::vk::Left, 5);
    frame();
    shown = commandLineShown(engine);
    EXPECT_EQ(shown.text, "mnopqrstuvwxyz0123") << "the cursor is still in view: no move";
    EXPECT_FLOAT_EQ(shown.cursorX, 0.14f);

    keys.press(dmtest::vk::Home);
    frame();
    shown = commandLineShown(engine);
    EXPECT_EQ(shown.text, "abcdefghijklmnopqrst") << "from the start again";
    EXPECT_FLOAT_EQ(shown.cursorX, 0.01f);

    keys.press(dmtest::vk::End);
    frame();
    EXPECT_EQ(commandLineShown(engine).text, "mnopqrstuvwxyz0123");

    // A shorter text keeps the window where the cursor put it; going home shows all of it.
    window.setText("short");
    frame();
    EXPECT_EQ(commandLineShown(engine).text, "");
    EXPECT_FLOAT_EQ(commandLineShown(engine).cursorX, 0.01f);
    keys.press(dmtest::vk::Home);
    frame();
    EXPECT_EQ(commandLineShown(engine).text, "short");
}

TEST_F(RenderingTest, ColoursOnlyTheLinesThatCameIntoView) {
    // A line coloured after "foo" became an alias shows it in the alias colour, one coloured
    // before in the plain colour: the colours tell which lines a frame coloured.
    for (int i = 0; i < 5; ++i) {
        window.print("foo %d\n", i);
    }
    EXPECT_EQ(firstRunColors(frame()), std::vector<std::string>(5, plain));

    defineAlias("foo");
    for (int i = 5; i < 8; ++i) {
        window.print("foo %d\n", i);
    }
    Lines lines = frame();
    EXPECT_EQ(firstRunColors(lines),
              (std::vector<std::string>{alias, alias, alias, plain, plain, plain, plain, plain}))
        << "three new lines, three coloured";
    EXPECT_EQ(textOf(lines[0]), "foo 7\n");
    EXPECT_EQ(textOf(lines[7]), "foo 0\n");

    EXPECT_EQ(firstRunColors(frame()), firstRunColors(lines)) << "no movement, no colouring";

    window.setWindowSize({1.0f, kTenLinesHigh});
    EXPECT_EQ(firstRunColors(frame()), std::vector<std::string>(8, alias))
        << "a new size colours every line on screen";
}

TEST_F(RenderingTest, ScrollingUpColoursTheLinesThatAppearAtTheTop) {
    for (int i = 0; i < 20; ++i) {
        window.print("foo %d\n", i);
    }
    frame();
    defineAlias("foo");
    for (int i = 0; i < 3; ++i) {
        keys.press(dmtest::vk::Up, false, true);  // Control+Up: one line towards older ones
    }
    Lines lines = frame();
    ASSERT_EQ(lines.size(), 10u);
    for (size_t row = 0; row < 10; ++row) {
        EXPECT_EQ(textOf(lines[row]), "foo " + std::to_string(16 - row) + "\n");
        EXPECT_EQ(RecordingShapeEngine::colorText(lines[row][0].color), row >= 7 ? alias : plain)
            << "row " << row;
    }
    // Back down: the three lines at the bottom come into view again and are coloured anew.
    keys.press(dmtest::vk::End, false, true);
    lines = frame();
    EXPECT_EQ(textOf(lines[0]), "foo 19\n");
    EXPECT_EQ(firstRunColors(lines), (std::vector<std::string>{alias, alias, alias, plain, plain,
                                                               plain, plain, plain, plain, plain}))
        << "the lines that left at the top took their colours with them";
}

// The scroll bar is the frame's last two rectangles: the track, then the handle.
struct ScrollBar {
    RecordingShapeEngine::Rectangle track;
    RecordingShapeEngine::Rectangle handle;
};

ScrollBar scrollBarOf(const RecordingShapeEngine& engine) {
    const auto& rectangles = engine.rectangles();
    return {rectangles.at(rectangles.size() - 2), rectangles.back()};
}

TEST_F(RenderingTest, TheScrollBarShowsTheShareAndPlaceOfTheView) {
    const float barX = 1.0f - kScrollBarWidth;
    window.print("a\nb\nc\n");
    frame();
    ScrollBar bar = scrollBarOf(engine);
    EXPECT_EQ(bar.track.color, (g::Color{80, 80, 80, 255}));
    EXPECT_FLOAT_EQ(bar.track.position.x, barX);
    EXPECT_FLOAT_EQ(bar.track.size.y, kTenLinesHigh);
    EXPECT_EQ(bar.handle.color, (g::Color{215, 209, 209, 255}));
    EXPECT_FLOAT_EQ(bar.handle.position.y, 0.0f)
        << "fewer lines than fit: the whole track, at the top";
    EXPECT_FLOAT_EQ(bar.handle.size.y, kTenLinesHigh);
    EXPECT_FLOAT_EQ(bar.handle.size.x, kScrollBarWidth);

    printNumberedLines(0, 37);
    frame();  // 40 lines, ten on screen: a quarter of the track
    bar = scrollBarOf(engine);
    const float handle = kTenLinesHigh / 4.0f;
    EXPECT_FLOAT_EQ(bar.handle.size.y, handle);
    EXPECT_FLOAT_EQ(bar.handle.position.y, kTenLinesHigh - handle) << "at the bottom";

    keys.press(dmtest::vk::Home, false, true);  // Control+Home: the oldest lines
    frame();
    EXPECT_NEAR(scrollBarOf(engine).handle.position.y, 0.0f, 1e-6f) << "at the top";

    for (int i = 0; i < 2000; ++i) {
        window.print("more %d\n", i);
    }
    frame();
    EXPECT_FLOAT_EQ(scrollBarOf(engine).handle.size.y, 0.025f) << "never shorter than its minimum";
}

struct Colouring : RenderingTest {
    // The runs of `line` as coloured on screen, each as "text=entry".
    std::string coloured(const std::string& line) {
        window.print("%s\n", line.c_str());
        const Lines lines = frame();
        std::string result;
        for (const auto& run : lines.at(0)) {
            if (run.text == "\n") {
                continue;
            }
            result +=
                (result.empty() ? "" : "|") + run.text + "=" + std::to_string(entryOf(run.color));
        }
        return result;
    }
    int entryOf(const g::Color& c) const {
        for (int entry = 0; entry < ScrollingTextWindow::kPaletteSize; ++entry) {
            if (color(static_cast<ScrollingTextWindow::PaletteEntry>(entry)) == c) {
                return entry;
            }
        }
        return -1;
    }
};

TEST_F(Colouring, ColoursEachTokenByItsKindAliasesFirstThenNumbersThenKnownWords) {
    defineAlias("set");
    EXPECT_EQ(coloured("set x \"a b\" 0x1f 2.5"),
              "set=5| =0|x=0| =0|\"a b\"=1| =0|0x1f=2| =0|2.5=2");
    EXPECT_EQ(coloured("- + -3 x"), "-=4| =0|+=4| =0|-3=2| =0|x=0");
    EXPECT_EQ(coloured("0XAB 0xFF 0x"), "0XAB=0| =0|0xFF=0| =0|0x=0") << "not numbers but words";
    EXPECT_EQ(coloured("a;b"), "a=0|;=4|b=0");

    window.addKnownWord("fee", false);
    EXPECT_EQ(coloured(". fee e2 f 12ab"), ".=2| =0|fee=2| =0|e2=2| =0|f=2| =0|12ab=0");

    window.addKnownWord("both", false);
    window.addKnownWord("KNOWN", false);
    defineAlias("both");
    EXPECT_EQ(coloured("both Known other"), "both=5| =0|Known=3| =0|other=0");

    // An unclosed quote is punctuation.
    EXPECT_EQ(coloured("\"abc def"), "\"=4|abc=0| =0|def=0");
    EXPECT_EQ(coloured("say \"hi; there\";"), "say=0| =0|\"hi; there\"=1|;=4");
}

TEST_F(Colouring, HostileBytesAreDrawnAsTheyCameWithoutLoss) {
    std::string line;
    for (int c = 1; c < 256; ++c) {
        if (c != '\n') {
            line += static_cast<char>(c);
        }
    }
    line += std::string(300, '"') + "0x" + std::string(300, '-') + "\"";
    window.print("%s\n", line.c_str());
    // Wrapped over several rows, every run in a colour of the palette.
    std::string drawn;
    for (const auto& row : frame()) {
        for (const auto& run : row) {
            EXPECT_NE(entryOf(run.color), -1);
            drawn += run.text == "\n" ? "" : run.text;
        }
    }
    EXPECT_NE(drawn.find("0x" + std::string(90, '-')), std::string::npos);
    EXPECT_NE(drawn.find("{|}~"), std::string::npos);
}

TEST_F(Colouring, AnEmptyLineDrawsOnlyItsLineFeed) {
    window.print("\n");
    const Lines lines = frame();
    ASSERT_EQ(lines.size(), 1u);
    ASSERT_EQ(lines[0].size(), 1u);
    EXPECT_EQ(lines[0][0].text, "\n");
}

}  // namespace
