#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "console_backends/keystrokes.h"
#include "console_backends/terminal_shape_engine.h"
#include "dm/console.h"

namespace {

using dmconsole::Keystroke;
using Keys = std::vector<Keystroke>;
namespace vk = dmconsole::vk;

Keystroke key(int code, char character = 0, bool alt = false, bool control = false,
              bool shift = false) {
    return {code, character, alt, control, shift};
}

Keys decode(const std::vector<std::string>& reads) {
    dmconsole::TerminalKeyDecoder decoder;
    Keys keys;
    for (const std::string& bytes : reads) {
        decoder.feed(bytes, keys);
    }
    decoder.flush(keys);
    return keys;
}

TEST(TerminalKeys, TextEditingKeysAndModifiers) {
    EXPECT_EQ(decode({"aZ1!`"}),
              (Keys{key('A', 'a'), key('Z', 'Z', false, false, true), key('1', '1'),
                    key('1', '!', false, false, true), key(vk::Console)}));
    EXPECT_EQ(decode({"\r\t\x7f\x03"}), (Keys{key(vk::Enter, '\r'), key(vk::Tab),
                                              key(vk::Backspace), key(vk::Quit, 0, false, true)}));
    EXPECT_EQ(decode({"\x1b[A\x1b[1;5B\x1bOH\x1b[4~\x1b[3~\x1b[5;2~\x1b[Z"}),
              (Keys{key(vk::Up), key(vk::Down, 0, false, true), key(vk::Home), key(vk::End),
                    key(vk::Delete), key(vk::PageUp, 0, false, false, true),
                    key(vk::Tab, 0, false, false, true)}));
}

TEST(TerminalKeys, EscapeWaitsToSeeWhetherASequenceFollows) {
    dmconsole::TerminalKeyDecoder decoder;
    Keys keys;
    decoder.feed("\x1b", keys);
    EXPECT_TRUE(keys.empty());
    EXPECT_TRUE(decoder.holdsBytes());
    decoder.feed("[1;3", keys);
    EXPECT_TRUE(keys.empty()) << "a sequence cut between two reads";
    decoder.feed("D", keys);
    EXPECT_EQ(keys, (Keys{key(vk::Left, 0, true)}));
    keys.clear();
    decoder.feed("\x1b", keys);
    decoder.flush(keys);
    EXPECT_EQ(keys, (Keys{key(vk::Escape)})) << "nothing followed: a lone Escape";
    EXPECT_EQ(decode({"\x1b\r"}), (Keys{key(vk::Enter, '\r', true)})) << "Alt+Enter";
}

TEST(TerminalKeys, Latin1CharactersTypeAndOthersAreDropped) {
    EXPECT_EQ(decode({"\xc3\xa4", "\xc2\xa7", "\xe2\x82\xac", "\xc3"}),
              (Keys{dmconsole::keystrokeForCharacter('\xe4'), key(vk::Console)}))
        << "ä types, § is the console key, the euro sign and a cut character are dropped";
}

TEST(KeystrokeScript, TypesTextNamedKeysAndLines) {
    Keys keys;
    std::string error;
    ASSERT_TRUE(dmconsole::parseKeystrokeScript(
        "# comment\nab\n{Ctrl+Up}{Alt+Enter}{{x\\\n{Console}", keys, error))
        << error;
    EXPECT_EQ(keys, (Keys{key('A', 'a'), key('B', 'b'), key(vk::Enter, '\r'),
                          key(vk::Up, 0, false, true), key(vk::Enter, '\r', true),
                          dmconsole::keystrokeForCharacter('{'), key('X', 'x'), key(vk::Console)}));
}

TEST(KeystrokeScript, RefusesUnknownKeysAndOpenBraces) {
    Keys keys;
    std::string error;
    EXPECT_FALSE(dmconsole::parseKeystrokeScript("ok\n{Hyper+Up}", keys, error));
    EXPECT_EQ(error, "line 2: no key named \"Hyper+Up\"");
    EXPECT_FALSE(dmconsole::parseKeystrokeScript("{Up\n}", keys, error));
    EXPECT_NE(error.find("line 1"), std::string::npos);
}

// The console drawn onto a 100 by 12 grid, one console character per column.
TEST(TerminalShapeEngine, PutsTheConsoleOnTheGrid) {
    dmconsole::TerminalShapeEngine engine(100, 12, dmconsole::kConsoleCharacterWidth);
    dm::ScrollingTextWindow window(&engine, 0.0f);
    const float line = 1.0f / 12.0f;
    window.setWindowSize({1.0f, 11.25f * line});  // rows 0 to 10, as dm-console does
    window.setCommandLinePosition({0.0f, 11.0f * line});
    window.setVisibility(true);
    window.print("hello 42\n");
    window.setText("typed");
    engine.clear({40, 90, 150, 255});
    window.renderVisibleText();

    EXPECT_EQ(engine.rowText(10).substr(0, 9), "hello 42 ");
    EXPECT_EQ(engine.rowText(11).substr(0, 8), ">typed_ ");
    EXPECT_EQ(engine.cell(6, 10).foreground,
              window.getPaletteColor(dm::ScrollingTextWindow::kNumberColor));
    EXPECT_EQ(engine.cell(50, 5).background, (g::Color{20, 45, 75, 255})) << "darkened by half";
    EXPECT_EQ(engine.cell(99, 10).background, (g::Color{215, 209, 209, 255})) << "the handle";
    EXPECT_EQ(engine.cell(99, 11).background, (g::Color{20, 45, 75, 255}))
        << "the bar ends above the command line";
    const std::string ansi = engine.toAnsi();
    EXPECT_NE(ansi.find("\x1b[38;2;160;255;255m42"), std::string::npos);
}

}  // namespace
