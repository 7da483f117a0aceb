// A dm-fileserver (or another file server program) in a second process, and this process as
// the game: a client pipe manager connected to it and a NetworkFileSystem in front of the
// local file system.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "dm/comm.h"
#include "dm/fs.h"
#include "support/test_support.h"
#include "zu/memory.h"

namespace fstest {

// Starts `program` with `args` and waits for its "on port N" line; 0 when it never came.
inline int startServer(std::unique_ptr<dmtest::ChildProcess>& server, const std::string& program,
                       const std::vector<std::string>& args) {
    server = std::make_unique<dmtest::ChildProcess>(program, args);
    return std::atoi(server->portAfter("on port ").c_str());
}

// The game side: the only pipe manager of this process, and the file system.
class GameSide {
public:
    explicit GameSide(int port) {
        dm::CommunicationPipeManager* manager =
            dm::initCommunicationManagerAsClient("game", "127.0.0.1", port);
        pipe = manager->getPipe("fileserver");
        fileSystem = zu::newObject<dm::NetworkFileSystem>(zu::getLocalFileSystem());
        connected = dmtest::waitUntil([this] { return pipe->isConnected(); });
    }
    ~GameSide() {
        dm::NetworkFileSystem::deleteInstance();
        dm::deinitCommunicationManagers();
    }
    GameSide(const GameSide&) = delete;
    GameSide& operator=(const GameSide&) = delete;

    dm::CommunicationPipe* pipe = nullptr;
    dm::NetworkFileSystem* fileSystem = nullptr;
    bool connected = false;
};

// The names a find over `pattern` gives, in the order it gives them.
inline std::vector<std::string> findAll(dm::NetworkFileSystem& fs, const char* pattern) {
    std::vector<std::string> names;
    for (zu::FindFileHandle* find = fs.findFirstFile(pattern); find != nullptr;
         find = fs.findNextFile(find)) {
        names.push_back(fs.findGetFileName(find));
    }
    return names;
}

// The paths of a file list, sorted.
inline std::vector<std::string> sortedPaths(const zu::FilePathList& list) {
    std::vector<std::string> paths;
    for (const zu::String& path : list) {
        paths.push_back(path.c_str());
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

}  // namespace fstest
