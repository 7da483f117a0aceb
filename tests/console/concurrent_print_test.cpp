#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "console/recording_shape_engine.h"
#include "dm/console.h"
#include "support/test_support.h"

namespace {

constexpr int kThreads = 8;
constexpr int kLinesPerThread = 60;  // 8 × 60 lines of two rows each: 960 rows, within the ring

// Two 40-character words that identify thread, line and half, e.g. "t3n017a" + 33 × 'a'.
std::string half(int thread, int line, char which) {
    char head[16];
    std::snprintf(head, sizeof head, "t%dn%03d%c", thread, line, which);
    return head + std::string(33, which);
}

// Each printed line wraps into exactly two rows in a 0.5-wide text area: the first word with
// the blank behind it, then the second word.
TEST(ConcurrentPrinting, LosesAndTearsNoLine) {
    dmtest::RecordingShapeEngine engine;
    dm::ScrollingTextWindow window(&engine, 0.0f);
    window.setWindowSize({0.5f + 0.003125f, 0.5f});
    engine.reset();

    std::atomic<int> ready{0};
    std::vector<std::thread> printers;
    for (int thread = 0; thread < kThreads; ++thread) {
        printers.emplace_back([&window, &ready, thread] {
            // Start together for the most contention (but never wait long for that).
            ready.fetch_add(1);
            dmtest::waitUntil([&ready] { return ready.load() == kThreads; },
                              std::chrono::seconds(5));
            for (int line = 0; line < kLinesPerThread; ++line) {
                const std::string text = half(thread, line, 'a') + " " + half(thread, line, 'b');
                if (line % 2) {
                    window.printWithPrefix(false, "%s\n", text.c_str());
                } else {
                    window.printString((text + "\n").c_str());
                }
            }
        });
    }
    dmtest::joinAll(printers);
    // The game draws through its shape engine on its own thread; printers must not call it.
    EXPECT_TRUE(engine.calls().empty());

    const std::vector<std::string> rows = dmtest::consoleLinesOldestFirst(window);
    ASSERT_EQ(rows.size(), static_cast<size_t>(kThreads * kLinesPerThread * 2));
    std::vector<int> nextLine(kThreads, 0);
    for (size_t i = 0; i < rows.size(); i += 2) {
        int thread = -1;
        int line = -1;
        ASSERT_EQ(std::sscanf(rows[i].c_str(), "t%dn%3d", &thread, &line), 2) << rows[i];
        ASSERT_TRUE(thread >= 0 && thread < kThreads) << rows[i];
        EXPECT_EQ(line, nextLine[thread]) << "thread " << thread << " lost or reordered a line";
        nextLine[thread] = line + 1;
        EXPECT_EQ(rows[i], half(thread, line, 'a') + " \n");
        EXPECT_EQ(rows[i + 1], half(thread, line, 'b') + "\n") << "rows of one line split apart";
    }
    for (int thread = 0; thread < kThreads; ++thread) {
        EXPECT_EQ(nextLine[thread], kLinesPerThread);
    }
}

// The game thread may ask how far up the view can go while other threads print.
TEST(ConcurrentPrinting, TheUpmostShownLineIsReadWhileLinesComeIn) {
    dmtest::RecordingShapeEngine engine;
    dm::ScrollingTextWindow window(&engine, 0.0f);
    const uint32_t onScreen = window.getLinesOnScreen();
    std::atomic<bool> done{false};
    std::thread printer([&window, &done] {
        for (int line = 0; line < kThreads * kLinesPerThread; ++line) {
            window.print("line %d\n", line);
        }
        done = true;
    });
    uint32_t last = 0;
    for (int reads = 0; reads < 1000000 && !done.load(); ++reads) {
        const uint32_t upmost = window.getUpmostShownConsoleLine();
        ASSERT_GE(upmost, last) << "lines are only ever added here";
        last = upmost;
    }
    printer.join();
    EXPECT_EQ(window.getUpmostShownConsoleLine(), kThreads * kLinesPerThread - onScreen);
}

}  // namespace
