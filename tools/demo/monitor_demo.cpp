#include <cstdio>
#include <string>

#include "d/profile.h"
#include "demo_sections.h"
#include "demo_tools.h"
#include "dm/monitor.h"
#include "zu/thread.h"

namespace demo {
namespace {

// Starts dm-monitor on `port`, expecting `packets` packets; returns its pid or -1.
pid_t startMonitorTool(int port, int packets) {
    return startTool("dm-monitor", {"--count", std::to_string(packets), "--timeout", "10",
                                    "127.0.0.1", std::to_string(port)});
}

// One game frame's worth of monitor output.
void printFrame(int frame) {
    d::Profile::ThreadProfiler::Scope scope("demo frame");
    dm::print("frame %d: hello from the game\n", frame);
    dm::printInPlace(1, "frame", "%d", frame);
    dm::printInPlace(1, "frame time", "%.1f ms", 16.6 + frame * 0.1);
    dm::printInPlace(2, "streamed", "%d KiB", frame * 256);
}

}  // namespace

int runMonitorDemo() {
    std::printf("\n== 2. the debug-monitor link, watched by dm-monitor\n");
    std::fflush(stdout);  // the tool shares this output
    dm::init(0);
    constexpr int kFrames = 3;
    constexpr int kPacketsPerFrame = 4;
    pid_t monitor = startMonitorTool(dm::getMonitorPort(), kFrames * kPacketsPerFrame + 1);
    if (monitor < 0) {
        dm::deinit();
        return 1;
    }
    int frame = 0;
    bool finished = waitForTool(monitor, 10.0, [&] {
        dm::update();  // accepts the monitor once it connects
        if (dm::getMonitorConnectionCount() > 0 && frame < kFrames) {
            printFrame(++frame);
            if (frame == kFrames) {
                dm::createProfilePacket();
            }
        }
        zu::sleepMs(16);  // a frame
    });
    dm::deinit();
    return finished ? 0 : 1;
}

}  // namespace demo
