// Jobs: small tasks that hold a conversation over communication pipes (send a request, wait
// for one and answer it, send or wait for a notification), run in batches on a job manager's
// thread so that the caller's thread never blocks on a pipe.
#pragma once

#include <cstdint>
#include <type_traits>
#include <utility>

#include "dm/export.h"
#include "dm/log.h"
#include "zu/event.h"
#include "zu/memory.h"
#include "zu/mutex.h"
#include "zu/string.h"
#include "zu/thread.h"
#include "zu/vector.h"

namespace dm {

class CommunicationPipe;

// One task for a JobManager. Make jobs with makeJob (or JobManager::addNewJob): the manager
// that runs a job destroys it and gives its memory back to the runtime's allocator.
class DM_API Job {
public:
    Job() = default;
    Job(const Job&) = default;
    Job& operator=(const Job&) = default;
    virtual ~Job();

    // Does the whole job, blocking as long as it must, on the manager's thread. `managerName`
    // is the job manager's name, which is also the name of the communication-pipe manager
    // whose pipes the job looks up by name.
    virtual void run(const char* managerName) = 0;
};

// Allocates a job the way a JobManager frees it: with the runtime's allocator.
template <typename T, typename... Args>
T* makeJob(Args&&... args) {
    static_assert(std::is_base_of<Job, T>::value, "makeJob makes jobs");
    return zu::newObject<T>(std::forward<Args>(args)...);
}

// A named worker thread that runs the queued jobs as one batch, in the order they were added,
// and then ends. Any thread may add and run jobs. While a batch runs it holds the queue: jobs
// added meanwhile wait for the next runJobs, and addJob blocks until the batch is over.
//
// A job that never finishes (one waiting for a notification that never comes) keeps the batch
// running for good; every later addJob, runJobs, waitJobsToComplete and the destructor then
// block.
//
// The manager owns a thread and an event, so it cannot be copied. (Copy assignment would leave
// two managers sharing one started event and one list of jobs they both free.)
class DM_API JobManager : private zu::Thread {
public:
    // A manager with an empty name.
    JobManager();
    explicit JobManager(const char* name);
    // Waits for a running batch to finish, then destroys the jobs still queued without running
    // them.
    ~JobManager() override;
    JobManager(const JobManager&) = delete;
    JobManager& operator=(const JobManager&) = delete;

    const char* getName() const { return m_name.c_str(); }

    // Queues `job` for the next batch; the manager owns it from here on. `job` must come from
    // makeJob (zu::newObject). Blocks while a batch runs. When the queue cannot grow, the job
    // is destroyed and zu::OutOfMemoryException is thrown.
    void addJob(Job* job);
    // makeJob<T>(args...) handed to addJob.
    template <typename T, typename... Args>
    void addNewJob(Args&&... args) {
        addJob(makeJob<T>(std::forward<Args>(args)...));
    }

    // Starts a batch of the queued jobs; without jobs it does nothing. A batch still running
    // from an earlier call finishes first. Returns once the new batch has taken the queue (jobs
    // added after this return belong to the next batch), or, with `waitForCompletion`, once the
    // whole batch has run.
    void runJobs(bool waitForCompletion);
    // Blocks until the batch started last, if any, has finished.
    void waitJobsToComplete();
    // True from the start of a batch until it has been waited for (by waitJobsToComplete,
    // runJobs or the destructor), even if it has finished meanwhile.
    bool isBatchStarted() const;

private:
    // The thread body: one batch.
    int run() override;
    void nameThread() const;
    // Runs the job at `index` of the queue and destroys it.
    void runJob(size_t index) ZU_REQUIRES(m_queueLock);

    zu::InplaceString<128> m_name;
    // Held by the thread for a whole batch. Re-entrant: a job may queue another on its own
    // manager, which then runs in the same batch.
    mutable zu::RecursiveMutex m_queueLock;
    zu::Vector<zu::UniquePtr<Job>> m_jobs ZU_GUARDED_BY(m_queueLock);
    zu::Event m_startedEvent;        // signalled by the thread once it holds m_queueLock
    mutable zu::Mutex m_threadLock;  // serialises starting and joining the thread
};

// --- Job kinds. Pipes named by text are looked up on the communication-pipe manager named
// like the job manager that runs the job. Waiting jobs poll the pipe every millisecond,
// without a time-out. Buffers given to a job must stay valid until it has run. ---

// Sends a notification on `pipe` (not owned), retrying every millisecond until the pipe is
// connected; each retry logs a line. An empty text is refused by the pipe at once and for good:
// the job then ends without retrying.
class DM_API JobSendNotify : public Job {
public:
    JobSendNotify(CommunicationPipe* pipe, const char* text, unsigned value);
    JobSendNotify(const JobSendNotify&) = default;
    JobSendNotify& operator=(const JobSendNotify&) = default;
    ~JobSendNotify() override;
    void run(const char* managerName) override;

private:
    CommunicationPipe* m_pipe;
    zu::InplaceString<128> m_text;
    uint32_t m_value;
};

// Sends `request` on the pipe `pipeName` and waits for the answer. Its data lands in
// `response` (up to `responseCapacity` bytes); the response text is dropped.
class DM_API JobSendRequest : public Job {
public:
    JobSendRequest(const char* pipeName, const char* request, void* response,
                   unsigned responseCapacity);
    JobSendRequest(const JobSendRequest&) = default;
    JobSendRequest& operator=(const JobSendRequest&) = default;
    ~JobSendRequest() override;
    void run(const char* managerName) override;

private:
    zu::InplaceString<128> m_pipeName;
    zu::InplaceString<128> m_request;
    void* m_response;
    uint32_t m_responseCapacity;
};

// Waits for a notification on the pipe `pipeName` and consumes it. Any notification ends the
// wait: `notifyName` only documents which one is expected.
class DM_API JobWaitNotify : public Job {
public:
    JobWaitNotify(const char* pipeName, const char* notifyName);
    JobWaitNotify(const JobWaitNotify&) = default;
    JobWaitNotify& operator=(const JobWaitNotify&) = default;
    ~JobWaitNotify() override;
    void run(const char* managerName) override;

private:
    zu::InplaceString<128> m_pipeName;
    zu::InplaceString<128> m_notifyName;
};

// Waits for a request on the pipe `pipeName` and takes it, leaving the answer to a JobRespond
// on the same pipe. Any request ends the wait: `requestName` only documents which one is
// expected.
class DM_API JobWaitRequest : public Job {
public:
    JobWaitRequest(const char* pipeName, const char* requestName);
    JobWaitRequest(const JobWaitRequest&) = default;
    JobWaitRequest& operator=(const JobWaitRequest&) = default;
    ~JobWaitRequest() override;
    void run(const char* managerName) override;

private:
    zu::InplaceString<128> m_pipeName;
    zu::InplaceString<128> m_requestName;
};

// Answers the request last taken on the pipe `pipeName` with `response` and `dataSize` bytes
// of `data` (not copied), and waits until the answer has been sent. The pipe carries sizes of
// 32 bits: only the low 32 bits of `dataSize` count.
class DM_API JobRespond : public Job {
public:
    JobRespond(const char* pipeName, const char* response, const void* data, uint64_t dataSize);
    JobRespond(const JobRespond&) = default;
    JobRespond& operator=(const JobRespond&) = default;
    ~JobRespond() override;
    void run(const char* managerName) override;

private:
    zu::InplaceString<128> m_pipeName;
    zu::InplaceString<128> m_response;
    const void* m_data;
    uint64_t m_dataSize;
};

// Waits for a notification on the pipe `pipeName` (any one, as JobWaitNotify), then sends
// `request` carrying the notification's number and waits for the answer, whose data lands in
// `response` (up to `responseCapacity` bytes).
class DM_API JobWaitNotifyAndRequest : public Job {
public:
    JobWaitNotifyAndRequest(const char* pipeName, const char* notifyName, const char* request,
                            void* response, unsigned responseCapacity);
    JobWaitNotifyAndRequest(const JobWaitNotifyAndRequest&) = default;
    JobWaitNotifyAndRequest& operator=(const JobWaitNotifyAndRequest&) = default;
    ~JobWaitNotifyAndRequest() override;
    void run(const char* managerName) override;

private:
    zu::InplaceString<128> m_pipeName;
    zu::InplaceString<128> m_notifyName;
    zu::InplaceString<128> m_request;
    void* m_response;
    uint32_t m_responseCapacity;
};

}  // namespace dm
