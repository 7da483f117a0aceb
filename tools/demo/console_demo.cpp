#include <stdlib.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "demo_sections.h"
#include "demo_tools.h"
#include "zu/thread.h"

namespace demo {
namespace {

// A short session: commands, a variable, an alias, a loop refused, a function word completed
// with Tab, a key binding run with the console closed, and a line left half typed.
const char kSession[] =
    "# dm-console keystroke script (see docs/console-script.md)\n"
    "help\n"
    "set speed 2.5\n"
    "set name \"player one\"\n"
    "alias fast set speed 10;get speed\n"
    "fast\n"
    "alias loop loop\n"
    "su{Tab}1 2 3.5\n"
    "echo 100% done: 0x1f and -3 are numbers, \"quoted\" is text\n"
    "bind k echo the k key ran while the console was closed\n"
    "{Console}k{Console}\n"
    "ge{Tab} spe{Tab}\\\n";

}  // namespace

int runConsoleDemo() {
    std::printf("\n== 5. the developer console, replayed by dm-console into an image\n");
    char folderTemplate[] = "/tmp/dm-demo-console-XXXXXX";
    if (mkdtemp(folderTemplate) == nullptr) {
        std::printf("could not make a folder for the console's files\n");
        return 1;
    }
    const std::string folder = folderTemplate;
    const std::string script = folder + "/session.txt";
    const std::string png = folder + "/console.png";
    std::ofstream(script) << kSession;
    std::fflush(stdout);  // the tool shares this output
    const pid_t tool =
        startTool("dm-console", {"--folder", folder, "--script", script, "--png", png});
    if (tool < 0) {
        return 1;  // startTool said where it looked
    }
    if (!waitForTool(tool, 30.0, [] { zu::sleepMs(10); })) {
        std::printf("dm-console did not finish its script\n");
        return 1;
    }
    std::printf("the console's last frame is in %s (open it in an image viewer);\n", png.c_str());
    std::printf("for the console in this terminal, run %sdm-console\n", programFolder().c_str());
    return 0;
}

}  // namespace demo
