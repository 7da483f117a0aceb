#include <gtest/gtest.h>

#include <string>

#include "console/keyboard.h"
#include "dm/console.h"

namespace {

using dmtest::visibleLine;
namespace vk = dmtest::vk;

struct CommandLineTest : dmtest::KeyboardWindowTest {
    void enterCommands(int first, int last) {
        for (int i = first; i <= last; ++i) {
            keys.type("cmd" + std::to_string(i));
            keys.enter();
        }
    }
    std::string browse(int key) {
        keys.press(key);
        return keys.line();
    }
};

TEST_F(CommandLineTest, TypesAtTheCursorAndClampsItAtBothEnds) {
    keys.type("abc");
    keys.pressTimes(vk::Left, 10);
    keys.press(vk::Backspace);  // nothing before the start
    EXPECT_EQ(keys.lineWithCursor(), "|abc");
    keys.type("X");
    keys.pressTimes(vk::Right, 10);
    keys.press(vk::Delete);  // nothing behind the end
    EXPECT_EQ(keys.lineWithCursor(), "Xabc|");
    keys.press(vk::Home);
    keys.press(vk::Delete);
    keys.press(vk::Right);
    EXPECT_EQ(keys.lineWithCursor(), "a|bc");
    keys.press(vk::Backspace);
    EXPECT_EQ(keys.lineWithCursor(), "|bc");
    keys.press(vk::End);
    keys.type("\x01");  // control characters are typed like any other
    EXPECT_EQ(keys.line(), "bc\x01");
    keys.press(vk::Escape);
    EXPECT_EQ(keys.lineWithCursor(), "|");
}

TEST_F(CommandLineTest, SetTextPutsTheCursorAtTheEndAndAppendTextTypesAtIt) {
    window.setText("hello");
    EXPECT_EQ(keys.lineWithCursor(), "hello|");
    keys.pressTimes(vk::Left, 2);
    window.appendText("a\r\nb\tc");
    EXPECT_EQ(keys.lineWithCursor(), "hela  bc|lo");
    window.setText("");
    EXPECT_EQ(keys.lineWithCursor(), "|");
}

TEST_F(CommandLineTest, EditingKeysWithModifiersOnlyScrollWhereTheyShould) {
    showTenLines();
    printNumberedLines(0, 30);
    keys.type("ab");
    keys.press(vk::Home);  // without Control: the cursor, not the view
    EXPECT_EQ(keys.lineWithCursor(), "|ab");
    EXPECT_EQ(visibleLine(window, 0), "line 29\n");

    keys.press(vk::PageUp);  // a page less one line
    EXPECT_EQ(visibleLine(window, 0), "line 20\n");
    keys.press(vk::Up, false, true);
    EXPECT_EQ(visibleLine(window, 0), "line 19\n");
    keys.press(vk::Home, false, true);  // to the oldest line
    EXPECT_EQ(visibleLine(window, 9), "line 0\n");
    keys.press(vk::PageUp);
    EXPECT_EQ(visibleLine(window, 9), "line 0\n");
    keys.press(vk::PageDown);
    EXPECT_EQ(visibleLine(window, 0), "line 18\n");
    keys.press(vk::Down, false, true);
    EXPECT_EQ(visibleLine(window, 0), "line 19\n");
    keys.press(vk::End, false, true);  // back to the newest
    EXPECT_EQ(visibleLine(window, 0), "line 29\n");
    EXPECT_EQ(keys.line(), "ab");  // none of it touched the command line
}

TEST_F(CommandLineTest, UpStartsAtTheNewestAndDownAtTheOldestBothWrapping) {
    keys.type("typed");
    EXPECT_EQ(browse(vk::Up), "typed");  // no history yet: nothing to browse
    EXPECT_EQ(browse(vk::Down), "typed");
    keys.press(vk::Escape);
    enterCommands(1, 3);
    EXPECT_EQ(browse(vk::Up), "cmd3");
    EXPECT_EQ(browse(vk::Up), "cmd2");
    EXPECT_EQ(browse(vk::Up), "cmd1");
    EXPECT_EQ(browse(vk::Up), "cmd3");
    EXPECT_EQ(keys.lineWithCursor(), "cmd3|");

    keys.press(vk::Escape);
    keys.type("cmd4");
    keys.enter();  // ends browsing
    EXPECT_EQ(browse(vk::Down), "cmd1");
    EXPECT_EQ(browse(vk::Down), "cmd2");
    EXPECT_EQ(browse(vk::Down), "cmd3");
    EXPECT_EQ(browse(vk::Down), "cmd4");
    EXPECT_EQ(browse(vk::Down), "cmd1");
}

TEST_F(CommandLineTest, StoresARepeatedLineEachTimeAndNeverAnEmptyOne) {
    keys.type("same");
    keys.enter();
    keys.type("same");
    keys.enter();
    EXPECT_TRUE(keys.enter().empty());
    EXPECT_EQ(browse(vk::Up), "same");
    EXPECT_EQ(browse(vk::Up), "same");
    window.addToCommandStack("other");  // also ends browsing
    EXPECT_EQ(browse(vk::Down), "same");
    EXPECT_EQ(browse(vk::Down), "same");
    EXPECT_EQ(browse(vk::Down), "other");
}

TEST_F(CommandLineTest, ParsingEmptiesTheLineAndKeepsEveryByteInOneWord) {
    keys.type("  echo \"a b\" 0x1f;x");
    keys.press(vk::Left);
    const dm::ConsoleWordList words = keys.enter();
    EXPECT_EQ(dmtest::joinWords(words), "  |echo| |\"a b\"| |0x1f|;|x");
    EXPECT_EQ(keys.lineWithCursor(), "|");
    EXPECT_EQ(browse(vk::Up), "  echo \"a b\" 0x1f;x");

    keys.press(vk::Escape);
    keys.type("not stored");
    dm::ConsoleWordList unstored;
    window.parseCommandLine(unstored, false);
    EXPECT_EQ(dmtest::joinWords(unstored), "not| |stored");
    EXPECT_EQ(browse(vk::Up), "  echo \"a b\" 0x1f;x");
}

}  // namespace
