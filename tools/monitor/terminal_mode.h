// dm-monitor on a terminal: text scrolls by with its channel, in-place values stay as a table
// under it (one line per change when the output is not a terminal), each profile snapshot is
// summarised, and lines typed on standard input send data and requests back to the game.
#pragma once

#include "monitor/options.h"

namespace dm_tools {

// Connects to the game and runs until input ends, "quit", the game leaves, --count or
// --timeout. Returns the exit code.
int runTerminalMonitor(const MonitorOptions& options);

}  // namespace dm_tools
