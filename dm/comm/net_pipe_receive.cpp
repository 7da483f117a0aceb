// NetCommunicationPipe receive handlers: reassembly of chunked requests, responses and
// notifications, run on the manager's thread. Everything read from the wire is checked before
// it is used: a chunk outside its message, a packet shorter than its fields, or a message over
// the size limit is dropped whole, and counted.
#include <algorithm>
#include <cstring>
#include <iterator>

#include "comm/net_communication_pipe.h"
#include "zu/exception.h"
#include "zu/memory.h"

namespace dm {

namespace {

// Incoming request data is handed to the application; cache-line alignment suits bulk copies.
constexpr size_t kRequestDataAlignment = 64;
// A chunk may lie this far out even when few bytes came, so that chunks a little out of order
// are taken; the buffer never grows further than that on so few bytes.
constexpr uint64_t kOutOfOrderSlack = 4096;

}  // namespace

bool NetCommunicationPipe::fitsMessageLimit(uint32_t totalSize) const {
    return totalSize <= m_maxMessageSize.load();
}

void NetCommunicationPipe::count(Drop drop) {
    std::atomic<uint64_t>& counter = drop == Drop::kMalformed   ? m_droppedMalformed
                                     : drop == Drop::kOverLimit ? m_droppedOverLimit
                                     : drop == Drop::kStale     ? m_droppedStale
                                     : drop == Drop::kEmptyText ? m_droppedEmptyText
                                                                : m_droppedConnectionLimit;
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
    callAfterPass(callback);
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
    if (discardsRestOf(&m_discardedRequestId, message)) {
        count(m_discardedRequestReason);
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
        index = m_partialRequests.size() - 1;
    } else if (request->dataSize != chunk.totalSize) {
        count(Drop::kMalformed);  // does not belong to the message begun with this id
        return false;
    }
    if (chunk.size > 0) {
        if (!justifiedByArrivedBytes(*request, chunk)) {
            if (request->received.bytes() == 0) {
                dropPartialRequest(index);  // nothing of it came: no record to hold others back
            }
            count(Drop::kOverLimit);
            return false;
        }
        Drop refusal = Drop::kOverLimit;
        if (!reserveRequestData(*request, chunk.offset + chunk.size, &refusal)) {
            dropPartialRequest(index);
            if (!chunk.endsPayload()) {
                m_discardedRequestId = id;
                m_discardedRequestReason = refusal;
            }
            count(refusal);
            return false;
        }
        // Bytes that arrived before stay as they came: a chunk repeating or overlapping them
        // is dropped, so that no byte counts twice toward the whole.
        if (!request->received.add(chunk.offset, chunk.size)) {
            count(Drop::kMalformed);
            return false;
        }
        std::memcpy(request->ownedData.data() + chunk.offset, chunk.bytes, chunk.size);
        if (!chunk.endsPayload()) {
            return false;
        }
        // Ended with bytes missing (chunks out of order or lost): handing it out would give the
        // application memory that no chunk wrote.
        if (!request->received.covers(request->dataSize)) {
            dropPartialRequest(index);
            count(Drop::kMalformed);
            return false;
        }
    }
    completeRequest(index);
    m_lastCompletedRequestId = id;
    return true;
}

// True when the message is the rest of one dropped part-way; its last chunk ends the dropping.
bool NetCommunicationPipe::discardsRestOf(uint32_t* discardedId,
                                          const pipe_protocol::Message& message) {
    if (*discardedId == kNoId || *discardedId != message.id) {
        return false;
    }
    if (message.chunk.endsPayload()) {
        *discardedId = kNoId;
    }
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
    RequestRecord& request = m_partialRequests.emplace_back();
    request.arrival = m_nextArrival++;
    request.id = message.id;
    request.value = message.value;
    request.text = message.text;
    request.dataSize = chunk.totalSize;
    return &request;
}

bool NetCommunicationPipe::roomForUnfinishedRequest(uint32_t dataSize) const {
    uint64_t announced = dataSize;
    for (const RequestRecord& request : m_partialRequests) {
        announced += request.dataSize;
    }
    return m_partialRequests.size() < kMaxUnfinishedIncoming &&
           announced <= m_maxMessageSize.load();
}

// A chunk far beyond the bytes that arrived would make the buffer grow to what the request
// announces, with almost nothing sent: a chunk may end at most at twice the bytes that came
// (its own counted), or within the first kOutOfOrderSlack bytes. A sender sends in order and
// never comes near this.
bool NetCommunicationPipe::justifiedByArrivedBytes(const RequestRecord& request,
                                                   const Chunk& chunk) const {
    const uint64_t arrived = static_cast<uint64_t>(request.received.bytes()) + chunk.size;
    const uint64_t end = static_cast<uint64_t>(chunk.offset) + chunk.size;
    return end <= std::max(2 * arrived, kOutOfOrderSlack);
}

// Makes the request's buffer hold at least `end` bytes, doubling it up to its announced size,
// so that it stays within a small multiple of the bytes that arrived. Only bytes that chunks
// wrote are copied over. False, with the reason in `refusal`, when the connection's budget has
// no room for the growth or memory ran out.
bool NetCommunicationPipe::reserveRequestData(RequestRecord& request, uint32_t end, Drop* refusal) {
    const uint64_t held = request.ownedData.size();
    if (end <= held) {
        return true;
    }
    uint64_t capacity = std::min<uint64_t>(std::max<uint64_t>(2ull * held, end), request.dataSize);
    const bool spareFits = held == 0 && m_spareRequestData.size() >= capacity;
    if (spareFits) {
        capacity = m_spareRequestData.size();  // charged whole: it is at most a few KiB
    }
    const uint64_t growth = capacity - held;
    if (!chargeUnfinished(growth)) {
        *refusal = Drop::kConnectionLimit;
        return false;
    }
    if (spareFits) {
        request.ownedData = std::move(m_spareRequestData);
        return true;
    }
    zu::Buffer grown;
    try {
        grown = zu::Buffer(static_cast<size_t>(capacity), kRequestDataAlignment);
    } catch (const zu::OutOfMemoryException&) {
        releaseUnfinished(growth);
        *refusal = Drop::kOverLimit;
        return false;
    }
    if (!request.ownedData.empty()) {
        std::memcpy(grown.data(), request.ownedData.data(), request.received.end());
    }
    request.ownedData = std::move(grown);
    return true;
}

void NetCommunicationPipe::dropPartialRequest(size_t index) {
    releaseUnfinished(m_partialRequests[index].ownedData.size());
    m_partialRequests.erase(index);
}

// Moves the whole request among the whole ones, in the order the first chunks came: normally
// at the back; behind the later ones only when a peer interleaved its messages.
void NetCommunicationPipe::completeRequest(size_t index) {
    RequestRecord& request = m_partialRequests[index];
    request.complete = true;
    releaseUnfinished(request.ownedData.size());
    chargeQueued(queuedCharge(request));
    auto at = m_incomingRequests.end();
    while (at != m_incomingRequests.begin() && std::prev(at)->arrival > request.arrival) {
        --at;
    }
    m_incomingRequests.insert(at, std::move(request));
    m_partialRequests.erase(index);
}

// An older request still arriving holds back the whole ones behind it.
bool NetCommunicationPipe::oldestRequestWaitsForChunks() const {
    const uint64_t oldestWhole = m_incomingRequests.front().arrival;
    for (const RequestRecord& partial : m_partialRequests) {
        if (partial.arrival < oldestWhole) {
            return true;
        }
    }
    return false;
}

NetCommunicationPipe::RequestRecord* NetCommunicationPipe::findPartialRequest(uint32_t id,
                                                                              size_t* outIndex) {
    for (size_t i = 0; i < m_partialRequests.size(); ++i) {
        if (m_partialRequests[i].id == id) {
            *outIndex = i;
            return &m_partialRequests[i];
        }
    }
    return nullptr;
}

// --- Budget (incomingLock held) ---

uint64_t NetCommunicationPipe::queuedCharge(const RequestRecord& request) {
    return sizeof(RequestRecord) + request.ownedData.size();
}

uint64_t NetCommunicationPipe::queuedCharge(const NotificationRecord& notification) {
    return sizeof(NotificationRecord) + notification.receivedLength;
}

bool NetCommunicationPipe::chargeUnfinished(uint64_t bytes) {
    if (m_budget && !m_budget->reserveUnfinished(bytes)) {
        return false;
    }
    m_unfinishedCharge += bytes;
    return true;
}

void NetCommunicationPipe::releaseUnfinished(uint64_t bytes) {
    m_unfinishedCharge -= bytes;
    if (m_budget) {
        m_budget->releaseUnfinished(bytes);
    }
}

void NetCommunicationPipe::chargeQueued(uint64_t bytes) {
    m_queuedCharge += bytes;
    if (m_budget) {
        m_budget->addQueued(bytes);
    }
}

// The application took a message: a connection that was no longer read may be read again, so
// the manager is woken.
void NetCommunicationPipe::releaseQueued(uint64_t bytes) {
    m_queuedCharge -= bytes;
    if (m_budget && m_budget->releaseQueued(bytes)) {
        m_wakeEvent.signal();
    }
}

// Gives back to the connection's budget all that the pipe holds; the pipe keeps counting it.
void NetCommunicationPipe::leaveBudget() {
    zu::ScopedLock lock(m_incomingLock);
    if (m_budget) {
        m_budget->releaseUnfinished(m_unfinishedCharge);
        m_budget->releaseQueued(m_queuedCharge);
        m_budget = nullptr;
    }
}

// --- Responses ---

void NetCommunicationPipe::onResponse(const pipe_protocol::Message& message) {
    if (!message.chunk.liesInside()) {
        count(Drop::kMalformed);
        return;
    }
    zu::Signal* waiter = nullptr;
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
    wakeAfterPass(waiter);
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
        uint8_t* target = static_cast<uint8_t*>(request.responseBuffer) + chunk.offset;
        const uint32_t fits = std::min(chunk.size, request.responseCapacity - chunk.offset);
        if (target != chunk.bytes) {  // else received straight into place (receiveResponseTail)
            std::memcpy(target, chunk.bytes, fits);
        }
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
    callAfterPass(callback);
}

// Returns true when the chunk completed its notification. Chunks are appended in the order
// they arrive; the offset only serves the bounds check.
bool NetCommunicationPipe::storeNotifyChunk(const pipe_protocol::Message& message) {
    const Chunk& chunk = message.chunk;
    if (discardsRestOf(&m_discardedNotifyId, message)) {
        count(Drop::kConnectionLimit);
        return false;
    }
    size_t index = 0;
    NotificationRecord* notification = findPartialNotification(message.id, &index);
    if (!notification) {
        if (chunk.totalSize == 0) {
            count(Drop::kEmptyText);  // could not be told from "no notification"
            return false;
        }
        if (chunk.size == 0) {
            count(Drop::kMalformed);  // a sender starts with text; this would hold back the rest
            return false;
        }
        if (!chunk.endsPayload() && m_partialNotifications.size() >= kMaxUnfinishedIncoming) {
            count(Drop::kOverLimit);
            return false;
        }
        notification = &m_partialNotifications.emplace_back();
        index = m_partialNotifications.size() - 1;
        notification->arrival = m_nextArrival++;
        notification->id = message.id;
        notification->value = message.value;
        notification->expectedLength = chunk.totalSize;
    } else if (static_cast<uint64_t>(notification->receivedLength) + chunk.size >
               notification->expectedLength) {
        count(Drop::kMalformed);  // more text than the notification announced
        return false;
    }
    if (!chargeUnfinished(chunk.size)) {
        dropPartialNotification(index);
        if (!chunk.endsPayload()) {
            m_discardedNotifyId = message.id;
        }
        count(Drop::kConnectionLimit);
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
        dropPartialNotification(index);
        count(Drop::kEmptyText);
        return false;
    }
    releaseUnfinished(notification->receivedLength);
    chargeQueued(queuedCharge(*notification));
    auto at = m_incomingNotifications.end();
    while (at != m_incomingNotifications.begin() &&
           std::prev(at)->arrival > notification->arrival) {
        --at;
    }
    m_incomingNotifications.insert(at, std::move(*notification));
    m_partialNotifications.erase(index);
    m_lastCompletedNotifyId = message.id;
    return true;
}

void NetCommunicationPipe::dropPartialNotification(size_t index) {
    releaseUnfinished(m_partialNotifications[index].receivedLength);
    m_partialNotifications.erase(index);
}

bool NetCommunicationPipe::oldestNotificationWaitsForChunks() const {
    const uint64_t oldestWhole = m_incomingNotifications.front().arrival;
    for (const NotificationRecord& partial : m_partialNotifications) {
        if (partial.arrival < oldestWhole) {
            return true;
        }
    }
    return false;
}

NetCommunicationPipe::NotificationRecord* NetCommunicationPipe::findPartialNotification(
    uint32_t id, size_t* outIndex) {
    // A whole notification takes no more chunks: a packet with its id starts a new one.
    for (size_t i = 0; i < m_partialNotifications.size(); ++i) {
        if (m_partialNotifications[i].id == id) {
            *outIndex = i;
            return &m_partialNotifications[i];
        }
    }
    return nullptr;
}

}  // namespace dm
