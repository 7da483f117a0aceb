// What dm-monitor was asked to do on its command line.
#pragma once

#include <cstdint>
#include <string>

namespace dm_tools {

struct MonitorOptions {
    std::string host;
    uint32_t port = 0;
    long count = -1;             // packets to wait for; -1: no limit
    double timeoutSeconds = -1;  // -1: no limit
    int webPort = -1;            // -1: terminal mode; 0: web mode on a free port
    std::string bindAddress = "127.0.0.1";
};

// Exit codes of dm-monitor.
constexpr int kExitDone = 0;
constexpr int kExitNoConnection = 1;
constexpr int kExitUsage = 2;
constexpr int kExitTimedOut = 3;

}  // namespace dm_tools
