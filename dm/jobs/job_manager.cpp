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
    // Queued jobs were handed over to this manager; they go unrun but are not leaked.
    zu::ScopedLock queueGuard(m_queueLock);
    for (Job* job : m_jobs) {
        destroyJob(job);
    }
    m_jobs.clear();
}

void JobManager::addJob(Job* job) {
    zu::ScopedLock guard(m_queueLock);
    try {
        m_jobs.push_back(job);
    } catch (...) {
        // The job is ours from the call on: losing it here would leak it.
        destroyJob(job);
        throw;
    }
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
        runJob(m_jobs[i]);
    }
    m_jobs.clear();  // the storage is kept for the next batch
    return 0;
}

void JobManager::nameThread() const {
    const zu::InplaceString<256> threadName = zu::str("ZMK %s job manager", m_name.c_str());
    zu::setThreadName(zu::getCurrentThreadId(), threadName.c_str());
}

void JobManager::runJob(Job* job) {
    // An exception must not end the thread (that would end the process) nor skip the jobs
    // behind this one.
    try {
        job->run(m_name.c_str());
    } catch (const std::exception& error) {
        logLine("JobManager \"%s\": a job failed: %s\n", m_name.c_str(), error.what());
    } catch (...) {
        logLine("JobManager \"%s\": a job failed\n", m_name.c_str());
    }
    destroyJob(job);
}

void JobManager::destroyJob(Job* job) {
    // The memory starts at the most derived object, which is not always where the Job part is.
    void* memory = dynamic_cast<void*>(job);
    job->~Job();
    zu::deleteMemory(memory);
}

}  // namespace dm
