// dm-monitor --web: serves a page that shows the game live to any number of browsers.
#pragma once

#include "monitor/options.h"

namespace dm_tools {

// Runs until SIGINT or SIGTERM (or --timeout). The game need not be running yet: the page
// shows the tool waiting for it and connecting again whenever it restarts. Returns the exit
// code.
int runWebMonitor(const MonitorOptions& options);

}  // namespace dm_tools
