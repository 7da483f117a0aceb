// dm-quickstart-files: the remote file system in a game, at start-up, once per frame and at
// shut-down. Paths under the folders that the file server on the PC maps are read from the PC;
// every other path stays on the game's own file system:
//
//   dm-fileserver --port 3127 --map data/=./assets &
//   dm-quickstart-files 127.0.0.1 3127 data/level1.txt
//
// A NetworkFileSystem finds its pipe "fileserver" on the process's only pipe manager, so this
// game makes no other one (the pipes that game.cpp serves would be a second manager). It reads
// the file once the file server is there, then stops; after 10 seconds without one it gives up.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "dm/dm.h"

namespace {

constexpr int kFramesPerSecond = 60;
constexpr int kPatienceFrames = 10 * kFramesPerSecond;

// --- Start-up ---

dm::NetworkFileSystem* startFileSystem(const char* host, int port) {
    // The client manager reaches the file server; its pipe "fileserver" exists before the file
    // system is made, so that every connection makes it fetch the mapped folders again.
    dm::CommunicationPipeManager* manager =
        dm::initCommunicationManagerAsClient("game files", host, port);
    manager->getPipe("fileserver");
    auto* files = zu::newObject<dm::NetworkFileSystem>(zu::getFileSystem());
    zu::setFileSystem(files);  // zu::File and every zu::getFileSystem() caller go through it
    return files;
}

// --- Per frame ---

// File calls as usual, through zu::getFileSystem(). A remote call blocks until the server
// answers, so a game waits for the file server before it asks (isPipeAcquired).
bool loadFile(const char* path) {
    zu::FileSystem& files = zu::getFileSystem();
    zu::FileHandle* file = files.openFile(path, zu::BaseFile::ModeRead);
    if (file == nullptr) {
        std::printf("%s: not found (is its folder mapped?)\n", path);
        return false;
    }
    std::string text(files.getFileSize(file), '\0');
    text.resize(files.readFile(file, text.data(), text.size()));
    files.closeFile(file);
    std::printf("read %s from %s: %zu bytes\n", path,
                dm::NetworkFileSystem::getInstance().isRemotePath(path) ? "the PC" : "this machine",
                text.size());
    return true;
}

// --- Shut-down ---

void stopFileSystem() {
    zu::setFileSystem(nullptr);  // the game's own file system again
    dm::NetworkFileSystem::deleteInstance();
    dm::deinitCommunicationManagers();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: dm-quickstart-files HOST PORT PATH\n");
        return 2;
    }
    dm::NetworkFileSystem* files = startFileSystem(argv[1], std::atoi(argv[2]));
    bool loaded = false;
    for (int frame = 0; frame < kPatienceFrames; ++frame) {
        if (files->isPipeAcquired()) {
            loaded = loadFile(argv[3]);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1000 / kFramesPerSecond));
    }
    if (!files->isPipeAcquired()) {
        std::printf("no file server on %s:%s\n", argv[1], argv[2]);
    }
    stopFileSystem();
    return loaded ? 0 : 1;
}
