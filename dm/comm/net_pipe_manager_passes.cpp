// NetCommunicationPipeManager: the passes of the manager's thread. A pass sends what the pipes
// have queued, reads and dispatches what arrived, keeps the connections (a server accepts, a
// client reconnects) and then sleeps until there is something to do, within a bound.
//
// Pumping comes before reading on purpose: sending also reads the socket, and bytes read into
// the socket's buffer no longer wake a wait on it. Reading last leaves nothing buffered unseen.
#include <algorithm>

#include "comm/net_communication_pipe_manager.h"
#include "comm/pipe_protocol.h"
#include "zu/exception.h"
#include "zu/thread.h"
#include "zu/timer.h"

namespace dm {

namespace {

// Packets dispatched per connection and pass, so that one busy connection cannot hold up the
// others; the pass then comes back without sleeping.
constexpr int kMaxPacketsPerPass = 1024;

// Whole milliseconds until `due`, rounded up, at most `bound`.
uint32_t millisecondsUntil(double due, double now, uint32_t bound) {
    const double left = (due - now) * 1000.0;
    if (left <= 0.0) {
        return 0;
    }
    return left >= bound ? bound : static_cast<uint32_t>(left) + 1;
}

class AppAgeClock final : public PipeClock {
public:
    double now() const override { return zu::Timer::getAppAge(); }
};

}  // namespace

const PipeClock& appAgeClock() {
    static const AppAgeClock clock;
    return clock;
}

// --- Waiting ---

namespace {

bool watchesReads(zu::WaitHandle::Kind kind) {
    return kind == zu::WaitHandle::SocketRead || kind == zu::WaitHandle::SocketReadWrite;
}

// One socket asked for twice in a pass is watched for both.
zu::WaitHandle::Kind mergedKind(zu::WaitHandle::Kind a, zu::WaitHandle::Kind b) {
    return a == b || a == zu::WaitHandle::Event ? a : zu::WaitHandle::SocketReadWrite;
}

}  // namespace

void NetCommunicationPipeManager::WaitList::beginPass() {
    m_count = 0;
    m_pollerWatchesPass = false;
    m_waited = false;
}

bool NetCommunicationPipeManager::WaitList::add(zu::WaitHandle handle) {
    if (handle.kind == zu::WaitHandle::None) {
        return true;
    }
    for (size_t i = 0; i < m_count; ++i) {
        if (m_handles[i].sameDescriptor(handle)) {
            m_handles[i].kind = mergedKind(m_handles[i].kind, handle.kind);
            return true;
        }
    }
    if (m_count == kCapacity) {
        return false;
    }
    m_handles[m_count++] = handle;
    return true;
}

int NetCommunicationPipeManager::WaitList::wait(uint32_t timeoutMs) {
    m_waited = false;
    if (timeoutMs == 0) {
        return kNotWaited;
    }
    std::fill(m_ready, m_ready + m_count, false);
    std::fill(m_readable, m_readable + m_count, false);
    const int ready = m_pollerWatchesPass ? waitOnPoller(timeoutMs) : waitByPolling(timeoutMs);
    if (ready == zu::kWaitFailed) {
        zu::sleepMs(timeoutMs);  // never spin, whatever went wrong with a handle
        return kNotWaited;
    }
    m_waited = true;
    return ready;
}

void NetCommunicationPipeManager::WaitList::watchPassHandles() {
    m_pollerWatchesPass = updatePoller();
}

// Brings the poller's registrations up to this pass's list. Pass lists change little, so each
// handle of the last list is looked for at its old place first.
bool NetCommunicationPipeManager::WaitList::updatePoller() {
    if (!m_poller.isOpen()) {
        return false;
    }
    for (size_t i = 0; i < m_watchedCount; ++i) {
        const zu::WaitHandle& watched = m_watched[i];
        bool kept = i < m_count && m_handles[i].sameDescriptor(watched);
        for (size_t j = 0; !kept && j < m_count; ++j) {
            kept = m_handles[j].sameDescriptor(watched);
        }
        if (!kept) {
            m_poller.unwatch(watched);
        }
    }
    m_watchedCount = 0;
    for (size_t i = 0; i < m_count; ++i) {
        if (!m_poller.watch(m_handles[i])) {
            for (size_t j = 0; j < m_count; ++j) {
                m_poller.unwatch(m_handles[j]);  // this pass polls; the next one starts afresh
            }
            return false;
        }
    }
    std::copy(m_handles, m_handles + m_count, m_watched);
    m_watchedCount = m_count;
    return true;
}

int NetCommunicationPipeManager::WaitList::waitOnPoller(uint32_t timeoutMs) {
    const int count = m_poller.wait(timeoutMs, m_found, kCapacity);
    for (int k = 0; k < count; ++k) {
        for (size_t i = 0; i < m_count; ++i) {
            if (m_handles[i].sameDescriptor(m_found[k].handle)) {
                m_ready[i] = true;
                m_readable[i] = m_found[k].readable;
            }
        }
    }
    return count < 0 ? zu::kWaitFailed : lowestReady();
}

// Without a poller: one poll() over the pass's list, which reports one event at a time.
int NetCommunicationPipeManager::WaitList::waitByPolling(uint32_t timeoutMs) {
    const int ready = zu::waitForAny(m_handles, m_count, timeoutMs, m_ready);
    std::copy(m_ready, m_ready + m_count, m_readable);
    return ready;
}

int NetCommunicationPipeManager::WaitList::lowestReady() const {
    for (size_t i = 0; i < m_count; ++i) {
        if (m_ready[i]) {
            return static_cast<int>(i);
        }
    }
    return zu::kWaitTimeout;
}

bool NetCommunicationPipeManager::WaitList::sawIdle(zu::WaitHandle handle) const {
    for (size_t i = 0; m_waited && i < m_count; ++i) {
        if (m_handles[i].sameDescriptor(handle)) {
            return watchesReads(m_handles[i].kind) && !m_readable[i];
        }
    }
    return false;
}

bool NetCommunicationPipeManager::WaitList::mute(zu::WaitHandle handle) {
    for (size_t i = 0; m_pollerWatchesPass && i < m_watchedCount; ++i) {
        if (m_watched[i].sameDescriptor(handle)) {
            return m_watched[i].kind == zu::WaitHandle::SocketRead && m_poller.mute(m_watched[i]);
        }
    }
    return false;
}

void NetCommunicationPipeManager::WaitList::unmute(zu::WaitHandle handle) {
    handle.kind = zu::WaitHandle::SocketRead;
    m_poller.unmute(handle);
}

bool NetCommunicationPipeManager::WaitList::sawReady(zu::WaitHandle handle) const {
    for (size_t i = 0; m_waited && i < m_count; ++i) {
        if (m_handles[i].sameDescriptor(handle)) {
            return m_ready[i];
        }
    }
    return false;
}

// --- Wake-ups after the pass ---

// Held back so that a caller woken in the middle of a pass does not find the manager busy; if
// there is no memory to hold it, it happens at once.
void NetCommunicationPipeManager::wakeAfterPass(zu::Signal* event) {
    try {
        m_wakesAfterPass.push_back(event);
    } catch (...) {
        event->signal();
    }
}

void NetCommunicationPipeManager::callAfterPass(const PipeCallback& callback,
                                                CommunicationPipe* pipe) {
    if (!callback.function) {
        return;  // a pair with only a context: nothing to call
    }
    try {
        m_callsAfterPass.push_back({callback, pipe});
    } catch (...) {
        callback.function(callback.context, pipe);
    }
}

// Wakes first: a callback may take its time. Callbacks see the pass's effects complete.
void NetCommunicationPipeManager::runAfterPass() {
    for (zu::Signal* event : m_wakesToRun) {
        event->signal();
    }
    m_wakesToRun.clear();
    for (size_t i = 0; i < m_callsToRun.size(); ++i) {
        const DeferredCall call = m_callsToRun[i];
        call.callback.function(call.callback.context, call.pipe);
    }
    m_callsToRun.clear();
}

// --- Server ---

void NetCommunicationPipeManager::serverPass() {
    m_moreWork = false;
    m_listener->update();
    if (m_mayAccept && acceptClient()) {
        return;  // a client was redirected: nothing else this pass
    }
    if (pumpIsDue()) {
        collectPipes();
        pumpPipes();
    }
    for (size_t index = 0; index < m_sockets.size();) {
        if (serveSocket(index)) {
            ++index;  // otherwise the entry is gone and the next one took its place
        }
    }
    WaitList& waits = m_waits;
    waits.beginPass();
    waits.add(m_wakeEvent.getWaitHandle());
    const bool listening = m_listener->isListening();
    const zu::WaitHandle listenerHandle = m_listener->getWaitHandle();
    bool allWake = waits.add(listenerHandle);
    for (const SocketEntry& entry : m_sockets) {
        allWake = waits.add(waitHandleOf(entry)) && allWake;
    }
    allWake = addPipeWakeHandles(waits) && allWake;
    // What did not fit on the list is served by polling.
    const uint32_t timeoutMs = allWake ? kPassMs : kPolledPassMs;
    const int ready = waitBetweenPasses(waits, m_moreWork ? 0 : timeoutMs);
    m_mayAccept = listening && (ready == WaitList::kNotWaited || waits.sawReady(listenerHandle));
}

// Accepts one waiting connection and welcomes it. True when it was redirected elsewhere.
bool NetCommunicationPipeManager::acceptClient() {
    zu::UniquePtr<net::Socket> accepted = m_listener->pollConnect();
    net::Socket* socket = accepted.get();
    if (!socket) {
        return false;
    }
    try {
        m_sockets.push_back(makeEntry(std::move(accepted)));
    } catch (const zu::OutOfMemoryException&) {
        // Turned away (closed with `accepted`); it may try again.
        return false;
    }
    pipe_protocol::sendWelcome(*socket, m_nextConnectionId++, copyName().c_str());
    ClientConnectionCallback callback;
    {
        zu::ScopedLock lock(m_callbackLock);
        callback = m_clientConnectionCallback;
    }
    // Redirects go out only where a connection callback is set: it is the callback that
    // decides, with setRedirect, where this client is to go.
    if (!callback.isSet()) {
        return false;
    }
    callClientConnectionCallback();
    zu::ScopedLock lock(m_addressLock);
    if (!m_redirectPending) {
        return false;
    }
    pipe_protocol::sendRedirect(*socket, m_redirectHost.c_str(),
                                static_cast<int32_t>(m_redirectPort));
    m_redirectPending = false;
    return true;
}

// Reads and dispatches what arrived on the connection at `index`; a connection that has gone is
// destroyed with its entry. False when it was.
bool NetCommunicationPipeManager::serveSocket(size_t index) {
    net::Socket* socket = m_sockets[index].socket.get();
    updateSocket(*socket);
    if (socket->isConnected()) {
        pollPackets(m_sockets[index]);
    }
    if (socket->isConnected()) {
        return true;
    }
    {
        // The redirect waiting for the next client loses its address but stays pending: that
        // client is sent to an empty address and comes back to this one.
        zu::ScopedLock lock(m_addressLock);
        m_redirectHost.clear();
        m_redirectPort = 0;
    }
    detachPipesFrom(socket);
    m_sockets.erase(index);
    return false;
}

// Finishes a pending connect and sends what is queued. Reading is left to pollPackets, which
// reads as it goes; reading here as well would only cost a call that finds nothing.
void NetCommunicationPipeManager::updateSocket(net::Socket& socket) {
    if (socket.isConnecting() || socket.hasSendsToDo()) {
        socket.update();
    }
}

// Stops, leaving the rest in the socket and the system, while the connection's pipes hold as
// many whole messages as its budget allows: TCP then holds the sender back. The application
// taking messages wakes the manager (through the pipe's wake event), which reads on.
void NetCommunicationPipeManager::pollPackets(SocketEntry& entry) {
    net::Socket& socket = *entry.socket;
    for (int count = 0; count < kMaxPacketsPerPass; ++count) {
        if (entry.budget->queuedFull()) {
            return;
        }
        const SteeredTail steered = steerResponseTail(socket);
        if (steered == SteeredTail::kTaken) {
            continue;
        }
        net::Packet* packet =
            steered == SteeredTail::kUnderway ? nullptr : socket.pollPacket(nullptr);
        if (!packet && steered == SteeredTail::kPollAsUsual && steerJustRead(socket)) {
            continue;
        }
        if (!packet || !dispatch(socket, *packet)) {
            return;
        }
    }
    m_moreWork = true;  // packets still buffered do not wake a wait
}

// While a connection is not read, the data waiting on it would end every wait at once: only
// room to send is waited for then (the pipes' wake events stand for the application).
zu::WaitHandle NetCommunicationPipeManager::waitHandleOf(const SocketEntry& entry) {
    zu::WaitHandle handle = entry.socket->getWaitHandle();
    const bool reads =
        handle.kind == zu::WaitHandle::SocketRead || handle.kind == zu::WaitHandle::SocketReadWrite;
    if (reads && entry.budget->queuedFull()) {
        handle.kind =
            entry.socket->hasSendsToDo() ? zu::WaitHandle::SocketWrite : zu::WaitHandle::None;
    }
    return handle;
}

// Callers woken by the pass find the socket lock free, and may write at once while the thread
// sleeps.
int NetCommunicationPipeManager::waitBetweenPasses(WaitList& waits, uint32_t timeoutMs,
                                                   bool untimed) {
    waits.watchPassHandles();
    unlockSockets();
    runAfterPass();
    int ready = waits.wait(timeoutMs);
    // Taking the connection back would only hand the thread an answer that its caller is
    // reading (a large one, part-way): with nothing due, the thread sleeps on instead.
    while (ready == zu::kWaitTimeout && untimed && m_connectionLent.load()) {
        ready = waits.wait(timeoutMs);
    }
    lockSockets();
    noteReadableSockets(waits);
    return ready;
}

// A socket reads again unless the wait watched it for reading and found nothing.
void NetCommunicationPipeManager::noteReadableSockets(const WaitList& waits) {
    for (const SocketEntry& entry : m_sockets) {
        const zu::WaitHandle handle = waitHandleOf(entry);
        const bool watchedReads = handle.kind == zu::WaitHandle::SocketRead ||
                                  handle.kind == zu::WaitHandle::SocketReadWrite;
        if (!watchedReads || !waits.sawIdle(handle)) {
            entry.socket->noteReadable();
        }
    }
}

// --- Client ---

void NetCommunicationPipeManager::clientPass() {
    m_moreWork = false;
    SocketEntry& entry = m_sockets[0];
    net::Socket& socket = *entry.socket;
    if (pumpIsDue()) {
        collectPipes();
        pumpPipes();
    }
    if (m_pipesUnattached) {
        sendOpenPipes(socket);
    }

    updateSocket(socket);
    if (socket.isConnected()) {
        m_wasConnected = true;
        pollPackets(entry);
        if (m_pipesUnattached) {
            notePipesAttached();  // the server's answers may have attached the last ones
        }
    }
    if (!socket.isConnected() && m_wasConnected) {
        onClientDropped(socket);
    }
    // The clock is read only when something is due by time: a connection or a pipe to ask for.
    const bool timed = !socket.isConnected() || m_pipesUnattached;
    const double now = timed ? m_clock.now() : 0.0;
    const bool idle = !socket.isConnected() && !socket.isConnecting();
    if (idle && now - entry.lastConnectAttempt > kReconnectInterval) {
        connectClient(entry, now);
    }

    WaitList& waits = m_waits;
    waits.beginPass();
    waits.add(m_wakeEvent.getWaitHandle());
    waits.add(waitHandleOf(entry));
    uint32_t timeoutMs = kPassMs;
    if (!addPipeWakeHandles(waits)) {
        timeoutMs = kPolledPassMs;  // pipes that did not fit are polled instead
    }
    if (socket.isConnected() && m_pipesUnattached) {
        timeoutMs = std::min(timeoutMs, millisecondsUntil(nextOpenPipeDue(), now, timeoutMs));
    } else if (!socket.isConnecting()) {
        const double nextConnect = entry.lastConnectAttempt + kReconnectInterval;
        timeoutMs = std::min(timeoutMs, millisecondsUntil(nextConnect, now, timeoutMs));
    }
    const bool untimed =
        !m_moreWork && timeoutMs == kPassMs && socket.isConnected() && !m_pipesUnattached;
    waitBetweenPasses(waits, m_moreWork ? 0 : timeoutMs, untimed);
}

// Asks the server for every pipe not attached yet, again each kOpenPipeInterval.
void NetCommunicationPipeManager::sendOpenPipes(net::Socket& socket) {
    if (!socket.isConnected()) {
        return;
    }
    zu::InplaceString<128> name = copyName();
    for (PipeEntry* entry : m_passPipes) {
        const double now = m_clock.now();
        if (!entry->socket && now - entry->lastOpenPipeSent > kOpenPipeInterval) {
            pipe_protocol::sendOpenPipe(socket, entry->pipe->getName(), name.c_str());
            entry->lastOpenPipeSent = now;
        }
    }
}

// When the next pipe is to be asked for (far ahead when every pipe is attached).
double NetCommunicationPipeManager::nextOpenPipeDue() const {
    double due = m_clock.now() + 3600.0;
    for (const PipeEntry* entry : m_passPipes) {
        if (!entry->socket) {
            due = std::min(due, entry->lastOpenPipeSent + kOpenPipeInterval);
        }
    }
    return due;
}

void NetCommunicationPipeManager::onClientDropped(net::Socket& socket) {
    {
        zu::ScopedLock lock(m_addressLock);
        if (!m_redirectPending) {
            m_redirectHost.clear();
            m_redirectPort = 0;
        }
    }
    detachPipesFrom(&socket);
    m_wasConnected = false;
}

// Connects to the address remembered (a redirect), else to the configured one.
void NetCommunicationPipeManager::connectClient(SocketEntry& entry, double now) {
    const Address address = copyAddress();
    net::Socket& socket = *entry.socket;
    if (!address.redirectHost.empty()) {
        socket.connect(address.redirectHost.c_str(), address.redirectPort);
    }
    if (!socket.isConnected() && !socket.isConnecting() && !address.host.empty()) {
        socket.connect(address.host.c_str(), address.port);
    }
    {
        zu::ScopedLock lock(m_addressLock);
        m_redirectPending = false;
    }
    entry.lastConnectAttempt = now;
}

// --- Pipes ---

// Whether this pass collects and pumps the pipes: when one queued something, when the last pump
// left some unsent, and always while there are more pipes than a pass takes (they take turns).
bool NetCommunicationPipeManager::pumpIsDue() {
    const bool queued = m_outgoingQueued.exchange(false);
    return queued || m_pumpLeftWork || m_pipeCount > kMaxPipesPerPass;
}

void NetCommunicationPipeManager::notePipesAttached() {
    zu::ScopedLock lock(m_pipesLock);
    m_pipesUnattached = std::any_of(m_pipeOrder.begin(), m_pipeOrder.end(),
                                    [](const PipeEntry* entry) { return !entry->socket; });
}

// Takes up to kMaxPipesPerPass pipes for this pass, going on where the last pass stopped.
void NetCommunicationPipeManager::collectPipes() {
    m_passPipes.clear();
    zu::ScopedLock lock(m_pipesLock);
    const size_t count = m_pipeOrder.size();
    m_pipeCount = count;
    const size_t taken = std::min(count, kMaxPipesPerPass);
    if (m_nextPipeToPump >= count) {
        m_nextPipeToPump = 0;
    }
    for (size_t i = 0; i < taken; ++i) {
        m_passPipes.push_back(m_pipeOrder[(m_nextPipeToPump + i) % count]);
    }
    m_nextPipeToPump = count > 0 ? (m_nextPipeToPump + taken) % count : 0;
    m_pipesUnattached = false;
    for (const PipeEntry* entry : m_passPipes) {
        m_pipesUnattached = m_pipesUnattached || !entry->socket;
    }
}

void NetCommunicationPipeManager::pumpPipes() {
    m_pumpLeftWork = false;
    for (PipeEntry* entry : m_passPipes) {
        if (!entry->socket) {
            continue;
        }
        SocketSink sink(*entry->socket);
        if (entry->pipe->pumpOutgoing(&sink)) {
            m_moreWork = true;
        }
        m_pumpLeftWork = m_pumpLeftWork || entry->pipe->leftUnsent();
    }
}

// Adds the wake events of the attached pipes of this pass. False when not all of them fit.
bool NetCommunicationPipeManager::addPipeWakeHandles(WaitList& waits) {
    bool allFit = m_pipeCount <= m_passPipes.size();
    for (PipeEntry* entry : m_passPipes) {
        if (entry->socket && !waits.add(entry->pipe->getWakeHandle())) {
            allFit = false;
        }
    }
    return allFit;
}

}  // namespace dm
