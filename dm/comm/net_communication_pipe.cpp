// NetCommunicationPipe: the queues, the blocking calls and the manager's send step. The
// receive handlers are in net_pipe_receive.cpp.
#include <algorithm>
#include <cstring>
#include <utility>

#include "comm/net_communication_pipe.h"

#include "comm/pipe_protocol.h"
#include "log_output.h"
#include "zu/memory.h"

namespace dm {

CommunicationPipe::~CommunicationPipe() = default;
PipeOwner::~PipeOwner() = default;

namespace {

const char* orEmpty(const char* text) {
    return text ? text : "";
}

bool isAbortToken(const zu::String& text) {
    return text.equalsIgnoreCase(NetCommunicationPipe::kAbortToken);
}

// An empty text reads as "nothing arrived" at the far end, so such a message is refused.
bool refuseEmptyText(const char* text, const char* what, const char* pipeName) {
    if (text && text[0] != '\0') {
        return false;
    }
    logLine("Pipe \"%s\": refused to send a %s with an empty text\n", pipeName, what);
    return true;
}

}  // namespace

NetCommunicationPipe::NetCommunicationPipe(PipeOwner* owner, const char* name)
    : m_owner(owner), m_name(orEmpty(name)) {
    m_partialRequests.reserve(kInitialQueueRoom);
    m_partialNotifications.reserve(kInitialQueueRoom);
    m_pumpResponses.reserve(kMaxSentPerPump);
    m_pumpRequests.reserve(kMaxSentPerPump);
    m_pumpNotifications.reserve(kMaxSentPerPump);
    m_pumpWaiters.reserve(kMaxSentPerPump);
}

NetCommunicationPipe::~NetCommunicationPipe() {
    close();
    m_budget = nullptr;  // the connection's budget may have gone with the connection
    freeIncomingRequests();
}

CommunicationPipeManager* NetCommunicationPipe::getManager() const {
    return m_owner ? m_owner->getOwningManager() : nullptr;
}

zu::InplaceString<128> NetCommunicationPipe::getConnectedIP() const {
    if (!isConnected()) {
        return {};
    }
    zu::ScopedLock lock(m_outgoingLock);
    return m_connectedIP;
}

PipeStatistics NetCommunicationPipe::getStatistics() const {
    PipeStatistics sizes;
    sizes.droppedMalformed = m_droppedMalformed.load();
    sizes.droppedOverLimit = m_droppedOverLimit.load();
    sizes.droppedStale = m_droppedStale.load();
    sizes.droppedEmptyText = m_droppedEmptyText.load();
    sizes.droppedOtherConnection = m_droppedOtherConnection.load();
    sizes.droppedConnectionLimit = m_droppedConnectionLimit.load();
    sizes.sentDirectly = m_sentDirectly.load();
    sizes.sentDirectlyInPart = m_sentDirectlyInPart.load();
    sizes.answersReadDirectly = m_answersReadDirectly.load();
    {
        zu::ScopedLock lock(m_incomingLock);
        sizes.incomingRequests = m_incomingRequests.size() + m_partialRequests.size();
        sizes.incomingNotifications =
            m_incomingNotifications.size() + m_partialNotifications.size();
        sizes.unfinishedIncomingBytes = m_unfinishedCharge;
        sizes.queuedIncomingBytes = m_queuedCharge;
    }
    zu::ScopedLock lock(m_outgoingLock);
    sizes.outgoingRequests = m_outgoingRequests.size();
    sizes.outgoingNotifications = m_outgoingNotifications.size();
    sizes.outgoingResponses = m_outgoingResponses.size();
    return sizes;
}

// --- Notifications ---

bool NetCommunicationPipe::sendNotify(const char* text, uint32_t value) {
    if (refuseEmptyText(text, "notification", m_name.c_str()) || !isConnected()) {
        return false;  // notifications are never kept for a later connection
    }
    const size_t length = std::strlen(text);
    {
        zu::ScopedLock lock(m_outgoingLock);
        const bool full = m_outgoingNotifications.size() >= kMaxQueuedNotifications ||
                          (!m_outgoingNotifications.empty() &&
                           m_outgoingNotificationBytes + length > kMaxQueuedNotificationBytes);
        if (full) {
            return false;  // the peer does not take what was sent; the caller may try later
        }
        NotificationRecord& notification = m_outgoingNotifications.emplace_back();
        notification.id = m_nextNotifyId++;
        notification.value = value;
        notification.text = text;
        m_outgoingNotificationBytes += length;
    }
    wakeToSend();
    return true;
}

zu::InplaceString<128> NetCommunicationPipe::receiveNotify(uint32_t* outValue) {
    zu::ScopedLock lock(m_incomingLock);
    // Only the oldest is looked at: an incomplete one holds back those behind it.
    if (m_incomingNotifications.empty() || oldestNotificationWaitsForChunks()) {
        return {};
    }
    NotificationRecord& oldest = m_incomingNotifications.front();
    if (outValue) {
        *outValue = oldest.value;
    }
    releaseQueued(queuedCharge(oldest));
    zu::InplaceString<128> text(std::move(oldest.text));
    m_incomingNotifications.pop_front();
    return text;
}

// --- Requests ---

zu::InplaceString<128> NetCommunicationPipe::sendRequest(const char* text, uint32_t value,
                                                         void* responseBuffer,
                                                         uint32_t responseCapacity,
                                                         uint32_t* outResponseSize,
                                                         const void* data, uint32_t dataSize) {
    if (refuseEmptyText(text, "request", m_name.c_str())) {
        return {};
    }
    if (!pipe_protocol::requestFitsPacket(m_name.c_str(), orEmpty(text), data ? dataSize : 0)) {
        return {};  // could never be sent, so would never be answered
    }
    uint32_t id = 0;
    zu::Signal* event = nullptr;
    {
        // Numbered under the lock, so that ids rise in queue order: the receiver drops an id
        // that is not above the last one it completed, and requests go out in queue order.
        zu::ScopedLock lock(m_outgoingLock);
        if (m_closed) {
            return {};
        }
        ++m_blockedCallers;
        id = m_nextRequestId++;
        event = takeEvent();
        RequestRecord& request = m_outgoingRequests.emplace_back();
        request.id = id;
        request.value = value;
        request.text = orEmpty(text);
        request.responseBuffer = responseBuffer;
        request.responseCapacity = responseBuffer ? responseCapacity : 0;
        request.data = data;
        request.dataSize = data ? dataSize : 0;
        request.event = event;
    }
    if (m_owner) {
        m_owner->countAwaitedAnswers(1);
    }
    if (!writeRequestDirectly(id)) {
        wakeToSend();
    }

    zu::InplaceString<128> responseText;
    for (;;) {
        event->wait();
        zu::ScopedLock lock(m_outgoingLock);
        size_t index = 0;
        RequestRecord* request = findOutgoingRequest(id, &index);
        if (request && !request->responseReceived) {
            continue;  // woken early; the response is not complete yet
        }
        if (request) {
            responseText = std::move(request->responseText);
            if (outResponseSize) {
                *outResponseSize = request->responseSize;
            }
            m_outgoingRequests.erase(m_outgoingRequests.begin() + static_cast<ptrdiff_t>(index));
            if (m_outgoingRequests.size() >= kMaxSentPerPump) {
                wakeToSend();  // a request moved up into the part that is sent
            }
        }
        releaseEvent(event);
        if (m_owner) {
            m_owner->countAwaitedAnswers(-1);
        }
        leaveBlockingCall();
        return responseText;
    }
}

bool NetCommunicationPipe::isAnswered(uint32_t requestId) {
    zu::ScopedLock lock(m_outgoingLock);
    size_t index = 0;
    const RequestRecord* request = findOutgoingRequest(requestId, &index);
    return !request || request->responseReceived;
}

zu::InplaceString<128> NetCommunicationPipe::receiveRequest(uint32_t* outValue) {
    zu::ScopedLock lock(m_incomingLock);
    discardAbortedRequest();
    // Only a request whose data has fully arrived is handed out: one taken half-filled would
    // be answered with partial data, and its remaining chunks would start a bogus new request.
    // An incomplete oldest request holds back those behind it, as with notifications.
    if (m_incomingRequests.empty() || oldestRequestWaitsForChunks()) {
        return {};
    }
    // An earlier request left unanswered gives its data up here.
    releaseQueued(queuedCharge(m_incomingRequests.front()));
    m_currentRequest = std::move(m_incomingRequests.front());
    m_incomingRequests.pop_front();
    if (outValue) {
        *outValue = m_currentRequest.value;
    }
    return m_currentRequest.text;
}

void NetCommunicationPipe::getRequestData(void** outData, uint32_t* outSize) {
    zu::ScopedLock lock(m_incomingLock);
    discardAbortedRequest();
    const bool hasRequest = !m_currentRequest.text.empty();
    if (outData) {
        *outData = hasRequest ? m_currentRequest.ownedData.data() : nullptr;
    }
    if (outSize) {
        *outSize = hasRequest ? m_currentRequest.dataSize : 0;
    }
}

void NetCommunicationPipe::respond(const char* text, const void* data, uint32_t dataSize) {
    if (!pipe_protocol::responseFitsPacket(m_name.c_str(), orEmpty(text), data ? dataSize : 0)) {
        return;  // cannot be sent; the request stays current and can still be answered
    }
    uint32_t requestId = 0;
    // Given up only once the response is out: the caller may answer with the request's data.
    zu::Buffer requestData;
    {
        zu::ScopedLock lock(m_incomingLock);
        if (isAbortToken(m_currentRequest.text)) {
            discardAbortedRequest();  // the request came over an earlier connection
            return;
        }
        requestId = m_currentRequest.id;
        requestData = std::move(m_currentRequest.ownedData);
        m_currentRequest = RequestRecord();
    }

    zu::Signal* event = nullptr;
    uint32_t serial = 0;
    {
        zu::ScopedLock lock(m_outgoingLock);
        if (m_closed) {
            return;
        }
        ++m_blockedCallers;
        event = takeEvent();
        serial = m_nextResponseSerial++;
        ResponseRecord& response = m_outgoingResponses.emplace_back();
        response.serial = serial;
        response.requestId = requestId;
        response.text = orEmpty(text);
        response.data = data;
        response.dataSize = data ? dataSize : 0;
        response.event = event;
    }
    // Written here, the response is out already: no thread is woken, and none wakes this one.
    bool waitFirst = !writeResponseDirectly(serial);
    if (waitFirst) {
        wakeToSend();
    }
    for (;; waitFirst = true) {
        if (waitFirst) {
            event->wait();
        }
        zu::ScopedLock lock(m_outgoingLock);
        size_t index = 0;
        ResponseRecord* response = findOutgoingResponse(serial, &index);
        if (response && !response->sent) {
            continue;
        }
        if (response) {
            m_outgoingResponses.erase(m_outgoingResponses.begin() + static_cast<ptrdiff_t>(index));
            if (m_outgoingResponses.size() >= kMaxSentPerPump) {
                wakeToSend();  // a response moved up into the part that is sent
            }
        }
        releaseEvent(event);
        break;
    }
    // Kept while this call still counts as blocked: a closing pipe is destroyed as soon as none
    // does, and the incoming lock is not taken under the outgoing one.
    keepAsSpare(std::move(requestData));
    zu::ScopedLock lock(m_outgoingLock);
    leaveBlockingCall();
}

// A small request's buffer is kept for the next request's data, which then needs no allocation:
// requests of one kind tend to carry data of one size.
void NetCommunicationPipe::keepAsSpare(zu::Buffer data) {
    if (data.empty() || data.size() > kMaxSpareRequestData) {
        return;
    }
    zu::ScopedLock lock(m_incomingLock);
    if (m_spareRequestData.empty()) {
        m_spareRequestData = std::move(data);
    }
}

void NetCommunicationPipe::countMessageFromOtherConnection() {
    m_droppedOtherConnection.fetch_add(1, std::memory_order_relaxed);
}

// The responses answer requests of the connection the pipe is being taken from; the new one
// never asked. Their respond calls return as if they had been sent.
void NetCommunicationPipe::dropUnsentResponses() {
    zu::Vector<zu::Signal*> waiters;
    {
        zu::ScopedLock lock(m_outgoingLock);
        for (const ResponseRecord& response : m_outgoingResponses) {
            if (!response.sent) {
                waiters.push_back(response.event);
            }
        }
        m_outgoingResponses.erase(
            std::remove_if(m_outgoingResponses.begin(), m_outgoingResponses.end(),
                           [](const ResponseRecord& response) { return !response.sent; }),
            m_outgoingResponses.end());
    }
    for (zu::Signal* waiter : waiters) {
        waiter->signal();
    }
}

void NetCommunicationPipe::leaveBlockingCall() {
    if (--m_blockedCallers == 0 && m_closed) {
        m_blockedCallersLeft.notify_all();
    }
}

void NetCommunicationPipe::close() {
    zu::ScopedLock lock(m_outgoingLock);
    m_closed = true;
    // Each waiter finds its record gone and returns empty-handed.
    for (RequestRecord& request : m_outgoingRequests) {
        request.event->signal();
    }
    for (ResponseRecord& response : m_outgoingResponses) {
        response.event->signal();
    }
    m_outgoingRequests.clear();
    m_outgoingResponses.clear();
    m_outgoingNotifications.clear();
    m_outgoingNotificationBytes = 0;
    m_blockedCallersLeft.wait(
        m_outgoingLock, [this]() ZU_REQUIRES(m_outgoingLock) { return m_blockedCallers == 0; });
}

PipeStatistics getPipeStatistics(const CommunicationPipe* pipe) {
    const auto* netPipe = dynamic_cast<const NetCommunicationPipe*>(pipe);
    return netPipe ? netPipe->getStatistics() : PipeStatistics();
}

bool setPipeMaxMessageSize(CommunicationPipe* pipe, uint32_t bytes) {
    auto* netPipe = dynamic_cast<NetCommunicationPipe*>(pipe);
    if (netPipe) {
        netPipe->setMaxMessageSize(bytes);
    }
    return netPipe != nullptr;
}

// --- Callbacks ---

void NetCommunicationPipe::setConnectionCallback(PipeCallback callback) {
    zu::ScopedLock lock(m_incomingLock);
    m_connectionCallback = callback;
}

void NetCommunicationPipe::setNotifyCallback(PipeCallback callback) {
    zu::ScopedLock lock(m_incomingLock);
    m_notifyCallback = callback;
}

void NetCommunicationPipe::setRequestCallback(PipeCallback callback) {
    zu::ScopedLock lock(m_incomingLock);
    m_requestCallback = callback;
}

void NetCommunicationPipe::invoke(const PipeCallback& callback) {
    // A pair with only a context counts as set, but there is nothing to call.
    if (callback.isSet() && callback.function) {
        callback.function(callback.context, this);
    }
}

// --- Connection ---

void NetCommunicationPipe::attachSocket(net::Socket* socket, ConnectionBudget* budget) {
    leaveBudget();  // taken over from another connection without a detach
    reset();
    {
        // What stayed over the reset (whole notifications) now counts on the new connection.
        zu::ScopedLock lock(m_incomingLock);
        m_budget = budget;
        if (budget) {
            budget->addQueued(m_queuedCharge);
        }
    }
    zu::InplaceString<128> peer = socket ? socket->getConnectedIP() : zu::InplaceString<128>();
    {
        // Kept here so that application threads never touch the manager's socket.
        zu::ScopedLock lock(m_outgoingLock);
        m_connectedIP = std::move(peer);
    }
    m_socket.store(socket);
    if (m_owner) {
        m_owner->onOutgoingQueued();  // what waited for a connection goes out now
    }
    PipeCallback callback;
    {
        zu::ScopedLock lock(m_incomingLock);
        callback = m_connectionCallback;
    }
    invoke(callback);
}

void NetCommunicationPipe::detachSocket() {
    m_socket.store(nullptr);
    leaveBudget();
    {
        zu::ScopedLock lock(m_outgoingLock);
        m_connectedIP.clear();
    }
    if (m_owner) {
        m_owner->onOutgoingQueued();  // its pipes are to be looked at again
    }
}

void NetCommunicationPipe::reset() {
    {
        zu::ScopedLock lock(m_incomingLock);
        freeIncomingRequests();
        dropIncompleteNotifications();
        m_currentRequest.text = kAbortToken;
        m_lastCompletedRequestId = kNoId;
        m_discardedRequestId = kNoId;
        m_discardedNotifyId = kNoId;
    }
    zu::ScopedLock lock(m_outgoingLock);
    for (RequestRecord& request : m_outgoingRequests) {
        request.sent = false;  // unanswered requests go out again on the new connection
        request.bytesSent = 0;
        request.received.clear();  // and their responses come again from the start
    }
    for (ResponseRecord& response : m_outgoingResponses) {
        if (!response.sent) {
            response.bytesSent = 0;  // a response cut off with the old connection starts over
        }
    }
    m_outgoingNotifications.clear();
    m_outgoingNotificationBytes = 0;
}

void NetCommunicationPipe::discardAbortedRequest() {
    if (isAbortToken(m_currentRequest.text)) {
        m_currentRequest.text.clear();
        m_currentRequest.ownedData.reset();
        m_currentRequest.dataSize = 0;
    }
}

// Their remaining chunks were lost with the connection; kept, they would hold back every later
// notification for good. Whole ones stay for the application.
void NetCommunicationPipe::dropIncompleteNotifications() {
    while (!m_partialNotifications.empty()) {
        dropPartialNotification(m_partialNotifications.size() - 1);
    }
}

void NetCommunicationPipe::freeIncomingRequests() {
    while (!m_partialRequests.empty()) {
        dropPartialRequest(m_partialRequests.size() - 1);
    }
    for (const RequestRecord& request : m_incomingRequests) {
        releaseQueued(queuedCharge(request));
    }
    m_incomingRequests.clear();
}

// --- Sending (manager thread) ---

bool NetCommunicationPipe::pumpOutgoing(PacketSink* sink) {
    m_leftUnsent = false;
    if (!sink || !collectOutgoing()) {
        return false;
    }
    const bool paused = !sendCollected(*sink);
    const bool moreToSend = markSent();
    m_leftUnsent = moreToSend;
    return moreToSend && !paused;
}

void NetCommunicationPipe::wakeAfterPass(zu::Signal* event) {
    if (m_owner) {
        m_owner->wakeAfterPass(event);
    } else {
        event->signal();
    }
}

void NetCommunicationPipe::callAfterPass(const PipeCallback& callback) {
    if (m_owner) {
        m_owner->callAfterPass(callback, this);
    } else {
        invoke(callback);
    }
}

// The owner learns of the work before the wake: a manager that wakes finds it marked.
void NetCommunicationPipe::wakeToSend() {
    if (m_owner) {
        m_owner->onOutgoingQueued();
    }
    m_wakeEvent.signal();
}

bool NetCommunicationPipe::collectOutgoing() {
    m_pumpResponses.clear();
    m_pumpRequests.clear();
    m_pumpNotifications.clear();
    zu::ScopedLock lock(m_outgoingLock);
    if (m_outgoingResponses.empty() && m_outgoingRequests.empty() &&
        m_outgoingNotifications.empty()) {
        return false;
    }
    // Only the first few of each kind are looked at; the rest wait for a later pass.
    for (size_t i = 0; i < m_outgoingResponses.size() && i < kMaxSentPerPump; ++i) {
        if (!m_outgoingResponses[i].sent) {
            m_pumpResponses.push_back(m_outgoingResponses[i]);
        }
    }
    for (size_t i = 0; i < m_outgoingRequests.size() && i < kMaxSentPerPump; ++i) {
        const RequestRecord& request = m_outgoingRequests[i];
        if (!request.sent) {
            RequestToSend& copy = m_pumpRequests.emplace_back();
            copy.id = request.id;
            copy.value = request.value;
            copy.text = request.text;
            copy.data = request.data;
            copy.dataSize = request.dataSize;
            copy.bytesSent = request.bytesSent;
        }
    }
    for (size_t i = 0; i < m_outgoingNotifications.size() && i < kMaxSentPerPump; ++i) {
        m_pumpNotifications.push_back(m_outgoingNotifications[i]);
    }
    return true;
}

// Sends the copies in order, each from where an earlier pass left it, and marks those that went
// whole (or failed: they are not tried again on this connection). False when sending paused
// because the socket is full; the rest then waits for a later pass.
bool NetCommunicationPipe::sendCollected(PacketSink& sink) {
    using pipe_protocol::SendResult;
    // The data pointers stay valid: their owners block until the records are marked below.
    const char* name = m_name.c_str();
    pipe_protocol::SendProgress progress;
    progress.queueLimit = sink.pauseSendingAbove();
    for (ResponseRecord& response : m_pumpResponses) {
        progress.bytesSent = response.bytesSent;
        const SendResult result =
            pipe_protocol::sendResponse(sink, m_sendPacket, progress, name, response.requestId,
                                        response.text.c_str(), response.data, response.dataSize);
        response.bytesSent = progress.bytesSent;
        sink.update();
        if (result == SendResult::kPaused) {
            return false;
        }
        response.sent = true;
    }
    for (RequestToSend& request : m_pumpRequests) {
        progress.bytesSent = request.bytesSent;
        const SendResult result = pipe_protocol::sendRequest(
            sink, m_sendPacket, progress, name, request.id, request.value, request.text.c_str(),
            request.data, request.dataSize);
        request.bytesSent = progress.bytesSent;
        sink.update();
        if (result == SendResult::kPaused) {
            return false;
        }
        request.sent = true;
    }
    const uint32_t ownerId = m_owner ? m_owner->getOwnerId() : 0;
    for (NotificationRecord& notification : m_pumpNotifications) {
        const uint32_t value = notification.value != 0 ? notification.value : ownerId;
        progress.bytesSent = notification.bytesSent;
        const SendResult result = pipe_protocol::sendNotify(
            sink, m_sendPacket, progress, name, notification.id, value, notification.text.c_str());
        notification.bytesSent = progress.bytesSent;
        sink.update();
        if (result == SendResult::kPaused) {
            return false;
        }
        notification.sent = true;
    }
    return true;
}

// Returns true when messages are left that the next pump can send.
bool NetCommunicationPipe::markSent() {
    m_pumpWaiters.clear();
    bool moreToSend = false;
    {
        zu::ScopedLock lock(m_outgoingLock);
        markSentLocked();
        moreToSend = hasUnsentInWindow();
    }
    // The threads in respond are woken outside the lock (after the pass), which each of them
    // takes at once.
    for (zu::Signal* waiter : m_pumpWaiters) {
        wakeAfterPass(waiter);
    }
    return moreToSend;
}

// Copies that went whole mark their records sent; the others keep how far they got.
void NetCommunicationPipe::markSentLocked() {
    for (const ResponseRecord& copy : m_pumpResponses) {
        if (ResponseRecord* response = findOutgoingResponse(copy.serial)) {
            response->bytesSent = copy.bytesSent;
            if (copy.sent) {
                response->sent = true;
                m_pumpWaiters.push_back(response->event);
            }
        }
    }
    for (const RequestToSend& copy : m_pumpRequests) {
        if (RequestRecord* request = findOutgoingRequest(copy.id)) {
            request->bytesSent = copy.bytesSent;
            request->sent = copy.sent;
        }
    }
    for (const NotificationRecord& copy : m_pumpNotifications) {
        size_t index = 0;
        NotificationRecord* notification = findById(m_outgoingNotifications, copy.id, &index);
        if (!notification) {
            continue;
        }
        if (!copy.sent) {
            notification->bytesSent = copy.bytesSent;
            continue;
        }
        m_outgoingNotificationBytes -= notification->text.size();
        // Sent in queue order, so normally the front one.
        m_outgoingNotifications.erase(m_outgoingNotifications.begin() +
                                      static_cast<ptrdiff_t>(index));
    }
}

// Records queued while the pump was sending, or beyond its share of a pass. Requests and
// responses further back wait until those before them are answered (see the blocking calls).
bool NetCommunicationPipe::hasUnsentInWindow() const {
    if (!m_outgoingNotifications.empty()) {
        return true;
    }
    for (size_t i = 0; i < m_outgoingResponses.size() && i < kMaxSentPerPump; ++i) {
        if (!m_outgoingResponses[i].sent) {
            return true;
        }
    }
    for (size_t i = 0; i < m_outgoingRequests.size() && i < kMaxSentPerPump; ++i) {
        if (!m_outgoingRequests[i].sent) {
            return true;
        }
    }
    return false;
}

// --- Outgoing bookkeeping (outgoingLock held) ---

zu::Signal* NetCommunicationPipe::takeEvent() {
    if (m_spareEvents.empty()) {
        m_spareEvents.reserve(m_events.size() + 1);
        m_events.push_back(zu::makeUnique<zu::Signal>());
        return m_events.back().get();
    }
    zu::Signal* event = m_spareEvents.back();
    m_spareEvents.pop_back();
    event->reset();  // a late duplicate signal of its last user must not count
    return event;
}

void NetCommunicationPipe::releaseEvent(zu::Signal* event) {
    m_spareEvents.push_back(event);
}

// Records are queued with rising ids (or serials), so they are found by bisection; only when
// the numbers have wrapped around within the queue are they searched one by one.
template <typename Queue>
typename Queue::value_type* NetCommunicationPipe::findById(Queue& queue, uint32_t id,
                                                           size_t* outIndex) {
    using Record = typename Queue::value_type;
    if (queue.empty()) {
        return nullptr;
    }
    if (idOf(queue.back()) == id) {  // the newest: a caller that waits alone asks for its own
        if (outIndex) {
            *outIndex = queue.size() - 1;
        }
        return &queue.back();
    }
    auto found = queue.end();
    if (idOf(queue.front()) <= idOf(queue.back())) {
        found =
            std::lower_bound(queue.begin(), queue.end(), id,
                             [](const Record& record, uint32_t key) { return idOf(record) < key; });
    } else {
        found = std::find_if(queue.begin(), queue.end(),
                             [id](const Record& record) { return idOf(record) == id; });
    }
    if (found == queue.end() || idOf(*found) != id) {
        return nullptr;
    }
    if (outIndex) {
        *outIndex = static_cast<size_t>(found - queue.begin());
    }
    return &*found;
}

NetCommunicationPipe::RequestRecord* NetCommunicationPipe::findOutgoingRequest(uint32_t id,
                                                                               size_t* outIndex) {
    return findById(m_outgoingRequests, id, outIndex);
}

NetCommunicationPipe::ResponseRecord* NetCommunicationPipe::findOutgoingResponse(uint32_t serial,
                                                                                 size_t* outIndex) {
    return findById(m_outgoingResponses, serial, outIndex);
}

}  // namespace dm
