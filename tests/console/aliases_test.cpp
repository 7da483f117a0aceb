#include <gtest/gtest.h>

#include <string>

#include "console/keyboard.h"
#include "dm/console.h"

namespace {

using dm::ScrollingTextWindow;
using dmtest::joinWords;
using IllegalAlias = dm::ScrollingTextWindowException_IllegalAliasDefinition;

struct AliasTest : dmtest::KeyboardWindowTest {
    void define(const char* name, const char* text) { window.accessAliasesMap()[name] = text; }
    // Defines an alias as a host should: enter it, check it, take it out again if refused.
    // Returns the refusal's text, or "" when accepted.
    std::string defineChecked(const char* name, const char* text) {
        define(name, text);
        try {
            window.checkAliasValidity(name, text);
            return "";
        } catch (const IllegalAlias& refusal) {
            window.accessAliasesMap().erase(name);
            return refusal.getError();
        }
    }
    std::string parse(const char* line) {
        window.setText(line);
        dm::ConsoleWordList words;
        window.parseCommandLine(words, false);
        return joinWords(words);
    }
};

TEST_F(AliasTest, ExpandsNestedAliasesWhateverTheCaseOfTheirNames) {
    define("quit", "exit 0");
    define("bye", "say cya;Quit");
    EXPECT_EQ(parse("QUIT"), "exit| |0");
    EXPECT_EQ(parse("a BYE b"), "a| |say| |cya|;|exit| |0| |b");
    EXPECT_EQ(parse("byebye"), "byebye");  // whole words only
    define(";", " then ");                 // every word is looked up, punctuation too
    EXPECT_EQ(parse("a;b"), "a| |then| |b");
    EXPECT_EQ(window.getAliasesMap().size(), 3u);
    EXPECT_EQ(window.getAliasesMap().count("BYE"), 1u);
}

TEST_F(AliasTest, RefusesAnAliasThatExpandsIntoItself) {
    EXPECT_EQ(defineChecked("a", "a"),
              "ScrollingTextWindow: Resolving alias \"a\" causes a loop - alias used inside alias");
    EXPECT_TRUE(window.getAliasesMap().empty());

    EXPECT_EQ(defineChecked("x", "y 1"), "");
    EXPECT_EQ(defineChecked("y", "z 2"), "");
    EXPECT_EQ(defineChecked("Z", "echo; X"),
              "ScrollingTextWindow: Resolving alias \"z\" causes a loop - alias used inside alias");
    EXPECT_EQ(window.getAliasesMap().count("z"), 0u);
    EXPECT_EQ(parse("x"), "z| |2| |1");  // z, refused, is a plain word again
}

TEST_F(AliasTest, RefusesAnAliasUsedTwiceEvenOnSeparateBranches) {
    EXPECT_EQ(defineChecked("b", "echo hi"), "");
    EXPECT_NE(defineChecked("a", "b;b"), "");
    EXPECT_EQ(defineChecked("c", "b"), "");
    EXPECT_NE(defineChecked("d", "b;c"), "");  // b is met directly and again inside c
    EXPECT_EQ(defineChecked("e", "echo;echo"), "");
}

TEST_F(AliasTest, CheckSeesOnlyAliasesAlreadyInTheMap) {
    // Checked before it is entered, a name referring to itself slips through; parsing it then
    // stops with an error instead of recursing without end.
    window.checkAliasValidity("self", "self again");
    define("self", "self again");
    window.setText("self");
    dm::ConsoleWordList words;
    EXPECT_THROW(window.parseCommandLine(words, false), IllegalAlias);
    EXPECT_EQ(window.getText(), "");
}

TEST_F(AliasTest, StopsAnUncheckedAliasThatGrowsWithoutEnd) {
    // Each level doubles: 2^40 words if nothing stopped it.
    for (int level = 0; level < 40; ++level) {
        define(("w" + std::to_string(level)).c_str(),
               ("w" + std::to_string(level + 1) + " w" + std::to_string(level + 1)).c_str());
    }
    window.setText("w0");
    dm::ConsoleWordList words;
    EXPECT_THROW(window.parseCommandLine(words, false), IllegalAlias);
    EXPECT_LE(words.size(), ScrollingTextWindow::kMaxExpandedWords);
}

TEST_F(AliasTest, AcceptsNestingUpToTheLimitAndRefusesDeeper) {
    // n1 -> n2 -> ... -> n64 -> end, defined from the inside out so that each check walks the
    // whole chain below it.
    const int limit = ScrollingTextWindow::kMaxAliasNesting;
    ASSERT_EQ(defineChecked(("n" + std::to_string(limit)).c_str(), "end"), "");
    for (int level = limit - 1; level >= 1; --level) {
        ASSERT_EQ(defineChecked(("n" + std::to_string(level)).c_str(),
                                ("n" + std::to_string(level + 1)).c_str()),
                  "");
    }
    EXPECT_EQ(parse("n1"), "end");
    EXPECT_NE(defineChecked("n0", "n1"), "");
    define("n0", "n1");  // unchecked, it is refused when parsed
    EXPECT_THROW(parse("n0"), IllegalAlias);
}

}  // namespace
