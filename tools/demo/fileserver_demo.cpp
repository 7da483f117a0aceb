#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "demo_sections.h"
#include "demo_tools.h"
#include "dm/comm.h"
#include "dm/fs.h"
#include "net/listener.h"
#include "zu/memory.h"
#include "zu/timer.h"

namespace demo {
namespace {

constexpr double kConnectSeconds = 10.0;

// A port nobody listens on right now, for the file server to take.
uint32_t pickFreePort() {
    net::Listener probe(0, "127.0.0.1");
    return probe.getPort();
}

std::string makeHostFolder() {
    char folder[] = "/tmp/dm-demo-fileserver-XXXXXX";
    if (mkdtemp(folder) == nullptr) {
        return std::string();
    }
    const std::string assets = std::string(folder) + "/assets";
    mkdir(assets.c_str(), 0755);
    if (FILE* file = std::fopen((assets + "/level1.txt").c_str(), "w")) {
        std::fputs("level 1: a corridor, three doors\n", file);
        std::fclose(file);
    }
    mkdir((assets + "/textures").c_str(), 0755);
    return folder;
}

void removeHostFolder(const std::string& host) {
    if (host.empty()) {
        return;
    }
    const std::string removeHost = "rm -rf '" + host + "'";
    if (std::system(removeHost.c_str()) != 0) {
        std::printf("could not remove %s\n", host.c_str());
    }
}

// What the game does with the host's files, through the file system it was given.
bool playGame(zu::FileSystem& fs) {
    zu::FileHandle* level = fs.openFile("data/level1.txt", zu::BaseFile::ModeRead);
    if (level == nullptr) {
        std::printf("game: data/level1.txt is missing\n");
        return false;
    }
    std::string text(fs.getFileSize(level), '\0');
    text.resize(fs.readFile(level, text.data(), text.size()));
    fs.closeFile(level);
    std::printf("game: read data/level1.txt from the PC: %s", text.c_str());

    const std::string save = "player at door 2\n";
    zu::FileHandle* saved = fs.openFile("data/save.txt", zu::BaseFile::ModeWrite);
    const bool wrote =
        saved != nullptr && fs.writeFile(saved, save.data(), save.size()) == save.size();
    if (saved != nullptr) {
        fs.closeFile(saved);
    }
    std::printf("game: wrote data/save.txt back to the PC: %s\n", wrote ? "done" : "FAILED");

    std::printf("game: the PC's folder data/ holds:\n");
    for (zu::FindFileHandle* find = fs.findFirstFile("data/*"); find != nullptr;
         find = fs.findNextFile(find)) {
        std::printf("  %-12s %s\n", fs.findGetFileName(find),
                    fs.findIsDirectory(find) ? "<folder>" : "file");
    }
    return wrote;
}

}  // namespace

int runFileServerDemo() {
    std::printf("\n== 4. the PC's files read and written by the game through dm-fileserver\n");
    std::fflush(stdout);  // the tool shares this output
    const std::string host = makeHostFolder();
    const uint32_t port = pickFreePort();
    pid_t server = host.empty()
                       ? -1
                       : startTool("dm-fileserver", {"--port", std::to_string(port), "--map",
                                                     "data/=" + host + "/assets", "--verbose"});
    if (server < 0) {
        removeHostFolder(host);
        return 1;
    }
    dm::CommunicationPipeManager* manager =
        dm::initCommunicationManagerAsClient("dm-demo game", "127.0.0.1", static_cast<int>(port));
    dm::CommunicationPipe* pipe = manager->getPipe("fileserver");
    zu::Timer timer;
    while (!pipe->isConnected() && timer.getElapsedSeconds() < kConnectSeconds) {
        usleep(kWaitMs * 1000);
    }
    bool played = false;
    if (pipe->isConnected()) {
        auto* fileSystem = zu::newObject<dm::NetworkFileSystem>(zu::getLocalFileSystem());
        played = playGame(*fileSystem);
        dm::NetworkFileSystem::deleteInstance();
    } else {
        std::printf("game: dm-fileserver did not answer on port %u\n", port);
    }
    dm::deinitCommunicationManager("dm-demo game");
    kill(server, SIGTERM);
    waitForTool(server, 5.0, [] {});
    removeHostFolder(host);
    return played ? 0 : 1;
}

}  // namespace demo
