// Printing into the console's text window: lines per second through printString, with and
// without wrapping, and what printing allocates once the 1000-line ring is full.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "counting_allocator.h"
#include "dm/console.h"
#include "zu/memory.h"

using bench_alloc::g_allocatedBytes;
using bench_alloc::g_allocations;

namespace {

// Measures like a monospaced font with a line height of 0.025 at the console's text size.
class MeasuringShapeEngine : public dm::ShapeEngineInterface {
public:
    void begin() override {}
    void setTextSize(float size) override { m_textSize = size; }
    float getLineHeight() override { return m_textSize * 1.25f; }
    m::Vector2Template<float> getTextExtent(const char* text) override {
        return {0.01f * static_cast<float>(std::strlen(text)), getLineHeight()};
    }
    void setColor(const g::Color&) override {}
    void drawRectangle(const m::Vector2Template<float>&,
                       const m::Vector2Template<float>&) override {}
    void drawText(const m::Vector2Template<float>&, const char*) override {}

private:
    float m_textSize = 0.0f;
};

constexpr size_t kLineLength = 80;
constexpr float kScrollBarWidth = 0.003125f;

// 64 different 80-character lines of log-like text: words, numbers, a quoted string,
// punctuation; each ends with a line feed.
std::vector<std::string> makeLines() {
    std::vector<std::string> lines;
    for (int i = 0; i < 64; ++i) {
        char text[256];
        std::snprintf(text, sizeof text,
                      "frame %06d pos %.2f %.2f -3.25 hp %d ammo %d state \"idle\" tag=alpha;",
                      i * 37, i * 1.5, i * -0.25, 100 - i, 32 + i);
        std::string line(text);
        while (line.size() < kLineLength) {
            line += " pad";
        }
        line.resize(kLineLength);
        lines.push_back(line + "\n");
    }
    return lines;
}

// Prints through a window whose text area is `textAreaWidth` wide, after filling its ring.
void printLines(benchmark::State& state, float textAreaWidth) {
    MeasuringShapeEngine engine;
    dm::ScrollingTextWindow window(&engine, 0.0f);
    window.setWindowSize({textAreaWidth + kScrollBarWidth, 0.9f});
    const std::vector<std::string> lines = makeLines();

    window.printString(lines[0].c_str());
    const double rowsPerLine = static_cast<double>(window.getConsoleLineCount());
    for (size_t i = 0; i < 1000; ++i) {
        window.printString(lines[i % lines.size()].c_str());
    }
    if (window.getConsoleLineCount() != 1000) {
        state.SkipWithError("the ring did not fill up");
        return;
    }

    const uint64_t allocationsBefore = g_allocations.load();
    const uint64_t bytesBefore = g_allocatedBytes.load();
    size_t next = 0;
    for (auto _ : state) {
        window.printString(lines[next].c_str());
        next = (next + 1) % lines.size();
    }
    // Read the counts before the counters below allocate their own entries.
    const uint64_t allocations = g_allocations.load() - allocationsBefore;
    const uint64_t bytes = g_allocatedBytes.load() - bytesBefore;
    const double printed = static_cast<double>(state.iterations());
    state.SetItemsProcessed(state.iterations());
    state.counters["rows_per_line"] = rowsPerLine;
    state.counters["bytes_per_line"] = static_cast<double>(bytes) / printed;
    state.counters["allocations_per_line"] = static_cast<double>(allocations) / printed;
}

// 80-character lines in a 0.5-wide area: every line wraps into two rows.
void BM_PrintStringWrapped(benchmark::State& state) {
    printLines(state, 0.5f);
}
BENCHMARK(BM_PrintStringWrapped);

// The same lines in a full-width area, one row each, for comparison.
void BM_PrintStringUnwrapped(benchmark::State& state) {
    printLines(state, 0.996875f);
}
BENCHMARK(BM_PrintStringUnwrapped);

bool allocationsAreCounted() {
    MeasuringShapeEngine engine;
    const bool inDm = bench_alloc::seesAllocationsOf(
        [&engine] { dm::ScrollingTextWindow window(&engine, 0.0f); });
    return inDm && bench_alloc::seesAllocationsOf([] {
               zu::String text;
               text.reserve(1000);  // allocates inside libzul
           });
}

}  // namespace

int main(int argc, char** argv) {
    return bench_alloc::runBenchmarks("console_print", allocationsAreCounted(), argc, argv);
}
