// NetCommunicationPipe receive handlers: reassembly of chunked requests, responses and
// notifications, run on the manager's thread. Everything read from the wire is checked before
// it is used: a chunk outside its message, a packet shorter than its fields, or a message over
// the size limit is dropped whole.
#include <algorithm>
#include <cstring>

#include "comm/pipe_protocol.h"
#include "dm/comm.h"
#include "zu/exception.h"
#include "zu/memory.h"

namespace dm {

namespace {

// Incoming request data is handed to the application; cache-line alignment suits bulk copies.
constexpr size_t kRequestDataAlignment = 64;

}  // namespace

bool NetCommunicationPipe::fitsMessageLimit(uint32_t totalSize) const {
    return totalSize <= m_maxMessageSize.load();
}

// --- Requests ---

void NetCommunicationPipe::onRequestPacket(uint32_t id, uint32_t value, const char* text,
                                           net::Packet& packet, uint32_t packetSize) {
    ChunkFields chunk;
    // A request without data may end right after its text; the sizes then count as 0.
    if (packetSize > packet.getPos() && !pipe_protocol::readChunkFields(packet, chunk)) {
        return;
    }
    if (!chunk.liesInside() || !fitsMessageLimit(chunk.totalSize)) {
        return;
    }
    PipeCallback callback;
    {
        zu::ScopedLock lock(m_incomingLock);
        if (!storeRequestChunk(id, value, text, chunk, packet)) {
            return;
        }
        callback = m_requestCallback;
    }
    invoke(callback);
}

// Returns true when the chunk completed its request.
bool NetCommunicationPipe::storeRequestChunk(uint32_t id, uint32_t value, const char* text,
                                             const ChunkFields& chunk, net::Packet& packet) {
    // A request resent after a reconnect that was already answered here.
    if (m_lastCompletedRequestId != kNoId && id <= m_lastCompletedRequestId) {
        return false;
    }
    RequestRecord* request = findPartialRequest(id);
    if (!request) {
        request = addIncomingRequest(id, value, text, chunk);
        if (!request) {
            return false;
        }
    } else if (request->dataSize != chunk.totalSize) {
        return false;  // does not belong to the message begun with this id
    }
    if (chunk.chunkSize > 0) {
        packet.read(static_cast<uint8_t*>(request->data) + chunk.offset, chunk.chunkSize);
        request->dataReceivedBytes += chunk.chunkSize;
        if (!chunk.endsPayload()) {
            return false;
        }
    }
    request->complete = true;
    m_lastCompletedRequestId = id;
    return true;
}

NetCommunicationPipe::RequestRecord* NetCommunicationPipe::addIncomingRequest(
    uint32_t id, uint32_t value, const char* text, const ChunkFields& chunk) {
    void* data = nullptr;
    if (chunk.totalSize > 0) {
        try {
            data = zu::allocateMemory(chunk.totalSize, kRequestDataAlignment);
        } catch (const zu::OutOfMemoryException&) {
            return nullptr;
        }
        if (chunk.chunkSize == 0) {
            // Completes without any data: hand out zeros rather than stale memory.
            std::memset(data, 0, chunk.totalSize);
        }
    }
    RequestRecord& request = m_incomingRequests.emplace_back();
    request.id = id;
    request.value = value;
    request.text = text ? text : "";
    request.data = data;
    request.dataSize = chunk.totalSize;
    return &request;
}

NetCommunicationPipe::RequestRecord* NetCommunicationPipe::findPartialRequest(uint32_t id) {
    for (RequestRecord& request : m_incomingRequests) {
        if (request.id == id && !request.complete) {
            return &request;
        }
    }
    return nullptr;
}

// --- Responses ---

void NetCommunicationPipe::onResponsePacket(uint32_t id, const char* text, net::Packet& packet) {
    ChunkFields chunk;
    if (!pipe_protocol::readChunkFields(packet, chunk) || !chunk.liesInside()) {
        return;
    }
    zu::ScopedLock lock(m_outgoingLock);
    RequestRecord* request = findOutgoingRequest(id);
    if (!request) {
        return;  // nobody waits for it (any more)
    }
    request->responseText = text ? text : "";
    if (chunk.chunkSize > 0) {
        request->responseSize = chunk.totalSize;
        // The caller's buffer takes what fits; the full size is still reported.
        const uint32_t chunkStart = packet.getPos();
        if (request->responseBuffer && chunk.offset < request->responseCapacity) {
            const uint32_t fits =
                std::min(chunk.chunkSize, request->responseCapacity - chunk.offset);
            packet.read(static_cast<uint8_t*>(request->responseBuffer) + chunk.offset, fits);
        }
        packet.setPos(chunkStart + chunk.chunkSize);
        request->responseReceivedBytes += chunk.chunkSize;
        if (!chunk.endsPayload()) {
            return;
        }
    }
    request->responseReceived = true;
    request->event->signal();
}

// --- Notifications ---

void NetCommunicationPipe::onNotifyPacket(uint32_t id, uint32_t value, net::Packet& packet) {
    ChunkFields chunk;
    if (!pipe_protocol::readChunkFields(packet, chunk) || !chunk.liesInside() ||
        !fitsMessageLimit(chunk.totalSize)) {
        return;
    }
    PipeCallback callback;
    {
        zu::ScopedLock lock(m_incomingLock);
        if (!storeNotifyChunk(id, value, chunk, packet)) {
            return;
        }
        callback = m_notifyCallback;
    }
    invoke(callback);
}

// Returns true when the chunk completed its notification. Chunks are appended in the order
// they arrive; the offset only serves the bounds check.
bool NetCommunicationPipe::storeNotifyChunk(uint32_t id, uint32_t value, const ChunkFields& chunk,
                                            net::Packet& packet) {
    NotificationRecord* notification = findPartialNotification(id);
    if (!notification) {
        notification = &m_incomingNotifications.emplace_back();
        notification->id = id;
        notification->value = value;
        notification->expectedLength = chunk.totalSize;
    } else if (static_cast<uint64_t>(notification->receivedLength) + chunk.chunkSize >
               notification->expectedLength) {
        return false;  // more text than the notification announced
    }
    // The text ends at the chunk's first zero byte, as a zero-terminated append would.
    const uint32_t chunkStart = packet.getPos();
    const char* bytes = reinterpret_cast<const char*>(packet.getData() + chunkStart);
    const void* zero = std::memchr(bytes, 0, chunk.chunkSize);
    const size_t length =
        zero ? static_cast<size_t>(static_cast<const char*>(zero) - bytes) : chunk.chunkSize;
    notification->text.append(bytes, length);
    packet.setPos(chunkStart + chunk.chunkSize);
    notification->receivedLength += chunk.chunkSize;
    if (notification->receivedLength != notification->expectedLength) {
        return false;
    }
    m_lastCompletedNotifyId = id;
    return true;
}

NetCommunicationPipe::NotificationRecord* NetCommunicationPipe::findPartialNotification(
    uint32_t id) {
    // A whole notification takes no more chunks: a packet with its id starts a new one.
    for (NotificationRecord& notification : m_incomingNotifications) {
        if (notification.id == id && notification.receivedLength < notification.expectedLength) {
            return &notification;
        }
    }
    return nullptr;
}

}  // namespace dm
