// Server: a listening pipe manager and a job manager of the same name.
#include "dm/comm.h"
#include "dm/endpoints.h"
#include "log_output.h"

namespace dm {

namespace {

constexpr uint32_t kServerId = 0xFFFFFFFFu;

}  // namespace

Server::Server(const char* name, int port) : Server(name, port, {}, {}) {}

Server::Server(const char* name, int port, ClientConnectionCallback clientConnectionCallback,
               PipeCreateCallback pipeCreateCallback)
    : m_jobManager(name),
      m_manager(initCommunicationManagerAsServer(name, port, kServerId, true,
                                                 clientConnectionCallback, pipeCreateCallback)),
      m_port(port) {
    uint32_t listening = 0;
    if (m_port == 0 && m_manager) {
        m_manager->getHost(&listening);
        m_port = static_cast<int>(listening);  // the one the system picked
    }
}

Server::~Server() = default;

void Server::registerPipe(const char* pipeName) {
    if (!m_manager) {
        return;
    }
    m_manager->getPipe(pipeName);
    logLine("Server: \"%s\" registered pipe: \"%s\".\n", m_manager->copyName().c_str(), pipeName);
}

CommunicationPipe* Server::getPipe(const char* pipeName) {
    return m_manager ? m_manager->getPipe(pipeName) : nullptr;
}

uint32_t Server::getID() const {
    return m_manager ? m_manager->getID() : kServerId;
}

const char* Server::getName() const {
    return m_jobManager.getName();
}

}  // namespace dm
