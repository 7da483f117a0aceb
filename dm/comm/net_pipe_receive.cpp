// NetCommunicationPipe receive handlers: reassembly of chunked requests, responses and
// notifications, run on the manager's thread. Everything read from the wire is checked before
// it is used: a chunk outside its message, a packet shorter than its fields, or a message over
// the size limit is dropped whole, and counted.
#include <algorithm>
#include <cstring>

#include "comm/net_communication_pipe.h"
#include "zu/exception.h"
#include "zu/memory.h"

namespace dm {

namespace {

// Incoming request data is handed to the application; cache-line alignment suits bulk copies.
constexpr size_t kRequestDataAlignment = 64;
// First buffer of a request's data (or all of it when smaller): small requests are allocated
// once, large ones double from here.
constexpr uint64_t kMinRequestBuffer = 256 * 1024;

}  // namespace

bool NetCommunicationPipe::fitsMessageLimit(uint32_t totalSize) const {
    return totalSize <= m_maxMessageSize.load();
}

void NetCommunicationPipe::count(Drop drop) {
    std::atomic<uint64_t>& counter = drop == Drop::kMalformed   ? m_droppedMalformed
                                     : drop == Drop::kOverLimit ? m_droppedOverLimit
                                     : drop == Drop::kStale     ? m_droppedStale
                                                                : m_droppedEmptyText;
    counter.fetch_add(1, std::memory_order_relaxed);
}

void NetCommunicationPipe::receive(const pipe_protocol::Message& message) {
    if (message.malformed) {
        count(Drop::kMalformed);
        return;
    }
    switch (message.kind) {
        case pipe_protocol::kRequest:
            onRequest(message);
            break;
        case pipe_protocol::kResponse:
            onResponse(message);
            break;
        case pipe_protocol::kNotify:
            onNotify(message);
            break;
        default:
            break;  // not a pipe's message
    }
}

// --- Requests ---

void NetCommunicationPipe::onRequest(const pipe_protocol::Message& message) {
    const Chunk& chunk = message.chunk;
    // A sender puts data in every chunk of a request that has data: an empty one would
    // complete it with nothing in its buffer.
    if (!chunk.liesInside() || (chunk.totalSize > 0 && chunk.size == 0)) {
        count(Drop::kMalformed);
        return;
    }
    if (!fitsMessageLimit(chunk.totalSize)) {
        count(Drop::kOverLimit);
        return;
    }
    // An empty text could not be told from "no request" by the application. Counted once per
    // message, at its first chunk.
    if (message.text[0] == '\0') {
        if (chunk.offset == 0) {
            count(Drop::kEmptyText);
        }
        return;
    }
    PipeCallback callback;
    {
        zu::ScopedLock lock(m_incomingLock);
        if (!storeRequestChunk(message)) {
            return;
        }
        callback = m_requestCallback;
    }
    invoke(callback);
}

// Returns true when the chunk completed its request.
bool NetCommunicationPipe::storeRequestChunk(const pipe_protocol::Message& message) {
    const Chunk& chunk = message.chunk;
    const uint32_t id = message.id;
    // A request resent after a reconnect that was already answered here.
    if (m_lastCompletedRequestId != kNoId && id <= m_lastCompletedRequestId) {
        count(Drop::kStale);
        return false;
    }
    size_t index = 0;
    RequestRecord* request = findPartialRequest(id, &index);
    if (!request) {
        request = addIncomingRequest(message);
        if (!request) {
            count(Drop::kOverLimit);
            return false;
        }
        index = m_incomingRequests.size() - 1;
    } else if (request->dataSize != chunk.totalSize) {
        count(Drop::kMalformed);  // does not belong to the message begun with this id
        return false;
    }
    if (chunk.size > 0) {
        if (!justifiedByArrivedBytes(*request, chunk)) {
            count(Drop::kOverLimit);
            return false;
        }
        if (!reserveRequestData(*request, chunk.offset + chunk.size)) {
            dropIncomingRequest(index);
            count(Drop::kOverLimit);
            return false;
        }
        // Bytes that arrived before stay as they came: a chunk repeating or overlapping them
        // is dropped, so that no byte counts twice toward the whole.
        if (!request->received.add(chunk.offset, chunk.size)) {
            count(Drop::kMalformed);
            return false;
        }
        std::memcpy(static_cast<uint8_t*>(request->data) + chunk.offset, chunk.bytes, chunk.size);
        if (!chunk.endsPayload()) {
            return false;
        }
        // Ended with bytes missing (chunks out of order or lost): handing it out would give the
        // application memory that no chunk wrote.
        if (!request->received.covers(request->dataSize)) {
            dropIncomingRequest(index);
            count(Drop::kMalformed);
            return false;
        }
    }
    request->complete = true;
    m_lastCompletedRequestId = id;
    return true;
}

// The record starts without a buffer: it grows as chunks arrive (see reserveRequestData), so
// what a request announces costs nothing until its data comes. Requests that stay unfinished
// are limited in number and in announced bytes; new ones beyond either limit are dropped.
NetCommunicationPipe::RequestRecord* NetCommunicationPipe::addIncomingRequest(
    const pipe_protocol::Message& message) {
    const Chunk& chunk = message.chunk;
    if (!chunk.endsPayload() && !roomForUnfinishedRequest(chunk.totalSize)) {
        return nullptr;
    }
    RequestRecord& request = m_incomingRequests.emplace_back();
    request.id = message.id;
    request.value = message.value;
    request.text = message.text;
    request.dataSize = chunk.totalSize;
    return &request;
}

bool NetCommunicationPipe::roomForUnfinishedRequest(uint32_t dataSize) const {
    uint64_t announced = dataSize;
    size_t count = 1;
    for (const RequestRecord& request : m_incomingRequests) {
        if (!request.complete) {
            announced += request.dataSize;
            ++count;
        }
    }
    return count <= kMaxUnfinishedIncoming && announced <= m_maxMessageSize.load();
}

// A chunk far beyond the bytes that arrived would make the buffer grow to what the request
// announces, with almost nothing sent: the buffer may reach at most twice the bytes that came
// (or the first buffer's size). A sender sends in order and never comes near this.
bool NetCommunicationPipe::justifiedByArrivedBytes(const RequestRecord& request,
                                                   const Chunk& chunk) const {
    const uint64_t arrived = static_cast<uint64_t>(request.received.bytes()) + chunk.size;
    const uint64_t end = static_cast<uint64_t>(chunk.offset) + chunk.size;
    return end <= std::max<uint64_t>(2 * arrived, kMinRequestBuffer);
}

// Makes the request's buffer hold at least `end` bytes, growing it geometrically up to its
// announced size. Only bytes that chunks wrote are copied over. False when out of memory.
bool NetCommunicationPipe::reserveRequestData(RequestRecord& request, uint32_t end) {
    if (end <= request.dataCapacity) {
        return true;
    }
    uint64_t capacity = std::max<uint64_t>(2ull * request.dataCapacity, kMinRequestBuffer);
    capacity = std::min<uint64_t>(std::max<uint64_t>(capacity, end), request.dataSize);
    void* grown = nullptr;
    try {
        grown = zu::allocateMemory(static_cast<size_t>(capacity), kRequestDataAlignment);
    } catch (const zu::OutOfMemoryException&) {
        return false;
    }
    if (request.data) {
        std::memcpy(grown, request.data, request.received.end());
    }
    zu::deleteMemory(request.data);
    request.data = grown;
    request.dataCapacity = static_cast<uint32_t>(capacity);
    return true;
}

void NetCommunicationPipe::dropIncomingRequest(size_t index) {
    zu::deleteMemory(m_incomingRequests[index].data);
    m_incomingRequests[index].data = nullptr;
    m_incomingRequests.erase(index);
}

NetCommunicationPipe::RequestRecord* NetCommunicationPipe::findPartialRequest(uint32_t id,
                                                                              size_t* outIndex) {
    for (size_t i = 0; i < m_incomingRequests.size(); ++i) {
        if (m_incomingRequests[i].id == id && !m_incomingRequests[i].complete) {
            *outIndex = i;
            return &m_incomingRequests[i];
        }
    }
    return nullptr;
}

// --- Responses ---

void NetCommunicationPipe::onResponse(const pipe_protocol::Message& message) {
    if (!message.chunk.liesInside()) {
        count(Drop::kMalformed);
        return;
    }
    zu::Event* waiter = nullptr;
    {
        zu::ScopedLock lock(m_outgoingLock);
        RequestRecord* request = findOutgoingRequest(message.id);
        if (!request) {
            count(Drop::kStale);  // nobody waits for it (any more)
            return;
        }
        if (!storeResponseChunk(*request, message.text, message.chunk)) {
            return;  // more chunks are to come, or the chunk was dropped
        }
        request->responseReceived = true;
        waiter = request->event;
    }
    // Woken outside the lock, which the waiter takes at once. A late signal to an event that
    // has meanwhile gone to another call only makes that call look at its record once more.
    waiter->signal();
}

// Returns true when the chunk completed the response: it ends the payload and every byte of it
// has arrived. A chunk repeating or overlapping bytes that arrived, or disagreeing with the
// size the first one gave, is dropped; a response ending with bytes missing is dropped whole
// and the request waits on, so that the caller never gets a buffer that no chunk wrote.
bool NetCommunicationPipe::storeResponseChunk(RequestRecord& request, const char* text,
                                              const Chunk& chunk) {
    const bool begun = request.received.bytes() > 0;
    if ((begun && chunk.totalSize != request.responseSize) ||
        (chunk.size == 0 && (chunk.totalSize > 0 || begun))) {
        count(Drop::kMalformed);
        return false;
    }
    request.responseText = text;
    if (chunk.size == 0) {
        request.responseSize = 0;
        return true;
    }
    if (!request.received.add(chunk.offset, chunk.size)) {
        count(Drop::kMalformed);
        return false;
    }
    request.responseSize = chunk.totalSize;
    // The caller's buffer takes what fits; the full size is still reported.
    if (request.responseBuffer && chunk.offset < request.responseCapacity) {
        const uint32_t fits = std::min(chunk.size, request.responseCapacity - chunk.offset);
        std::memcpy(static_cast<uint8_t*>(request.responseBuffer) + chunk.offset, chunk.bytes,
                    fits);
    }
    if (!chunk.endsPayload()) {
        return false;
    }
    if (!request.received.covers(chunk.totalSize)) {
        request.received.clear();
        request.responseSize = 0;
        count(Drop::kMalformed);
        return false;
    }
    return true;
}

// --- Notifications ---

void NetCommunicationPipe::onNotify(const pipe_protocol::Message& message) {
    if (!message.chunk.liesInside()) {
        count(Drop::kMalformed);
        return;
    }
    if (!fitsMessageLimit(message.chunk.totalSize)) {
        count(Drop::kOverLimit);
        return;
    }
    PipeCallback callback;
    {
        zu::ScopedLock lock(m_incomingLock);
        if (!storeNotifyChunk(message)) {
            return;
        }
        callback = m_notifyCallback;
    }
    invoke(callback);
}

// Returns true when the chunk completed its notification. Chunks are appended in the order
// they arrive; the offset only serves the bounds check.
bool NetCommunicationPipe::storeNotifyChunk(const pipe_protocol::Message& message) {
    const Chunk& chunk = message.chunk;
    NotificationRecord* notification = findPartialNotification(message.id);
    if (!notification) {
        if (chunk.totalSize == 0) {
            count(Drop::kEmptyText);  // could not be told from "no notification"
            return false;
        }
        if (chunk.size == 0) {
            count(Drop::kMalformed);  // a sender starts with text; this would hold back the rest
            return false;
        }
        if (!chunk.endsPayload() && countIncompleteNotifications() >= kMaxUnfinishedIncoming) {
            count(Drop::kOverLimit);
            return false;
        }
        notification = &m_incomingNotifications.emplace_back();
        notification->id = message.id;
        notification->value = message.value;
        notification->expectedLength = chunk.totalSize;
    } else if (static_cast<uint64_t>(notification->receivedLength) + chunk.size >
               notification->expectedLength) {
        count(Drop::kMalformed);  // more text than the notification announced
        return false;
    }
    // The text ends at the chunk's first zero byte, as a zero-terminated append would.
    const char* bytes = reinterpret_cast<const char*>(chunk.bytes);
    const void* zero = std::memchr(bytes, 0, chunk.size);
    const size_t length =
        zero ? static_cast<size_t>(static_cast<const char*>(zero) - bytes) : chunk.size;
    notification->text.append(bytes, length);
    notification->receivedLength += chunk.size;
    if (notification->receivedLength != notification->expectedLength) {
        return false;
    }
    if (notification->text.empty()) {  // its text was only zero bytes
        m_incomingNotifications.erase(
            static_cast<size_t>(notification - m_incomingNotifications.data()));
        count(Drop::kEmptyText);
        return false;
    }
    m_lastCompletedNotifyId = message.id;
    return true;
}

size_t NetCommunicationPipe::countIncompleteNotifications() const {
    size_t count = 0;
    for (const NotificationRecord& notification : m_incomingNotifications) {
        if (notification.receivedLength < notification.expectedLength) {
            ++count;
        }
    }
    return count;
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
