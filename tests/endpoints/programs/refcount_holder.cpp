// Holds the named mutex argv[1] from "holding" until its standard input ends: a process that a
// hub's waitOnProccesses waits for.
#include <unistd.h>

#include <cstdio>

#include "zu/named_mutex.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: refcount_holder NAME\n");
        return 2;
    }
    zu::NamedMutex mutex(argv[1]);
    std::printf("%s\n", mutex.isHeld() ? "holding" : "not held");
    std::fflush(stdout);
    char buffer[64];
    while (read(STDIN_FILENO, buffer, sizeof buffer) > 0) {
    }
    return mutex.isHeld() ? 0 : 1;
}
