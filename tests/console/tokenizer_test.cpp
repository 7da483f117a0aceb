#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "dm/console.h"

namespace {

std::vector<std::string> words(const std::string& text) {
    dm::ConsoleWordList list;
    dm::tokenizeLine(list, zu::String(text.c_str()));
    std::vector<std::string> result;
    for (const dm::ConsoleWord& word : list) {
        result.emplace_back(word.c_str(), word.length());
    }
    return result;
}

using Words = std::vector<std::string>;

int scan(int (*scanner)(const zu::String&, int), const std::string& text, int position = 0) {
    return scanner(zu::String(text.c_str()), position);
}

TEST(Tokenizer, UsesLatin1LettersAndKeepsFormFeedApart) {
    EXPECT_EQ(words("\xc4la \xe5\xf6\xd6x"), (Words{"\xc4la", " ", "\xe5\xf6\xd6x"}));
    EXPECT_EQ(words("a\xc3\xa9z"), (Words{"a", "\xc3", "\xa9", "z"}));
    EXPECT_EQ(words("a\fb"), (Words{"a", "\f", "b"}));
    EXPECT_EQ(words("a \f b"), (Words{"a", " ", "\f", " ", "b"}));
}

TEST(Tokenizer, AppendsAndKeepsWordsLongerThanTheirInlineCapacity) {
    dm::ConsoleWordList list;
    dm::tokenizeLine(list, "a b");
    const std::string longWord(600, 'w');
    dm::tokenizeLine(list, zu::String(longWord.c_str()));
    ASSERT_EQ(list.size(), 4u);
    EXPECT_EQ(list[3].c_str(), longWord);
}

TEST(Scanners, MatchWhitespaceIdentifiersAndQuotes) {
    EXPECT_EQ(scan(dm::scanWhitespace, " \t\n\x0b\r x"), 6);
    EXPECT_EQ(scan(dm::scanIdentifier, "ab_9\xc4\xf6!"), 6);
    EXPECT_EQ(scan(dm::scanQuoted, "\"a b\" c"), 5);
    EXPECT_EQ(scan(dm::scanQuoted, "\"\""), 2);
    EXPECT_EQ(scan(dm::scanQuoted, "\"open"), -1);
    EXPECT_EQ(scan(dm::scanQuoted, "x\"y\"", 1), 3);
}

TEST(Scanners, MatchNumbersOnlyWhenWhitespaceOrTheEndFollows) {
    EXPECT_EQ(scan(dm::scanInteger, "12"), 2);
    EXPECT_EQ(scan(dm::scanInteger, "12\fx"), -1);
    EXPECT_EQ(scan(dm::scanInteger, "12.5"), -1);
    EXPECT_EQ(scan(dm::scanInteger, "-3 "), 2);
    EXPECT_EQ(scan(dm::scanInteger, "+7"), 2);
    EXPECT_EQ(scan(dm::scanInteger, "-"), -1);
    EXPECT_EQ(scan(dm::scanInteger, "+ 1"), -1);
    EXPECT_EQ(scan(dm::scanInteger, "x 42", 2), 2);

    EXPECT_EQ(scan(dm::scanFloat, "2.5"), 3);
    EXPECT_EQ(scan(dm::scanFloat, "."), 1);
    EXPECT_EQ(scan(dm::scanFloat, "fee"), 3);
    EXPECT_EQ(scan(dm::scanFloat, "-.5e2F "), 6);
    EXPECT_EQ(scan(dm::scanFloat, "1e-5"), -1);
    EXPECT_EQ(scan(dm::scanFloat, "2.5("), -1);

    EXPECT_EQ(scan(dm::scanHex, "0x1f"), 4);
    EXPECT_EQ(scan(dm::scanHex, "0X1fx "), 5);
    EXPECT_EQ(scan(dm::scanHex, "0xFF"), -1);
    EXPECT_EQ(scan(dm::scanHex, "0xfg"), -1);
    EXPECT_EQ(scan(dm::scanHex, "0x"), -1);      // the whole text is shorter than three bytes
    EXPECT_EQ(scan(dm::scanHex, "a 0x", 2), 2);  // ...but what is left may be
    EXPECT_EQ(scan(dm::scanHex, "10x1"), -1);
    EXPECT_EQ(scan(dm::scanHex, "-0x1f"), -1);
}

TEST(Scanners, RefusePositionsOutsideTheText) {
    for (auto scanner : {dm::scanWhitespace, dm::scanIdentifier, dm::scanInteger, dm::scanFloat,
                         dm::scanHex, dm::scanQuoted}) {
        EXPECT_EQ(scan(scanner, "0x1 \"a\"", -1), -1);
        EXPECT_EQ(scan(scanner, "0x1 \"a\"", 7), -1);
        EXPECT_EQ(scan(scanner, "0x1 \"a\"", 1000), -1);
        EXPECT_EQ(scan(scanner, ""), -1);
    }
}

// Bytes that steer the tokenizer into every branch, plus any byte at all.
std::string generateLine(std::mt19937& random) {
    static const char kInteresting[] =
        " \t\n\r\x0b\f\"+-.0123456789xXeEfFaAz_;=(\xc4\xe5\xf6\xe9\x7f";
    std::uniform_int_distribution<int> length(0, 60);
    std::uniform_int_distribution<int> pick(0, 1);
    std::uniform_int_distribution<int> interesting(0, sizeof(kInteresting) - 2);
    std::uniform_int_distribution<int> anyByte(1, 255);
    std::string line;
    for (int i = length(random); i > 0; --i) {
        line +=
            pick(random) ? kInteresting[interesting(random)] : static_cast<char>(anyByte(random));
    }
    return line;
}

// The length of the word at `position`, found the slow way: every scanner tried afresh there.
int wordLengthFromScanners(const zu::String& text, int position) {
    const unsigned char c = static_cast<unsigned char>(text.c_str()[position]);
    if (dm::scanWhitespace(text, position) > 0) {
        return dm::scanWhitespace(text, position);
    }
    if (c == '"' && dm::scanQuoted(text, position) > 0) {
        return dm::scanQuoted(text, position);
    }
    if (c == '+' || c == '-' || (c >= '0' && c <= '9')) {
        for (auto scanner : {dm::scanInteger, dm::scanFloat, dm::scanHex}) {
            if (scanner(text, position) > 0) {
                return scanner(text, position);
            }
        }
    }
    return std::max(dm::scanIdentifier(text, position), 1);
}

// Tokenizing skips scans that cannot succeed; the words must be exactly those of trying every
// scanner at every word's start (so they join to the line, and white-space runs are whole).
TEST(Tokenizer, CutsExactlyWhereTheScannersTriedAtEveryWordSay) {
    std::mt19937 random(20261122);
    for (int lineNumber = 0; lineNumber < 5000; ++lineNumber) {
        std::string line = generateLine(random);
        if (lineNumber % 2 == 0) {  // long runs of float characters with dots, signs and hex
            for (int i = 0; i < 40; ++i) {
                line.insert(line.size() / 2, random() % 3 ? "1." : (random() % 2 ? "-0x" : "e"));
            }
        }
        const zu::String text(line.c_str());
        Words expected;
        for (int position = 0; position < static_cast<int>(line.size());) {
            const int length = wordLengthFromScanners(text, position);
            expected.push_back(line.substr(static_cast<size_t>(position), length));
            position += length;
        }
        ASSERT_EQ(words(line), expected) << "line " << lineNumber;
    }
}

}  // namespace
