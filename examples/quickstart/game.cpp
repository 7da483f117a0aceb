// dm-quickstart: the calls a game makes to use dm, at start-up, once per frame and at shut-down,
// for each service. The "game" here is a loop of 60 frames a second that
//   - serves the pipe "echo" (any `dm-pipe-echo client` can ask it) and answers requests,
//   - streams text to any monitor tool (`dm-monitor 127.0.0.1 PORT`) and takes its requests,
//   - keeps a developer console, with its history saved to "consolecache.bin", whose commands
//     reach the game through an IOInterface.
// The remote file system has a game of its own, remote_files.cpp.
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

struct Services;

// The console hands each command here, on the thread that delivers its keystrokes, aliases
// already replaced and always ending with ";".
class GameCommands : public dm::IOInterface {
public:
    explicit GameCommands(Services& services) : m_services(services) {}
    void executeCommand(const zu::InplaceString<128>& command) override;

private:
    Services& m_services;
};

// Everything the game keeps of dm between frames.
struct Services {
    dm::CommunicationPipe* echoPipe = nullptr;
    TextOnlyShapes shapes;
    std::unique_ptr<dm::Console> console;
    GameCommands commands{*this};
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
    services.console = std::make_unique<dm::Console>(&services.shapes, 0.05f);
    services.console->setIOInterface(&services.commands);
    services.console->getScrollingTextWindow()->addKnownWord("status", false);
    services.console->bind('s', "status");  // while the console is closed, 's' runs "status"
    services.console->print("console ready\n");
}

// The remote file system (dm/fs.h) needs a client manager to dm-fileserver on the PC as the
// process's only pipe manager, so it has a game of its own: remote_files.cpp. This game serves
// pipes itself instead, and keeps its local file system.
void startFileSystem(Services&) {}

// The endpoints (dm/endpoints.h) wrap what startPipes does: dm::Server for a game that tools
// connect to, dm::Client for a tool that connects, dm::BroadcastServer for a hub several tools
// talk through. A game that uses them makes them here and destroys them in stopEndpoints.
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

}  // namespace

void GameCommands::executeCommand(const zu::InplaceString<128>& command) {
    if (command.equalsIgnoreCase("status;")) {
        m_services.console->print("pipe client %s, %d monitor(s)\n",
                                  m_services.echoPipe->isConnected() ? "connected" : "absent",
                                  dm::getMonitorConnectionCount());
    } else {
        m_services.console->print("unknown command: %s\n", command.c_str());
    }
}

namespace {

// The engine delivers every key the player presses: Windows virtual-key codes, and the
// modifiers alt, control, shift. Key 220 opens and closes the console, Enter runs its line.
void typeCommand(Services& services, const char* command) {
    dm::Console& console = *services.console;
    console.deliverKeystroke(dm::Console::kToggleKey, 0, false, false, false);  // open it
    for (const char* c = command; *c; ++c) {
        console.deliverKeystroke(static_cast<unsigned char>(*c), *c, false, false, false);
    }
    console.deliverKeystroke(dm::Console::kEnterKey, '\r', false, false, false);
    console.deliverKeystroke(dm::Console::kToggleKey, 0, false, false, false);  // close it
}

void runFrame(Services& services, int frame) {
    serveMonitors();
    answerPipeRequests(services);
    if (frame == 1) {
        typeCommand(services, "status");  // as if the player typed it
    }
    services.console->update();  // saves the history at most once a second, when it changed
    services.console->render();  // draws through the ShapeEngineInterface while it is open
}

// --- Shut-down ---

void stopEndpoints(Services&) {}
void stopFileSystem(Services&) {}

void stopConsole(Services& services) {
    services.console->getScrollingTextWindow()->save();
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
