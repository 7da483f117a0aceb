// dm-monitor: watches a running game through its debug-monitor port, on a terminal or, with
// --web, in any number of browsers. The parts live in tools/monitor/, the page in tools/web/.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "monitor/options.h"
#include "monitor/terminal_mode.h"
#include "monitor/web_mode.h"

namespace {

const char kFooter[] = R"(
On a terminal, text is shown as "[channel] text", in-place values as a table by group (one
line per change when the output is not a terminal), and a summary of each profile snapshot.
Commands on standard input:
  data TEXT     hand TEXT to the game's data callback
  request N     raise the game's request flag N (0, 1 or 2)
  ping          send a keep-alive
  help          list these commands
  quit          disconnect and exit

With --web PORT it serves a page on http://ADDRESS:PORT/ instead (ADDRESS from --bind, the
loopback address by default; port 0 picks a free one and prints it). The page shows the text
by channel, the in-place values with plots, the profile as a flame chart, and sends data and
requests; it follows the game when it restarts. It runs until interrupted (or --timeout).

Exit status: 0 at end of input, quit, disconnect or --count; 1 when the game cannot be
reached (or the page cannot be served); 2 for bad usage; 3 when --timeout ends the run before
--count packets came.)";

// Numbers are checked before CLI11 converts them, so that a bad one gets a plain message.
CLI::Validator numberIn(double minimum, double maximum, const std::string& what) {
    return CLI::Validator(
        [=](std::string& text) -> std::string {
            char* end = nullptr;
            errno = 0;
            const double value = std::strtod(text.c_str(), &end);
            if (errno != 0 || end == text.c_str() || *end != 0 || value < minimum ||
                value > maximum) {
                return "\"" + text + "\" is not " + what;
            }
            return "";
        },
        CLI::detail::to_string(minimum) + " to " + CLI::detail::to_string(maximum));
}

}  // namespace

int main(int argc, char** argv) {
    dm_tools::MonitorOptions options;
    CLI::App app("dm-monitor: shows what a game sends to its debug-monitor port.", "dm-monitor");
    app.add_option("HOST", options.host, "the game's address")->required();
    app.add_option("PORT", options.port, "the game's debug-monitor port")
        ->required()
        ->check(numberIn(1, 65535, "a port number (1 to 65535)"));
    CLI::Option* count =
        app.add_option("--count", options.count,
                       "exit after N packets from the game; end of input then does not end the run")
            ->check(numberIn(0, 1e9, "a number of packets"));
    app.add_option("--timeout", options.timeoutSeconds, "exit after this many seconds")
        ->check(numberIn(0, 1e9, "a number of seconds"));
    app.add_option("--web", options.webPort, "serve the web page on this port")
        ->excludes(count)
        ->check(numberIn(0, 65535, "a port number (0 to 65535; 0 picks a free one)"));
    app.add_option("--bind", options.bindAddress, "the address the web page is served on")
        ->capture_default_str();
    app.footer(kFooter);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        std::fprintf(stderr, "dm-monitor: %s\nRun dm-monitor --help for the usage.\n",
                     error.what());
        return dm_tools::kExitUsage;
    }
    if (options.webPort >= 0) {
        return dm_tools::runWebMonitor(options);
    }
    return dm_tools::runTerminalMonitor(options);
}
