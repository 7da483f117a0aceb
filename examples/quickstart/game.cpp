// dm-quickstart: the calls a game makes to use dm, at start-up, once per frame and at shut-down,
// for each service. The "game" here is a loop of 60 frames a second that
//   - serves the pipe "echo" (any `dm-pipe-echo client` can ask it) and answers requests,
//   - streams text to any monitor tool (`dm-monitor 127.0.0.1 PORT`) and takes its requests,
//   - keeps a developer console, with its history saved to "consolecache.bin".
// It runs until a pipe client has come and gone (or for SECONDS, 30 by default):
//
//   dm-quickstart [SECONDS]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "dm/dm.h"

namespace {

constexpr int kFramesPerSecond = 60;

// --- The engine's side: a drawing interface for the console ---

// A real engine draws with its renderer; this one only measures, as a monospaced font would.
class TextOnlyShapes : public dm::ShapeEngineInterface {
public:
    void begin() override {}
    void setTextSize(float size) override { m_size = size; }
    float getLineHeight() override { return m_size; }
    m::Vector2Template<float> getTextExtent(const char* text) override {
        return {0.5f * m_size * static_cast<float>(std::strlen(text)), m_size};
    }
    void setColor(const g::Color&) override {}
    void drawRectangle(const m::Vector2Template<float>&,
                       const m::Vector2Template<float>&) override {}
    void drawText(const m::Vector2Template<float>&, const char*) override {}

private:
    float m_size = 0.02f;
};

// Data that monitor tools send ("data TEXT" in dm-monitor) arrives here, inside dm::update().
class MonitorData : public dm::DataParserCallback {
public:
    void parseData(const char* data) override { dm::print("data from a monitor: %s\n", data); }
};

// Everything the game keeps of dm between frames.
struct Services {
    dm::CommunicationPipe* echoPipe = nullptr;
    TextOnlyShapes shapes;
    std::unique_ptr<dm::ScrollingTextWindow> console;
    MonitorData monitorData;
    bool pipeClientSeen = false;
};

// --- Start-up ---

bool startPipes(Services& services) {
    // A server manager: tools on the PC connect to it. Port 0 picks a free one.
    dm::CommunicationPipeManager* manager =
        dm::initCommunicationManagerAsServer("game", 0, /*id=*/1, /*createPipesOnRequest=*/true);
    uint32_t port = 0;
    manager->getHost(&port);
    if (port == 0) {
        std::fprintf(stderr, "dm-quickstart: cannot listen for pipes\n");
        return false;
    }
    services.echoPipe = manager->getPipe("echo");
    std::printf("pipes on port %u\n", port);
    return true;
}

void startMonitor(Services& services) {
    dm::init(0);
    dm::setDataParserCallback(&services.monitorData);
    std::printf("monitor on port %d\n", dm::getMonitorPort());
}

void startConsole(Services& services) {
    // Loads "consolecache.bin" from the writable folder (DM_WRITE_PATH, else the current one).
    services.console = std::make_unique<dm::ScrollingTextWindow>(&services.shapes, 0.05f);
    services.console->addKnownWord("status", false);
    services.console->print("console ready\n");
}

// Hook: the remote file system. Once dm's NetworkFileSystem is in (dm/fs.h), a game that runs
// against a file server installs it here as its file system, and restores its own in
// stopFileSystem.
void startFileSystem(Services&) {}

// Hook: the Server, Client and BroadcastServer endpoints (dm/jobs.h), once they are in, start
// here and stop in stopEndpoints; the pipes above are what they are built on.
void startEndpoints(Services&) {}

// --- Per frame ---

void answerPipeRequests(Services& services) {
    dm::CommunicationPipe& pipe = *services.echoPipe;
    services.pipeClientSeen = services.pipeClientSeen || pipe.isConnected();
    // Requests and notifications are taken without blocking; respond blocks only until the
    // answer is on the socket. A game with slow answers would hand them to a JobManager.
    for (zu::InplaceString<128> text; !(text = pipe.receiveRequest(nullptr)).empty();) {
        void* data = nullptr;
        uint32_t size = 0;
        pipe.getRequestData(&data, &size);
        pipe.respond(text.c_str(), data, size);
        dm::print("answered \"%s\" (%u bytes)\n", text.c_str(), size);
        services.console->print("pipe request \"%s\"\n", text.c_str());
    }
    for (zu::InplaceString<128> text; !(text = pipe.receiveNotify(nullptr)).empty();) {
        zu::InplaceString<128> echoed("echo: ");
        echoed += text;
        pipe.sendNotify(echoed.c_str(), 0);
    }
}

void serveMonitors() {
    dm::update();  // accepts monitors, takes their packets, drops those that left
    for (int request = 0; request < 3; ++request) {
        if (dm::checkAndClearRequest(request)) {
            dm::print("request %d handled\n", request);
        }
    }
    dm::printInPlace(1, "frame time", "%.1f ms", 1000.0 / kFramesPerSecond);
}

void executeCommand(Services& services, const dm::ConsoleWordList& words) {
    if (!words.empty() && words[0].equalsIgnoreCase("status")) {
        services.console->print("pipe client %s, %d monitor(s)\n",
                                services.echoPipe->isConnected() ? "connected" : "absent",
                                dm::getMonitorConnectionCount());
    }
}

// The engine calls this for every key the player presses while the console is open. Keys are
// Windows virtual-key codes; Enter runs the command line.
void onConsoleKey(Services& services, int key, char character) {
    constexpr int kReturn = 0x0D;
    if (key != kReturn) {
        services.console->appendInput(key, character, false, false, false);
        return;
    }
    dm::ConsoleWordList words;
    services.console->parseCommandLine(words, /*addToStack=*/true);
    executeCommand(services, words);
}

void typeCommand(Services& services, const char* command) {
    for (const char* c = command; *c; ++c) {
        onConsoleKey(services, static_cast<unsigned char>(*c), *c);
    }
    onConsoleKey(services, 0x0D, '\r');
}

void runFrame(Services& services, int frame) {
    serveMonitors();
    answerPipeRequests(services);
    if (frame == 1) {
        typeCommand(services, "status");  // as if the player typed it
    }
    if (frame % kFramesPerSecond == 0) {
        services.console->save();  // writes only when something changed
    }
}

// --- Shut-down ---

void stopEndpoints(Services&) {}
void stopFileSystem(Services&) {}

void stopConsole(Services& services) {
    services.console->save();
    services.console.reset();
}

void stopMonitor() {
    dm::setDataParserCallback(nullptr);
    dm::deinit();
}

void stopPipes(Services& services) {
    // Stops and joins every manager's thread and destroys the pipes.
    dm::deinitCommunicationManagers();
    services.echoPipe = nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 30;
    Services services;
    if (!startPipes(services)) {
        return 1;
    }
    startMonitor(services);
    startConsole(services);
    startFileSystem(services);
    startEndpoints(services);
    std::fflush(stdout);

    const int frames = seconds * kFramesPerSecond;
    bool clientLeft = false;
    for (int frame = 1; frame <= frames && !clientLeft; ++frame) {
        runFrame(services, frame);
        clientLeft = services.pipeClientSeen && !services.echoPipe->isConnected();
        std::this_thread::sleep_for(std::chrono::milliseconds(1000 / kFramesPerSecond));
    }

    stopEndpoints(services);
    stopFileSystem(services);
    stopConsole(services);
    stopMonitor();
    stopPipes(services);
    std::printf("%s\n", clientLeft ? "pipe client served, shut down" : "time is up, shut down");
    return clientLeft ? 0 : 1;
}
