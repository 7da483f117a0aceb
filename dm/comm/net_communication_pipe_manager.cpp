// NetCommunicationPipeManager: construction and destruction, the operations for application
// threads, and the handling of received messages. The passes of the thread and its waiting are
// in net_pipe_manager_passes.cpp.
#include "comm/net_communication_pipe_manager.h"

#include "comm/pipe_protocol.h"
#include "log_output.h"
#include "zu/exception.h"
#include "zu/thread.h"

namespace dm {

CommunicationPipeManager::~CommunicationPipeManager() = default;

bool CommunicationPipeManager::pipeExists(const char*) {
    return false;
}

namespace {

constexpr int kManagerThreadSlot = 9;
constexpr const char* kManagerThreadName = "ZMK - Communication Pipe";

// On a manager's thread: that manager's stop flag.
thread_local const std::atomic<bool>* t_threadStopFlag = nullptr;
// On a manager's thread while it holds its socket lock: that manager. A callback run then on
// the thread must not try the lock again (for a direct write): it is the thread's own.
thread_local const void* t_socketLockHolder = nullptr;
// Remote names are cut to this length, and no more than kMaxRemoteNames different ones are
// kept (see setRemoteName).
constexpr size_t kMaxRemoteNameLength = 127;
constexpr size_t kMaxRemoteNames = 64;

const char* orEmpty(const char* text) {
    return text ? text : "";
}

}  // namespace

NetCommunicationPipeManager::NetCommunicationPipeManager(
    const char* name, bool isServer, uint32_t port, const char* host, uint32_t id,
    bool createPipesOnRequest, ClientConnectionCallback clientConnectionCallback,
    PipeCreateCallback pipeCreateCallback, const PipeClock& clock)
    : m_isServer(isServer),
      m_createPipesOnRequest(createPipesOnRequest),
      m_clock(clock),
      m_id(id),
      m_name(orEmpty(name)),
      m_host(orEmpty(host)),
      m_port(port),
      m_clientConnectionCallback(clientConnectionCallback),
      m_pipeCreateCallback(pipeCreateCallback) {
    m_passPipes.reserve(kMaxPipesPerPass);
    if (m_isServer) {
        m_listener = zu::makeUnique<net::Listener>(port);
        m_port = m_listener->getPort();  // the one chosen for port 0; 0 when listening failed
    } else {
        m_sockets.push_back(makeEntry(zu::makeUnique<net::Socket>()));
    }
    startThread();
}

NetCommunicationPipeManager::~NetCommunicationPipeManager() {
    m_stopRequested.store(true);
    m_wakeEvent.signal();
    joinThread();
    // From now on no caller reads a connection: those still blocked are let go below.
    m_socketLockWaiters.fetch_add(1);
    m_takeBackEvent.signal();
    // Threads blocked on any pipe are let go before the first pipe is destroyed.
    for (PipeEntry* entry : m_pipeOrder) {
        entry->pipe->close();
    }
    // The members go in reverse order of declaration: the sockets with their budgets and the
    // listener, then the pipes, then the remote names they may have handed out.
}

void NetCommunicationPipeManager::operator delete(void* memory) {
    zu::deleteMemory(memory);
}

bool NetCommunicationPipeManager::isStoppingManagerThread() {
    return t_threadStopFlag != nullptr && t_threadStopFlag->load();
}

bool NetCommunicationPipeManager::isManagerThread() {
    return t_threadStopFlag != nullptr;
}

int NetCommunicationPipeManager::run() {
    t_threadStopFlag = &m_stopRequested;
    zu::registerThread(kManagerThreadSlot);
    zu::setThreadName(zu::getCurrentThreadId(), kManagerThreadName);
    while (!m_stopRequested.load()) {
        bool failed = false;
        lockSockets();
        try {
            if (m_isServer) {
                serverPass();
            } else {
                clientPass();
            }
        } catch (const zu::OutOfMemoryException&) {
            // Out of memory inside the runtime (a socket's buffers): the connections and pipes
            // are left as the pass left them, and the next pass tries again a little later.
            failed = true;
        }
        unlockSockets();
        runAfterPass();  // a pass that ended early
        if (failed) {
            zu::sleepMs(kPolledPassMs);
        }
    }
    t_threadStopFlag = nullptr;
    return 0;
}

// A caller may hold the lock: for a moment to write, or for as long as it reads a lent
// connection, which it gives back when asked.
void NetCommunicationPipeManager::lockSockets() {
    takeSocketLock();
    t_socketLockHolder = this;
}

void NetCommunicationPipeManager::takeSocketLock() {
    if (m_ioLock.tryLock()) {
        return;
    }
    m_socketLockWaiters.fetch_add(1);
    m_takeBackEvent.signal();
    m_ioLock.lock();
    m_socketLockWaiters.fetch_sub(1);
}

// What the pass held back leaves with the lock; runAfterPass runs it.
void NetCommunicationPipeManager::unlockSockets() {
    m_wakesToRun.swap(m_wakesAfterPass);
    m_callsToRun.swap(m_callsAfterPass);
    t_socketLockHolder = nullptr;
    m_ioLock.unlock();
}

// Only tried, never waited for: a caller may hold locks that a pass takes (a pipe-create
// callback runs with the pipes' lock held), and while the thread or a caller reading a lent
// connection has the lock, the thread sends the message.
bool NetCommunicationPipeManager::borrowSockets() {
    return t_socketLockHolder != this && m_ioLock.tryLock();
}

// --- Operations for application threads ---

// The pointer outlives the lock: see the contract of getName.
const char* NetCommunicationPipeManager::getName() const {
    zu::ScopedLock lock(m_addressLock);
    return m_name.c_str();
}

zu::InplaceString<128> NetCommunicationPipeManager::copyName() const {
    zu::ScopedLock lock(m_addressLock);
    return m_name;
}

void NetCommunicationPipeManager::setName(const char* name) {
    zu::ScopedLock lock(m_addressLock);
    m_name = orEmpty(name);
}

const char* NetCommunicationPipeManager::getRemoteName() const {
    return m_remoteName.load(std::memory_order_acquire);
}

void NetCommunicationPipeManager::setRemoteName(const char* name) {
    name = orEmpty(name);
    size_t length = 0;
    while (length < kMaxRemoteNameLength && name[length] != '\0') {
        ++length;
    }
    const zu::InplaceString<128> cut(name, length);
    if (cut == m_remoteName.load(std::memory_order_relaxed)) {
        return;
    }
    for (const zu::UniquePtr<zu::InplaceString<128>>& known : m_remoteNames) {
        if (*known == cut) {
            m_remoteName.store(known->c_str(), std::memory_order_release);
            return;
        }
    }
    if (m_remoteNames.size() == kMaxRemoteNames) {
        return;  // a peer that keeps changing its name does not make this grow
    }
    try {
        m_remoteNames.push_back(zu::makeUnique<zu::InplaceString<128>>(cut));
    } catch (const zu::OutOfMemoryException&) {
        return;  // the name stays as it was
    }
    m_remoteName.store(m_remoteNames.back()->c_str(), std::memory_order_release);
}

CommunicationPipe* NetCommunicationPipeManager::getPipe(const char* pipeName) {
    pipeName = orEmpty(pipeName);
    NetCommunicationPipe* pipe = nullptr;
    {
        zu::ScopedLock lock(m_pipesLock);
        if (PipeEntry* entry = findEntry(pipeName)) {
            return entry->pipe.get();
        }
        pipe = createEntry(pipeName)->pipe.get();
        callPipeCreateCallback(pipe);
    }
    m_wakeEvent.signal();  // a client asks the server for it at once
    return pipe;
}

const char* NetCommunicationPipeManager::getHost(uint32_t* outPort) {
    zu::ScopedLock lock(m_addressLock);
    if (outPort) {
        *outPort = m_port;
    }
    return m_host.c_str();
}

zu::InplaceString<128> NetCommunicationPipeManager::copyHost(uint32_t* outPort) {
    zu::ScopedLock lock(m_addressLock);
    if (outPort) {
        *outPort = m_port;
    }
    return m_host;
}

void NetCommunicationPipeManager::setHost(const char* host, uint32_t port) {
    {
        zu::ScopedLock lock(m_addressLock);
        m_host = orEmpty(host);
        m_port = port;
    }
    m_wakeEvent.signal();
}

void NetCommunicationPipeManager::setRedirect(const char* host, uint32_t port) {
    {
        zu::ScopedLock lock(m_addressLock);
        m_redirectHost = orEmpty(host);
        m_redirectPort = port;
        m_redirectPending = true;
    }
    m_wakeEvent.signal();
}

void NetCommunicationPipeManager::setClientConnectionCallback(ClientConnectionCallback callback) {
    zu::ScopedLock lock(m_callbackLock);
    m_clientConnectionCallback = callback;
}

void NetCommunicationPipeManager::setPipeCreateCallback(PipeCreateCallback callback) {
    zu::ScopedLock lock(m_callbackLock);
    m_pipeCreateCallback = callback;
}

bool NetCommunicationPipeManager::pipeExists(const char* pipeName) {
    zu::ScopedLock lock(m_pipesLock);
    return findEntry(orEmpty(pipeName)) != nullptr;
}

// --- Received messages (manager thread) ---

bool NetCommunicationPipeManager::dispatch(net::Socket& socket, net::Packet& packet) {
    pipe_protocol::Message message;
    if (!pipe_protocol::decode(packet, message)) {
        return true;  // not a pipe message
    }
    switch (message.kind) {
        case pipe_protocol::kRequest:
        case pipe_protocol::kResponse:
        case pipe_protocol::kNotify:
            deliverToPipe(socket, message);
            return true;
        case pipe_protocol::kOpenPipe:
            if (m_isServer && !message.malformed) {
                setRemoteName(message.managerName);
                openPipe(socket, message.pipeName);
            }
            return true;
        case pipe_protocol::kPipeOpened:
            if (!m_isServer && !message.malformed) {
                openPipe(socket, message.pipeName);
            }
            return true;
        case pipe_protocol::kRedirect:
            if (m_isServer || message.malformed) {
                return true;
            }
            onRedirect(socket, message);
            return false;  // the connection is closed: the next one goes to the address received
        case pipe_protocol::kWelcome:
            if (!m_isServer && !message.malformed) {
                onWelcome(socket, message);
            }
            return socket.isConnected();
        default:
            return true;  // PipeRefused: the client simply asks again later
    }
}

// The pipe counts a malformed one; one for a pipe this end does not have is dropped. A pipe
// takes messages only from the connection it is attached to: another connection can neither
// feed it requests nor answer its requests.
void NetCommunicationPipeManager::deliverToPipe(const net::Socket& socket,
                                                const pipe_protocol::Message& message) {
    bool attachedHere = false;
    NetCommunicationPipe* pipe = findPipe(socket, message.pipeName, &attachedHere);
    if (pipe && attachedHere) {
        pipe->receive(message);
    } else if (pipe) {
        pipe->countMessageFromOtherConnection();
    }
}

NetCommunicationPipe* NetCommunicationPipeManager::findPipe(const net::Socket& socket,
                                                            const char* pipeName,
                                                            bool* attachedHere) {
    zu::ScopedLock lock(m_pipesLock);
    PipeEntry* entry = findEntry(pipeName);
    *attachedHere = entry && entry->socket == &socket;
    return entry ? entry->pipe.get() : nullptr;
}

void NetCommunicationPipeManager::onRedirect(net::Socket& socket,
                                             const pipe_protocol::Message& message) {
    socket.close();
    zu::ScopedLock lock(m_addressLock);
    m_redirectHost = message.host;
    m_redirectPort = static_cast<uint32_t>(message.port);
    m_redirectPending = true;
}

void NetCommunicationPipeManager::onWelcome(net::Socket& socket,
                                            const pipe_protocol::Message& message) {
    m_id.store(message.connectionId);
    setRemoteName(message.managerName);
    {
        zu::ScopedLock lock(m_addressLock);
        // A redirect governs only the connection it caused; a drop goes back to the address
        // that was configured.
        m_redirectHost = m_host;
        m_redirectPort = m_port;
        if (message.protocolVersion != pipe_protocol::kProtocolVersion) {
            socket.close();
            m_redirectHost.clear();
        }
    }
    callClientConnectionCallback();
}

void NetCommunicationPipeManager::openPipe(net::Socket& socket, const char* pipeName) {
    NetCommunicationPipe* toAttach = nullptr;
    NetCommunicationPipe* created = nullptr;
    bool takenOver = false;  // from another connection
    {
        zu::ScopedLock lock(m_pipesLock);
        PipeEntry* entry = findEntry(pipeName);
        if (!entry && m_createPipesOnRequest) {
            entry = createRequestedEntry(pipeName);
            created = entry ? entry->pipe.get() : nullptr;
        }
        if (!entry) {
            pipe_protocol::sendPipeRefused(socket, pipeName);
            return;
        }
        if (entry->socket != &socket) {
            takenOver = entry->socket != nullptr;
            entry->socket = &socket;
            toAttach = entry->pipe.get();
        }
    }
    if (takenOver) {
        toAttach->dropUnsentResponses();
    }
    // Attaching resets the pipe and calls its connection callback: outside the lock, so that
    // the callback may use the manager freely.
    if (toAttach) {
        toAttach->attachSocket(&socket, budgetOf(&socket));
    }
    if (created) {
        callPipeCreateCallback(created);
    }
    if (m_isServer) {
        pipe_protocol::sendPipeOpened(socket, pipeName);
    }
}

void NetCommunicationPipeManager::detachPipesFrom(const net::Socket* socket) {
    zu::ScopedLock lock(m_pipesLock);
    for (PipeEntry* entry : m_pipeOrder) {
        if (entry->socket == socket) {
            entry->socket = nullptr;
            entry->pipe->detachSocket();
        }
    }
}

// --- Helpers ---

NetCommunicationPipeManager::PipeEntry* NetCommunicationPipeManager::findEntry(
    const char* pipeName) {
    auto found = m_pipes.find(pipeName);
    return found == m_pipes.end() ? nullptr : found->second.get();
}

// A pipe that a peer asks for. Refused (null) beyond the limit, and when making it fails for
// want of memory or handles: the peer asks again later, and the manager's thread goes on.
NetCommunicationPipeManager::PipeEntry* NetCommunicationPipeManager::createRequestedEntry(
    const char* pipeName) {
    if (m_pipesCreatedOnRequest >= m_maxPipesCreatedOnRequest.load()) {
        if (m_loggedPipeLimit) {
            return nullptr;  // said once: a peer asking again and again fills no log
        }
        m_loggedPipeLimit = true;
        logLine("PipeManager \"%s\": refused pipe \"%s\": %zu pipes made on request already\n",
                copyName().c_str(), pipeName, m_pipesCreatedOnRequest);
        return nullptr;
    }
    try {
        PipeEntry* entry = createEntry(pipeName);
        ++m_pipesCreatedOnRequest;
        return entry;
    } catch (const std::exception& error) {
        logLine("PipeManager \"%s\": could not make pipe \"%s\": %s\n", copyName().c_str(),
                pipeName, error.what());
    } catch (...) {
        logLine("PipeManager \"%s\": could not make pipe \"%s\"\n", copyName().c_str(), pipeName);
    }
    return nullptr;
}

NetCommunicationPipeManager::PipeEntry* NetCommunicationPipeManager::createEntry(
    const char* pipeName) {
    // Each step may run out of memory and leaves the tables as they were: what was made goes
    // with `entry`, and the order has room before the map takes the entry.
    zu::UniquePtr<PipeEntry> entry = zu::makeUnique<PipeEntry>();
    entry->pipe = zu::makeUnique<NetCommunicationPipe>(this, pipeName);
    if (m_pipeOrder.size() == m_pipeOrder.capacity()) {
        m_pipeOrder.reserve(zu::Vector<PipeEntry*>::grownCapacity(m_pipeOrder.capacity()));
    }
    PipeEntry* made = entry.get();
    m_pipes.emplace(zu::InplaceString<128>(pipeName), std::move(entry));
    m_pipeOrder.push_back(made);
    m_outgoingQueued.store(true);  // collected by the next pass
    return made;
}

// A connection's entry with its budget; the socket goes with `socket` when making it fails.
NetCommunicationPipeManager::SocketEntry NetCommunicationPipeManager::makeEntry(
    zu::UniquePtr<net::Socket> socket) {
    SocketEntry entry;
    entry.budget =
        zu::makeUnique<ConnectionBudget>(m_maxUnfinishedPerConnection, m_maxQueuedPerConnection);
    socket->setReadsOnlyWhenReady(true);  // its readiness is reported by the manager's waits
    socket->setTailSteering(true);        // large answers go straight to their callers' buffers
    entry.socket = std::move(socket);
    return entry;
}

ConnectionBudget* NetCommunicationPipeManager::budgetOf(const net::Socket* socket) {
    for (const SocketEntry& entry : m_sockets) {
        if (entry.socket.get() == socket) {
            return entry.budget.get();
        }
    }
    return nullptr;
}

NetCommunicationPipeManager::Address NetCommunicationPipeManager::copyAddress() {
    zu::ScopedLock lock(m_addressLock);
    Address address;
    address.host = m_host;
    address.port = m_port;
    address.redirectHost = m_redirectHost;
    address.redirectPort = m_redirectPort;
    return address;
}

void NetCommunicationPipeManager::callClientConnectionCallback() {
    ClientConnectionCallback callback;
    {
        zu::ScopedLock lock(m_callbackLock);
        callback = m_clientConnectionCallback;
    }
    if (callback.function) {
        callback.function(callback.context, this);
    }
}

void NetCommunicationPipeManager::callPipeCreateCallback(NetCommunicationPipe* pipe) {
    PipeCreateCallback callback;
    {
        zu::ScopedLock lock(m_callbackLock);
        callback = m_pipeCreateCallback;
    }
    if (callback.function) {
        callback.function(callback.context, this, pipe);
    }
}

}  // namespace dm

namespace dm {

bool setConnectionIncomingLimits(CommunicationPipeManager* manager, uint64_t maxUnfinishedBytes,
                                 uint64_t maxQueuedBytes) {
    auto* netManager = dynamic_cast<NetCommunicationPipeManager*>(manager);
    if (netManager) {
        netManager->setConnectionIncomingLimits(maxUnfinishedBytes, maxQueuedBytes);
    }
    return netManager != nullptr;
}

}  // namespace dm
