#include <gtest/gtest.h>

#include <vector>

#include "zu/string.h"
#include "zu/vector.h"

namespace {

TEST(Vector, GrowsByHalfAndAtLeastToEightButResizesExactly) {
    zu::Vector<int> items;
    std::vector<size_t> capacities;
    for (int i = 0; i < 28; ++i) {
        items.push_back(i);
        if (capacities.empty() || capacities.back() != items.capacity()) {
            capacities.push_back(items.capacity());
        }
    }
    EXPECT_EQ(capacities, (std::vector<size_t>{8, 12, 18, 27, 40}));
    for (int i = 0; i < 28; ++i) {
        EXPECT_EQ(items[i], i);
    }
    // resize and reserve allocate exactly.
    zu::Vector<zu::InplaceString<32>> lines;
    lines.resize(1000);
    EXPECT_EQ(lines.size(), 1000u);
    EXPECT_EQ(lines.capacity(), 1000u);
    EXPECT_TRUE(lines[999].empty());
    lines.resize(3);
    EXPECT_EQ(lines.size(), 3u);
    lines.reserve(5);
    EXPECT_EQ(lines.capacity(), 1000u);
}

TEST(Vector, HeapElementsSurviveCopiesMovesSelfPushesAndEdits) {
    zu::Vector<zu::InplaceString<4>> original;
    original.push_back("heap allocated text");
    zu::Vector<zu::InplaceString<4>> copy(original);
    copy[0] = "changed";
    EXPECT_EQ(original[0], "heap allocated text");

    zu::Vector<zu::InplaceString<4>> moved(std::move(original));
    EXPECT_EQ(moved.size(), 1u);
    EXPECT_TRUE(original.empty());
    original = moved;
    EXPECT_EQ(original[0], "heap allocated text");
    original.clear();
    EXPECT_EQ(original.size(), 0u);

    // Pushing an element of itself while growing.
    zu::Vector<zu::InplaceString<8>> words;
    words.push_back("a long word that lives on the heap");
    for (int i = 0; i < 20; ++i) {
        words.push_back(words[0]);
    }
    for (const auto& word : words) {
        EXPECT_EQ(word, "a long word that lives on the heap");
    }

    // Erase and insert keep the order.
    words.clear();
    for (const char* word : {"a", "b", "c", "d"}) {
        words.push_back(word);
    }
    words.erase(1);
    words.insert(0, "z");
    words.insert(words.size(), "end");
    std::vector<std::string> seen;
    for (const auto& word : words) {
        seen.emplace_back(word.c_str());
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"z", "a", "c", "d", "end"}));
}

}  // namespace
