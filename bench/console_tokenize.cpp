// Tokenizing console texts: time per byte for texts of growing size. Linear tokenizing keeps the
// "time/byte" column flat from 4 KiB to 256 KiB; a scanner that reran to the end of the text at
// every position (as "1.1.1...x" once made it) grows it with the size.
#include <benchmark/benchmark.h>

#include <string>

#include "dm/console.h"

namespace {

// "1.1.1.1...x": every digit starts a float run that only fails at the final 'x'.
std::string dottedDigits(size_t bytes) {
    std::string text;
    while (text.size() + 2 < bytes) {
        text += "1.";
    }
    return text + "x";
}

// A plain command line repeated: words, numbers, quotes and separators.
std::string commandLines(size_t bytes) {
    std::string text;
    while (text.size() < bytes) {
        text += "set r_gamma 1.25; echo \"hello world\" 0xff -3 ";
    }
    return text;
}

void tokenize(benchmark::State& state, const std::string& source) {
    const zu::String text(source.c_str());
    dm::ConsoleWordList words;
    for (auto _ : state) {
        words.clear();
        dm::tokenizeLine(words, text);
        benchmark::DoNotOptimize(words.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * source.size()));
    state.counters["time/byte"] =
        benchmark::Counter(static_cast<double>(state.iterations() * source.size()),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_DottedDigits(benchmark::State& state) {
    tokenize(state, dottedDigits(static_cast<size_t>(state.range(0))));
}

void BM_CommandLines(benchmark::State& state) {
    tokenize(state, commandLines(static_cast<size_t>(state.range(0))));
}

BENCHMARK(BM_DottedDigits)
    ->Arg(4 << 10)
    ->Arg(64 << 10)
    ->Arg(256 << 10)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CommandLines)
    ->Arg(4 << 10)
    ->Arg(64 << 10)
    ->Arg(256 << 10)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
