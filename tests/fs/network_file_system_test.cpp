// NetworkFileSystem against dm-fileserver in a second process: every operation on remote and
// local paths, finds that merge both sides, and the folder list per connection.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "fileserver_session.h"
#include "zu/file.h"

namespace {

using fstest::GameSide;

class NetworkFileSystemTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(mkdir(host.file("assets").c_str(), 0755), 0);
        ASSERT_EQ(mkdir(host.file("config").c_str(), 0755), 0);
        dmtest::writeFile(host.file("assets/hello.txt"), "hello, game");
        dmtest::writeFile(host.file("config/game.ini"), "[game]\n");
        startFileServer({});
        game = std::make_unique<GameSide>(port);
        ASSERT_TRUE(game->connected);
    }
    void TearDown() override { game.reset(); }

    void startFileServer(std::vector<std::string> extra, int onPort = 0) {
        std::vector<std::string> args{"--port",
                                      std::to_string(onPort),
                                      "--verbose",
                                      "--map",
                                      "data/=" + host.file("assets"),
                                      "--map",
                                      "cfg/=" + host.file("config")};
        args.insert(args.end(), extra.begin(), extra.end());
        port = fstest::startServer(server, DM_FILESERVER_TOOL, args);
        ASSERT_NE(port, 0) << server->output();
    }

    dm::NetworkFileSystem& fs() { return *game->fileSystem; }

    std::string readWhole(const char* path) {
        zu::FileHandle* file = fs().openFile(path, zu::BaseFile::ModeRead);
        if (file == nullptr) {
            return "<missing>";
        }
        std::string contents(fs().getFileSize(file), '\0');
        contents.resize(fs().readFile(file, contents.data(), contents.size()));
        fs().closeFile(file);
        return contents;
    }

    bool writeWhole(const char* path, const std::string& contents) {
        zu::FileHandle* file = fs().openFile(path, zu::BaseFile::ModeWrite);
        if (file == nullptr) {
            return false;
        }
        const uint64_t written = fs().writeFile(file, contents.data(), contents.size());
        fs().closeFile(file);
        return written == contents.size();
    }

    std::vector<std::string> findAll(const char* pattern) { return fstest::findAll(fs(), pattern); }

    dmtest::TempDir host;
    dmtest::TempDir local;
    std::unique_ptr<dmtest::ChildProcess> server;
    std::unique_ptr<GameSide> game;
    int port = 0;
};

using Names = std::vector<std::string>;

TEST_F(NetworkFileSystemTest, AnswersQuestionsAboutRemoteFiles) {
    ASSERT_EQ(mkdir(host.file("assets/levels").c_str(), 0755), 0);
    dmtest::writeFile(host.file("assets/locked.txt"), "x");
    ASSERT_EQ(chmod(host.file("assets/locked.txt").c_str(), 0444), 0);

    EXPECT_TRUE(fs().fileExists("data/hello.txt"));
    EXPECT_FALSE(fs().fileExists("data/missing.txt"));
    EXPECT_FALSE(fs().fileExists("data/levels"));
    EXPECT_TRUE(fs().directoryExists("data/levels"));
    EXPECT_FALSE(fs().directoryExists("data/hello.txt"));
    EXPECT_TRUE(fs().isFileReadOnly("data/locked.txt") || geteuid() == 0);
    EXPECT_FALSE(fs().isFileReadOnly("data/hello.txt"));

    uint64_t size = 0;
    uint64_t time = 0;
    ASSERT_TRUE(fs().getFileAttributes("data/hello.txt", size, time));
    EXPECT_EQ(size, 11u);
    uint64_t localSize = 0;
    uint64_t localTime = 0;
    ASSERT_TRUE(zu::getLocalFileSystem().getFileAttributes(host.file("assets/hello.txt").c_str(),
                                                           localSize, localTime));
    EXPECT_EQ(time, localTime);
    EXPECT_FALSE(fs().getFileAttributes("data/missing.txt", size, time));

    // The same questions about a local path go to the local file system.
    dmtest::writeFile(local.file("mine.txt"), "local");
    EXPECT_TRUE(fs().fileExists(local.file("mine.txt").c_str()));
    ASSERT_TRUE(fs().getFileAttributes(local.file("mine.txt").c_str(), size, time));
    EXPECT_EQ(size, 5u);
}

TEST_F(NetworkFileSystemTest, ReadsAtOffsetsSeeksAndStopsAtTheEnd) {
    zu::FileHandle* file = fs().openFile("data/hello.txt", zu::BaseFile::ModeRead);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(fs().getFileSize(file), 11u);
    char buffer[32] = {};
    EXPECT_EQ(fs().readFile(file, buffer, 5), 5u);
    EXPECT_EQ(std::string(buffer, 5), "hello");
    EXPECT_EQ(fs().getCurrentPosition(file), 5u);

    EXPECT_EQ(fs().seekFile(file, 7, zu::BaseFile::SeekBegin), 7u);
    EXPECT_EQ(fs().readFile(file, buffer, sizeof(buffer)), 4u);  // past the end: what is there
    EXPECT_EQ(std::string(buffer, 4), "game");
    EXPECT_EQ(fs().readFile(file, buffer, sizeof(buffer)), 0u);

    EXPECT_EQ(fs().seekFile(file, -4, zu::BaseFile::SeekCurrent), 7u);
    EXPECT_EQ(fs().seekFile(file, 4, zu::BaseFile::SeekEnd), 7u);  // counts back from the end
    EXPECT_EQ(fs().readFile(file, buffer, 2), 2u);
    EXPECT_EQ(std::string(buffer, 2), "ga");
    EXPECT_EQ(fs().seekFile(file, 100, zu::BaseFile::SeekBegin), 100u);
    EXPECT_EQ(fs().readFile(file, buffer, sizeof(buffer)), 0u);
    EXPECT_TRUE(fs().flushFileBuffers(file));
    EXPECT_EQ(fs().getFileSortKey(file), 0u);
    EXPECT_TRUE(fs().closeFile(file));

    EXPECT_EQ(fs().openFile("data/missing.txt", zu::BaseFile::ModeRead), nullptr);
}

TEST_F(NetworkFileSystemTest, CountsAndPositionsBeyondThirtyTwoBitsStaySafe) {
    // The protocol carries 32 bits: such requests are not served, and never overrun a buffer.
    zu::FileHandle* file = fs().openFile("data/hello.txt", zu::BaseFile::ModeRead);
    ASSERT_NE(file, nullptr);
    char buffer[16] = {};
    EXPECT_EQ(fs().readFile(file, buffer, (1ull << 32) + 5), 0u);  // not cut to a count of 5
    EXPECT_EQ(fs().readFile(file, buffer, 3ull << 30), 0u);
    EXPECT_EQ(fs().getCurrentPosition(file), 0u);
    EXPECT_EQ(fs().seekFile(file, 3ll << 30, zu::BaseFile::SeekBegin), 3ull << 30);
    EXPECT_EQ(fs().readFile(file, buffer, 4), 0u);
    // A position of 4 GiB and more must not wrap round onto the start of the file.
    EXPECT_EQ(fs().seekFile(file, 1ll << 32, zu::BaseFile::SeekBegin), 1ull << 32);
    EXPECT_EQ(fs().readFile(file, buffer, 4), 0u);
    fs().closeFile(file);
    file = fs().openFile("data/hello.txt", zu::BaseFile::ModeReadWrite);
    fs().seekFile(file, (1ll << 32) + 1, zu::BaseFile::SeekBegin);
    EXPECT_EQ(fs().writeFile(file, "J", 1), 0u);
    fs().closeFile(file);
    EXPECT_EQ(readWhole("data/hello.txt"), "hello, game");
}

TEST_F(NetworkFileSystemTest, WritesReadBackAndWritingAnewTruncates) {
    ASSERT_TRUE(writeWhole("data/save.bin", std::string(100, 'a')));
    EXPECT_EQ(dmtest::readFile(host.file("assets/save.bin")), std::string(100, 'a'));

    // Writing in place at an offset keeps the rest; the size follows the writes.
    zu::FileHandle* file = fs().openFile("data/save.bin", zu::BaseFile::ModeReadWrite);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(fs().seekFile(file, 10, zu::BaseFile::SeekEnd), 90u);
    EXPECT_EQ(fs().writeFile(file, "0123456789abc", 13), 13u);
    EXPECT_EQ(fs().getFileSize(file), 103u);
    EXPECT_EQ(fs().getCurrentPosition(file), 103u);
    fs().closeFile(file);
    EXPECT_EQ(readWhole("data/save.bin"), std::string(90, 'a') + "0123456789abc");

    ASSERT_TRUE(writeWhole("data/save.bin", "short"));
    EXPECT_EQ(readWhole("data/save.bin"), "short");
    EXPECT_EQ(dmtest::readFile(host.file("assets/save.bin")), "short");

    // A remote path too long for a handle is refused, not cut short to name another file.
    const std::string folder(120, 'd');
    ASSERT_EQ(mkdir(host.file("assets/" + folder).c_str(), 0755), 0);
    const std::string longPath = "data/" + folder + "/" + std::string(200, 'f');
    EXPECT_FALSE(writeWhole(longPath.c_str(), "cut"));
    EXPECT_EQ(fs().openFile(longPath.c_str(), zu::BaseFile::ModeRead), nullptr);
    EXPECT_TRUE(findAll(("data/" + folder + "/*").c_str()).empty());

    // Local files are written through the local file system.
    ASSERT_TRUE(writeWhole(local.file("save.bin").c_str(), "mine"));
    EXPECT_EQ(dmtest::readFile(local.file("save.bin")), "mine");
}

TEST_F(NetworkFileSystemTest, MovesAndCopiesBetweenAnyTwoSides) {
    const std::string localA = local.file("a.txt");
    const std::string localB = local.file("b.txt");
    // Both remote: done by the server.
    EXPECT_TRUE(fs().copyFile("data/hello.txt", "cfg/copy.txt"));
    EXPECT_EQ(dmtest::readFile(host.file("config/copy.txt")), "hello, game");
    EXPECT_TRUE(fs().moveFile("cfg/copy.txt", "data/moved.txt", true));
    EXPECT_FALSE(fs().fileExists("cfg/copy.txt"));
    EXPECT_EQ(readWhole("data/moved.txt"), "hello, game");

    // Mixed copies go through memory, both ways.
    EXPECT_TRUE(fs().copyFile("data/moved.txt", localA.c_str()));
    EXPECT_EQ(dmtest::readFile(localA), "hello, game");
    dmtest::writeFile(localB, "from the game");
    EXPECT_TRUE(fs().copyFile(localB.c_str(), "data/uploaded.txt"));
    EXPECT_EQ(dmtest::readFile(host.file("assets/uploaded.txt")), "from the game");

    // Both local.
    EXPECT_TRUE(fs().copyFile(localA.c_str(), local.file("c.txt").c_str()));
    EXPECT_TRUE(fs().moveFile(local.file("c.txt").c_str(), local.file("d.txt").c_str(), true));
    EXPECT_EQ(dmtest::readFile(local.file("d.txt")), "hello, game");

    // A mixed move is the local file system's: it does not know the remote path.
    EXPECT_FALSE(fs().moveFile("data/moved.txt", local.file("e.txt").c_str(), true));
    EXPECT_TRUE(fs().fileExists("data/moved.txt"));
    EXPECT_FALSE(fs().copyFile("data/missing.txt", local.file("f.txt").c_str()));
}

TEST_F(NetworkFileSystemTest, CreatesAndDeletesFoldersAndFiles) {
    EXPECT_TRUE(fs().createDirectory("data/new"));
    EXPECT_TRUE(fs().directoryExists("data/new"));
    EXPECT_FALSE(fs().createDirectory("data/new"));
    ASSERT_TRUE(writeWhole("data/new/file.txt", "x"));
    EXPECT_FALSE(fs().deleteDirectory("data/new"));  // not empty
    EXPECT_TRUE(fs().deleteFile("data/new/file.txt"));
    EXPECT_FALSE(fs().deleteFile("data/new/file.txt"));
    EXPECT_TRUE(fs().deleteDirectory("data/new"));
    EXPECT_FALSE(fs().directoryExists("data/new"));
    EXPECT_FALSE(fs().deleteDirectory("data/"));  // a mapped folder itself stays

    EXPECT_TRUE(fs().createDirectory(local.file("here").c_str()));
    EXPECT_TRUE(fs().directoryExists(local.file("here").c_str()));
    EXPECT_TRUE(fs().deleteDirectory(local.file("here").c_str()));
}

TEST_F(NetworkFileSystemTest, FindsMergeLocalAndRemoteEntriesSortedAndOnce) {
    ASSERT_EQ(mkdir(host.file("assets/levels").c_str(), 0755), 0);
    dmtest::writeFile(host.file("assets/b.txt"), "bb");
    Names remote = findAll("data/*");
    EXPECT_EQ(remote, (Names{"b.txt", "hello.txt", "levels"}));
    zu::FindFileHandle* find = fs().findFirstFile("data/b*");
    ASSERT_NE(find, nullptr);
    EXPECT_EQ(fs().findGetFileSize(find), 2u);
    EXPECT_FALSE(fs().findIsDirectory(find));
    EXPECT_NE(fs().findGetFileTime(find), 0u);
    EXPECT_EQ(fs().findNextFile(find), nullptr);  // ran past the end: the handle is gone
    EXPECT_EQ(fs().findFirstFile("data/*.none"), nullptr);
    EXPECT_STREQ(fs().findGetFileName(nullptr), "");
    EXPECT_FALSE(fs().findIsDirectory(nullptr));
    fs().findClose(nullptr);

    // A local pattern: the local entries and the server's top level (its mapped folders).
    char saved[4096];
    ASSERT_NE(getcwd(saved, sizeof(saved)), nullptr);
    ASSERT_EQ(chdir(local.path().c_str()), 0);
    dmtest::writeFile(local.file("zz.txt"), "z");
    dmtest::writeFile(local.file("Alpha.txt"), "a");
    ASSERT_EQ(mkdir(local.file("data").c_str(), 0755), 0);  // on both sides
    Names merged = findAll("*");
    ASSERT_EQ(chdir(saved), 0);
    EXPECT_EQ(merged, (Names{"Alpha.txt", "cfg", "data", "zz.txt"}));

    // An absolute local pattern finds only local entries.
    EXPECT_EQ(findAll((local.path() + "/*.txt").c_str()), (Names{"Alpha.txt", "zz.txt"}));
}

TEST_F(NetworkFileSystemTest, RecursiveFindTakesFilterAndDelegate) {
    ASSERT_EQ(mkdir(host.file("assets/levels").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(host.file("assets/levels/deep").c_str(), 0755), 0);
    dmtest::writeFile(host.file("assets/levels/one.lvl"), "1");
    dmtest::writeFile(host.file("assets/levels/deep/two.lvl"), "2");
    dmtest::writeFile(host.file("assets/levels/deep/skip.lvl"), "s");
    dmtest::writeFile(host.file("assets/levels/notes.txt"), "n");

    std::vector<std::pair<std::string, std::string>> asked;
    auto refuseSkip = [&](const char* name, const char* path) {
        asked.emplace_back(name, path);
        return std::string(name) != "skip.lvl";
    };
    zu::FileAcceptDelegate accept(refuseSkip);
    zu::FilePathList out;
    out.push_back("stale");
    fs().listFiles(out, "data/levels", "*.lvl", accept, true);
    EXPECT_EQ(fstest::sortedPaths(out), (Names{"data/levels/deep/two.lvl", "data/levels/one.lvl"}));
    EXPECT_EQ(asked.size(), 3u);
    for (const auto& [name, path] : asked) {
        EXPECT_EQ(path.substr(path.size() - name.size()), name);
    }

    zu::FileAcceptDelegate everything;
    fs().listFiles(out, "data/levels", nullptr, everything, false);
    EXPECT_EQ(fstest::sortedPaths(out), (Names{"data/levels/notes.txt", "data/levels/one.lvl"}));
}

TEST_F(NetworkFileSystemTest, FolderListComesOncePerConnectionAndAgainAfterARestart) {
    // Threads that all use the file system first: none takes a remote path for a local one
    // while the list is on its way, and the list is asked for once.
    std::vector<std::thread> firstUsers;
    std::atomic<int> sawRemote{0};
    for (int i = 0; i < 4; ++i) {
        firstUsers.emplace_back([&] { sawRemote += fs().fileExists("data/hello.txt") ? 1 : 0; });
    }
    dmtest::joinAll(firstUsers);
    EXPECT_EQ(sawRemote.load(), 4);
    EXPECT_TRUE(fs().isPipeAcquired());
    EXPECT_TRUE(fs().isRemotePath("DATA/hello.txt"));  // other letter case: still remote
    EXPECT_TRUE(fs().fileExists("DATA/hello.txt"));
    EXPECT_TRUE(fs().isRemotePath("Cfg/"));
    EXPECT_FALSE(fs().isRemotePath("dat/hello.txt"));
    for (int i = 0; i < 20; ++i) {
        fs().fileExists("data/hello.txt");
    }
    ASSERT_TRUE(server->waitForOutput("fileExists \"data/hello.txt\" -> true"));
    EXPECT_EQ(dmtest::countOf(server->output(), "getMappedFolders ->"), 1u);

    // The server comes back on the same port with other folders: the list is fetched anew.
    server.reset();
    ASSERT_EQ(mkdir(host.file("music").c_str(), 0755), 0);
    dmtest::writeFile(host.file("music/song.ogg"), "la");
    port = fstest::startServer(
        server, DM_FILESERVER_TOOL,
        {"--port", std::to_string(port), "--verbose", "--map", "snd/=" + host.file("music")});
    ASSERT_NE(port, 0);
    ASSERT_TRUE(server->waitForOutput("client connected"));
    EXPECT_TRUE(dmtest::waitUntil([&] { return fs().fileExists("snd/song.ogg"); }));
    EXPECT_FALSE(fs().isRemotePath("data/hello.txt"));
    ASSERT_TRUE(server->waitForOutput("fileExists \"snd/song.ogg\" -> true"));
    EXPECT_EQ(dmtest::countOf(server->output(), "getMappedFolders ->"), 1u);
    EXPECT_EQ(&dm::NetworkFileSystem::getInstance(), game->fileSystem);
    fs().setLocalRoot("game:\\");
    EXPECT_STREQ(fs().getLocalRoot(), "game:\\");
}

TEST_F(NetworkFileSystemTest, ReadsBigFilesInOneRequest) {
    std::string big(24u << 20, '\0');
    for (size_t i = 0; i < big.size(); i += 4096) {
        big[i] = static_cast<char>(i / 4096);
    }
    dmtest::writeFile(host.file("assets/big.bin"), big);
    EXPECT_TRUE(readWhole("data/big.bin") == big);
}

}  // namespace
