// The job kinds: conversations over communication pipes, run on a job manager's thread.
#include "dm/comm.h"
#include "dm/jobs.h"
#include "jobs/job_forward_request.h"
#include "log_output.h"
#include "zu/buffer.h"

namespace dm {
namespace {

// Jobs poll their pipe: pipes offer no event for incoming notifications and requests.
constexpr uint32_t kPollIntervalMs = 1;

// The pipe `pipeName` on the communication-pipe manager `managerName`; null, with a line in the
// log, when there is no such manager (naming one that does not exist is a mistake of the
// caller, and the job then ends without doing anything).
CommunicationPipe* findPipe(const char* managerName, const zu::String& pipeName) {
    CommunicationPipe* pipe = getCommunicationPipe(managerName, pipeName.c_str());
    if (!pipe) {
        logLine("Job: no communication manager \"%s\" for pipe \"%s\"\n", managerName,
                pipeName.c_str());
    }
    return pipe;
}

zu::InplaceString<128> waitForNotify(CommunicationPipe& pipe, uint32_t* outValue) {
    zu::InplaceString<128> text = pipe.receiveNotify(outValue);
    while (text.empty()) {
        zu::sleepMs(kPollIntervalMs);
        text = pipe.receiveNotify(outValue);
    }
    return text;
}

constexpr size_t kForwardBufferAlignment = 0x10000;

}  // namespace

JobSendNotify::JobSendNotify(CommunicationPipe* pipe, const char* text, unsigned value)
    : m_pipe(pipe), m_text(text), m_value(value) {}

JobSendNotify::~JobSendNotify() = default;

void JobSendNotify::run(const char* managerName) {
    if (m_pipe->sendNotify(m_text.c_str(), m_value) || m_text.empty()) {
        return;  // sent, or refused for good (the pipe logged why)
    }
    // A notification is only queued on a connected pipe: retry until it is. The line reports
    // each retry, before it is made.
    do {
        zu::sleepMs(kPollIntervalMs);
        logLine("Manager \"%s\" sent a notification \"%s\" to pipe\n", managerName, m_text.c_str());
    } while (!m_pipe->sendNotify(m_text.c_str(), m_value));
}

JobSendRequest::JobSendRequest(const char* pipeName, const char* request, void* response,
                               unsigned responseCapacity)
    : m_pipeName(pipeName),
      m_request(request),
      m_response(response),
      m_responseCapacity(responseCapacity) {}

JobSendRequest::~JobSendRequest() = default;

void JobSendRequest::run(const char* managerName) {
    CommunicationPipe* pipe = findPipe(managerName, m_pipeName);
    if (!pipe) {
        return;
    }
    pipe->sendRequest(m_request.c_str(), 0, m_response, m_responseCapacity, nullptr, nullptr, 0);
}

JobWaitNotify::JobWaitNotify(const char* pipeName, const char* notifyName)
    : m_pipeName(pipeName), m_notifyName(notifyName) {}

JobWaitNotify::~JobWaitNotify() = default;

void JobWaitNotify::run(const char* managerName) {
    CommunicationPipe* pipe = findPipe(managerName, m_pipeName);
    if (pipe) {
        waitForNotify(*pipe, nullptr);
    }
}

JobWaitRequest::JobWaitRequest(const char* pipeName, const char* requestName)
    : m_pipeName(pipeName), m_requestName(requestName) {}

JobWaitRequest::~JobWaitRequest() = default;

void JobWaitRequest::run(const char* managerName) {
    CommunicationPipe* pipe = findPipe(managerName, m_pipeName);
    if (!pipe) {
        return;
    }
    zu::InplaceString<128> request = pipe->receiveRequest(nullptr);
    logLine("JobWaitRequest: Listening to pipe: %s\n", m_pipeName.c_str());
    while (request.empty()) {
        zu::sleepMs(kPollIntervalMs);
        request = pipe->receiveRequest(nullptr);
    }
}

JobRespond::JobRespond(const char* pipeName, const char* response, const void* data,
                       uint64_t dataSize)
    : m_pipeName(pipeName), m_response(response), m_data(data), m_dataSize(dataSize) {}

JobRespond::~JobRespond() = default;

void JobRespond::run(const char* managerName) {
    CommunicationPipe* pipe = findPipe(managerName, m_pipeName);
    if (!pipe) {
        return;
    }
    logLine("JobRespond: Responding to pipe: %s\n", m_pipeName.c_str());
    pipe->respond(m_response.c_str(), m_data, static_cast<uint32_t>(m_dataSize));
}

JobWaitNotifyAndRequest::JobWaitNotifyAndRequest(const char* pipeName, const char* notifyName,
                                                 const char* request, void* response,
                                                 unsigned responseCapacity)
    : m_pipeName(pipeName),
      m_notifyName(notifyName),
      m_request(request),
      m_response(response),
      m_responseCapacity(responseCapacity) {}

JobWaitNotifyAndRequest::~JobWaitNotifyAndRequest() = default;

void JobWaitNotifyAndRequest::run(const char* managerName) {
    CommunicationPipe* pipe = findPipe(managerName, m_pipeName);
    if (!pipe) {
        return;
    }
    uint32_t number = 0;
    zu::InplaceString<128> notification = pipe->receiveNotify(&number);
    logLine("JobManager \"%s\" Waiting for Notify \"%s\"\n", managerName, m_notifyName.c_str());
    if (notification.empty()) {
        waitForNotify(*pipe, &number);
    }
    logLine("JobManager \"%s\" doing request: %s\n", managerName, m_request.c_str());
    // The request carries the notification's number on.
    const zu::InplaceString<128> response = pipe->sendRequest(
        m_request.c_str(), number, m_response, m_responseCapacity, nullptr, nullptr, 0);
    logLine("JobManager \"%s\" got response: %s from pipe: %s \n", managerName, response.c_str(),
            pipe->getName());
}

JobForwardRequest::JobForwardRequest(CommunicationPipe* replyPipe, CommunicationPipe* targetPipe,
                                     const char* request)
    : m_replyPipe(replyPipe), m_targetPipe(targetPipe), m_request(request) {}

JobForwardRequest::~JobForwardRequest() = default;

void JobForwardRequest::run(const char*) {
    zu::Buffer buffer(kBufferSize, kForwardBufferAlignment);
    uint32_t responseSize = 0;
    const zu::InplaceString<128> response = m_targetPipe->sendRequest(
        m_request.c_str(), 0, buffer.data(), kBufferSize, &responseSize, nullptr, 0);
    // The size reported is that of the whole answer, which may exceed the buffer; only what
    // the buffer holds is passed on.
    const uint32_t forwardedSize = responseSize < kBufferSize ? responseSize : kBufferSize;
    m_replyPipe->respond(response.c_str(), buffer.data(), forwardedSize);
}

}  // namespace dm
