// Helpers the demo sections share: starting the other host tools as second processes.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace demo {

// Wait bound for one step of a section's loop, in milliseconds.
constexpr uint32_t kWaitMs = 100;

// The folder this program lives in, where the other tools are built too.
std::string programFolder();

// Starts the tool `name` from this program's folder with `args` and standard input from
// /dev/null; returns its pid, or -1 after saying where it looked.
pid_t startTool(const char* name, const std::vector<std::string>& args);

// Waits up to `seconds` for `pid` to end while `poll` runs; true when it ended with status 0.
// A tool that overstays is killed.
bool waitForTool(pid_t pid, double seconds, const std::function<void()>& poll);

}  // namespace demo
