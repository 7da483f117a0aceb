#include "support/test_support.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <thread>

namespace dmtest {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "dmtest-XXXXXX").string();
    char* made = mkdtemp(pattern.data());
    m_path = made ? made : "";
}

TempDir::~TempDir() {
    std::error_code ignored;
    if (!m_path.empty()) {
        std::filesystem::remove_all(m_path, ignored);
    }
}

std::string TempDir::file(const std::string& name) const {
    return m_path + "/" + name;
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args,
                           bool withInput) {
    std::string path =
        program.rfind('/', 0) == 0 ? program : std::string(DM_TEST_PROGRAM_DIR) + "/" + program;
    int fds[2];
    if (pipe(fds) != 0) {
        return;
    }
    int inputFds[2] = {-1, -1};
    if (withInput) {
        // The test's end must not leak into other children, or closeInput would not end input.
        if (pipe(inputFds) != 0) {
            close(fds[0]);
            close(fds[1]);
            return;
        }
        fcntl(inputFds[1], F_SETFD, FD_CLOEXEC);
        signal(SIGPIPE, SIG_IGN);  // a child that has gone makes writeInput fail, not kill us
    }
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], STDOUT_FILENO);
        close(fds[0]);
        close(fds[1]);
        if (withInput) {
            dup2(inputFds[0], STDIN_FILENO);
            close(inputFds[0]);
        }
        std::vector<char*> argv;
        argv.push_back(path.data());
        std::vector<std::string> copies(args);
        for (std::string& arg : copies) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        execv(path.c_str(), argv.data());
        _exit(127);
    }
    close(fds[1]);
    if (withInput) {
        close(inputFds[0]);
        m_inputFd = inputFds[1];
    }
    m_pid = pid;
    m_outputFd = fds[0];
    fcntl(m_outputFd, F_SETFL, fcntl(m_outputFd, F_GETFL) | O_NONBLOCK);
}

ChildProcess::~ChildProcess() {
    closeInput();
    kill();
    if (m_outputFd >= 0) {
        close(m_outputFd);
    }
}

void ChildProcess::readAvailable(int timeoutMs) {
    if (m_outputFd < 0) {
        return;
    }
    pollfd entry{m_outputFd, POLLIN, 0};
    if (poll(&entry, 1, timeoutMs) <= 0) {
        return;
    }
    char buffer[4096];
    for (;;) {
        ssize_t got = read(m_outputFd, buffer, sizeof(buffer));
        if (got <= 0) {
            return;
        }
        m_output.append(buffer, static_cast<size_t>(got));
    }
}

bool ChildProcess::waitForOutput(const std::string& text, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (m_output.find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        readAvailable(10);
    }
    return true;
}

int ChildProcess::wait(std::chrono::milliseconds timeout) {
    if (m_pid <= 0) {
        return -1;
    }
    auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        int status = 0;
        pid_t done = waitpid(m_pid, &status, WNOHANG);
        readAvailable(0);
        if (done == m_pid) {
            m_pid = -1;
            readAvailable(0);
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            kill();
            return -1;
        }
        readAvailable(5);
    }
}

void ChildProcess::kill() {
    if (m_pid > 0) {
        ::kill(m_pid, SIGKILL);
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_pid = -1;
    }
}

bool ChildProcess::writeInput(const std::string& text) {
    size_t written = 0;
    while (m_inputFd >= 0 && written < text.size()) {
        ssize_t done = write(m_inputFd, text.data() + written, text.size() - written);
        if (done < 0 && errno != EINTR) {
            return false;
        }
        written += done > 0 ? static_cast<size_t>(done) : 0;
    }
    return m_inputFd >= 0;
}

void ChildProcess::closeInput() {
    if (m_inputFd >= 0) {
        close(m_inputFd);
        m_inputFd = -1;
    }
}

}  // namespace dmtest
