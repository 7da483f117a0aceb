// JobForwardRequest: how the broadcast server hands a request from one pipe on to another
// without blocking a manager's thread.
#pragma once

#include <cstdint>

#include "dm/comm.h"
#include "dm/jobs.h"
#include "zu/string.h"

namespace dm {

// The broadcast server's forwarding job. Sends `request` on
// `targetPipe` and answers the request last taken on `replyPipe` with the response's text and
// data (at most 64 KiB of data; more is cut). Neither pipe is owned.
class JobForwardRequest : public Job {
public:
    static constexpr uint32_t kBufferSize = 0x10000;

    JobForwardRequest(CommunicationPipe* replyPipe, CommunicationPipe* targetPipe,
                      const char* request);
    JobForwardRequest(const JobForwardRequest&) = default;
    JobForwardRequest& operator=(const JobForwardRequest&) = default;
    ~JobForwardRequest() override;
    void run(const char* managerName) override;

private:
    CommunicationPipe* m_replyPipe;
    CommunicationPipe* m_targetPipe;
    zu::InplaceString<128> m_request;
};

}  // namespace dm
