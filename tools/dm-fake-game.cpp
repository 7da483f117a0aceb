// dm-fake-game: a stand-in game to watch with dm-monitor. It opens the debug-monitor link and
// plays frames until interrupted, serving any number of monitors at once:
//   - text on channels 0 to 3 (a few lines a second),
//   - in-place values in all four groups (fps, frame time, streaming and resource figures),
//   - a profile snapshot every second, of the main thread and of a streaming worker thread
//     that works alongside each frame,
//   - answers to requests 0 ("screenshot"), 1 ("reload") and 2 ("pause") and to data texts.
// Its standard output says what it sends and how it answers, one line each ("game: ...").
#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include "d/profile.h"
#include "dm/monitor.h"
#include "zu/thread.h"

namespace {

std::atomic<bool> g_stop{false};

void onStopSignal(int) {
    g_stop = true;
}

const char* const kRequestNames[3] = {"screenshot", "reload", "pause"};

class GameDataParser : public dm::DataParserCallback {
public:
    void parseData(const char* data) override {
        std::printf("game: data \"%s\" -> answered \"data received: %s\"\n", data, data);
        dm::print("data received: %s", data);  // answering from inside update
    }
};

// Work on a second thread, started with each frame, so that the profile shows two threads
// working side by side.
class StreamingWorker {
public:
    StreamingWorker() : m_thread([this] { run(); }) {}
    ~StreamingWorker() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_wake.notify_one();
        m_thread.join();
    }
    StreamingWorker(const StreamingWorker&) = delete;
    StreamingWorker& operator=(const StreamingWorker&) = delete;

    void frameStarted() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            ++m_frames;
        }
        m_wake.notify_one();
    }

private:
    void run() {
        zu::setThreadName(zu::getCurrentThreadId(), "Streaming Worker");
        uint64_t done = 0;
        for (;;) {
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_wake.wait(lock, [&] { return m_stop || m_frames != done; });
                if (m_stop) {
                    return;
                }
                done = m_frames;
            }
            d::Profile::ThreadProfiler::Scope batch("stream batch");
            {
                d::Profile::ThreadProfiler::Scope read("read file");
                std::this_thread::sleep_for(std::chrono::microseconds(700));
            }
            d::Profile::ThreadProfiler::Scope decompress("decompress");
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_wake;
    uint64_t m_frames = 0;
    bool m_stop = false;
    std::thread m_thread;
};

void busy(std::chrono::microseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end) {
    }
}

class FakeGame {
public:
    explicit FakeGame(int fps) : m_frameTime(std::chrono::microseconds(1000000 / fps)) {}
    FakeGame(const FakeGame&) = delete;
    FakeGame& operator=(const FakeGame&) = delete;

    void run() {
        while (!g_stop) {
            const auto start = std::chrono::steady_clock::now();
            frame();
            const auto used = std::chrono::steady_clock::now() - start;
            m_frameMs = std::chrono::duration<double, std::milli>(used).count();
            std::this_thread::sleep_for(m_frameTime - used);
            ++m_frame;
        }
    }

private:
    void frame() {
        d::Profile::ThreadProfiler::Scope frame("frame");
        m_worker.frameStarted();
        {
            d::Profile::ThreadProfiler::Scope update("update");
            dm::update();
            noticeMonitors();
            answerRequests();
            {
                d::Profile::ThreadProfiler::Scope physics("physics");
                busy(std::chrono::microseconds(400 + 300 * (m_frame % 3)));
            }
            d::Profile::ThreadProfiler::Scope ai("ai");
            busy(std::chrono::microseconds(300));
        }
        d::Profile::ThreadProfiler::Scope render("render");
        {
            d::Profile::ThreadProfiler::Scope culling("culling");
            busy(std::chrono::microseconds(200));
        }
        d::Profile::ThreadProfiler::Scope draw("draw");
        busy(std::chrono::microseconds(600));
        sendText();
        sendInPlace();
        sendProfile();
    }

    void noticeMonitors() {
        const int count = dm::getMonitorConnectionCount();
        if (count != m_monitors) {
            std::printf("game: %d monitor%s connected\n", count, count == 1 ? "" : "s");
            m_monitors = count;
        }
    }

    void answerRequests() {
        for (int request = 0; request < 3; ++request) {
            if (dm::checkAndClearRequest(request)) {
                std::printf("game: request %d (%s) -> answered \"request %d handled\"\n", request,
                            kRequestNames[request], request);
                dm::print("request %d handled (%s)", request, kRequestNames[request]);
            }
        }
    }

    void sendText() {
        if (m_frame % 10 != 0) {
            return;
        }
        const int channel = static_cast<int>((m_frame / 10) % 4);
        static const char* const kLines[4] = {"frame %llu done", "physics: %llu bodies awake",
                                              "streaming: loaded level chunk %llu",
                                              "warning: frame %llu took long"};
        char text[128];
        std::snprintf(text, sizeof(text), kLines[channel],
                      static_cast<unsigned long long>(m_frame));
        dm::print(channel, "%s", text);
        std::printf("game: sends text [%d] %s\n", channel, text);
    }

    void sendInPlace() {
        if (m_frame % 5 != 0) {
            return;
        }
        const double wave = std::sin(static_cast<double>(m_frame) / 20.0);
        dm::printInPlace(1, "fps", "%.1f", 1000.0 / std::max(m_frameMs, 1000.0 / 60.0) + wave);
        dm::printInPlace(1, "frame time", "%.2f ms", m_frameMs);
        dm::printInPlace(2, "queued files", "%d", static_cast<int>(8 + 6 * wave));
        dm::printInPlace(2, "bytes streamed", "%llu",
                         static_cast<unsigned long long>(m_frame) * 4096);
        dm::printInPlace(3, "textures", "%d", 512 + static_cast<int>(m_frame % 64));
        dm::printInPlace(3, "memory", "%.1f MiB", 300.0 + 20.0 * wave);
        dm::printInPlace("score", "%llu", static_cast<unsigned long long>(m_frame / 3));
        dm::printInPlace("level", "%s", "harbour");
        if (m_frame % 30 == 0) {
            std::printf(
                "game: sends in-place values (fps, frame time, queued files, bytes "
                "streamed, textures, memory, score, level)\n");
        }
    }

    void sendProfile() {
        if (m_frame % 30 != 15) {
            return;
        }
        dm::createProfilePacket();
        std::printf("game: sends a profile snapshot\n");
    }

    const std::chrono::microseconds m_frameTime;
    StreamingWorker m_worker;
    unsigned long long m_frame = 0;
    double m_frameMs = 0;
    int m_monitors = 0;
};

}  // namespace

int main(int argc, char** argv) {
    int port = 0;
    int fps = 30;
    CLI::App app(
        "dm-fake-game: a stand-in game that sends text, in-place values and profile "
        "snapshots to every connected monitor, and answers their requests and data. "
        "It runs until interrupted.",
        "dm-fake-game");
    app.add_option("--port", port, "the debug-monitor port (0 picks a free one)")
        ->capture_default_str()
        ->check(CLI::Range(0, 65535));
    app.add_option("--fps", fps, "frames per second")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000));
    CLI11_PARSE(app, argc, argv);

    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // lines as they come, also into a pipe
    std::signal(SIGINT, onStopSignal);
    std::signal(SIGTERM, onStopSignal);
    zu::setThreadName(zu::getCurrentThreadId(), "Game Main");
    dm::init(port);
    if (dm::getMonitorPort() == 0) {
        std::fprintf(stderr, "dm-fake-game: cannot listen on port %d\n", port);
        return 1;
    }
    std::printf("port %d\n", dm::getMonitorPort());
    GameDataParser parser;
    dm::setDataParserCallback(&parser);
    FakeGame(fps).run();
    dm::setDataParserCallback(nullptr);
    dm::deinit();
    std::printf("game: stopped\n");
    return 0;
}
