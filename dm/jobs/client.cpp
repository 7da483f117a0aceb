// Client: a connecting pipe manager and a job manager of the same name.
#include "dm/comm.h"
#include "dm/endpoints.h"
#include "zu/thread.h"

namespace dm {

namespace {

constexpr uint32_t kConnectPollMs = 1;

}  // namespace

Client::Client() = default;

Client::Client(const char* name)
    : m_manager(initCommunicationManagerAsClient(name, "", kDefaultPort)), m_jobManager(name) {}

Client::~Client() = default;

void Client::connect(const char* host, int port) {
    if (m_manager) {
        m_manager->setHost(host, static_cast<uint32_t>(port));
    }
}

CommunicationPipe* Client::getPipe(const char* pipeName) {
    return m_manager ? m_manager->getPipe(pipeName) : nullptr;
}

uint32_t Client::getID() const {
    return m_manager ? m_manager->getID() : 0;
}

const char* Client::getName() const {
    return m_jobManager.getName();
}

bool Client::isPipeAcquired(const char* pipeName) {
    CommunicationPipe* pipe = getPipe(pipeName);
    return pipe && pipe->isConnected();
}

void Client::waitPipeToConnect(const char* pipeName) {
    CommunicationPipe* pipe = getPipe(pipeName);
    if (!pipe) {
        return;  // a placeholder has nothing to wait for
    }
    while (!pipe->isConnected()) {
        zu::sleepMs(kConnectPollMs);
    }
}

}  // namespace dm
