// JobManager: batches on a named thread, their order, and who owns the jobs.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "dm/jobs.h"
#include "job_test_support.h"
#include "zu/exception.h"
#include "zu/thread.h"

namespace {

using dmtest::FunctionJob;

// Stands in for a job that takes a while, so that a batch is still running when the test
// goes on.
constexpr uint32_t kSlowJobMs = 30;

// What the jobs of a batch saw, recorded from the manager's thread.
struct BatchLog {
    std::mutex lock;
    std::vector<int> order;
    std::vector<zu::ThreadId> threads;
    std::vector<std::string> seen;  // manager name and thread name
    bool overlapped = false;
    std::atomic<bool> running{false};

    void addRecordingJob(dm::JobManager& manager, int index) {
        manager.addNewJob<FunctionJob>([this, index](const char* managerName) {
            overlapped = running.exchange(true) || overlapped;
            {
                std::lock_guard<std::mutex> guard(lock);
                order.push_back(index);
                threads.push_back(zu::getCurrentThreadId());
                seen.push_back(std::string(managerName) + "|" +
                               zu::getThreadName(zu::getCurrentThreadId()).c_str());
            }
            running = false;
        });
    }
    std::vector<int> takenOrder() {
        std::lock_guard<std::mutex> guard(lock);
        return order;
    }
};

TEST(JobManager, RunsABatchInTheOrderOfAddJobOnItsOwnNamedThread) {
    dm::JobManager manager("tools");
    BatchLog log;
    // More jobs than the queue's first three sizes (8, 12, 18) hold.
    const int jobCount = 20;
    std::vector<int> expected;
    for (int i = 0; i < jobCount; ++i) {
        log.addRecordingJob(manager, i);
        expected.push_back(i);
    }
    manager.runJobs(true);
    EXPECT_EQ(log.takenOrder(), expected);
    EXPECT_FALSE(log.overlapped);
    ASSERT_EQ(log.threads.size(), static_cast<size_t>(jobCount));
    EXPECT_NE(log.threads[0], zu::getCurrentThreadId());
    for (int i = 0; i < jobCount; ++i) {
        EXPECT_EQ(log.threads[i], log.threads[0]);
        EXPECT_EQ(log.seen[i], "tools|ZMK tools job manager");
    }

    dm::JobManager unnamed;
    BatchLog unnamedLog;
    unnamedLog.addRecordingJob(unnamed, 0);
    unnamed.runJobs(true);
    EXPECT_EQ(unnamedLog.seen, std::vector<std::string>{"|ZMK  job manager"});
    EXPECT_STREQ(unnamed.getName(), "");

    // A job may queue another on its own manager, which runs in the same batch.
    std::vector<int> chain;
    manager.addNewJob<FunctionJob>([&](const char*) {
        chain.push_back(1);
        manager.addNewJob<FunctionJob>([&](const char*) {
            chain.push_back(2);
            manager.addNewJob<FunctionJob>([&](const char*) { chain.push_back(3); });
        });
    });
    manager.runJobs(true);
    EXPECT_EQ(chain, (std::vector<int>{1, 2, 3}));
    EXPECT_FALSE(manager.isBatchStarted());
}

TEST(JobManager, EachRunJobsRunsOnlyWhatWasQueuedBeforeItAndNoJobsStartNoThread) {
    dm::JobManager manager("batches");
    manager.runJobs(true);
    EXPECT_FALSE(manager.isBatchStarted());
    manager.runJobs(false);
    EXPECT_FALSE(manager.isBatchStarted());
    manager.waitJobsToComplete();

    BatchLog log;
    log.addRecordingJob(manager, 1);
    manager.runJobs(false);
    EXPECT_TRUE(manager.isBatchStarted());
    // The batch holds the queue from runJobs' return on: this job is not part of it.
    log.addRecordingJob(manager, 2);
    manager.waitJobsToComplete();
    EXPECT_EQ(log.takenOrder(), std::vector<int>{1});
    EXPECT_FALSE(manager.isBatchStarted());
    manager.runJobs(true);
    EXPECT_EQ(log.takenOrder(), (std::vector<int>{1, 2}));

    // A second runJobs waits for the running batch and starts nothing new.
    std::atomic<int> runs{0};
    std::atomic<bool> finished{false};
    manager.addNewJob<FunctionJob>([&](const char*) {
        ++runs;
        zu::sleepMs(kSlowJobMs);
        finished = true;
    });
    manager.runJobs(false);
    manager.runJobs(false);
    EXPECT_TRUE(finished.load());
    manager.waitJobsToComplete();
    EXPECT_EQ(runs.load(), 1);
}

// A job whose Job part does not start its object: the manager must free the whole object.
class Ballast {
public:
    virtual ~Ballast() = default;
    char bytes[40] = {};
};

class OffsetJob : public Ballast, public dm::Job {
public:
    explicit OffsetJob(std::atomic<int>& runs) : m_runs(runs) {}
    void run(const char*) override { ++m_runs; }

private:
    std::atomic<int>& m_runs;
};

TEST(JobManager, DestroysEveryJobItWasGivenFailedOrNotAndWaitsForTheRunningBatch) {
    std::atomic<int> runs{0};
    std::atomic<int> destroyed{0};
    std::atomic<bool> finished{false};
    {
        dm::JobManager manager("owner");
        for (int i = 0; i < 3; ++i) {
            manager.addNewJob<FunctionJob>([&](const char*) { ++runs; }, &destroyed);
        }
        OffsetJob* job = dm::makeJob<OffsetJob>(runs);
        ASSERT_NE(static_cast<void*>(static_cast<dm::Job*>(job)), static_cast<void*>(job));
        manager.addJob(job);
        manager.runJobs(true);
        EXPECT_EQ(runs.load(), 4);
        EXPECT_EQ(destroyed.load(), 3);

        // Still running when the manager goes: its destruction waits for the batch.
        manager.addNewJob<FunctionJob>(
            [&](const char*) {
                zu::sleepMs(kSlowJobMs);
                finished = true;
            },
            &destroyed);
        manager.runJobs(false);
        // Queued but never run: destroyed with the manager, without running (the sanitizers
        // check the free of the offset one).
        for (int i = 0; i < 10; ++i) {
            manager.addNewJob<FunctionJob>([&](const char*) { ++runs; }, &destroyed);
        }
        manager.addNewJob<OffsetJob>(runs);
    }
    EXPECT_TRUE(finished.load());
    EXPECT_EQ(runs.load(), 4);
    EXPECT_EQ(destroyed.load(), 14);

    // A failing job is logged, destroyed, and the batch goes on.
    dmtest::LogCapture log;
    dm::JobManager manager("careful");
    destroyed = 0;
    std::atomic<bool> laterJobRan{false};
    manager.addNewJob<FunctionJob>([](const char*) { throw zu::Exception("disk %d gone", 2); },
                                   &destroyed);
    manager.addNewJob<FunctionJob>([&](const char*) { laterJobRan = true; }, &destroyed);
    manager.runJobs(true);
    EXPECT_TRUE(laterJobRan.load());
    EXPECT_EQ(destroyed.load(), 2);
    EXPECT_EQ(log.count("JobManager \"careful\": a job failed: disk 2 gone\n"), 1);
}

}  // namespace
