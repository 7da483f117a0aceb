// NetCommunicationPipeManager: the direct read. A client's caller whose request went out
// directly (see net_pipe_direct_write.cpp) would otherwise sleep until the manager's thread
// woke on the answer, read it and woke the caller: two thread wake-ups for every round trip.
// Instead the caller keeps the socket lock it borrowed for the write, and waits on the
// connection itself; the answer then wakes only the caller.
//
// The thread stays the owner. It goes on sleeping with the connection muted in its poller
// (errors and hang-ups still wake it), and when it wakes for anything else it asks for the lock
// back (takeSocketLock): the reader, waiting on the take-back event too, gives it back at once.
// Only the end of the thread's time bound does not count while nothing is due by time: an
// answer too large for one read would otherwise change hands part-way every 100 ms.
// Another caller that wants to write meanwhile finds the lock taken and has the thread send for
// it, as during a pass. The reader dispatches only pipe traffic, which touches no connection
// state and takes only the pipes' locks, which the thread never holds while it waits for the
// socket lock. Traffic that has callbacks to run ends the read: the thread, woken for them,
// runs them after its next pass (and reads on), since the peer may answer the caller only once
// a callback has run. Anything else that arrives (a welcome, a redirect, a close) is left to
// the thread, woken for it too. Where the poller cannot mute a handle (the poll-based
// fallback), callers wait for the thread.
#include "comm/net_communication_pipe_manager.h"
#include "comm/pipe_protocol.h"

namespace dm {

namespace {

// Pipe messages dispatched per wake-up of the reading caller, as in a pass.
constexpr int kMaxLentPackets = 1024;

}  // namespace

// Lends the connection for the answer when the caller is the only one awaiting an answer and
// nobody waits for the lock. Muted before the request goes: an answer that comes back before
// the caller waits for it must not wake the thread.
bool NetCommunicationPipeManager::lendForAnswer(NetCommunicationPipe& pipe) {
    if (m_isServer || m_awaitedAnswers.load() != 1 || m_socketLockWaiters.load() > 0) {
        return false;
    }
    SocketEntry* entry = lendableSocket(pipe);
    if (!entry || !m_waits.mute(entry->socket->getWaitHandle())) {
        return false;
    }
    m_lentHandle = entry->socket->getWaitHandle();
    m_connectionLent.store(true);
    return true;
}

void NetCommunicationPipeManager::readForAnswer(NetCommunicationPipe& pipe, uint32_t requestId,
                                                bool written) {
    bool wakeThread = false;
    // Not lendable after a write the OS took only in part: the thread sends the rest.
    SocketEntry* entry = written ? lendableSocket(pipe) : nullptr;
    if (entry) {
        wakeThread = !readLentSocket(*entry, pipe, requestId);
        if (pipe.isAnswered(requestId)) {
            pipe.countAnswerReadDirectly();
        }
    }
    unmuteLentSocket();
    // Wake-ups may not wait for the thread: the caller's own answer is among them.
    for (zu::Signal* event : m_wakesAfterPass) {
        event->signal();
    }
    m_wakesAfterPass.clear();
    if (wakeThread || !m_callsAfterPass.empty()) {
        m_wakeEvent.signal();
    }
    m_ioLock.unlock();
}

// Level-triggered: what is still unread wakes the thread. A connection that closed meanwhile
// has left the poller with its descriptor.
void NetCommunicationPipeManager::unmuteLentSocket() {
    if (m_sockets.size() == 1 &&
        m_sockets[0].socket->getWaitHandle().sameDescriptor(m_lentHandle)) {
        m_waits.unmute(m_lentHandle);
    }
    m_lentHandle = zu::WaitHandle();
    m_connectionLent.store(false);
}

// The client's connection, when it is up, carries the pipe, has nothing to send and may be
// read; null otherwise.
NetCommunicationPipeManager::SocketEntry* NetCommunicationPipeManager::lendableSocket(
    const NetCommunicationPipe& pipe) {
    if (m_sockets.size() != 1) {
        return nullptr;
    }
    SocketEntry& entry = m_sockets[0];
    net::Socket* socket = entry.socket.get();
    const bool usable = socket->isConnected() && !socket->hasSendsToDo() &&
                        !entry.budget->queuedFull() && pipe.attachedSocket() == socket;
    return usable ? &entry : nullptr;
}

// Waits on the connection and dispatches what arrives until the answer is in or the thread
// wants the lock back. False when the thread has work the caller left: it must be woken.
bool NetCommunicationPipeManager::readLentSocket(SocketEntry& entry, NetCommunicationPipe& pipe,
                                                 uint32_t requestId) {
    net::Socket& socket = *entry.socket;
    const zu::WaitHandle waits[2] = {socket.getWaitHandle(), m_takeBackEvent.getWaitHandle()};
    bool leftWork = false;
    while (!leftWork && m_callsAfterPass.empty() && m_socketLockWaiters.load() == 0 &&
           !pipe.isAnswered(requestId)) {
        // Without a time-out (a bound would arm a timer on every wait): the answer, an error
        // or a hang-up wakes the caller, and whatever else needs the connection wakes the
        // thread, which asks for the lock back.
        if (zu::waitForAny(waits, 2, zu::kInfinite) != 0) {
            break;
        }
        socket.noteReadable();
        leftWork = !dispatchLentPackets(entry);
    }
    return !leftWork;
}

// Dispatches the pipe messages that have arrived. False when something is left that only the
// thread may handle: another kind of message, a full budget, a closed connection, or more than
// one wake-up's share.
bool NetCommunicationPipeManager::dispatchLentPackets(SocketEntry& entry) {
    net::Socket& socket = *entry.socket;
    for (int count = 0; count < kMaxLentPackets; ++count) {
        if (entry.budget->queuedFull()) {
            return false;
        }
        const SteeredTail steered = steerResponseTail(socket);
        if (steered == SteeredTail::kTaken) {
            continue;
        }
        net::Packet* packet = steered == SteeredTail::kUnderway
                                  ? nullptr
                                  : socket.pollPacketIf(pipe_protocol::carriesPipeTraffic, nullptr);
        if (!packet && steered == SteeredTail::kPollAsUsual && steerJustRead(socket)) {
            continue;
        }
        if (!packet) {
            return !socket.hasWholePacket() && socket.isConnected();
        }
        dispatch(socket, *packet);
    }
    return false;
}

}  // namespace dm
