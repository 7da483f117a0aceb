// A game that connects to a file server on the port given and reads the file given in one
// request; it says "reading" just before. The test kills it in the middle of the transfer.
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "dm/comm.h"
#include "dm/fs.h"
#include "zu/memory.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    dm::CommunicationPipeManager* manager =
        dm::initCommunicationManagerAsClient("reading game", "127.0.0.1", std::atoi(argv[1]));
    manager->getPipe("fileserver");
    zu::newObject<dm::NetworkFileSystem>(zu::getLocalFileSystem());
    dm::NetworkFileSystem& fileSystem = dm::NetworkFileSystem::getInstance();
    zu::FileHandle* file = fileSystem.openFile(argv[2], zu::BaseFile::ModeRead);
    if (file == nullptr) {
        std::printf("cannot open %s\n", argv[2]);
        return 1;
    }
    std::vector<char> buffer(fileSystem.getFileSize(file));
    std::printf("reading\n");
    std::fflush(stdout);
    const uint64_t read = fileSystem.readFile(file, buffer.data(), buffer.size());
    std::printf("read %llu\n", static_cast<unsigned long long>(read));
    fileSystem.closeFile(file);
    dm::NetworkFileSystem::deleteInstance();
    dm::deinitCommunicationManagers();
    return 0;
}
