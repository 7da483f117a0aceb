// Hostile input both ways: requests that try to leave the mapped folders or are not commands
// at all, a client that goes away mid-transfer, and broken list answers walked by the game.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "fileserver/mapped_read.h"
#include "fileserver_session.h"
#include "support/pipe_wire.h"

namespace {

using fstest::GameSide;
using Names = std::vector<std::string>;

class FileServerRefusalTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(mkdir(host.file("assets").c_str(), 0755), 0);
        ASSERT_EQ(mkdir(host.file("secret").c_str(), 0755), 0);
        dmtest::writeFile(host.file("assets/hello.txt"), "hello");
        dmtest::writeFile(host.file("secret/key.txt"), "key");
        ASSERT_EQ(symlink(host.file("secret").c_str(), host.file("assets/out").c_str()), 0);
        ASSERT_EQ(
            symlink(host.file("secret/key.txt").c_str(), host.file("assets/key-link.txt").c_str()),
            0);
        port = fstest::startServer(server, DM_FILESERVER_TOOL,
                                   {"--port", "0", "--map", "data/=" + host.file("assets")});
        ASSERT_NE(port, 0);
        game = std::make_unique<GameSide>(port);
        ASSERT_TRUE(game->connected);
    }

    zu::InplaceString<128> ask(const char* text, const void* data = nullptr, uint32_t size = 0) {
        char answer[64];
        uint32_t received = 0;
        return game->pipe->sendRequest(text, 0, answer, sizeof(answer), &received, data, size);
    }

    dmtest::TempDir host;
    std::unique_ptr<dmtest::ChildProcess> server;
    std::unique_ptr<GameSide> game;
    int port = 0;
};

TEST_F(FileServerRefusalTest, PathsThatLeaveAMappedFolderAreRefusedAndTouchNothing) {
    dm::NetworkFileSystem& fs = *game->fileSystem;
    const std::string secret = host.file("secret/key.txt");
    const std::vector<std::string> escapes = {
        "data/../secret/key.txt", "data/..\\secret\\key.txt", "data/sub/../../secret/key.txt",
        "data//" + secret,        "data/" + secret,           "data/\\" + secret,
        "data/C:/secret/key.txt", "data/C:\\key.txt",         "data/out/key.txt",
        "data/key-link.txt",      "data/./hello.txt"};
    for (const std::string& path : escapes) {
        SCOPED_TRACE(path);
        EXPECT_FALSE(fs.fileExists(path.c_str()));
        EXPECT_EQ(fs.openFile(path.c_str(), zu::BaseFile::ModeRead), nullptr);
        zu::FileHandle* file = fs.openFile(path.c_str(), zu::BaseFile::ModeReadWrite);
        ASSERT_NE(file, nullptr);  // remote handles are given out without asking
        char buffer[8] = {};
        EXPECT_EQ(fs.readFile(file, buffer, sizeof(buffer)), 0u);
        EXPECT_EQ(fs.writeFile(file, "stolen", 6), 0u);
        fs.closeFile(file);
        EXPECT_FALSE(fs.deleteFile(path.c_str()));
        EXPECT_FALSE(fs.copyFile("data/hello.txt", path.c_str()));
        EXPECT_FALSE(fs.moveFile(path.c_str(), "data/taken.txt", true));
        EXPECT_FALSE(fs.createDirectory((path + "/made").c_str()));
    }
    EXPECT_EQ(dmtest::readFile(secret), "key");
    EXPECT_FALSE(fs.fileExists("data/taken.txt"));
    EXPECT_EQ(fs.findFirstFile("data/out/*"), nullptr);
    EXPECT_EQ(fs.findFirstFile("data/../*"), nullptr);
    EXPECT_EQ(fs.findFirstFile("data/key-link.txt"), nullptr);

    // Links that stay inside are followed.
    ASSERT_EQ(symlink("hello.txt", host.file("assets/inside.txt").c_str()), 0);
    EXPECT_TRUE(fs.fileExists("data/inside.txt"));
    zu::FilePathList listed;
    zu::FileAcceptDelegate all;
    fs.listFiles(listed, "data/", "*", all, true);
    for (const zu::String& path : listed) {
        EXPECT_EQ(std::string(path.c_str()).find("key"), std::string::npos) << path.c_str();
    }
}

TEST_F(FileServerRefusalTest, MalformedAndUnknownCommandsGetNoAndTheServerGoesOn) {
    // (An empty text is no request the pipe hands out, so it is not tried here.)
    const char* const requests[] = {"fileExists",
                                    "fileExists data/hello.txt",
                                    "fileExists \"data/hello.txt",
                                    "fileExists \"data/hello.txt\" extra",
                                    "FILEEXISTS \"data/hello.txt\"",
                                    "read -1 5 \"data/hello.txt\"",
                                    "read 0 -5 \"data/hello.txt\"",
                                    "read x y \"data/hello.txt\"",
                                    "read 99999999999999999999 1 \"data/hello.txt\"",
                                    "write 0 \"data/new.txt\"",
                                    "moveFile \"data/hello.txt\"",
                                    "findFilesRecursive \"data/\" \"*\"",
                                    "getMappedFolders now",
                                    "format c:",
                                    "\"\"\"\"\"\""};
    for (const char* request : requests) {
        SCOPED_TRACE(request);
        zu::InplaceString<128> answer = ask(request, "data", 4);
        EXPECT_FALSE(answer.equalsIgnoreCase("true"));
    }
    EXPECT_FALSE(game->fileSystem->fileExists("data/new.txt"));
    EXPECT_TRUE(game->fileSystem->fileExists("data/hello.txt"));
}

TEST_F(FileServerRefusalTest, GamesThatLeaveOrFilesThatShrinkMidTransferLeaveTheServerServing) {
    // The server serves one game at a time, the one that connected last: this one steps aside.
    // Games ask for a 64 MiB answer; every other one leaves once it is under way, the others
    // read on after another program on the PC cut the file short. The server must not die of
    // the closed connections nor of the bytes that are gone, and serves the next game.
    game.reset();
    namespace wire = dmtest::pipewire;
    const std::string big = host.file("assets/big.bin");
    dmtest::writeFile(big, "");
    for (int round = 0; round < 4; ++round) {
        ASSERT_EQ(truncate(big.c_str(), 64 << 20), 0);
        wire::RawPeer peer(static_cast<uint32_t>(port));
        ASSERT_TRUE(peer.connected);
        peer.open("fileserver");
        peer.send(wire::request("fileserver", 1, 0, "read 0 67108864 \"data/big.bin\""));
        ASSERT_EQ(peer.nextPipeMessage().kind, wire::kResponse);  // the answer is under way
        if (round % 2 == 0) {
            continue;  // leaves mid-transfer
        }
        ASSERT_EQ(truncate(big.c_str(), (32 << 20) + 12288), 0);  // inside a later chunk
        // Read on to the end of the answer, or until the server ends the connection.
        for (int chunk = 0; chunk < 300; ++chunk) {
            const wire::Message message = peer.next();
            if (message.kind != wire::kResponse ||
                message.offset + message.chunk.size() >= message.total) {
                break;
            }
        }
    }
    game = std::make_unique<GameSide>(port);
    ASSERT_TRUE(game->connected);
    zu::FileHandle* file = game->fileSystem->openFile("data/hello.txt", zu::BaseFile::ModeRead);
    char buffer[8] = {};
    EXPECT_EQ(game->fileSystem->readFile(file, buffer, sizeof(buffer)), 5u);
    game->fileSystem->closeFile(file);
}

TEST(MappedReadTest, PagesTheFileLosesWhileMappedReadAsZeros) {
    dmtest::TempDir folder;
    dmtest::writeFile(folder.file("file.bin"), std::string(3 * 4096, 'm'));
    const int fd = open(folder.file("file.bin").c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    fileserver_tool::MappedRead::installBusErrorGuard();
    fileserver_tool::MappedRead mapping;
    ASSERT_TRUE(mapping.map(fd, 100, 12000));
    ASSERT_EQ(ftruncate(fd, 4096), 0);               // another program cuts the file short
    const std::string bytes(mapping.data(), 12000);  // without the guard: SIGBUS
    EXPECT_EQ(bytes, std::string(3996, 'm') + std::string(12000 - 3996, '\0'));
    mapping.unmap();
    close(fd);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// (Sanitizers reserve more address space than the limit allows, so this runs in plain builds.)
TEST(FileServerMemoryTest, AReadTooLargeForTheServersMemoryIsRefusedAndServingGoesOn) {
    dmtest::TempDir host;
    dmtest::writeFile(host.file("hello.txt"), "hello");
    dmtest::writeFile(host.file("sparse.bin"), "");
    ASSERT_EQ(truncate(host.file("sparse.bin").c_str(), 400 << 20), 0);
    std::unique_ptr<dmtest::ChildProcess> server;
    const int port = fstest::startServer(server, "/usr/bin/prlimit",
                                         {"--as=" + std::to_string(256 << 20), DM_FILESERVER_TOOL,
                                          "--port", "0", "--map", "data/=" + host.path()});
    ASSERT_NE(port, 0);
    GameSide game(port);
    ASSERT_TRUE(game.connected);
    char answer[64];
    uint32_t received = 0;
    const zu::InplaceString<128> reply = game.pipe->sendRequest(
        "read 0 400000000 \"data/sparse.bin\"", 0, answer, sizeof answer, &received, nullptr, 0);
    EXPECT_FALSE(reply.equalsIgnoreCase("true"));
    EXPECT_EQ(received, 0u);
    EXPECT_TRUE(game.fileSystem->fileExists("data/hello.txt"));
}
#endif

TEST(FileServerReadOnlyTest, ARead_onlyServerChangesNothing) {
    dmtest::TempDir host;
    dmtest::writeFile(host.file("hello.txt"), "hello");
    std::unique_ptr<dmtest::ChildProcess> server;
    const int port =
        fstest::startServer(server, DM_FILESERVER_TOOL,
                            {"--port", "0", "--read-only", "--map", "data/=" + host.path()});
    ASSERT_NE(port, 0);
    GameSide game(port);
    ASSERT_TRUE(game.connected);
    dm::NetworkFileSystem& fs = *game.fileSystem;
    EXPECT_TRUE(fs.isFileReadOnly("data/hello.txt"));
    EXPECT_FALSE(fs.deleteFile("data/hello.txt"));
    EXPECT_FALSE(fs.createDirectory("data/new"));
    EXPECT_FALSE(fs.copyFile("data/hello.txt", "data/copy.txt"));
    zu::FileHandle* file = fs.openFile("data/hello.txt", zu::BaseFile::ModeReadWrite);
    EXPECT_EQ(fs.writeFile(file, "x", 1), 0u);
    char buffer[8] = {};
    EXPECT_EQ(fs.readFile(file, buffer, sizeof(buffer)), 5u);
    fs.closeFile(file);
    EXPECT_EQ(dmtest::readFile(host.file("hello.txt")), "hello");
}

// The game against a server whose list answers are broken on purpose.
class HostileListTest : public ::testing::Test {
protected:
    void start(std::vector<std::string> args) {
        port = fstest::startServer(server, "fs_hostile_fileserver", args);
        ASSERT_NE(port, 0);
        game = std::make_unique<GameSide>(port);
        ASSERT_TRUE(game->connected);
    }
    Names findAll(const char* pattern) { return fstest::findAll(*game->fileSystem, pattern); }
    Names listAll(const char* path) {
        zu::FilePathList out;
        zu::FileAcceptDelegate all;
        game->fileSystem->listFiles(out, path, nullptr, all, true);
        return fstest::sortedPaths(out);
    }

    std::unique_ptr<dmtest::ChildProcess> server;
    std::unique_ptr<GameSide> game;
    int port = 0;
};

TEST_F(HostileListTest, BrokenListsAreWalkedSafely) {
    start({});
    dm::NetworkFileSystem& fs = *game->fileSystem;
    EXPECT_TRUE(fs.isRemotePath("data/x"));  // "data/,/nowhere": the folder is cut at the comma
    EXPECT_EQ(findAll("data/fine"), (Names{"ok"}));
    EXPECT_EQ(findAll("data/truncated"), (Names{"cut", "ok"}));
    EXPECT_EQ(findAll("data/unterminated"), (Names{"last", "ok"}));
    EXPECT_EQ(findAll("data/bogus-count"), (Names{"ok"}));
    Names full = findAll("data/full");
    ASSERT_EQ(full.size(), 1u);
    EXPECT_EQ(full[0], std::string(511, 'x'));  // cut at the buffer's end, then at 511
    EXPECT_EQ(findAll("data/zeros"), Names{});

    EXPECT_EQ(listAll("data/truncated"), (Names{"data/cut", "data/ok"}));
    EXPECT_EQ(listAll("data/unterminated"), (Names{"data/last", "data/ok"}));
    EXPECT_EQ(listAll("data/bogus-count"), (Names{"data/ok"}));
    EXPECT_EQ(listAll("data/full").size(), 1u);
    EXPECT_EQ(listAll("data/zeros"), Names{});

    // Yes in capitals is yes; a read answer larger than asked for is cut to the buffer.
    EXPECT_TRUE(fs.fileExists("data/anything"));
    zu::FileHandle* file = fs.openFile("data/anything", zu::BaseFile::ModeRead);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(fs.getFileSize(file), 12u);
    std::vector<char> buffer(100, 0);
    EXPECT_EQ(fs.readFile(file, buffer.data(), 64), 64u);
    EXPECT_EQ(buffer[64], 0);
    EXPECT_EQ(fs.getCurrentPosition(file), 64u);
    fs.closeFile(file);
}

TEST_F(HostileListTest, WithNoMappedFoldersEverythingIsLocal) {
    start({"no-folders"});
    dmtest::TempDir local;
    dmtest::writeFile(local.file("mine.txt"), "m");
    dm::NetworkFileSystem& fs = *game->fileSystem;
    EXPECT_FALSE(fs.isRemotePath("data/x"));
    EXPECT_FALSE(fs.fileExists("data/anything"));  // asked locally, where it is not
    EXPECT_TRUE(fs.fileExists(local.file("mine.txt").c_str()));
    for (int i = 0; i < 10; ++i) {
        fs.fileExists(local.file("mine.txt").c_str());
    }
    // Only the folder list and the finds ever reached the server; the list once.
    EXPECT_EQ(findAll((local.path() + "/*").c_str()), (Names{"mine.txt", "ok"}));
    EXPECT_TRUE(server->waitForOutput("answered findFiles"));
    EXPECT_EQ(dmtest::countOf(server->output(), "answered getMappedFolders"), 1u);
}

}  // namespace
