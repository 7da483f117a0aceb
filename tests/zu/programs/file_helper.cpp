// Second process for the file tests.
//   file_helper hold NAME         holds the named mutex NAME, prints "holding", waits to be killed.
//   file_helper exists NAME       prints "exists" or "absent".
//   file_helper write-path        prints "write path: <zu::File::getFileSysPathForWrite()>".
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

int hold(const char* name) {
    zu::NamedMutex mutex(name);
    if (!mutex.isHeld()) {
        say("failed");
        return 1;
    }
    say("holding");
    for (;;) {
        pause();
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 3 && std::strcmp(argv[1], "hold") == 0) {
        return hold(argv[2]);
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
