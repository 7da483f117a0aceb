#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <numeric>
#include <string>

#include "support/test_support.h"
#include "zu/file_system.h"

namespace {

using dmtest::readFile;
using dmtest::writeFile;

uint64_t nowInFileTicks() {
    auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    uint64_t ticks = std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count() / 100;
    return ticks + 11644473600ull * 10000000ull;
}

class LocalFileSystemTest : public ::testing::Test {
protected:
    std::string file(const char* name) const { return m_dir.file(name); }

    bool writeVia(const std::string& path, zu::BaseFile::Mode mode, const std::string& bytes) {
        zu::FileHandle* handle = fs.openFile(path.c_str(), mode);
        if (handle == nullptr) {
            return false;
        }
        bool written = fs.writeFile(handle, bytes.data(), bytes.size()) == bytes.size();
        return fs.closeFile(handle) && written;
    }

    zu::FileSystem& fs = zu::getLocalFileSystem();
    dmtest::TempDir m_dir;
};

TEST_F(LocalFileSystemTest, OpenModesSeeksAndAsyncReads) {
    std::string path = file("modes.txt");
    EXPECT_EQ(fs.openFile(path.c_str(), zu::BaseFile::ModeRead), nullptr);
    EXPECT_EQ(fs.openFile(path.c_str(), zu::BaseFile::ModeReadWrite), nullptr);
    EXPECT_EQ(fs.openFile(path.c_str(), static_cast<zu::BaseFile::Mode>(7)), nullptr);

    EXPECT_TRUE(writeVia(path, zu::BaseFile::ModeWrite, "first version"));
    EXPECT_TRUE(writeVia(path, zu::BaseFile::ModeWrite, "second"));  // emptied first
    EXPECT_EQ(readFile(path), "second");

    EXPECT_TRUE(writeVia(path, zu::BaseFile::ModeAppend, "+more"));
    EXPECT_TRUE(writeVia(file("appended.txt"), zu::BaseFile::ModeAppend, "new"));
    EXPECT_EQ(readFile(path), "second+more");
    EXPECT_EQ(readFile(file("appended.txt")), "new");

    // Read/write keeps the contents and writes where the position is.
    zu::FileHandle* handle = fs.openFile(path.c_str(), zu::BaseFile::ModeReadWrite);
    ASSERT_NE(handle, nullptr);
    char start[3] = {};
    EXPECT_EQ(fs.readFile(handle, start, 3), 3u);
    EXPECT_EQ(fs.writeFile(handle, "OND", 3), 3u);
    EXPECT_TRUE(fs.flushFileBuffers(handle));
    EXPECT_TRUE(fs.closeFile(handle));
    EXPECT_EQ(std::string(start, 3), "sec");
    EXPECT_EQ(readFile(path), "secOND+more");

    // Reading mode does not write.
    handle = fs.openFile(path.c_str(), zu::BaseFile::ModeRead);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(fs.writeFile(handle, "x", 1), 0u);
    fs.closeFile(handle);
    EXPECT_EQ(fs.openFile(file("missing/x.txt").c_str(), zu::BaseFile::ModeWrite), nullptr);

    // Seeks in every mode, and async reads at their own offset.
    path = file("hundred.bin");
    std::string bytes(100, '\0');
    std::iota(bytes.begin(), bytes.end(), '\0');  // each byte its own offset
    writeFile(path, bytes);
    handle = fs.openFile(path.c_str(), zu::BaseFile::ModeRead);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(fs.getFileSize(handle), 100u);
    EXPECT_EQ(fs.seekFile(handle, 10, zu::BaseFile::SeekBegin), 10u);
    EXPECT_EQ(fs.seekFile(handle, 5, zu::BaseFile::SeekCurrent), 15u);
    EXPECT_EQ(fs.seekFile(handle, -3, zu::BaseFile::SeekCurrent), 12u);
    EXPECT_EQ(fs.seekFile(handle, 10, zu::BaseFile::SeekEnd), 90u);  // back from the end
    char byte = 0;
    EXPECT_EQ(fs.readFile(handle, &byte, 1), 1u);
    EXPECT_EQ(byte, 90);
    EXPECT_EQ(fs.getCurrentPosition(handle), 91u);

    // Positions before the start clamp at 0.
    EXPECT_EQ(fs.seekFile(handle, -500, zu::BaseFile::SeekCurrent), 0u);
    EXPECT_EQ(fs.seekFile(handle, 200, zu::BaseFile::SeekEnd), 0u);
    EXPECT_EQ(fs.seekFile(handle, INT64_MIN, zu::BaseFile::SeekEnd), 0u);  // no overflow
    EXPECT_EQ(fs.seekFile(handle, 150, zu::BaseFile::SeekBegin), 150u);
    EXPECT_EQ(fs.readFile(handle, &byte, 1), 0u);  // past the end

    // An async read takes its own offset and leaves the position alone.
    fs.seekFile(handle, 7, zu::BaseFile::SeekBegin);
    char chunk[4] = {};
    EXPECT_EQ(fs.readFileAsync(handle, chunk, 4, 50), 4u);
    EXPECT_EQ(chunk[0], 50);
    EXPECT_EQ(chunk[3], 53);
    EXPECT_EQ(fs.readFileAsync(handle, chunk, 4, 98), 2u);
    EXPECT_EQ(fs.getCurrentPosition(handle), 7u);
    fs.closeFile(handle);
}

TEST_F(LocalFileSystemTest, OnlyRegularFilesOpenAndNullHandlesDoNothing) {
    // A FIFO where a file is expected must neither open nor block the caller.
    std::string fifo = file("cache.fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(fs.openFile(fifo.c_str(), zu::BaseFile::ModeRead), nullptr);
    ASSERT_TRUE(writeVia(file("plain.txt"), zu::BaseFile::ModeWrite, "x"));
    EXPECT_FALSE(fs.copyFile(fifo.c_str(), file("copy.txt").c_str()));
    EXPECT_FALSE(fs.copyFile(file("plain.txt").c_str(), fifo.c_str()));
    EXPECT_EQ(fs.openFile(m_dir.path().c_str(), zu::BaseFile::ModeRead), nullptr);

    uint64_t freeBytes = 0, totalBytes = 0;
    ASSERT_TRUE(fs.getDiskSpaceInfo(m_dir.path().c_str(), freeBytes, totalBytes));
    EXPECT_GT(totalBytes, 0u);
    EXPECT_LE(freeBytes, totalBytes);
    EXPECT_FALSE(fs.getDiskSpaceInfo(file("missing").c_str(), freeBytes, totalBytes));

    char byte = 0;
    EXPECT_FALSE(fs.closeFile(nullptr));
    EXPECT_EQ(fs.readFile(nullptr, &byte, 1) + fs.writeFile(nullptr, &byte, 1) +
                  fs.readFileAsync(nullptr, &byte, 1, 0) +
                  fs.seekFile(nullptr, 5, zu::BaseFile::SeekBegin) + fs.getFileSize(nullptr),
              0u);
    EXPECT_FALSE(fs.setFileTime(nullptr, zu::FileTime{}, zu::FileTime::fromValue(1)));
    EXPECT_EQ(fs.openFile(nullptr, zu::BaseFile::ModeRead), nullptr);
}

TEST_F(LocalFileSystemTest, FilesAndDirectoriesComeAndGoWithEitherSeparator) {
    std::string folder = file("folder");
    EXPECT_FALSE(fs.directoryExists(folder.c_str()));
    EXPECT_TRUE(fs.createDirectory(folder.c_str()));
    EXPECT_TRUE(fs.createDirectory(folder.c_str()));  // already there
    EXPECT_TRUE(fs.directoryExists(folder.c_str()));
    EXPECT_FALSE(fs.fileExists(folder.c_str()));
    EXPECT_FALSE(fs.createDirectory(file("no/such/parent").c_str()));

    writeFile(folder + "/inside.txt", "x");
    EXPECT_FALSE(fs.directoryExists((folder + "/inside.txt").c_str()));
    EXPECT_FALSE(fs.createDirectory((folder + "/inside.txt").c_str()));  // a file is in the way
    EXPECT_FALSE(fs.deleteDirectory(folder.c_str()));                    // not empty
    EXPECT_TRUE(fs.deleteFile((folder + "/inside.txt").c_str()));
    EXPECT_TRUE(fs.deleteDirectory(folder.c_str()));
    EXPECT_FALSE(fs.directoryExists(folder.c_str()));

    // Backslashes separate folders too.
    ASSERT_TRUE(fs.createDirectory((m_dir.path() + "\\win").c_str()));
    std::string windowsStyle = m_dir.path() + "\\win\\data.txt";
    EXPECT_TRUE(writeVia(windowsStyle, zu::BaseFile::ModeWrite, "via backslashes"));
    EXPECT_EQ(readFile(file("win/data.txt")), "via backslashes");
    EXPECT_TRUE(fs.fileExists(windowsStyle.c_str()));
    EXPECT_TRUE(fs.directoryExists(file("win").c_str()));

    // Files move, copy and go.
    std::string a = file("a.txt"), b = file("b.txt"), c = file("c.txt");
    writeFile(a, "alpha");
    writeFile(b, "beta");

    EXPECT_FALSE(fs.moveFile(a.c_str(), b.c_str(), false));  // target exists
    EXPECT_EQ(readFile(b), "beta");
    EXPECT_TRUE(fs.moveFile(a.c_str(), b.c_str(), true));
    EXPECT_FALSE(fs.fileExists(a.c_str()));
    EXPECT_EQ(readFile(b), "alpha");
    EXPECT_TRUE(fs.moveFile(b.c_str(), a.c_str(), false));
    EXPECT_FALSE(fs.moveFile(b.c_str(), c.c_str(), true));  // source gone

    // A copy has the same bytes and last write time, and replaces an existing target.
    writeFile(c, "old contents, longer than the new");
    EXPECT_TRUE(fs.copyFile(a.c_str(), c.c_str()));
    EXPECT_EQ(readFile(c), "alpha");
    uint64_t sizeA, timeA, sizeC, timeC;
    ASSERT_TRUE(fs.getFileAttributes(a.c_str(), sizeA, timeA));
    ASSERT_TRUE(fs.getFileAttributes(c.c_str(), sizeC, timeC));
    EXPECT_EQ(timeC, timeA);
    EXPECT_FALSE(fs.copyFile(a.c_str(), a.c_str()));  // onto itself: refused, not emptied
    EXPECT_EQ(readFile(a), "alpha");
    EXPECT_FALSE(fs.copyFile(file("none").c_str(), c.c_str()));
    EXPECT_FALSE(fs.copyFile(m_dir.path().c_str(), c.c_str()));

    EXPECT_TRUE(fs.deleteFile(c.c_str()));
    EXPECT_FALSE(fs.fileExists(c.c_str()));
    EXPECT_FALSE(fs.deleteFile(c.c_str()));
    EXPECT_FALSE(fs.deleteFile(m_dir.path().c_str()));  // folders go with deleteDirectory
}

TEST_F(LocalFileSystemTest, TimesSizesAndReadOnly) {
    std::string path = file("timed.txt");
    uint64_t before = nowInFileTicks();
    writeFile(path, "twelve bytes");
    uint64_t size = 0, time = 0;
    ASSERT_TRUE(fs.getFileAttributes(path.c_str(), size, time));
    EXPECT_EQ(size, 12u);
    // File system clocks may run a little coarser than the system clock.
    EXPECT_GE(time + 50000000ull, before);
    EXPECT_LE(time, nowInFileTicks() + 50000000ull);
    EXPECT_FALSE(fs.getFileAttributes(file("missing").c_str(), size, time));
    EXPECT_FALSE(fs.getFileAttributes(m_dir.path().c_str(), size, time));

    // 2001-02-03 04:05:06.7890123 as a FILETIME.
    const uint64_t stamp = 126256467067890123ull;
    zu::FileHandle* handle = fs.openFile(path.c_str(), zu::BaseFile::ModeReadWrite);
    ASSERT_NE(handle, nullptr);
    EXPECT_TRUE(fs.setFileTime(handle, zu::FileTime{}, zu::FileTime::fromValue(stamp)));
    EXPECT_EQ(fs.getFileTime(handle).value(), stamp);
    EXPECT_TRUE(fs.setFileTime(handle, zu::FileTime{}, zu::FileTime{}));  // 0 leaves it
    EXPECT_EQ(fs.getFileTime(handle).value(), stamp);
    fs.closeFile(handle);
    ASSERT_TRUE(fs.getFileAttributes(path.c_str(), size, time));
    EXPECT_EQ(time, stamp);

    EXPECT_FALSE(fs.isFileReadOnly(path.c_str()));
    ASSERT_EQ(chmod(path.c_str(), 0444), 0);
    EXPECT_TRUE(fs.isFileReadOnly(path.c_str()));  // even for root, like the Windows attribute
    ASSERT_EQ(chmod(path.c_str(), 0644), 0);
    EXPECT_FALSE(fs.isFileReadOnly(path.c_str()));
    EXPECT_FALSE(fs.isFileReadOnly(file("missing").c_str()));
}

}  // namespace
