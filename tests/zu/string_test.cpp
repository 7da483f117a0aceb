#include <gtest/gtest.h>

#include <string>

#include "zu/string.h"

namespace {

TEST(InplaceString, GrowsAndFormatsPastInlineStorageWithoutTruncating) {
    zu::InplaceString<8> text("1234567");
    EXPECT_TRUE(text.isInline());
    text += "89abcdef";
    EXPECT_FALSE(text.isInline());
    EXPECT_EQ(text, "123456789abcdef");
    EXPECT_EQ(text.length(), 15u);

    std::string longText(5000, 'x');
    text = longText.c_str();
    EXPECT_EQ(text.length(), 5000u);
    EXPECT_EQ(std::string(text.c_str()), longText);

    // Formatting does not truncate either.
    zu::InplaceString<8> formatted;
    formatted.format("%s-%d", "name", 12345);
    EXPECT_EQ(formatted, "name-12345");
    formatted.appendFormat("/%x", 255u);
    EXPECT_EQ(formatted, "name-12345/ff");
    EXPECT_EQ(zu::str("ZMK %s job manager", "io"), "ZMK io job manager");
    std::string wide(1000, 'w');
    EXPECT_EQ(zu::str("%s", wide.c_str()).length(), 1000u);

    // Copies and moves keep their own storage.
    zu::InplaceString<16> small("short");
    zu::InplaceString<16> copy(small);
    copy += "!";
    EXPECT_EQ(small, "short");
    EXPECT_EQ(copy, "short!");

    zu::InplaceString<16> big("this text is longer than sixteen bytes");
    zu::InplaceString<16> moved(std::move(big));
    EXPECT_EQ(moved, "this text is longer than sixteen bytes");
    EXPECT_TRUE(big.empty());
    big = "reused";  // the moved-from string is usable again, back in its inline buffer
    EXPECT_EQ(big, "reused");
    EXPECT_TRUE(big.isInline());

    zu::String base(moved);
    EXPECT_EQ(base, moved);
}

TEST(InplaceString, EditingOperations) {
    zu::InplaceString<8> text("hello");
    text.insert(0, '>');
    text.insert(100, '!');  // clamped to the end
    EXPECT_EQ(text, ">hello!");
    text.erase(1, 2);
    EXPECT_EQ(text, ">llo!");
    text.erase(3);
    EXPECT_EQ(text, ">ll");
    text.erase(10, 1);  // out of range: nothing
    EXPECT_EQ(text, ">ll");
    EXPECT_EQ(text.find('l'), 1);
    EXPECT_EQ(text.find('z'), -1);
    EXPECT_EQ(zu::String("one two").find("two"), 4);
    EXPECT_EQ(zu::String("one two").substr(4), "two");
    text.truncate(1);
    EXPECT_EQ(text, ">");

    // Appending or assigning its own text is safe.
    zu::InplaceString<4> own("abc");
    own += own;
    own += own.c_str() + 1;
    EXPECT_EQ(own, "abcabcbcabc");
    own.assign(own.c_str() + 3, 3);
    EXPECT_EQ(own, "abc");
}

TEST(StringComparison, IgnoresCaseLikeStricmp) {
    EXPECT_EQ(zu::stricmp("FileServer", "fileserver"), 0);
    EXPECT_LT(zu::stricmp("abc", "ABD"), 0);
    EXPECT_GT(zu::stricmp("b", "A"), 0);
    EXPECT_LT(zu::stricmp("ab", "abc"), 0);
    // Letters fold to lower case before the byte compare, so '_' (0x5F) sorts before 'b'.
    EXPECT_LT(zu::stricmp("A_", "AB"), 0);
    // Only ASCII letters fold; Latin-1 bytes compare by value.
    EXPECT_NE(zu::stricmp("\xC4", "\xE4"), 0);
    EXPECT_EQ(zu::strnicmp("PIPEx", "pipey", 4), 0);

    zu::InplaceString<16> upper("PIPE"), lower("pipe");
    EXPECT_FALSE(upper < lower);
    EXPECT_FALSE(lower < upper);
    EXPECT_NE(upper, lower);  // equality stays exact
    EXPECT_TRUE(upper.equalsIgnoreCase("Pipe"));
    EXPECT_TRUE(zu::String("Devkit:/data").startsWithIgnoreCase("DEVKIT:"));
    EXPECT_FALSE(zu::String("Devkit:/data").startsWithIgnoreCase("DEVKIT;"));  // every byte
    EXPECT_FALSE(zu::String("Dev").startsWithIgnoreCase("DEVKIT"));
    zu::InplaceString<16> mixed("MiXeD \xC4Z");
    mixed.toLower();
    EXPECT_EQ(mixed, "mixed \xC4z");
}

}  // namespace
