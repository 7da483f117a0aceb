#include "demo_tools.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>
#include <signal.h>

#include <climits>
#include <cstdio>

#include "zu/timer.h"

namespace demo {

std::string programFolder() {
    char path[PATH_MAX] = {};
    ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
    std::string self = length > 0 ? std::string(path, static_cast<size_t>(length)) : "./";
    return self.substr(0, self.rfind('/') + 1);
}

pid_t startTool(const char* name, const std::vector<std::string>& args) {
    std::string tool = programFolder() + name;
    std::vector<char*> argv = {tool.data()};
    std::vector<std::string> copies(args);
    for (std::string& arg : copies) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    pid_t pid = -1;
    int failed = posix_spawn(&pid, tool.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed) {
        std::printf("could not start %s (looked for it at %s)\n", name, tool.c_str());
        return -1;
    }
    return pid;
}

bool waitForTool(pid_t pid, double seconds, const std::function<void()>& poll) {
    int status = -1;
    zu::Timer timer;
    while (timer.getElapsedSeconds() < seconds && waitpid(pid, &status, WNOHANG) == 0) {
        poll();
    }
    bool finished = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!finished) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    return finished;
}

}  // namespace demo
