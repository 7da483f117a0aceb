// NetCommunicationPipe: the direct write. A thread that queued a request or a response writes
// it to the socket itself when the manager's thread is idle (waiting between passes), which
// spares two thread wake-ups: the manager's, to send it, and for a response the responder's,
// to learn that it went.
//
// The manager's thread stays the owner of every socket. It holds its socket lock (see
// PipeOwner::borrowSockets) for the whole of a pass and lets it go only while it waits; a
// caller never waits for a pass to end, and writes only when nothing can come before its
// message: the socket has nothing queued (no other frame is half-written), the pipe has
// nothing unsent ahead of it (per-pipe order), and the message fits one packet. A frame that
// the OS takes only in part goes whole into the socket's send queue, and the manager, woken,
// finishes it. Everything else (and every message when the manager is busy) goes the usual way
// through pumpOutgoing.
#include "comm/net_communication_pipe.h"
#include "comm/pipe_protocol.h"

namespace dm {

// Runs `write(socket)` with the owner's socket lock held, when the lock is free and the pipe's
// connection is up with nothing queued; true when `write` says it sent the message. A request's
// caller may go on to read the answer, still holding the lock: the connection is lent to it
// before the request goes, so that an answer quicker than the caller cannot wake the thread.
template <typename Write>
bool NetCommunicationPipe::writeDirectly(const Write& write, const uint32_t* requestId) {
    if (!m_owner || !m_owner->borrowSockets()) {
        return false;  // the manager is in a pass: it sends the message
    }
    bool written = false;
    bool lent = false;
    // Attached, detached and destroyed only by the manager's thread, under the lock.
    net::Socket* socket = m_socket.load();
    if (socket && socket->isConnected() && !socket->hasSendsToDo()) {
        lent = requestId && m_owner->lendForAnswer(*this);
        written = write(*socket);
        if (written) {
            m_sentDirectly.fetch_add(1, std::memory_order_relaxed);
        }
        if (written && socket->hasSendsToDo()) {
            m_sentDirectlyInPart.fetch_add(1, std::memory_order_relaxed);
            wakeToSend();  // the OS took part of the frame: the manager sends the rest
        }
    }
    if (lent) {
        m_owner->readForAnswer(*this, *requestId, written);
    } else {
        m_owner->returnSockets();
    }
    return written;
}

bool NetCommunicationPipe::writeRequestDirectly(uint32_t id) {
    return writeDirectly(
        [this, id](net::Socket& socket) {
            zu::ScopedLock lock(m_outgoingLock);
            size_t index = 0;
            RequestRecord* request = findOutgoingRequest(id, &index);
            if (!request || !requestMayGoDirectly(index)) {
                return false;
            }
            SocketSink sink(socket);
            pipe_protocol::SendProgress progress;
            const pipe_protocol::SendResult result = pipe_protocol::sendRequest(
                sink, m_sendPacket, progress, m_name.c_str(), request->id, request->value,
                request->text.c_str(), request->data, request->dataSize);
            if (result != pipe_protocol::SendResult::kWhole) {
                return false;  // the connection went: the manager finds out and carries on
            }
            // Like any sent request: sent again from its start after a reconnect.
            request->bytesSent = progress.bytesSent;
            request->sent = true;
            return true;
        },
        &id);
}

bool NetCommunicationPipe::writeResponseDirectly(uint32_t serial) {
    return writeDirectly(
        [this, serial](net::Socket& socket) {
            zu::ScopedLock lock(m_outgoingLock);
            size_t index = 0;
            ResponseRecord* response = findOutgoingResponse(serial, &index);
            if (!response || !responseMayGoDirectly(index)) {
                return false;
            }
            SocketSink sink(socket);
            pipe_protocol::SendProgress progress;
            const pipe_protocol::SendResult result = pipe_protocol::sendResponse(
                sink, m_sendPacket, progress, m_name.c_str(), response->requestId,
                response->text.c_str(), response->data, response->dataSize);
            if (result != pipe_protocol::SendResult::kWhole) {
                return false;
            }
            response->bytesSent = progress.bytesSent;
            response->sent = true;
            return true;
        },
        nullptr);
}

namespace {

// True when the first `end` records of `queue` are wholly on the wire.
template <typename Queue>
bool allSentBefore(const Queue& queue, size_t end) {
    for (size_t i = 0; i < end; ++i) {
        if (!queue[i].sent) {
            return false;
        }
    }
    return true;
}

}  // namespace

// The pump sends responses before requests, and each kind in queue order, only the first
// kMaxSentPerPump of it: a request goes directly only where the pump would send it next.
bool NetCommunicationPipe::requestMayGoDirectly(size_t index) const {
    const RequestRecord& request = m_outgoingRequests[index];
    if (index >= kMaxSentPerPump || request.sent || request.bytesSent > 0 ||
        !pipe_protocol::requestFitsOnePacket(m_name.c_str(), request.text.c_str(),
                                             request.dataSize)) {
        return false;
    }
    return allSentBefore(m_outgoingRequests, index) &&
           allSentBefore(m_outgoingResponses, m_outgoingResponses.size());
}

bool NetCommunicationPipe::responseMayGoDirectly(size_t index) const {
    const ResponseRecord& response = m_outgoingResponses[index];
    if (index >= kMaxSentPerPump || response.sent || response.bytesSent > 0 ||
        !pipe_protocol::responseFitsOnePacket(m_name.c_str(), response.text.c_str(),
                                              response.dataSize)) {
        return false;
    }
    return allSentBefore(m_outgoingResponses, index);
}

}  // namespace dm
