// Hexadecimal text for binary data and percent escapes for URLs, with their documented quirks.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "dm/comm.h"

namespace {

std::vector<char> toBinary(const char* text) {
    zu::Vector<char> out;
    dm::stringToBinaryData(zu::String(text), out);
    return std::vector<char>(out.begin(), out.end());
}

std::vector<char> bytes(std::initializer_list<int> values) {
    std::vector<char> out;
    for (int value : values) {
        out.push_back(static_cast<char>(value));
    }
    return out;
}

TEST(BinaryText, EveryByteBecomesTwoLowerCaseDigitsAndComesBack) {
    std::vector<uint8_t> data(5000);
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<uint8_t>(i < 256 ? i : i * 131 + 7);
    }
    zu::String text("left over");
    dm::binaryDataToString(data.data(), data.size(), text);
    ASSERT_EQ(10000u, text.length());
    EXPECT_EQ(0, std::string(text.c_str()).compare(0, 8, "00010203"));
    EXPECT_EQ(0, std::string(text.c_str()).compare(20, 4, "0a0b"));
    EXPECT_EQ(0, std::string(text.c_str()).compare(508, 4, "feff"));
    zu::Vector<char> back;
    back.resize(10001);  // resized to the byte count
    dm::stringToBinaryData(text, back);
    ASSERT_EQ(data.size(), back.size());
    EXPECT_EQ(0, std::memcmp(data.data(), back.data(), data.size()));

    dm::binaryDataToString(data.data(), 0, text);
    EXPECT_STREQ("", text.c_str());
}

TEST(BinaryText, ReadsEitherCaseIgnoresAnOddLastCharacterAndCountsInvalidDigitsAs255) {
    EXPECT_EQ(bytes({0x0A, 0xFF}), toBinary("0aFf1"));
    EXPECT_EQ(bytes({0xAB, 0xCD}), toBinary("ABcd"));
    EXPECT_TRUE(toBinary("").empty());
    EXPECT_TRUE(toBinary("7").empty());
    // Invalid high digit: 0xF0 plus the low value. Invalid low digit: high * 16 - 1.
    EXPECT_EQ(bytes({0xF5}), toBinary("g5"));
    EXPECT_EQ(bytes({0x2F}), toBinary("3z"));
    EXPECT_EQ(bytes({0xEF}), toBinary("  "));
}

TEST(UrlText, EncodesAllButTheKeptCharactersBeyondTheResultsInlineRoom) {
    EXPECT_STREQ("a%20b%2Fc", net::urlEncodeString("a b/c").c_str());
    EXPECT_STREQ("$-_.+!*'(),", net::urlEncodeString("$-_.+!*'(),").c_str());
    EXPECT_STREQ("AZaz09", net::urlEncodeString("AZaz09").c_str());
    EXPECT_STREQ("%E9t%E9%3F%25", net::urlEncodeString("\xE9t\xE9?%").c_str());
    EXPECT_STREQ("", net::urlEncodeString("").c_str());
    EXPECT_EQ(300u, net::urlEncodeString(std::string(100, ' ').c_str()).length());
}

TEST(UrlText, DecodesDecimalEscapesOnly) {
    EXPECT_STREQ("a b", net::urlDecodeString("a%20b").c_str());
    EXPECT_STREQ("A", net::urlDecodeString("%41").c_str());
    // Letters count from '0': 0x20 | ('F' - '0') is '6'.
    EXPECT_STREQ("6", net::urlDecodeString("%2F").c_str());
    EXPECT_STREQ("a+b", net::urlDecodeString("a+b").c_str());
    // An encoded '%' comes back as one.
    EXPECT_STREQ("x%20y", net::urlDecodeString(net::urlEncodeString("x%20y").c_str()).c_str());
}

TEST(UrlText, ShortEscapesAtTheEnd) {
    // '%' alone gives a zero byte; '%' and one character give that character minus '0'.
    zu::InplaceString<256> zero = net::urlDecodeString("ab%");
    ASSERT_EQ(3u, zero.length());
    EXPECT_EQ('\0', zero[2]);
    zu::InplaceString<256> one = net::urlDecodeString("ab%9");
    ASSERT_EQ(3u, one.length());
    EXPECT_EQ('\x09', one[2]);
    // The escape takes the next two characters whatever they are: ('%' - '0') << 4 | ('z' - '0').
    EXPECT_STREQ("Z", net::urlDecodeString("%%z").c_str());
}

}  // namespace
