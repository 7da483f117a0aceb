#include <exception>

#include "dm/jobs.h"
#include "log_output.h"

namespace dm {

Job::~Job() = default;

JobManager::JobManager() : JobManager("") {}

JobManager::JobManager(const char* name) : m_name(name ? name : "") {}

JobManager::~JobManager() {
    {
        zu::ScopedLock threadGuard(m_threadLock);
        joinThread();
    }
    // Queued jobs were handed over to this manager; they go unrun with m_jobs.
}

void JobManager::addJob(Job* job) {
    // The job is ours from the call on: when the queue cannot grow, it goes with `owned`.
    zu::UniquePtr<Job> owned(job);
    zu::ScopedLock guard(m_queueLock);
    m_jobs.push_back(std::move(owned));
}

void JobManager::runJobs(bool waitForCompletion) {
    zu::ScopedLock threadGuard(m_threadLock);
    {
        // Blocks while a batch runs, so a batch running from before has emptied the queue.
        zu::ScopedLock queueGuard(m_queueLock);
        if (m_jobs.empty()) {
            return;
        }
    }
    joinThread();
    startThread();
    // The thread signals once it holds the queue, so what is queued now is this batch.
    m_startedEvent.wait();
    if (waitForCompletion) {
        joinThread();
    }
}

void JobManager::waitJobsToComplete() {
    zu::ScopedLock threadGuard(m_threadLock);
    joinThread();
}

bool JobManager::isBatchStarted() const {
    zu::ScopedLock threadGuard(m_threadLock);
    return isThreadStarted();
}

int JobManager::run() {
    zu::ScopedLock queueGuard(m_queueLock);
    nameThread();
    m_startedEvent.signal();
    // By index, re-reading the size: a job may queue another on its own manager (the lock is
    // re-entrant), which then runs in this batch.
    for (size_t i = 0; i < m_jobs.size(); ++i) {
        runJob(i);
    }
    m_jobs.clear();  // the storage is kept for the next batch
    return 0;
}

void JobManager::nameThread() const {
    const zu::InplaceString<256> threadName = zu::str("ZMK %s job manager", m_name.c_str());
    zu::setThreadName(zu::getCurrentThreadId(), threadName.c_str());
}

void JobManager::runJob(size_t index) {
    Job* job = m_jobs[index].get();
    // An exception must not end the thread (that would end the process) nor skip the jobs
    // behind this one.
    try {
        job->run(m_name.c_str());
    } catch (const std::exception& error) {
        logLine("JobManager \"%s\": a job failed: %s\n", m_name.c_str(), error.what());
    } catch (...) {
        logLine("JobManager \"%s\": a job failed\n", m_name.c_str());
    }
    // Each job goes once it has run, before the next one starts. By index again: the job may
    // have queued others, which can move the queue's storage.
    m_jobs[index].reset();
}

}  // namespace dm
