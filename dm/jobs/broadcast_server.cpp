// BroadcastServer: a Server whose relaying is done by its Hub.
#include "broadcast_hub.h"
#include "zu/memory.h"

namespace dm {

BroadcastServer::BroadcastServer(const char* name, int port)
    : Server(name, port), m_hub(zu::newObject<Hub>(*this, name, getPort())) {}

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

size_t BroadcastServer::getMemberCount() const {
    return m_hub->memberCount();
}

CommunicationPipeManager* BroadcastServer::getMemberManager(uint32_t id) const {
    return m_hub->member(id);
}

}  // namespace dm
