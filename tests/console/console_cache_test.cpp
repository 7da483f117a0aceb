#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "console/keyboard.h"
#include "console/recording_shape_engine.h"
#include "dm/console.h"
#include "support/forwarding_file_system.h"
#include "zu/file.h"
#include "zu/file_system.h"

namespace {

using dm::ScrollingTextWindow;
using dmtest::consoleLine;
using dmtest::ScopedWritableFolder;
using Lines = std::vector<std::string>;
namespace vk = dmtest::vk;

// Every window loads the cache of the writable folder when it is built: for the whole program
// that folder is an empty one of its own, so no test depends on files lying around.
class EmptyWritableFolder : public ::testing::Environment {
public:
    void SetUp() override { m_folder = std::make_unique<ScopedWritableFolder>(); }
    void TearDown() override { m_folder.reset(); }

private:
    std::unique_ptr<ScopedWritableFolder> m_folder;
};
::testing::Environment* const g_emptyWritableFolder =
    ::testing::AddGlobalTestEnvironment(new EmptyWritableFolder);

// A cache file put together byte by byte as docs/file-stream.md describes it, independently of
// the stream that the window uses.
struct CacheBytes {
    std::string bytes;

    CacheBytes& number(uint32_t value) {
        for (int shift = 0; shift < 32; shift += 8) {
            bytes += static_cast<char>((value >> shift) & 0xFF);
        }
        return *this;
    }
    CacheBytes& text(const std::string& line) {
        number(static_cast<uint32_t>(line.size()));
        bytes += line;
        return *this;
    }
    CacheBytes& store(uint32_t counter, uint32_t limit, const Lines& lines) {
        number(counter).number(limit).number(static_cast<uint32_t>(lines.size()));
        for (const std::string& line : lines) {
            text(line);
        }
        return *this;
    }
};

using dmtest::readFile;
using dmtest::writeFile;

struct CacheTest : ::testing::Test {
    ScopedWritableFolder folder;
    dmtest::RecordingShapeEngine engine;

    std::string browse(ScrollingTextWindow& window, int key) {
        window.appendInput(key, 0, false, false, false);
        return window.getText().c_str();
    }
    void enterCommands(ScrollingTextWindow& window, int first, int last) {
        for (int i = first; i <= last; ++i) {
            window.addToCommandStack(("cmd" + std::to_string(i)).c_str());
        }
    }
    // What a window without a cache holds: no lines, no history, and room for 30 commands.
    void expectDefaults(ScrollingTextWindow& window) {
        EXPECT_EQ(window.getConsoleLineCount(), 0u);
        EXPECT_EQ(browse(window, vk::Up), "");
        enterCommands(window, 1, 31);
        EXPECT_EQ(browse(window, vk::Down), "cmd2");
    }
    // The message of the exception that load() throws for the current cache file; "" when it
    // loads.
    std::string loadRefusal() {
        ScrollingTextWindow window(&engine, 0.0f);
        try {
            window.load();
        } catch (const zu::Exception& refusal) {
            return refusal.getError();
        }
        return "";
    }
};

TEST_F(CacheTest, ASecondWindowSeesTheFirstOnesLinesAndCommandsWithTheRingsWrapped) {
    {
        ScrollingTextWindow first(&engine, 0.0f);
        for (int i = 0; i < 1005; ++i) {
            first.print("line %d\n", i);
        }
        enterCommands(first, 1, 33);
        first.save();
    }
    ScrollingTextWindow second(&engine, 0.0f);
    ASSERT_EQ(second.getConsoleLineCount(), 1000u);
    EXPECT_EQ(consoleLine(second, 0), "line 1004\n");
    EXPECT_EQ(consoleLine(second, 999), "line 5\n");
    for (uint64_t beyond : {uint64_t(1000), uint64_t(1) << 32, UINT64_MAX}) {
        EXPECT_EQ(consoleLine(second, beyond), "");  // an empty line beyond the newest thousand
    }
    EXPECT_EQ(second.getVisibleLine(2000), "");
    EXPECT_EQ(browse(second, vk::Down), "cmd4");
    EXPECT_EQ(browse(second, vk::Up), "cmd33");

    // The counters came along: the rings go on overwriting their oldest entries.
    second.print("line 1005\n");
    EXPECT_EQ(consoleLine(second, 0), "line 1005\n");
    EXPECT_EQ(consoleLine(second, 999), "line 6\n");
    enterCommands(second, 34, 34);
    EXPECT_EQ(browse(second, vk::Down), "cmd5");
    EXPECT_EQ(browse(second, vk::Up), "cmd34");
    second.save();

    ScrollingTextWindow third(&engine, 0.0f);
    EXPECT_EQ(consoleLine(third, 999), "line 6\n");
    EXPECT_EQ(browse(third, vk::Up), "cmd34");
}

TEST_F(CacheTest, WritesTheDocumentedLayout) {
    ScrollingTextWindow window(&engine, 0.0f);
    window.print("a\n");
    window.addToCommandStack("x");
    window.save();
    EXPECT_EQ(readFile(folder.cacheFile()),
              CacheBytes().store(1, 1000, {"a\n"}).store(1, 30, {"x"}).bytes);
    EXPECT_FALSE(std::filesystem::exists(folder.cacheFile() + ".tmp"));
}

TEST_F(CacheTest, SavesOnlyAfterAChangeAndNotOnAReadOnlyFileSystem) {
    ScrollingTextWindow window(&engine, 0.0f);
    window.print("not a prompted line\n");
    window.save();
    EXPECT_FALSE(std::filesystem::exists(folder.cacheFile()));

    window.addToCommandStack("cmd");
    zu::File::setFileSystemReadOnly(true);
    window.save();
    zu::File::setFileSystemReadOnly(false);
    EXPECT_FALSE(std::filesystem::exists(folder.cacheFile()));
    window.save();  // the change was given up with the read-only save
    EXPECT_FALSE(std::filesystem::exists(folder.cacheFile()));

    window.printWithPrefix(true, "%s\n", "echoed");
    window.save();
    EXPECT_TRUE(std::filesystem::exists(folder.cacheFile()));
}

TEST_F(CacheTest, ACommandLimitOfFiveFromTheFileHoldsFromThenOn) {
    // Seven commands went into five slots: cmd6 and cmd7 overwrote cmd1 and cmd2.
    writeFile(folder.cacheFile(), CacheBytes()
                                      .store(0, 1000, {})
                                      .store(7, 5, {"cmd6", "cmd7", "cmd3", "cmd4", "cmd5"})
                                      .bytes);
    {
        ScrollingTextWindow window(&engine, 0.0f);
        for (const char* expected : {"cmd7", "cmd6", "cmd5", "cmd4", "cmd3", "cmd7"}) {
            ASSERT_EQ(browse(window, vk::Up), expected);
        }
        enterCommands(window, 8, 10);
        EXPECT_EQ(browse(window, vk::Down), "cmd6");
        window.save();
    }
    ScrollingTextWindow reloaded(&engine, 0.0f);
    EXPECT_EQ(browse(reloaded, vk::Down), "cmd6");
    enterCommands(reloaded, 11, 11);
    EXPECT_EQ(browse(reloaded, vk::Down), "cmd7");
}

TEST_F(CacheTest, RefusesFilesThatCannotHoldWhatTheyClaimAndKeepsTheDefaults) {
    const std::string sound = CacheBytes().store(0, 1000, {}).store(0, 30, {}).bytes;
    const struct {
        std::string bytes;
        const char* problem;
    } cases[] = {
        {CacheBytes().store(0, 0, {}).store(0, 30, {}).bytes,
         "a limit of 0 console lines is not between 1 and 65536"},
        {CacheBytes().store(0, 1000, {}).store(0, 65537, {}).bytes,
         "a limit of 65537 commands is not between 1 and 65536"},
        {CacheBytes().store(3, 2, {"a", "b", "c"}).store(0, 30, {}).bytes,
         "a count of 3 console lines is not between 0 and its limit of 2"},
        {CacheBytes().number(0).number(1000).number(0xFFFFFFFF).store(0, 30, {}).bytes,
         "a count of -1 console lines"},
        {CacheBytes().number(1000).number(1000).number(1000).bytes,
         "1000 console lines do not fit in the rest of the file, which holds 0 at most"},
        {CacheBytes().store(5, 1000, {"a", "b"}).store(0, 30, {}).bytes,
         "5 console lines added, but 2 stored below the limit of 1000"},
        {CacheBytes().store(0, 1000, {}).number(1).number(30).number(1).number(40).bytes + "short",
         "FileStream: text length 40"},
        {CacheBytes().store(1, 1000, {std::string("a\0b", 3)}).store(0, 30, {}).bytes,
         "holds a 0 byte"},
        {CacheBytes().store(0, 1000, {}).bytes, "FileStream: read past the end"},
        {sound.substr(0, 6), "FileStream: read past the end"},
    };
    for (const auto& bad : cases) {
        SCOPED_TRACE(bad.problem);
        writeFile(folder.cacheFile(), bad.bytes);
        EXPECT_NE(loadRefusal().find(bad.problem), std::string::npos) << loadRefusal();
        ScrollingTextWindow window(&engine, 0.0f);
        expectDefaults(window);
    }
    writeFile(folder.cacheFile(), sound);
    EXPECT_EQ(loadRefusal(), "");
}

TEST_F(CacheTest, AFailedLoadChangesNothing) {
    ScrollingTextWindow window(&engine, 0.0f);
    window.print("kept\n");
    enterCommands(window, 1, 2);
    writeFile(folder.cacheFile(), CacheBytes().store(2, 1000, {"x\n", "y\n"}).number(9).bytes);
    EXPECT_THROW(window.load(), zu::Exception);
    EXPECT_EQ(window.getConsoleLineCount(), 1u);
    EXPECT_EQ(consoleLine(window, 0), "kept\n");
    EXPECT_EQ(browse(window, vk::Up), "cmd2");
}

// A disk that fills up: files opened for writing take only `budget` bytes in all.
struct FillingFileSystem : dmtest::ForwardingFileSystem {
    explicit FillingFileSystem(uint64_t budget) : m_budget(budget) {}
    uint64_t writeFile(Handle file, const void* buffer, uint64_t count) override {
        const uint64_t taken = count < m_budget ? count : m_budget;
        m_budget -= taken;
        return taken != 0 ? local.writeFile(file, buffer, taken) : 0;
    }
    uint64_t m_budget;
};

TEST_F(CacheTest, ASaveThatFailsLeavesThePreviousFileAsItWas) {
    ScrollingTextWindow window(&engine, 0.0f);
    enterCommands(window, 1, 1);
    window.save();
    const std::string saved = readFile(folder.cacheFile());
    ASSERT_FALSE(saved.empty());

    enterCommands(window, 2, 2);
    {
        FillingFileSystem full(20);  // fills up inside the console lines' header
        dmtest::InstalledFileSystem installed(full);
        EXPECT_NO_THROW(window.save());
    }
    EXPECT_EQ(readFile(folder.cacheFile()), saved);
    EXPECT_FALSE(std::filesystem::exists(folder.cacheFile() + ".tmp"));

    // A folder in the way of the temporary file: it cannot even be opened.
    std::filesystem::create_directory(folder.cacheFile() + ".tmp");
    enterCommands(window, 3, 3);
    EXPECT_NO_THROW(window.save());
    EXPECT_EQ(readFile(folder.cacheFile()), saved);
    std::filesystem::remove(folder.cacheFile() + ".tmp");

    enterCommands(window, 4, 4);
    window.save();
    ScrollingTextWindow reloaded(&engine, 0.0f);
    for (const char* expected : {"cmd4", "cmd3", "cmd2", "cmd1"}) {
        EXPECT_EQ(browse(reloaded, vk::Up), expected);
    }
}

TEST_F(CacheTest, SavesAndScrollsWhileOtherThreadsPrint) {
    constexpr int kPrinters = 4;
    constexpr int kLinesEach = 150;
    ScrollingTextWindow window(&engine, 0.0f);
    std::atomic<int> finished{0};
    std::vector<std::thread> printers;
    for (int thread = 0; thread < kPrinters; ++thread) {
        printers.emplace_back([&window, &finished, thread] {
            for (int line = 0; line < kLinesEach; ++line) {
                window.printWithPrefix(true, "t%d n%03d\n", thread, line);
            }
            finished.fetch_add(1);
        });
    }
    // The main thread's share: saving, scrolling, drawing and reading the lines on screen while
    // the lines come in.
    window.setVisibility(true);
    for (int round = 0; round < 100000 && finished.load() < kPrinters; ++round) {
        window.save();
        engine.reset();  // keeps what the engine records to one frame
        window.renderVisibleText();
        for (uint64_t k = 0; k < 40; ++k) {
            const auto line = window.getVisibleLine(k);
            ASSERT_TRUE(line.empty() || line[0] == '>') << line.c_str();
        }
        window.appendInput(round % 2 == 0 ? vk::PageUp : vk::PageDown, 0, false, false, false);
        window.appendInput(vk::End, 0, false, true, false);
    }
    dmtest::joinAll(printers);
    window.save();

    // Every line was kept (their order per thread is the concurrent printing test's business)
    // and the file gives them all back.
    const std::vector<std::string> lines = dmtest::consoleLinesOldestFirst(window);
    EXPECT_EQ(lines.size(), static_cast<size_t>(kPrinters * kLinesEach));
    ScrollingTextWindow reloaded(&engine, 0.0f);
    EXPECT_EQ(dmtest::consoleLinesOldestFirst(reloaded), lines);
}

}  // namespace
