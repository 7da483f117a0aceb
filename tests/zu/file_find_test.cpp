#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "support/test_support.h"
#include "zu/file_system.h"

namespace {

TEST(Wildcard, MatchesStarsAndQuestionMarks) {
    EXPECT_TRUE(zu::matchesWildcard("level1.lvl", "*.lvl"));
    EXPECT_TRUE(zu::matchesWildcard("level1.lvl", "level?.lvl"));
    EXPECT_FALSE(zu::matchesWildcard("level10.lvl", "level?.lvl"));
    EXPECT_TRUE(zu::matchesWildcard("", "*"));
    EXPECT_FALSE(zu::matchesWildcard("", "?"));
    EXPECT_TRUE(zu::matchesWildcard("abc", "a*b*c*"));
    EXPECT_TRUE(zu::matchesWildcard("aXbYbZc", "a*b*c"));  // needs the '*' to backtrack
    EXPECT_FALSE(zu::matchesWildcard("aXbYbZd", "a*b*c"));
    EXPECT_FALSE(zu::matchesWildcard("Level1.LVL", "*.lvl"));  // case-sensitive
    EXPECT_TRUE(zu::matchesWildcard("no_extension", "*.*"));   // as on Windows
    EXPECT_FALSE(zu::matchesWildcard("no_extension", "*.?*"));
    EXPECT_FALSE(zu::matchesWildcard(nullptr, "*"));
    // Many stars against a long mismatch stay fast (no exponential backtracking).
    std::string name(5000, 'a');
    EXPECT_FALSE(zu::matchesWildcard(name.c_str(), "*a*a*a*a*a*a*a*a*a*a*b"));
}

class FindTest : public ::testing::Test {
protected:
    void SetUp() override {
        root = m_dir.path() + "/root";
        for (const char* folder : {"", "/sub", "/sub/deeper", "/other"}) {
            ASSERT_TRUE(fs.createDirectory((root + folder).c_str()));
        }
        for (const char* name : {"a.txt", "b.txt", "ab.txt", "c.dat", "readme", "sub/d.txt",
                                 "sub/e.dat", "sub/deeper/f.txt", "other/g.TXT"}) {
            std::ofstream(root + "/" + name) << name;  // size = length of the name
        }
    }

    // Each entry found: "name size" for a file, "name/" for a folder.
    std::vector<std::string> find(const std::string& pattern) {
        std::vector<std::string> found;
        for (zu::FindFileHandle* handle = fs.findFirstFile(pattern.c_str()); handle != nullptr;
             handle = fs.findNextFile(handle)) {
            EXPECT_GT(fs.findGetFileTime(handle), 0u);
            std::string name = fs.findGetFileName(handle);
            found.push_back(fs.findIsDirectory(handle)
                                ? name + "/"
                                : name + " " + std::to_string(fs.findGetFileSize(handle)));
        }
        return found;
    }

    std::vector<std::string> list(const char* filter, zu::FileAcceptDelegate accept, bool recursive,
                                  const std::string& path) {
        zu::FilePathList out;
        out.push_back("stale entry");
        fs.listFiles(out, path.c_str(), filter, accept, recursive);
        std::vector<std::string> result;
        for (const zu::String& entry : out) {
            result.push_back(entry.c_str());
        }
        return result;
    }

    zu::FileSystem& fs = zu::getLocalFileSystem();
    dmtest::TempDir m_dir;
    std::string root;
};

using Names = std::vector<std::string>;

TEST_F(FindTest, FindsMatchingNamesAndSubfoldersSorted) {
    EXPECT_EQ(find(root + "/*.txt"), (Names{"a.txt 5", "ab.txt 6", "b.txt 5"}));
    EXPECT_EQ(find(root + "/?.txt"), (Names{"a.txt 5", "b.txt 5"}));
    EXPECT_EQ(find(root + "\\sub\\*.dat"), (Names{"e.dat 9"}));
    EXPECT_EQ(find(root + "/readme"), (Names{"readme 6"}));
    // Everything, folders included, never "." and "..".
    EXPECT_EQ(find(root + "/*"),
              (Names{"a.txt 5", "ab.txt 6", "b.txt 5", "c.dat 5", "other/", "readme 6", "sub/"}));
    EXPECT_EQ(fs.findFirstFile((root + "/other/*.txt").c_str()), nullptr);  // g.TXT: case
    EXPECT_EQ(fs.findFirstFile((root + "/missing/*").c_str()), nullptr);
    EXPECT_EQ(fs.findFirstFile((root + "/").c_str()), nullptr);
    EXPECT_EQ(fs.findNextFile(nullptr), nullptr);
    EXPECT_STREQ(fs.findGetFileName(nullptr), "");

    // A find closed before its end.
    zu::FindFileHandle* handle = fs.findFirstFile((root + "/*").c_str());
    ASSERT_NE(handle, nullptr);
    fs.findClose(handle);
    fs.findClose(nullptr);

    zu::FilePathList folders;
    fs.findSubfolders(folders, root.c_str());
    ASSERT_EQ(folders.size(), 2u);
    EXPECT_EQ(folders[0], "other");
    EXPECT_EQ(folders[1], "sub");
}

TEST_F(FindTest, ListsFilesRecursivelyThroughTheDelegateDownToTheDepthLimit) {
    std::vector<std::pair<std::string, std::string>> asked;
    auto refuseB = [&](const char* name, const char* path) {
        asked.emplace_back(name, path);
        return name[0] != 'b';
    };
    zu::FileAcceptDelegate skipB(refuseB);
    Names listed = list("*.txt", skipB, true, root);
    EXPECT_EQ(listed, (Names{root + "/a.txt", root + "/ab.txt", root + "/sub/d.txt",
                             root + "/sub/deeper/f.txt"}));
    EXPECT_EQ(asked.size(), 5u);  // b.txt was asked and refused
    for (const auto& question : asked) {
        EXPECT_EQ(question.second, root + question.second.substr(root.size()));
        EXPECT_EQ(question.second.substr(question.second.size() - question.first.size()),
                  question.first);
    }

    // No filter, no delegate, one level; a trailing separator is not doubled.
    EXPECT_EQ(list(nullptr, nullptr, false, root + "/"),
              (Names{root + "/a.txt", root + "/ab.txt", root + "/b.txt", root + "/c.dat",
                     root + "/readme"}));
    EXPECT_EQ(list("*.dat", nullptr, true, root), (Names{root + "/c.dat", root + "/sub/e.dat"}));
    EXPECT_EQ(list("*", nullptr, true, root + "/missing"), Names{});

    // On a link loop the listing stops at the depth limit.
    ASSERT_EQ(symlink("..", (root + "/sub/deeper/up").c_str()), 0);
    listed = list("f.txt", nullptr, true, root + "/sub");
    // deeper/f.txt, then deeper/up/deeper/f.txt, ... one per level down to the limit.
    EXPECT_EQ(listed.size(), static_cast<size_t>(zu::FileSystem::kMaxFindDepth / 2));
    EXPECT_EQ(listed.front(), root + "/sub/deeper/f.txt");
}

}  // namespace
