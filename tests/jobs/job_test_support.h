// Helpers for the job tests: a job that runs a function, and a bounded wait for a batch whose
// jobs block on pipes.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <utility>

#include "dm/jobs.h"
#include "support/log_capture.h"
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
