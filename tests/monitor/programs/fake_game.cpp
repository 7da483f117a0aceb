// A stand-in game for the dm-monitor tests: opens the monitor link on a free port, prints the
// port, greets the first monitor with text, in-place values and a profile snapshot, and then
// answers requests and data until the monitor leaves or sends the data "quit".
//
// Its standard output reports what it saw ("game: ..."), for the test to check.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>

#include "d/profile.h"
#include "dm/monitor.h"
#include "zu/thread.h"

namespace {

constexpr auto kFrameTime = std::chrono::milliseconds(2);
constexpr auto kPatience = std::chrono::seconds(30);

class GameDataParser : public dm::DataParserCallback {
public:
    void parseData(const char* data) override {
        std::printf("game: data %s\n", data);
        dm::print("data received: %s", data);  // answering from inside update
        if (std::strcmp(data, "quit") == 0) {
            quitRequested = true;
        }
    }
    bool quitRequested = false;
};

void answerRequests() {
    for (int request = 0; request < 3; ++request) {
        if (dm::checkAndClearRequest(request)) {
            std::printf("game: request %d\n", request);
            dm::print("request %d handled", request);
        }
    }
}

// Runs frames until `done` holds; false when it did not within kPatience.
bool runFramesUntil(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        dm::update();
        answerRequests();
        zu::sleepMs(static_cast<uint32_t>(kFrameTime.count()));
    }
    return true;
}

void simulateFrame() {
    d::Profile::ThreadProfiler::Scope frame("frame");
    { d::Profile::ThreadProfiler::Scope physics("physics"); }
    d::Profile::ThreadProfiler::Scope render("render");
}

void greetMonitor() {
    dm::print("hello from the game\n");
    dm::print(3, "warning: %s", "low fuel");
    dm::printInPlace(1, "fps", "%d", 60);
    dm::printInPlace(2, "queued files", "%d", 3);
    dm::printInPlace("score", "%d", 42);
    dm::printInPlace(1, "fps", "%d", 59);
    simulateFrame();
    dm::createProfilePacket();
    dm::print("greeting done");
}

}  // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // the test reads the lines as they come
    zu::setThreadName(zu::getCurrentThreadId(), "Fake Game Main");
    dm::init(0);
    const int port = dm::getMonitorPort();
    if (port == 0) {
        std::printf("game: cannot listen\n");
        return 1;
    }
    std::printf("port %d\n", port);

    GameDataParser parser;
    dm::setDataParserCallback(&parser);
    if (!runFramesUntil([] { return dm::getMonitorConnectionCount() > 0; })) {
        std::printf("game: no monitor came\n");
        return 2;
    }
    std::printf("game: monitor connected\n");
    greetMonitor();

    const bool ended = runFramesUntil(
        [&] { return parser.quitRequested || dm::getMonitorConnectionCount() == 0; });
    std::printf(ended ? "game: done\n" : "game: monitor stayed too long\n");
    dm::setDataParserCallback(nullptr);
    dm::deinit();
    return ended ? 0 : 3;
}
