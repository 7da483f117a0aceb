// Helpers for the job tests: a job that runs a function, a capture of the library's log lines,
// and a bounded wait for a batch whose jobs block on pipes.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "dm/jobs.h"
#include "dm/log.h"
#include "support/pipe_responders.h"
#include "support/test_support.h"

namespace dmtest {

// Runs `body` with the manager's name; counts its own destruction in `destroyed` if given.
class FunctionJob : public dm::Job {
public:
    explicit FunctionJob(std::function<void(const char*)> body,
                         std::atomic<int>* destroyed = nullptr)
        : m_body(std::move(body)), m_destroyed(destroyed) {}
    ~FunctionJob() override {
        if (m_destroyed) {
            ++*m_destroyed;
        }
    }
    void run(const char* managerName) override { m_body(managerName); }

private:
    std::function<void(const char*)> m_body;
    std::atomic<int>* m_destroyed;
};

// Collects the library's log lines while it lives.
class LogCapture {
public:
    LogCapture() { dm::setLogSink(&LogCapture::receive, this); }
    ~LogCapture() { dm::setLogSink(nullptr, nullptr); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> lines() const {
        std::lock_guard<std::mutex> guard(m_lock);
        return m_lines;
    }
    int count(const std::string& line) const {
        std::lock_guard<std::mutex> guard(m_lock);
        return static_cast<int>(std::count(m_lines.begin(), m_lines.end(), line));
    }
    // Waits (bounded) until `line` has been logged at least `times` times.
    bool waitFor(const std::string& line, int times = 1) const {
        return waitUntil([&] { return count(line) >= times; });
    }

private:
    static void receive(void* context, const char* line) {
        LogCapture* self = static_cast<LogCapture*>(context);
        std::lock_guard<std::mutex> guard(self->m_lock);
        self->m_lines.emplace_back(line);
    }

    mutable std::mutex m_lock;
    std::vector<std::string> m_lines;
};

// Marks the end of a batch: queue it last, run the batch, then wait for it. Jobs that wait on
// pipes wait without a time-out; if the batch has not ended in time, its thread can never be
// joined, so the test process ends here with a message instead of hanging.
class BatchEnd {
public:
    explicit BatchEnd(dm::JobManager& manager) : m_manager(manager) {
        manager.addNewJob<FunctionJob>([this](const char*) { m_reached = true; });
    }

    bool reached() const { return m_reached.load(); }
    void wait(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        if (!waitUntil([this] { return reached(); }, timeout)) {
            std::fprintf(stderr, "FATAL: the batch of job manager \"%s\" did not finish\n",
                         m_manager.getName());
            std::fflush(stderr);
            std::_Exit(EXIT_FAILURE);
        }
        m_manager.waitJobsToComplete();
    }

private:
    dm::JobManager& m_manager;
    std::atomic<bool> m_reached{false};
};

}  // namespace dmtest
