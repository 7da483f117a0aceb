// BroadcastServer: a Server whose relaying is done by its Hub.
#include "broadcast_hub.h"
#include "zu/memory.h"

namespace dm {

BroadcastServer::BroadcastServer(const char* name, int port)
    : BroadcastServer(name, port, zu::newObject<Hub>(name)) {}

// The hub exists before the manager, which calls back into it from its first client on.
BroadcastServer::BroadcastServer(const char* name, int port, Hub* hub) try
    : Server(name, port, Hub::clientConnectionCallback(hub), Hub::pipeCreateCallback(hub)),
      m_hub(hub) {
    m_hub->attach(*this);
} catch (...) {
    zu::deleteObject(hub);  // no manager calls back into it: none was made
}

BroadcastServer::~BroadcastServer() {
    zu::deleteObject(m_hub);
}

void BroadcastServer::connect(Server* server) {
    m_hub->connect(server);
}

void BroadcastServer::broadcastNotify(const char* pipeName, const char* text) {
    m_hub->broadcastNotify(pipeName, text);
}

void BroadcastServer::waitOnProccesses() {
    m_hub->waitOnProccesses();
}

bool BroadcastServer::hasSeenRefcountHolders() const {
    return m_hub->hasSeenRefcountHolders();
}

size_t BroadcastServer::getMemberCount() const {
    return m_hub->memberCount();
}

CommunicationPipeManager* BroadcastServer::getMemberManager(uint32_t id) const {
    return m_hub->member(id);
}

}  // namespace dm
