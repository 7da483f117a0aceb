// Drawing the console: frames per second of renderVisibleText with a full screen of coloured
// lines, when nothing new came in and when one new line comes in per frame, next to a frame
// that colours every line on screen anew (what drawing would cost without the cache of coloured
// lines); and what a frame allocates once warm.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>
#include <string>
#include <vector>

#include "counting_allocator.h"
#include "dm/console.h"
#include "zu/file.h"
#include "zu/memory.h"

using bench_alloc::g_allocatedBytes;
using bench_alloc::g_allocations;

namespace {

// Measures like a monospaced font with a line height of 0.025 at the console's text size and
// draws nothing, so that the frame's own work is what is timed.
class MeasuringShapeEngine : public dm::ShapeEngineInterface {
public:
    void begin() override {}
    void setTextSize(float size) override { m_textSize = size; }
    float getLineHeight() override { return m_textSize * 1.25f; }
    m::Vector2Template<float> getTextExtent(const char* text) override {
        return {0.01f * static_cast<float>(std::strlen(text)), 0.025f};
    }
    void setColor(const g::Color& color) override { m_color = color; }
    void drawRectangle(const m::Vector2Template<float>&,
                       const m::Vector2Template<float>&) override {}
    void drawText(const m::Vector2Template<float>&, const char* text) override {
        benchmark::DoNotOptimize(text);
    }

private:
    float m_textSize = 0.0f;
    g::Color m_color;
};

enum class Frame { Still, OneNewLine, RecolourAll };

// Frames per second of each case in this run, for the comparison printed at the end.
std::map<Frame, std::vector<double>> g_framesPerSecond;

// A line of 80 characters with words, known words, an alias, numbers, a quoted string and
// punctuation.
std::string makeLine(int i) {
    char text[160];
    std::snprintf(text, sizeof text,
                  "frame %06d set speed %.2f -3.25 hp %d tag \"idle state\" fast 0x1f ok;", i * 37,
                  i * 1.5, 100 - i);
    std::string line(text);
    while (line.size() < 80) {
        line += " pad";
    }
    line.resize(80);
    return line + "\n";
}

void renderFrames(benchmark::State& state, Frame kind) {
    zu::File::setFileSysPathForWrite("/nonexistent-dm-bench/");  // no cache to load
    MeasuringShapeEngine engine;
    dm::ScrollingTextWindow window(&engine, 0.0f);
    window.setVisibility(true);
    window.addKnownWord("set", false);
    window.addKnownWord("speed", false);
    window.accessAliasesMap()["fast"] = "set speed 10";
    window.setText("set speed 2.5");
    for (int i = 0; i < 1000; ++i) {
        window.printString(makeLine(i).c_str());
    }
    const std::string newLine = makeLine(7);
    // Warm: the cache's lists and the scratch buffers grow to their size here.
    for (int i = 0; i < 3; ++i) {
        window.printString(newLine.c_str());
        window.setWindowSize(window.getWindowSize());
        window.renderVisibleText();
    }
    const uint64_t allocationsBefore = g_allocations.load();
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        if (kind == Frame::OneNewLine) {
            window.printString(newLine.c_str());
        } else if (kind == Frame::RecolourAll) {
            window.setWindowSize(window.getWindowSize());
        }
        window.renderVisibleText();
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const uint64_t allocations = g_allocations.load() - allocationsBefore;
    const double frames = static_cast<double>(state.iterations());
    state.counters["frames_per_s"] = frames / seconds;
    state.counters["lines_on_screen"] = window.getLinesOnScreen();
    state.counters["allocations_per_frame"] = static_cast<double>(allocations) / frames;
    g_framesPerSecond[kind].push_back(frames / seconds);
}

// A full screen of coloured lines and nothing new: nothing is coloured.
void BM_RenderStill(benchmark::State& state) {
    renderFrames(state, Frame::Still);
}
BENCHMARK(BM_RenderStill);

// One new line per frame (printed in the frame): one line is coloured.
void BM_RenderOneNewLine(benchmark::State& state) {
    renderFrames(state, Frame::OneNewLine);
}
BENCHMARK(BM_RenderOneNewLine);

// Every line on screen coloured anew each frame, as without the cache.
void BM_RenderRecolourAll(benchmark::State& state) {
    renderFrames(state, Frame::RecolourAll);
}
BENCHMARK(BM_RenderRecolourAll);

// The median of the runs of one case (--benchmark_repetitions), 0 when it did not run.
double medianFramesPerSecond(Frame kind) {
    std::vector<double> runs = g_framesPerSecond[kind];
    if (runs.empty()) {
        return 0.0;
    }
    std::sort(runs.begin(), runs.end());
    return runs[runs.size() / 2];
}

void printComparison() {
    const double still = medianFramesPerSecond(Frame::Still);
    const double oneNew = medianFramesPerSecond(Frame::OneNewLine);
    const double all = medianFramesPerSecond(Frame::RecolourAll);
    if (still <= 0.0 || oneNew <= 0.0 || all <= 0.0) {
        return;
    }
    std::printf("\n%-32s %14s %22s\n", "frame (median of runs)", "frames/s", "vs recolouring all");
    std::printf("%-32s %14.0f %21.2fx\n", "nothing new (cache)", still, still / all);
    std::printf("%-32s %14.0f %21.2fx\n", "one new line per frame (cache)", oneNew, oneNew / all);
    std::printf("%-32s %14.0f %21.2fx\n", "every line recoloured", all, 1.0);
}

}  // namespace

int main(int argc, char** argv) {
    MeasuringShapeEngine engine;
    const bool counted = bench_alloc::seesAllocationsOf(
        [&engine] { dm::ScrollingTextWindow window(&engine, 0.0f); });
    const int result = bench_alloc::runBenchmarks("console_render", counted, argc, argv);
    if (result == 0) {
        printComparison();
    }
    return result;
}
