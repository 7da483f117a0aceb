#include "monitor/web_mode.h"

#include <csignal>
#include <cstdio>
#include <ctime>

#include "monitor/event_hub.h"
#include "monitor/game_link.h"
#include "monitor/web_server.h"

namespace dm_tools {

namespace {

// Blocks the stop signals in this thread and in every thread started after it, so that only
// waitForStopSignal takes them.
sigset_t blockStopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

void waitForStopSignal(const sigset_t& signals, double timeoutSeconds) {
    if (timeoutSeconds < 0) {
        int signal = 0;
        sigwait(&signals, &signal);
        return;
    }
    timespec timeout{};
    timeout.tv_sec = static_cast<time_t>(timeoutSeconds);
    timeout.tv_nsec =
        static_cast<long>((timeoutSeconds - static_cast<double>(timeout.tv_sec)) * 1e9);
    sigtimedwait(&signals, nullptr, &timeout);
}

}  // namespace

int runWebMonitor(const MonitorOptions& options) {
    const sigset_t signals = blockStopSignals();
    EventHub hub(options.host, options.port);
    GameLink link(options.host, options.port, hub);
    WebServer server(hub, link);
    const int port = server.start(options.bindAddress, options.webPort);
    if (port < 0) {
        std::fprintf(stderr, "dm-monitor: cannot serve on %s:%d\n", options.bindAddress.c_str(),
                     options.webPort);
        return kExitNoConnection;
    }
    link.start();
    std::printf("dm-monitor: open http://%s:%d/ to watch the game at %s:%u\n",
                options.bindAddress.c_str(), port, options.host.c_str(), options.port);
    std::fflush(stdout);
    waitForStopSignal(signals, options.timeoutSeconds);
    server.stop();
    link.stop();
    std::fprintf(stderr, "dm-monitor: stopped\n");
    return kExitDone;
}

}  // namespace dm_tools
