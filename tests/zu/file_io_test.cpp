// zu::File, the writable folder, the current file system and BufferedMemoryFile.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "support/forwarding_file_system.h"
#include "support/test_support.h"
#include "zu/exception.h"
#include "zu/file.h"
#include "zu/memory_file.h"

namespace {

// The local file system behind a wrapper that counts opens and can lie about sizes and short
// reads, as a remote file system with a confused server would.
struct WrappedFileSystem : dmtest::ForwardingFileSystem {
    int opens = 0;
    uint64_t reportedSize = 0;  // 0: the real size
    uint64_t maxRead = UINT64_MAX;

    Handle openFile(const char* path, zu::BaseFile::Mode mode) override {
        ++opens;
        return local.openFile(path, mode);
    }
    uint64_t getFileSize(Handle file) override {
        return reportedSize != 0 ? reportedSize : local.getFileSize(file);
    }
    uint64_t readFile(Handle file, void* buffer, uint64_t count) override {
        return local.readFile(file, buffer, count < maxRead ? count : maxRead);
    }
};

TEST(File, ReadsWritesAndSeeksThroughTheCurrentFileSystemAndFailsWithoutAFile) {
    dmtest::TempDir dir;
    std::string path = dir.file("data.bin");
    WrappedFileSystem wrapped;
    zu::File file;
    {
        dmtest::InstalledFileSystem installed(wrapped);
        EXPECT_EQ(&zu::getFileSystem(), &wrapped);
        ASSERT_TRUE(file.open(path.c_str(), zu::File::ModeWrite));
        EXPECT_EQ(wrapped.opens, 1);
        EXPECT_TRUE(zu::FileUtils::fileExists(path.c_str()));
        EXPECT_TRUE(zu::FileUtils::directoryExists(dir.path().c_str()));
    }
    EXPECT_EQ(&zu::getFileSystem(), &zu::getLocalFileSystem());
    // The open file still belongs to the file system that opened it.
    EXPECT_STREQ(file.getPath(), path.c_str());
    EXPECT_EQ(file.write("0123456789", 10), 10u);
    EXPECT_TRUE(file.flush());
    EXPECT_EQ(file.getSize(), 10u);
    file.close();
    EXPECT_FALSE(file.isOpen());

    zu::File reader(path.c_str(), zu::File::ModeRead);
    EXPECT_EQ(reader.seek(3, zu::File::SeekEnd), 7u);
    char tail[8] = {};
    EXPECT_EQ(reader.read(tail, sizeof(tail)), 3u);  // short: end of file
    EXPECT_STREQ(tail, "789");
    EXPECT_EQ(reader.getPosition(), 10u);
    EXPECT_TRUE(reader.open(path.c_str(), zu::File::ModeRead));  // reopening closes first
    EXPECT_EQ(reader.getPosition(), 0u);

    // Without an open file.
    std::string missing = dir.file("missing.txt");
    EXPECT_THROW(zu::File(missing.c_str(), zu::File::ModeRead), zu::FileException_FileOpenFailed);
    EXPECT_FALSE(file.open(missing.c_str(), zu::File::ModeRead));
    EXPECT_FALSE(file.open(nullptr, zu::File::ModeRead));
    char byte = 0;
    EXPECT_EQ(file.read(&byte, 1), 0u);
    EXPECT_EQ(file.write(&byte, 1), 0u);
    EXPECT_EQ(file.seek(1, zu::File::SeekBegin), 0u);
    EXPECT_EQ(file.getSize(), 0u);
    EXPECT_FALSE(file.flush());
    EXPECT_FALSE(zu::FileUtils::fileExists(nullptr));
}

// The default comes from the environment of a fresh process.
TEST(File, WritablePathAndStrippedFolders) {
    ASSERT_EQ(setenv("DM_WRITE_PATH", "/var/game-cache", 1), 0);
    dmtest::ChildProcess fromEnvironment("zu_file_helper", {"write-path"});
    ASSERT_EQ(unsetenv("DM_WRITE_PATH"), 0);
    dmtest::ChildProcess fromNothing("zu_file_helper", {"write-path"});

    ASSERT_EQ(fromEnvironment.wait(), 0);
    EXPECT_NE(fromEnvironment.output().find("write path: /var/game-cache/\n"), std::string::npos)
        << fromEnvironment.output();
    ASSERT_EQ(fromNothing.wait(), 0);
    EXPECT_NE(fromNothing.output().find("write path: ./\n"), std::string::npos)
        << fromNothing.output();

    dmtest::TempDir dir;
    std::string previous = zu::File::getFileSysPathForWrite();
    const char* before = zu::File::getFileSysPathForWrite();

    zu::File::setFileSysPathForWrite(dir.path().c_str());
    EXPECT_EQ(std::string(zu::File::getFileSysPathForWrite()), dir.path() + "/");
    EXPECT_EQ(std::string(before), previous);  // an earlier answer stays readable
    {
        std::string cache = std::string(zu::File::getFileSysPathForWrite()) + "cache.bin";
        zu::File file(cache.c_str(), zu::File::ModeWrite);
        file.write("c", 1);
    }
    EXPECT_EQ(dmtest::readFile(dir.file("cache.bin")), "c");
    zu::File::setFileSysPathForWrite("already\\");
    EXPECT_STREQ(zu::File::getFileSysPathForWrite(), "already\\");
    zu::File::setFileSysPathForWrite("");
    EXPECT_STREQ(zu::File::getFileSysPathForWrite(), "./");
    zu::File::setFileSysPathForWrite(previous.c_str());

    EXPECT_EQ(zu::File::stripPath("a/b\\c.txt"), "c.txt");
    EXPECT_EQ(zu::File::stripPath("devkit:\\PLX\\consolecache.bin"), "consolecache.bin");
    EXPECT_EQ(zu::File::stripPath("plain"), "plain");
    EXPECT_EQ(zu::File::stripPath("folder/"), "");
    EXPECT_EQ(zu::File::stripPath(nullptr), "");
}

TEST(BufferedMemoryFile, LoadsOrAppendsAndReadsWithACursor) {
    dmtest::TempDir dir;
    std::string path = dir.file("whole.txt");
    std::ofstream(path) << "hello, memory";
    zu::BufferedMemoryFile memory;
    ASSERT_TRUE(memory.load(path.c_str()));
    ASSERT_EQ(memory.getSize(), 13u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(memory.getData()), 13), "hello, memory");

    char word[6] = {};
    EXPECT_EQ(memory.read(word, 5), 5u);
    EXPECT_STREQ(word, "hello");
    EXPECT_EQ(memory.getPosition(), 5u);
    memory.setPosition(100);
    EXPECT_EQ(memory.getPosition(), 13u);  // clamped to the end
    EXPECT_EQ(memory.read(word, 5), 0u);
    memory.setPosition(7);
    char rest[16] = {};
    EXPECT_EQ(memory.read(rest, sizeof(rest)), 6u);
    EXPECT_STREQ(rest, "memory");

    // The rest of an already open file, from its position.
    zu::FileSystem& local = zu::getLocalFileSystem();
    zu::FileHandle* handle = local.openFile(path.c_str(), zu::BaseFile::ModeRead);
    ASSERT_NE(handle, nullptr);
    local.seekFile(handle, 7, zu::BaseFile::SeekBegin);
    ASSERT_TRUE(memory.load(local, handle));
    local.closeFile(handle);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(memory.getData()), memory.getSize()),
              "memory");
    EXPECT_EQ(memory.getPosition(), 0u);

    // Through another file system, sizes that cannot be read are refused: one no machine
    // holds before any allocation, and one the file does not deliver.
    // Short reads are refused too; the last case is the truth, and loads.
    WrappedFileSystem wrapped;
    const struct {
        uint64_t reportedSize, maxRead, loadedSize;
    } lies[] = {
        {uint64_t(1) << 62, UINT64_MAX, 0}, {4096, UINT64_MAX, 0}, {0, 10, 0}, {0, UINT64_MAX, 13}};
    for (const auto& lie : lies) {
        wrapped.reportedSize = lie.reportedSize;
        wrapped.maxRead = lie.maxRead;
        EXPECT_EQ(memory.load(path.c_str(), &wrapped), lie.loadedSize != 0);
        EXPECT_EQ(memory.getSize(), lie.loadedSize);
    }

    EXPECT_FALSE(memory.load(dir.file("missing").c_str()));
    EXPECT_EQ(memory.getSize(), 0u);
    EXPECT_EQ(memory.getData(), nullptr);

    // Appending grows the buffer.
    std::string expected;
    for (int i = 0; i < 1000; ++i) {
        const std::string piece = std::to_string(i) + ",";
        memory.append(piece.data(), piece.size());
        expected += piece;
    }
    memory.append(nullptr, 5);  // nothing to append
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(memory.getData()), memory.getSize()),
              expected);
    memory.clear();
    EXPECT_EQ(memory.getSize(), 0u);
}

}  // namespace
