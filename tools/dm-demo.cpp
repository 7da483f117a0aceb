// dm-demo: shows dm at work, one service after another. Each section lives in tools/demo/.
//  1. The runtime: a server thread and a client thread exchange packets over loopback TCP.
//  2. The debug-monitor link: the demo plays a game that prints text, in-place values and a
//     profile snapshot, watched by the dm-monitor tool started as a second process.
//  3. Communication pipes: the demo serves the pipe "echo" from a server pipe manager, and the
//     dm-pipe-echo tool, started as a second process, asks on it through a client manager.
//  4. The remote file system: the game reads, writes and lists the PC's files through
//     NetworkFileSystem, served by the dm-fileserver tool in a second process.
//  5. The developer console: dm-console replays a typed session and draws it into a PNG.
#include <cstdio>

#include "CLI/CLI.hpp"
#include "demo/demo_sections.h"
#include "zu/thread.h"

int main(int argc, char** argv) {
    CLI::App app("Shows dm at work, one service after another; takes no arguments.", "dm-demo");
    CLI11_PARSE(app, argc, argv);
    zu::setThreadName(zu::getCurrentThreadId(), "dm-demo main");
    int (*const sections[])() = {
        demo::runPacketDemo,
        demo::runMonitorDemo,
        demo::runPipeDemo,
        demo::runFileServerDemo,
        demo::runConsoleDemo,
    };
    int failures = 0;
    for (auto section : sections) {
        failures += section() != 0 ? 1 : 0;
        std::fflush(stdout);  // the tools a section starts share this output
    }
    std::printf("\n%s\n", failures == 0 ? "demo finished" : "demo failed");
    return failures == 0 ? 0 : 1;
}
