#include "support/test_support.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
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

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

void joinAll(std::vector<std::thread>& threads) {
    for (std::thread& thread : threads) {
        thread.join();
    }
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
    int output[2];
    int input[2] = {-1, -1};
    if (pipe(output) != 0 || (withInput && pipe(input) != 0)) {
        return;  // a test that needs a child fails on started()
    }
    if (withInput) {
        // The test's end must not leak into other children, or closeInput would not end input.
        fcntl(input[1], F_SETFD, FD_CLOEXEC);
        signal(SIGPIPE, SIG_IGN);  // a child that has gone makes writeInput fail, not kill us
    }
    pid_t pid = fork();
    if (pid == 0) {
        dup2(output[1], STDOUT_FILENO);
        if (withInput) {
            dup2(input[0], STDIN_FILENO);
        }
        std::vector<std::string> copies(args);
        std::vector<char*> argv{path.data()};
        for (std::string& arg : copies) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        execv(path.c_str(), argv.data());
        _exit(127);
    }
    close(output[1]);
    if (withInput) {
        close(input[0]);
        m_inputFd = input[1];
    }
    m_pid = pid;
    m_outputFd = output[0];
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
    pollfd entry{m_outputFd, POLLIN, 0};
    if (m_outputFd < 0 || poll(&entry, 1, timeoutMs) <= 0) {
        return;
    }
    char buffer[4096];
    for (ssize_t got; (got = read(m_outputFd, buffer, sizeof(buffer))) > 0;) {
        m_output.append(buffer, static_cast<size_t>(got));
    }
}

bool ChildProcess::waitForOutput(const std::string& text, std::chrono::milliseconds timeout) {
    return waitUntil(
        [&] {
            readAvailable(10);
            return m_output.find(text) != std::string::npos;
        },
        timeout);
}

size_t countOf(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos;
         at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

std::string ChildProcess::portAfter(const std::string& marker) {
    size_t at = std::string::npos;
    waitUntil([&] {
        readAvailable(10);
        at = m_output.find(marker);
        return at != std::string::npos && m_output.find('\n', at) != std::string::npos;
    });
    if (at == std::string::npos) {
        return "";
    }
    const size_t start = at + marker.size();
    return m_output.substr(start, m_output.find_first_not_of("0123456789", start) - start);
}

int ChildProcess::wait(std::chrono::milliseconds timeout) {
    int status = 0;
    bool exited = m_pid > 0 && waitUntil(
                                   [&] {
                                       readAvailable(5);
                                       return waitpid(m_pid, &status, WNOHANG) == m_pid;
                                   },
                                   timeout);
    if (!exited) {
        kill();
        return -1;
    }
    m_pid = -1;
    readAvailable(0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
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
