#include <gtest/gtest.h>

#include <string>

#include "console/keyboard.h"
#include "dm/console.h"

namespace {

namespace vk = dmtest::vk;

struct CompletionTest : dmtest::KeyboardWindowTest {
    CompletionTest() {
        window.addKnownWord("echo", false);
        window.addKnownWord("help", false);
        window.addKnownWord("print", false);
    }
    std::string tab() {
        keys.press(vk::Tab);
        return keys.line();
    }
    std::string shiftTab() {
        keys.press(vk::Tab, true);
        return keys.line();
    }
};

TEST_F(CompletionTest, CyclesThroughTheWordsThatContainTheFragment) {
    keys.type("e");
    EXPECT_EQ(tab(), "echo");
    EXPECT_EQ(tab(), "help");
    EXPECT_EQ(tab(), "echo");  // print holds no e
    EXPECT_EQ(shiftTab(), "help");
    EXPECT_EQ(shiftTab(), "echo");
    EXPECT_EQ(keys.lineWithCursor(), "echo|");
}

TEST_F(CompletionTest, StartsWithTheWordEqualToTheFragment) {
    keys.type("help");
    EXPECT_EQ(tab(), "help");
    EXPECT_EQ(tab(), "help");  // the only word holding "help": the cycle stays on it
    keys.press(vk::Escape);
    EXPECT_EQ(tab(), "echo");  // an empty fragment matches every word
    EXPECT_EQ(shiftTab(), "print");
    EXPECT_EQ(shiftTab(), "help");
}

TEST_F(CompletionTest, ShiftTabAsTheWindowsFirstKeyStartsFromTheLastWord) {
    // Shift never starts a new run of keys, so only the very first key of a window can be a
    // Shift+Tab that starts a cycle.
    window.setText("e");
    EXPECT_EQ(shiftTab(), "help");
    EXPECT_EQ(shiftTab(), "echo");
}

TEST_F(CompletionTest, ShiftTabAfterTypingContinuesTheEarlierCycle) {
    keys.type("e");
    EXPECT_EQ(tab(), "echo");
    keys.press(vk::Escape);
    keys.type("p");
    // Shift+Tab as the first Tab after typing goes on backwards from echo through the words
    // holding "e", rather than starting afresh from "p".
    EXPECT_EQ(shiftTab(), "help");
    keys.press(vk::Escape);
    keys.type("p");
    EXPECT_EQ(tab(), "help");  // a plain Tab starts afresh: help is the first word holding p
    EXPECT_EQ(tab(), "print");
    keys.type("X");  // typed with Shift: the next Tab still continues
    EXPECT_EQ(tab(), "help");
}

TEST_F(CompletionTest, CompletesFunctionWordsWithAnArgumentList) {
    window.addKnownWord("setfov", true);
    window.addKnownWord("Echo", true);  // already known as a plain word: stays one
    keys.type("setfov");
    EXPECT_EQ(tab(), "setfov(  );");
    EXPECT_EQ(keys.lineWithCursor(), "setfov( | );");
    keys.press(vk::Escape);
    keys.type("ech");
    EXPECT_EQ(tab(), "echo");
}

TEST_F(CompletionTest, CompletesOnlyTheFragmentAfterTheLastSpaceOrArrow) {
    window.removeAllKnownWords();
    window.addKnownWord("health", false);
    window.addKnownWord("sheep", false);
    window.addKnownWord("echo", false);
    keys.type("give >he");
    EXPECT_EQ(tab(), "give >health");
    EXPECT_EQ(tab(), "give >sheep");
    EXPECT_EQ(tab(), "give >health");

    keys.press(vk::Escape);
    keys.type("say eep");
    keys.pressTimes(vk::Left, 2);
    EXPECT_EQ(tab(), "say sheep");  // the fragment reaches to the end of the line, past the cursor
    keys.press(vk::Escape);
    keys.type("give ");
    EXPECT_EQ(tab(), "give echo");  // an empty fragment: every word, from the first
}

TEST_F(CompletionTest, TakesUpperCaseInputAndProposesTheStoredLowerCase) {
    window.addKnownWord("SetName", false);
    keys.type("ECHO");
    EXPECT_EQ(tab(), "echo");
    keys.press(vk::Escape);
    keys.type("NAM");
    EXPECT_EQ(tab(), "setname");
}

TEST_F(CompletionTest, LeavesTheLineAloneWhenNothingMatches) {
    keys.type("zz");
    EXPECT_EQ(tab(), "zz");
    EXPECT_EQ(tab(), "zz");
    EXPECT_EQ(shiftTab(), "zz");
    keys.press(vk::Tab, false, false, true);  // Alt+Tab belongs to the system
    EXPECT_EQ(keys.line(), "zz");
    window.removeAllKnownWords();
    keys.press(vk::Escape);
    EXPECT_EQ(tab(), "");
}

TEST_F(CompletionTest, RemovingTheProposedWordEndsTheCycleSafely) {
    keys.type("e");
    EXPECT_EQ(tab(), "echo");
    window.removeKnownWord("ECHO");
    EXPECT_EQ(tab(), "echo");  // the cycle ended: a repeated Tab does nothing
    keys.press(vk::Escape);
    keys.type("e");
    EXPECT_EQ(tab(), "help");
    window.removeKnownWord("nothing");  // unknown: the cycle goes on
    EXPECT_EQ(tab(), "help");
    window.removeAllKnownWords();
    EXPECT_EQ(tab(), "help");
    window.addKnownWord("exit", false);
    EXPECT_EQ(tab(), "help");  // still ended; only a new first Tab starts again
    keys.press(vk::Escape);
    EXPECT_EQ(tab(), "exit");
}

}  // namespace
