// Helpers shared by the tests: temporary folders, bounded waits, child processes.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace dmtest {

// A fresh folder under the system's temporary folder, removed with its contents at the end.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }
    // path() joined with `name`.
    std::string file(const std::string& name) const;

private:
    std::string m_path;
};

// The whole contents of a file ("" when missing), and a file made to hold exactly `bytes`.
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);

// How often `part` occurs in `text`, without overlaps.
size_t countOf(const std::string& text, const std::string& part);

// Joins every one of `threads`.
void joinAll(std::vector<std::thread>& threads);

// Polls `condition` until it holds or `timeout` passes; returns its last value.
bool waitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds timeout = std::chrono::seconds(10));

// A program started as a second process, with its standard output captured.
class ChildProcess {
public:
    // Starts DM_TEST_PROGRAM_DIR/<program> (or `program` itself when it is an absolute path)
    // with `args`. With `withInput` its standard input is a pipe fed by writeInput.
    ChildProcess(const std::string& program, const std::vector<std::string>& args,
                 bool withInput = false);
    ~ChildProcess();  // kills the process if it still runs
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool started() const { return m_pid > 0; }
    // Waits up to `timeout` for a line of output containing `text`; true if seen.
    bool waitForOutput(const std::string& text,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // The number that follows `marker` in the output once its line is whole; "" when it never
    // came.
    std::string portAfter(const std::string& marker);
    // All output read so far.
    const std::string& output() const { return m_output; }
    // Waits for the exit (up to `timeout`); the exit code, or -1 on time-out (then killed).
    int wait(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    void kill();

    // Writes `text` to the child's standard input (see withInput); false when it cannot.
    bool writeInput(const std::string& text);
    // Closes the child's standard input, so that it reads end-of-file.
    void closeInput();

private:
    void readAvailable(int timeoutMs);

    int m_pid = -1;
    int m_outputFd = -1;
    int m_inputFd = -1;
    std::string m_output;
};

}  // namespace dmtest
