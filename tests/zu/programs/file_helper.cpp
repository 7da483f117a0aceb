// Second process for the file tests.
//   file_helper hold NAME [FIFO]  holds the named mutex NAME and prints "holding"; with FIFO it
//                                 lets go when the FIFO's writer closes it, prints "released"
//                                 and exits; without, it holds until killed.
//   file_helper exists NAME       prints "exists" or "absent".
//   file_helper write-path        prints "write path: <zu::File::getFileSysPathForWrite()>".
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "zu/file.h"
#include "zu/named_mutex.h"

namespace {

void say(const char* text) {
    std::printf("%s\n", text);
    std::fflush(stdout);
}

// Blocks until every writer of the FIFO has closed it.
void waitForEndOf(const char* fifo) {
    int fd = open(fifo, O_RDONLY);
    if (fd < 0) {
        return;
    }
    char buffer[64];
    while (read(fd, buffer, sizeof(buffer)) > 0) {
    }
    close(fd);
}

int hold(const char* name, const char* fifo) {
    {
        zu::NamedMutex mutex(name);
        if (!mutex.isHeld()) {
            say("failed");
            return 1;
        }
        say("holding");
        if (fifo == nullptr) {
            for (;;) {
                pause();
            }
        }
        waitForEndOf(fifo);
    }
    say("released");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 3 && std::strcmp(argv[1], "hold") == 0) {
        return hold(argv[2], argc >= 4 ? argv[3] : nullptr);
    }
    if (argc >= 3 && std::strcmp(argv[1], "exists") == 0) {
        say(zu::NamedMutex::doesMutexExist(argv[2]) ? "exists" : "absent");
        return 0;
    }
    if (argc >= 2 && std::strcmp(argv[1], "write-path") == 0) {
        std::printf("write path: %s\n", zu::File::getFileSysPathForWrite());
        return 0;
    }
    return 2;
}
