// The console cache file with a full window (1000 lines of 60 characters, 30 commands): how
// long one save takes, how long of that it holds the window's lock (the copy of the stores;
// printing threads wait that long) and how long a window takes to load the file when it is
// built.
#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <filesystem>
#include <string>

#include "console/bounded_line_store.h"
#include "dm/console.h"
#include "zu/file.h"

namespace {

class NullShapeEngine : public dm::ShapeEngineInterface {
public:
    void begin() override {}
    void setTextSize(float) override {}
    float getLineHeight() override { return 0.025f; }
    m::Vector2Template<float> getTextExtent(const char*) override { return {}; }
    void setColor(const g::Color&) override {}
    void drawRectangle(const m::Vector2Template<float>&,
                       const m::Vector2Template<float>&) override {}
    void drawText(const m::Vector2Template<float>&, const char*) override {}
};

// A fresh writable folder for the program's run, removed at the end.
class ScratchFolder {
public:
    ScratchFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "dmbench-XXXXXX").string();
        m_path = mkdtemp(pattern.data()) != nullptr ? pattern : ".";
        zu::File::setFileSysPathForWrite((m_path + "/").c_str());
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

private:
    std::string m_path;
};

void fill(dm::ScrollingTextWindow& window) {
    const std::string text(55, 'x');
    for (int i = 0; i < 1000; ++i) {
        window.print("%04d %s\n", i, text.c_str());
    }
    for (int i = 0; i < 30; ++i) {
        window.addToCommandStack(zu::str("command number %d", i).c_str());
    }
}

void BM_SaveFullCache(benchmark::State& state) {
    ScratchFolder folder;
    NullShapeEngine engine;
    dm::ScrollingTextWindow window(&engine, 0.0f);
    fill(window);
    for (auto _ : state) {
        window.addToCommandStack("dirty");  // save writes only after a change
        window.save();
    }
}
BENCHMARK(BM_SaveFullCache)->Unit(benchmark::kMicrosecond);

// What save() does under the lock: copy the stores, here into a copy that is new each time, as
// in save().
void BM_CopyFullStoresUnderLock(benchmark::State& state) {
    dm::BoundedLineStore<dm::ScrollingTextWindow::ConsoleLine> lines;
    lines.maxLines = 1000;
    dm::BoundedLineStore<zu::InplaceString<256>> commands;
    commands.maxLines = 30;
    const std::string text(60, 'x');
    for (int i = 0; i < 1000; ++i) {
        lines.add(text.c_str());
    }
    for (int i = 0; i < 30; ++i) {
        commands.add("command");
    }
    for (auto _ : state) {
        dm::BoundedLineStore<dm::ScrollingTextWindow::ConsoleLine> lineCopy;
        dm::BoundedLineStore<zu::InplaceString<256>> commandCopy;
        lineCopy = lines;
        commandCopy = commands;
        benchmark::DoNotOptimize(lineCopy.lines.data());
        benchmark::DoNotOptimize(commandCopy.lines.data());
    }
}
BENCHMARK(BM_CopyFullStoresUnderLock)->Unit(benchmark::kMicrosecond);

void BM_LoadFullCache(benchmark::State& state) {
    ScratchFolder folder;
    NullShapeEngine engine;
    {
        dm::ScrollingTextWindow window(&engine, 0.0f);
        fill(window);
        window.save();
    }
    for (auto _ : state) {
        dm::ScrollingTextWindow window(&engine, 0.0f);
        benchmark::DoNotOptimize(window.getConsoleLineCount());
    }
}
BENCHMARK(BM_LoadFullCache)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
