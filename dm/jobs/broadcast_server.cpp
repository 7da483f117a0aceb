// BroadcastServer: a Server whose relaying is done by its Hub.
#include "broadcast_hub.h"
#include "zu/memory.h"

namespace dm {

BroadcastServer::BroadcastServer(const char* name, int port)
    : BroadcastServer(name, port, zu::makeUnique<Hub>(name)) {}

// The hub exists before the manager, which calls back into it from its first client on. When
// making the manager fails, the hub goes with `hub`: no manager calls back into it.
BroadcastServer::BroadcastServer(const char* name, int port, zu::UniquePtr<Hub> hub)
    : Server(name, port, Hub::clientConnectionCallback(hub.get()),
             Hub::pipeCreateCallback(hub.get())),
      m_hub(std::move(hub)) {
    m_hub->attach(*this);
}

// The hub goes before the Server part and its manager.
BroadcastServer::~BroadcastServer() = default;

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
