// Pipe managers for tests and benchmarks: one server on a port the system picks and any
// number of clients connected to it over 127.0.0.1, registered under names unique to the test.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "dm/comm.h"
#include "support/test_support.h"

namespace dmtest {

class ManagerLink {
public:
    explicit ManagerLink(bool createPipesOnRequest = true) : m_tag(nextTag()) {
        m_serverName = "link-server-" + m_tag;
        m_server = dm::initCommunicationManagerAsServer(m_serverName.c_str(), 0, kServerId,
                                                        createPipesOnRequest);
        m_server->getHost(&m_port);
    }
    // Job managers using these managers must be gone first: their jobs may block on the pipes.
    ~ManagerLink() {
        for (const std::string& name : m_clientNames) {
            dm::deinitCommunicationManager(name.c_str());
        }
        dm::deinitCommunicationManager(m_serverName.c_str());
    }
    ManagerLink(const ManagerLink&) = delete;
    ManagerLink& operator=(const ManagerLink&) = delete;

    static constexpr uint32_t kServerId = 7;

    dm::CommunicationPipeManager& server() { return *m_server; }
    const char* serverName() const { return m_serverName.c_str(); }
    uint32_t port() const { return m_port; }

    // A new client manager, connecting to the server; returns its registered name.
    std::string addClient() {
        const std::string name =
            "link-client-" + m_tag + "-" + std::to_string(m_clientNames.size());
        dm::initCommunicationManagerAsClient(name.c_str(), "127.0.0.1", static_cast<int>(m_port));
        m_clientNames.push_back(name);
        return name;
    }

    // The pipe `pipeName` of the client `clientName` and of the server, once attached on both
    // ends (null when that did not happen in time).
    struct PipeEnds {
        dm::CommunicationPipe* client = nullptr;
        dm::CommunicationPipe* server = nullptr;
    };
    PipeEnds connectPipe(const std::string& clientName, const char* pipeName) {
        PipeEnds ends;
        dm::CommunicationPipe* client = dm::getCommunicationPipe(clientName.c_str(), pipeName);
        const bool attached = client && waitUntil([&] {
                                  return client->isConnected() && m_server->pipeExists(pipeName) &&
                                         m_server->getPipe(pipeName)->isConnected();
                              });
        if (attached) {
            ends.client = client;
            ends.server = m_server->getPipe(pipeName);
        }
        return ends;
    }

private:
    static std::string nextTag() {
        static std::atomic<int> counter{0};
        return std::to_string(++counter);
    }

    std::string m_tag;
    std::string m_serverName;
    dm::CommunicationPipeManager* m_server = nullptr;
    uint32_t m_port = 0;
    std::vector<std::string> m_clientNames;
};

}  // namespace dmtest
