// The hub's relaying: members' managers made on connection, pipes created on every member,
// notifications fanned out and requests forwarded by member id. See broadcast_hub.h for the
// locks.
#include "broadcast_hub.h"
#include "comm/net_communication_pipe.h"
#include "jobs/job_forward_request.h"

#include "log_output.h"
#include "zu/exception.h"
#include "zu/memory.h"
#include "zu/named_mutex.h"
#include "zu/thread.h"

namespace dm {

namespace {

constexpr const char* kMemberHost = "127.0.0.1";
constexpr uint32_t kNotifyRetryMs = 1;

// Lets every thread blocked on `pipe` go empty-handed, and every later blocking call return at
// once: the hub's teardown ends a forwarded request that would otherwise wait for ever.
void abortBlockedCalls(CommunicationPipe* pipe) {
    if (pipe) {
        // Every pipe of a pipe manager is a NetCommunicationPipe.
        static_cast<NetCommunicationPipe*>(pipe)->close();
    }
}

zu::InplaceString<128> memberName(const char* hubName, uint32_t id) {
    zu::InplaceString<128> name;
    name.format("%sc%i", hubName, static_cast<int>(id));
    return name;
}

}  // namespace

ClientConnectionCallback BroadcastServer::Hub::clientConnectionCallback(Hub* hub) {
    return {hub, onClientConnected};
}

PipeCreateCallback BroadcastServer::Hub::pipeCreateCallback(Hub* hub) {
    return {hub, onPipeCreated};
}

// The manager calls back from its first client on, before attach: what the callbacks queue
// meanwhile waits for the threads.
BroadcastServer::Hub::Hub(const char* name)
    : m_name(name ? name : ""),
      m_refcountName(zu::str("%s_refcount", m_name.c_str())),
      m_fanOut(*this),
      m_forwarder(*this) {}

void BroadcastServer::Hub::attach(BroadcastServer& server) {
    m_server = &server;
    m_mainManager = server.getManager();
    m_fanOut.start();
    m_forwarder.start();
}

// JobForwardRequest, run only while the hub stays: once the hub is going, forwarding jobs still
// queued end without touching their pipes, which may be about to go.
class BroadcastServer::Hub::ForwardJob final : public Job {
public:
    ForwardJob(Hub& hub, const Forward& forward)
        : m_hub(hub),
          m_forward(forward.replyPipe, forward.targetPipe, forward.request.c_str()),
          m_replyPipe(forward.replyPipe),
          m_targetPipe(forward.targetPipe) {}

    void run(const char* managerName) override {
        if (!m_hub.beginForward(m_replyPipe, m_targetPipe)) {
            return;
        }
        struct End {
            Hub& hub;
            ~End() { hub.endForward(); }
        } end{m_hub};
        m_forward.run(managerName);
    }

private:
    Hub& m_hub;
    JobForwardRequest m_forward;
    CommunicationPipe* m_replyPipe;
    CommunicationPipe* m_targetPipe;
};

BroadcastServer::Hub::~Hub() {
    closeGate();
    m_fanOut.stop();
    m_forwarder.stop();  // the forward under way was let go by closeGate
    if (m_server) {
        m_server->jobManager().waitJobsToComplete();
    }
    destroyManagers();
}

// --- The gate ---

BroadcastServer::Hub::CallbackScope::CallbackScope(Hub& hub) : m_hub(hub) {
    zu::ScopedLock lock(hub.m_gateLock);
    m_entered = !hub.m_closing;
    hub.m_callbacksUnderWay += m_entered ? 1 : 0;
}

BroadcastServer::Hub::CallbackScope::~CallbackScope() {
    if (!m_entered) {
        return;
    }
    zu::ScopedLock lock(m_hub.m_gateLock);
    if (--m_hub.m_callbacksUnderWay == 0) {
        m_hub.m_gateIdle.notify_all();
    }
}

bool BroadcastServer::Hub::beginForward(CommunicationPipe* replyPipe,
                                        CommunicationPipe* targetPipe) {
    zu::ScopedLock lock(m_gateLock);
    if (m_closing) {
        return false;
    }
    m_forwardReplyPipe = replyPipe;
    m_forwardTargetPipe = targetPipe;
    return true;
}

void BroadcastServer::Hub::endForward() {
    zu::ScopedLock lock(m_gateLock);
    m_forwardReplyPipe = nullptr;
    m_forwardTargetPipe = nullptr;
}

// No callback runs past this, and a forwarded request that waits is let go.
void BroadcastServer::Hub::closeGate() {
    zu::ScopedLock lock(m_gateLock);
    m_closing = true;
    m_gateIdle.wait(m_gateLock,
                    [this]() ZU_REQUIRES(m_gateLock) { return m_callbacksUnderWay == 0; });
    abortBlockedCalls(m_forwardTargetPipe);
    abortBlockedCalls(m_forwardReplyPipe);
}

// The hub's own manager first, so that no member is added meanwhile, then the members'. Only
// managers still registered under their names are ours to destroy.
void BroadcastServer::Hub::destroyManagers() {
    destroyIfRegistered(m_mainManager, m_name.c_str());
    zu::Vector<Member> members;
    {
        zu::ScopedLock lock(m_lock);
        members.swap(m_members);
    }
    for (const Member& member : members) {
        destroyIfRegistered(member.manager, member.name.c_str());
    }
}

void BroadcastServer::Hub::destroyIfRegistered(CommunicationPipeManager* manager,
                                               const char* name) {
    if (manager && getCommunicationPipeManager(name) == manager) {
        deinitCommunicationManager(name);
    }
}

// --- Members ---

void BroadcastServer::Hub::onClientConnected(void* context, CommunicationPipeManager* manager) {
    Hub& hub = *static_cast<Hub*>(context);
    CallbackScope scope(hub);
    if (scope) {
        hub.addClientMember(*manager);
    }
}

// Main manager's thread: a client connected to the hub's port gets a manager of its own and is
// redirected to it.
void BroadcastServer::Hub::addClientMember(CommunicationPipeManager& mainManager) {
    uint32_t hubPort = 0;
    mainManager.getHost(&hubPort);
    uint32_t id = 0;
    zu::InplaceString<128> name;
    if (!reserveMember(&id, &name)) {
        logLine("BroadcastServer \"%s\" is full: a client stays on its port\n", m_name.c_str());
        return;
    }
    const int port = static_cast<int>(hubPort + id) + 1;
    // Outside m_lock: the registry may be busy destroying a manager whose thread waits for it.
    CommunicationPipeManager* manager =
        initCommunicationManagerAsServer(name.c_str(), port, id, true);
    if (!manager) {
        return;  // the hub's manager is being destroyed
    }
    manager->setPipeCreateCallback({this, onPipeCreated});
    fillMember(id, manager);
    createKnownPipes(*manager);
    logLine("Server \"%s\" was connected by a client\n", manager->copyName().c_str());
    uint32_t listening = 0;
    manager->getHost(&listening);
    if (listening == 0) {
        logLine("BroadcastServer \"%s\": manager \"%s\" cannot listen on port %i\n", m_name.c_str(),
                name.c_str(), port);
        return;
    }
    mainManager.setRedirect(kMemberHost, static_cast<uint32_t>(port));
}

void BroadcastServer::Hub::connect(Server* server) {
    uint32_t id = 0;
    zu::InplaceString<128> name;
    if (!server || !reserveMember(&id, &name)) {
        return;
    }
    CommunicationPipeManager* manager =
        initCommunicationManagerAsClient(name.c_str(), kMemberHost, server->getPort());
    if (!manager) {
        return;
    }
    manager->setPipeCreateCallback({this, onPipeCreated});
    fillMember(id, manager);
    createKnownPipes(*manager);
}

bool BroadcastServer::Hub::reserveMember(uint32_t* outId, zu::InplaceString<128>* outName) {
    zu::ScopedLock lock(m_lock);
    if (m_members.size() >= kMaxMembers) {
        return false;
    }
    *outId = static_cast<uint32_t>(m_members.size());
    *outName = memberName(m_name.c_str(), *outId);
    try {
        m_members.emplace_back().name = *outName;
    } catch (const zu::OutOfMemoryException&) {
        return false;
    }
    return true;
}

void BroadcastServer::Hub::fillMember(uint32_t id, CommunicationPipeManager* manager) {
    zu::ScopedLock lock(m_lock);
    m_members[id].manager = manager;
}

// Pipe names learned after the member was added reach it through the fan-out thread, which
// reads the members after the name was learned.
void BroadcastServer::Hub::createKnownPipes(CommunicationPipeManager& manager) {
    zu::Vector<zu::InplaceString<128>> names;
    {
        zu::ScopedLock lock(m_lock);
        names = m_pipeNames;
    }
    for (const zu::InplaceString<128>& name : names) {
        manager.getPipe(name.c_str());
    }
}

zu::Vector<CommunicationPipeManager*> BroadcastServer::Hub::memberManagers() const {
    zu::Vector<CommunicationPipeManager*> managers;
    zu::ScopedLock lock(m_lock);
    managers.reserve(m_members.size());
    for (const Member& member : m_members) {
        managers.push_back(member.manager);
    }
    return managers;
}

size_t BroadcastServer::Hub::memberCount() const {
    zu::ScopedLock lock(m_lock);
    return m_members.size();
}

CommunicationPipeManager* BroadcastServer::Hub::member(uint32_t id) const {
    zu::ScopedLock lock(m_lock);
    return id < m_members.size() ? m_members[id].manager : nullptr;
}

// --- Pipes ---

// Any thread, possibly under the creating manager's pipe lock: hooks the pipe up and leaves the
// creation on the other members to the fan-out thread.
void BroadcastServer::Hub::onPipeCreated(void* context, CommunicationPipeManager* manager,
                                         CommunicationPipe* pipe) {
    Hub& hub = *static_cast<Hub*>(context);
    CallbackScope scope(hub);
    if (!scope) {
        return;
    }
    pipe->setNotifyCallback({&hub, onNotify});
    pipe->setRequestCallback({&hub, onRequest});
    hub.learnPipeName(pipe->getName());
    logLine("Manager \"%s\" created a pipe \"%s\"\n", manager->copyName().c_str(), pipe->getName());
}

void BroadcastServer::Hub::learnPipeName(const char* pipeName) {
    {
        zu::ScopedLock lock(m_lock);
        for (const zu::InplaceString<128>& known : m_pipeNames) {
            if (zu::stricmp(known.c_str(), pipeName) == 0) {
                return;
            }
        }
        if (m_pipeNames.size() >= kMaxPipeNames) {
            logLine("BroadcastServer \"%s\": too many pipes, \"%s\" stays on one member\n",
                    m_name.c_str(), pipeName);
            return;
        }
        try {
            m_pipeNames.push_back(zu::InplaceString<128>(pipeName));
        } catch (const zu::OutOfMemoryException&) {
            return;
        }
    }
    m_fanOut.push(zu::InplaceString<128>(pipeName));
}

void BroadcastServer::Hub::PipeFanOut::work(zu::Vector<zu::InplaceString<128>>& names) {
    const zu::Vector<CommunicationPipeManager*> managers = m_hub.memberManagers();
    for (const zu::InplaceString<128>& name : names) {
        for (CommunicationPipeManager* manager : managers) {
            if (isStopping()) {
                return;
            }
            if (manager) {
                manager->getPipe(name.c_str());
            }
        }
    }
}

// --- Notifications ---

void BroadcastServer::Hub::onNotify(void* context, CommunicationPipe* pipe) {
    Hub& hub = *static_cast<Hub*>(context);
    CallbackScope scope(hub);
    if (!scope) {
        return;
    }
    for (zu::InplaceString<128> text; !(text = pipe->receiveNotify(nullptr)).empty();) {
        hub.relayNotification(*pipe, text.c_str());
    }
}

// Sender's manager thread: every other member's pipe of that name gets the notification once,
// numbered with the sender's id.
void BroadcastServer::Hub::relayNotification(CommunicationPipe& pipe, const char* text) {
    const uint32_t senderId = pipe.getManager()->getID();
    for (CommunicationPipeManager* manager : memberManagers()) {
        if (!manager) {
            continue;
        }
        CommunicationPipe* memberPipe = manager->getPipe(pipe.getName());
        if (memberPipe != &pipe) {
            memberPipe->sendNotify(text, senderId);
        }
    }
}

void BroadcastServer::Hub::broadcastNotify(const char* pipeName, const char* text) {
    const uint32_t hubId = m_server->getID();
    for (CommunicationPipeManager* manager : memberManagers()) {
        if (!manager) {
            continue;
        }
        CommunicationPipe* pipe = manager->getPipe(pipeName);
        while (!pipe->sendNotify(text, hubId)) {
            zu::sleepMs(kNotifyRetryMs);
        }
    }
}

// --- Requests ---

void BroadcastServer::Hub::onRequest(void* context, CommunicationPipe* pipe) {
    Hub& hub = *static_cast<Hub*>(context);
    CallbackScope scope(hub);
    if (!scope) {
        return;
    }
    uint32_t memberId = 0;
    const zu::InplaceString<128> request = pipe->receiveRequest(&memberId);
    if (!request.empty()) {
        hub.forwardRequest(*pipe, request.c_str(), memberId);
    }
}

// Asker's manager thread: the request goes to the member its number names, on the forwarding
// thread, so that this thread never waits for another manager's answer.
void BroadcastServer::Hub::forwardRequest(CommunicationPipe& pipe, const char* request,
                                          uint32_t memberId) {
    CommunicationPipeManager* target = member(memberId);
    if (!target) {
        logLine(
            "BroadcastServer \"%s\" dropped request \"%s\" on pipe \"%s\": no manager with "
            "id %u\n",
            m_name.c_str(), request, pipe.getName(), memberId);
        return;
    }
    Forward forward;
    forward.replyPipe = &pipe;
    forward.targetPipe = target->getPipe(pipe.getName());
    forward.request = request;
    if (!m_forwarder.push(forward)) {
        logLine("BroadcastServer \"%s\" dropped request \"%s\" on pipe \"%s\": too many waiting\n",
                m_name.c_str(), request, pipe.getName());
        return;
    }
    logLine("broadcastserver pipeRequestCallback\n");
}

void BroadcastServer::Hub::RequestForwarder::work(zu::Vector<Forward>& forwards) {
    JobManager& jobs = m_hub.m_server->jobManager();
    for (const Forward& forward : forwards) {
        try {
            jobs.addNewJob<ForwardJob>(m_hub, forward);
        } catch (const zu::OutOfMemoryException&) {
            logLine("BroadcastServer \"%s\" dropped request \"%s\": out of memory\n",
                    m_hub.m_name.c_str(), forward.request.c_str());
        }
    }
    jobs.runJobs(false);
}

// --- Other processes ---

void BroadcastServer::Hub::waitOnProccesses() {
    for (;;) {
        if (m_waitEnabled) {
            if (zu::NamedMutex::doesMutexExist(m_refcountName.c_str())) {
                m_refcountSeen = true;
            } else if (m_refcountSeen) {
                return;
            }
        }
        // Nothing signals when another process lets go of the mutex: this is polled.
        zu::sleepMs(kRefcountPollMs);
    }
}

}  // namespace dm
