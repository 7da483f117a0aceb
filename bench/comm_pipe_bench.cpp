// Communication pipes next to ZeroMQ REQ/REP and a raw TCP ping-pong (the floor), all over
// loopback: request/response round trips with 16 bytes and 64 KiB each way, requests per second
// with one and with eight client threads, and a 64 MiB response to a small request. Every
// measurement runs unpinned and pinned to CPU 0 (as `taskset -c 0` would), five times, the
// repetitions of all peers shuffled together; the table at the end shows the medians and their
// ratios within the same run.
//
//   cmake --preset release && cmake --build --preset release --target comm_pipe_bench
//   ./build/release/bench/comm_pipe_bench
//
// A run takes about a minute; the tables come last. --benchmark_filter=pipe (or ZeroMQ, raw,
// pinned, "round trip", ...) runs a part. Loopback timings swing with whatever else the machine
// runs, so the load average is printed with them.
//
// ZeroMQ (Debian's libzmq3-dev) is a dependency of this benchmark only; without it the peer's
// columns read "-". The pipe side is one server and one client manager in this process; with
// several client threads each has a pipe of its own (a pipe answers one request at a time),
// all over the client manager's one connection, and one responder thread answers them all.
// ZeroMQ uses one REQ socket per client thread and one REP socket on one thread; raw TCP uses
// one connection and one echo thread per client thread.
#include <benchmark/benchmark.h>
#include <sched.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "bench_comm_rigs.h"

namespace {

using bench::kBigSize;

constexpr int kRequestsPerThread = 256;  // per timed iteration of the rate measurements
constexpr int kRepetitions = 5;

// Pins the calling thread, and so every thread it starts, to CPU 0 while it lives.
class CpuPin {
public:
    explicit CpuPin(bool pin) : m_pinned(pin) {
        if (m_pinned) {
            sched_getaffinity(0, sizeof(m_saved), &m_saved);
            cpu_set_t only;
            CPU_ZERO(&only);
            CPU_SET(0, &only);
            sched_setaffinity(0, sizeof(only), &only);
        }
    }
    ~CpuPin() {
        if (m_pinned) {
            sched_setaffinity(0, sizeof(m_saved), &m_saved);
        }
    }
    CpuPin(const CpuPin&) = delete;
    CpuPin& operator=(const CpuPin&) = delete;

private:
    bool m_pinned;
    cpu_set_t m_saved{};
};

// Runs `work(thread)` on `threads` threads and waits for all of them.
void onThreads(int threads, const std::function<void(int)>& work) {
    std::vector<std::thread> running;
    for (int t = 0; t < threads; ++t) {
        running.emplace_back(work, t);
    }
    for (std::thread& thread : running) {
        thread.join();
    }
}

// The three measurements, written once over any rig (see bench_comm_rigs.h).
template <typename Rig>
void roundTrip(benchmark::State& state, size_t size, bool pinned) {
    CpuPin pin(pinned);
    Rig rig(1);
    if (!rig.ready()) {
        state.SkipWithError("the rig did not come up");
        return;
    }
    std::vector<uint8_t> data(size, 0x5A);
    std::vector<uint8_t> answer(size);
    for (auto _ : state) {
        if (rig.echo(0, data.data(), size, answer.data()) != size) {
            state.SkipWithError("wrong answer");
            break;
        }
    }
}

template <typename Rig>
void requestRate(benchmark::State& state, int threads, bool pinned) {
    CpuPin pin(pinned);
    Rig rig(threads);
    if (!rig.ready()) {
        state.SkipWithError("the rig did not come up");
        return;
    }
    for (auto _ : state) {
        std::atomic<bool> failed{false};
        onThreads(threads, [&](int thread) {
            uint8_t data[bench::kSmallSize] = {};
            uint8_t answer[bench::kSmallSize];
            for (int i = 0; i < kRequestsPerThread; ++i) {
                if (rig.echo(thread, data, sizeof(data), answer) != sizeof(data)) {
                    failed = true;
                    return;
                }
            }
        });
        if (failed) {
            state.SkipWithError("wrong answer");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * threads * kRequestsPerThread);
}

template <typename Rig>
void bigResponse(benchmark::State& state, bool pinned) {
    CpuPin pin(pinned);
    Rig rig(1);
    if (!rig.ready()) {
        state.SkipWithError("the rig did not come up");
        return;
    }
    std::vector<uint8_t> response(kBigSize);
    for (auto _ : state) {
        if (rig.fetchBig(response.data()) != kBigSize) {
            state.SkipWithError("short response");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBigSize));
}

// --- Registration and the summary ---

const char* const kPeers[] = {"pipe", "ZeroMQ", "raw TCP"};

struct Metric {
    const char* label;
    const char* unit;
    double scale;  // from seconds per iteration to the unit shown
    bool isRate;   // shown as iterations' work per second instead of time
};
const Metric kMetrics[] = {
    {"round trip, 16 B", "us", 1e6, false},
    {"round trip, 64 KiB", "us", 1e6, false},
    {"requests/s, 1 thread", "/s", 1.0 * kRequestsPerThread, true},
    {"requests/s, 8 threads", "/s", 8.0 * kRequestsPerThread, true},
    {"64 MiB response", "ms", 1e3, false},
};

std::string benchmarkName(const char* peer, const Metric& metric, bool pinned) {
    return std::string(peer) + " | " + metric.label + " | " + (pinned ? "pinned" : "unpinned");
}

void configure(benchmark::internal::Benchmark* benchmark, double minSeconds) {
    benchmark->MinTime(minSeconds)
        ->Repetitions(kRepetitions)
        ->ReportAggregatesOnly(true)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
}

template <typename Rig>
void registerPeer(const char* peer) {
    for (bool pinned : {false, true}) {
        const auto name = [&](int metric) { return benchmarkName(peer, kMetrics[metric], pinned); };
        configure(benchmark::RegisterBenchmark(name(0).c_str(), roundTrip<Rig>, bench::kSmallSize,
                                               pinned),
                  0.2);
        configure(benchmark::RegisterBenchmark(name(1).c_str(), roundTrip<Rig>, bench::kMediumSize,
                                               pinned),
                  0.2);
        configure(benchmark::RegisterBenchmark(name(2).c_str(), requestRate<Rig>, 1, pinned), 0.2);
        configure(benchmark::RegisterBenchmark(name(3).c_str(), requestRate<Rig>, 8, pinned), 0.2);
        configure(benchmark::RegisterBenchmark(name(4).c_str(), bigResponse<Rig>, pinned), 0.5);
    }
}

// Keeps the median of every benchmark, in seconds per iteration.
class MedianCollector : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median" &&
                !run.error_occurred) {
                medians[run.run_name.function_name] =
                    run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
            }
        }
    }
    std::map<std::string, double> medians;
};

std::string loadAverage() {
    std::ifstream file("/proc/loadavg");
    std::string one, five, fifteen;
    file >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

// A median shown in the metric's unit, or 0 when it was not measured.
double shown(const MedianCollector& collector, const char* peer, const Metric& metric,
             bool pinned) {
    auto found = collector.medians.find(benchmarkName(peer, metric, pinned));
    if (found == collector.medians.end() || found->second <= 0.0) {
        return 0.0;
    }
    return metric.isRate ? metric.scale / found->second : found->second * metric.scale;
}

void printCell(double value) {
    if (value <= 0.0) {
        std::printf(" %11s", "-");
    } else {
        std::printf(" %11.1f", value);
    }
}

// Pipe cost over the peer's: time over time, or the peer's rate over the pipe's.
void printRatio(double pipe, double peer, bool isRate) {
    if (pipe <= 0.0 || peer <= 0.0) {
        std::printf(" %10s", "-");
    } else {
        std::printf(" %9.2fx", isRate ? peer / pipe : pipe / peer);
    }
}

void printTable(const MedianCollector& collector, bool pinned) {
    std::printf("\n%s, medians of %d runs\n", pinned ? "pinned to CPU 0" : "unpinned",
                kRepetitions);
    std::printf("%-26s %11s %11s %11s %10s %10s\n", "", "pipe", "ZeroMQ", "raw TCP", "vs ZeroMQ",
                "vs raw");
    for (const Metric& metric : kMetrics) {
        double values[3];
        for (int peer = 0; peer < 3; ++peer) {
            values[peer] = shown(collector, kPeers[peer], metric, pinned);
        }
        std::string label = std::string(metric.label) + " (" + metric.unit + ")";
        std::printf("%-26s", label.c_str());
        for (double value : values) {
            printCell(value);
        }
        printRatio(values[0], values[1], metric.isRate);
        printRatio(values[0], values[2], metric.isRate);
        std::printf("\n");
    }
    const Metric& big = kMetrics[4];
    const double pipeMs = shown(collector, kPeers[0], big, pinned);
    const double rawMs = shown(collector, kPeers[2], big, pinned);
    if (pipeMs > 0.0 && rawMs > 0.0) {
        std::printf("64 MiB: pipe %.0f MiB/s, raw TCP %.0f MiB/s: the pipe moves %.0f%% of raw\n",
                    64e3 / pipeMs, 64e3 / rawMs, 100.0 * rawMs / pipeMs);
    }
}

}  // namespace

int main(int argc, char** argv) {
    registerPeer<bench::PipeRig>(kPeers[0]);
#if defined(DM_HAVE_ZMQ)
    registerPeer<bench::ZmqRig>(kPeers[1]);
#else
    std::printf("ZeroMQ was not found at build time: its columns stay empty\n");
#endif
    registerPeer<bench::RawTcpRig>(kPeers[2]);
    // The peers' repetitions run in a shuffled order, so that a change in the machine's load
    // during the run falls on all of them alike.
    std::vector<char*> arguments(argv, argv + argc);
    char interleave[] = "--benchmark_enable_random_interleaving=true";
    arguments.insert(arguments.begin() + 1, interleave);
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    const std::string loadAtStart = loadAverage();
    MedianCollector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    std::printf("\nload average (1, 5, 15 min) at start: %s, at end: %s\n", loadAtStart.c_str(),
                loadAverage().c_str());
    std::printf(
        "ratios: the pipe's time over the peer's (for rates: the peer's over the pipe's)\n");
    printTable(collector, false);
    printTable(collector, true);
    benchmark::Shutdown();
    return 0;
}
