// Debug-monitor link throughput: text packets per second from dm::print to one and to four
// monitors on loopback (each monitor a thread draining its socket), the cost of print with no
// monitor connected, and the cost of the thread profiler's scopes and snapshots.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "d/profile.h"
#include "dm/monitor.h"
#include "net/packet.h"
#include "net/socket.h"
#include "zu/event.h"

namespace {

using Clock = std::chrono::steady_clock;

// Prints per timed iteration; each iteration ends when every monitor has received them all.
constexpr int kBatch = 1024;
const char kSampleText[] = "streaming: level chunk loaded";

// A monitor on its own thread that takes packets as fast as they come.
class DrainingMonitor {
public:
    explicit DrainingMonitor(int port) : m_thread([this, port] { run(port); }) {}
    ~DrainingMonitor() {
        m_stop = true;
        m_thread.join();
    }
    DrainingMonitor(const DrainingMonitor&) = delete;
    DrainingMonitor& operator=(const DrainingMonitor&) = delete;

    uint64_t received() const { return m_received.load(std::memory_order_acquire); }

private:
    void run(int port) {
        net::Socket socket;
        socket.connect("127.0.0.1", static_cast<uint32_t>(port));
        uint64_t received = 0;
        while (!m_stop.load(std::memory_order_relaxed)) {
            const zu::WaitHandle handle = socket.getWaitHandle();
            zu::waitForAny(&handle, 1, 10);
            socket.update();
            while (socket.pollPacket(nullptr)) {
                ++received;
            }
            m_received.store(received, std::memory_order_release);
            if (!socket.isConnected() && !socket.isConnecting()) {
                return;
            }
        }
    }

    std::atomic<bool> m_stop{false};
    std::atomic<uint64_t> m_received{0};
    std::thread m_thread;
};

bool waitFor(const std::function<bool()>& condition) {
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (Clock::now() >= deadline) {
            return false;
        }
        dm::update();
        std::this_thread::yield();
    }
    return true;
}

void BM_PrintToMonitors(benchmark::State& state) {
    const int monitorCount = static_cast<int>(state.range(0));
    dm::init(0);
    std::vector<std::unique_ptr<DrainingMonitor>> monitors;
    for (int i = 0; i < monitorCount; ++i) {
        monitors.push_back(std::make_unique<DrainingMonitor>(dm::getMonitorPort()));
    }
    if (!waitFor([&] { return dm::getMonitorConnectionCount() == monitorCount; })) {
        state.SkipWithError("monitors did not connect");
    }
    uint64_t sent = 0;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        for (int i = 0; i < kBatch; ++i) {
            dm::print(1, "%s %d", kSampleText, i);
        }
        sent += kBatch;
        const bool delivered = waitFor([&] {
            for (const auto& monitor : monitors) {
                if (monitor->received() < sent) {
                    return false;
                }
            }
            return true;
        });
        if (!delivered) {
            state.SkipWithError("packets were not delivered");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
    state.SetItemsProcessed(static_cast<int64_t>(sent));
    state.counters["monitors"] = monitorCount;
    dm::deinit();
}
BENCHMARK(BM_PrintToMonitors)->Arg(1)->Arg(4)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_PrintWithoutMonitor(benchmark::State& state) {
    dm::init(0);
    int i = 0;
    for (auto _ : state) {
        dm::print(1, "%s %d", kSampleText, ++i);
    }
    state.SetItemsProcessed(state.iterations());
    dm::deinit();
}
BENCHMARK(BM_PrintWithoutMonitor);

// What print would spend on formatting alone, for comparison with the line above.
void BM_FormatOnly(benchmark::State& state) {
    char text[256];
    int i = 0;
    for (auto _ : state) {
        std::snprintf(text, sizeof(text), "%s %d", kSampleText, ++i);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(BM_FormatOnly);

void BM_ProfileScope(benchmark::State& state) {
    for (auto _ : state) {
        d::Profile::ThreadProfiler::Scope scope("benchmark scope");
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ProfileScope);

// A snapshot of one full ring (kScopesPerThread scopes) written into a packet.
void BM_ProfileSnapshot(benchmark::State& state) {
    d::Profile::ThreadProfiler::clear();
    for (uint32_t i = 0; i < d::Profile::ThreadProfiler::kScopesPerThread; ++i) {
        d::Profile::ThreadProfiler::Scope scope("benchmark scope");
    }
    net::Packet packet(3);
    for (auto _ : state) {
        packet.reset(3);
        packet << d::Profile::ThreadProfiler::instance();
        benchmark::DoNotOptimize(packet.getSize());
    }
    state.counters["bytes"] = packet.getSize();
}
BENCHMARK(BM_ProfileSnapshot)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
