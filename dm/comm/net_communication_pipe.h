// NetCommunicationPipe: the pipe over a TCP connection, and PipeOwner, what it needs from the
// manager that owns it. Application threads use it through CommunicationPipe; the manager's
// thread attaches it to a connection, pumps its outgoing queues into a PacketSink and hands it
// the messages that arrive for it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "comm/connection_budget.h"
#include "comm/packet_sink.h"
#include "comm/pipe_protocol.h"
#include "comm/received_ranges.h"
#include "dm/comm.h"
#include "net/packet.h"
#include "net/socket.h"
#include "zu/buffer.h"
#include "zu/event.h"
#include "zu/memory.h"
#include "zu/mutex.h"
#include "zu/signal.h"
#include "zu/string.h"
#include "zu/vector.h"

namespace dm {

class NetCommunicationPipe;

// What became of a large frame at the front of a connection before the next poll (see
// NetCommunicationPipe::receiveResponseTail).
enum class SteeredTail : uint8_t {
    kPollAsUsual,  // nothing was steered: poll the connection as usual
    kTaken,        // a whole frame was received and handled
    kUnderway,     // a tail is being received; nothing more is to be read until it is readable
};

// What a pipe needs from the manager that owns it.
class PipeOwner {
public:
    PipeOwner() = default;
    PipeOwner(const PipeOwner&) = delete;
    PipeOwner& operator=(const PipeOwner&) = delete;

    // The manager reported by CommunicationPipe::getManager (may be null).
    virtual CommunicationPipeManager* getOwningManager() = 0;
    // The value that replaces a notification value of 0 on sending.
    virtual uint32_t getOwnerId() const = 0;
    // A pipe queued something to send (or got a connection to send it on). Called from any
    // thread, before the pipe's wake event is signalled.
    virtual void onOutgoingQueued() {}
    // From the owner's thread: wakes a caller blocked on `event`, and calls an application
    // callback, once the owner's current pass is over (so that whoever is woken does not run
    // into a pass still going on). By default at once.
    virtual void wakeAfterPass(zu::Signal* event) { event->signal(); }
    virtual void callAfterPass(const PipeCallback& callback, CommunicationPipe* pipe) {
        if (callback.function) {
            callback.function(callback.context, pipe);
        }
    }
    // Lends the owner's connections to a caller for one non-blocking write of its own message
    // (see NetCommunicationPipe::writeDirectly): true when the caller may write now, and then
    // it must call returnSockets when done. The owner's thread works on its connections under
    // a lock it lets go only while it waits, and a caller never waits for a pass: false then.
    // By default the owner lends nothing, and its thread sends everything.
    virtual bool borrowSockets() { return false; }
    virtual void returnSockets() {}
    // With the connections borrowed, before a caller writes a request directly: true when the
    // owner lets it read the answer itself afterwards. The owner's thread then no longer wakes
    // for what arrives on the pipe's connection, and the caller must end with readForAnswer
    // instead of returnSockets. False by default: the owner's thread delivers the answer.
    virtual bool lendForAnswer(NetCommunicationPipe& /*pipe*/) { return false; }
    // After lendForAnswer: when the request went out whole (`written`), reads the pipe's
    // connection until `pipe` has the answer to `requestId` or the owner wants the connection
    // back; then gives the connections back, like returnSockets.
    virtual void readForAnswer(NetCommunicationPipe& /*pipe*/, uint32_t /*requestId*/,
                               bool /*written*/) {}
    // A caller of sendRequest starts (+1) or stops (-1) waiting for its answer.
    virtual void countAwaitedAnswers(int /*change*/) {}

protected:
    virtual ~PipeOwner();
};

// The pipe over a net::Socket. The public CommunicationPipe operations are for any thread; the
// operations below them are for the owning manager's thread only (one thread per pipe).
class NetCommunicationPipe final : public CommunicationPipe {
public:
    // Incoming requests and notifications larger than this are dropped unread by default:
    // room for whole-file reads of a few hundred MiB.
    static constexpr uint32_t kDefaultMaxMessageSize = 512u * 1024u * 1024u;
    // Marks the current request as taken over an earlier connection (never sent).
    static constexpr const char* kAbortToken = "666ABORTALL666";
    // Incoming requests, and notifications, that have begun to arrive but are not whole yet.
    // A sender finishes one message before it starts the next of the same kind, so more only
    // come from a broken or hostile peer.
    static constexpr size_t kMaxUnfinishedIncoming = 16;
    // Notifications queued for sending; sendNotify refuses more (a peer that does not read
    // must not make the sender's memory grow without end).
    static constexpr size_t kMaxQueuedNotifications = 1024;
    static constexpr uint64_t kMaxQueuedNotificationBytes = 16ull * 1024 * 1024;

    // `owner` may be null (no manager; notification values of 0 are then sent as 0).
    NetCommunicationPipe(PipeOwner* owner, const char* name);
    // Closes the pipe first (see close), so threads still blocked in it return before it goes.
    // No other call may be running or start any more.
    ~NetCommunicationPipe() override;

    const char* getName() const override { return m_name.c_str(); }
    bool isConnected() const override { return m_socket.load() != nullptr; }
    CommunicationPipeManager* getManager() const override;
    zu::InplaceString<128> getConnectedIP() const override;
    bool sendNotify(const char* text, uint32_t value) override;
    zu::InplaceString<128> receiveNotify(uint32_t* outValue) override;
    zu::InplaceString<128> sendRequest(const char* text, uint32_t value, void* responseBuffer,
                                       uint32_t responseCapacity, uint32_t* outResponseSize,
                                       const void* data, uint32_t dataSize) override;
    zu::InplaceString<128> receiveRequest(uint32_t* outValue) override;
    void getRequestData(void** outData, uint32_t* outSize) override;
    void respond(const char* text, const void* data, uint32_t dataSize) override;
    void setConnectionCallback(PipeCallback callback) override;
    void setNotifyCallback(PipeCallback callback) override;
    void setRequestCallback(PipeCallback callback) override;

    // Limit for the total size of incoming request data and notification texts; larger
    // messages are dropped instead of allocated. It also bounds the data that the unfinished
    // incoming requests announce together: a new request beyond it is dropped.
    void setMaxMessageSize(uint32_t bytes) { m_maxMessageSize.store(bytes); }
    uint32_t getMaxMessageSize() const { return m_maxMessageSize.load(); }
    PipeStatistics getStatistics() const;
    // Signalled whenever something is queued for sending; a manager sleeps on it.
    zu::WaitHandle getWakeHandle() const { return m_wakeEvent.getWaitHandle(); }

    // --- For the owning manager's thread ---

    // Resets the pipe, binds it to `socket` (not owned) and calls the connection callback.
    // What arrives for the pipe from then on is held within `budget` (may be null: no bound
    // beyond the pipe's own), which must stay valid until the pipe is detached or attached
    // elsewhere.
    void attachSocket(net::Socket* socket, ConnectionBudget* budget = nullptr);
    // Unbinds the socket and its budget; queues are kept for the next attach.
    void detachSocket();
    // Starts over after a reconnect: incoming requests and incomplete incoming notifications
    // are dropped, a request taken before is not answered, unanswered outgoing requests (and
    // responses not wholly sent) go out again from their start, queued notifications go.
    void reset();
    // Sends up to 8 queued messages of each kind to `sink` (nothing when it is null). A large
    // message may take several calls: sending pauses while the sink has more than
    // PacketSink::pauseSendingAbove bytes queued, and the next call goes on where it stopped. True
    // when messages are left that another call could send at once: pump again before sleeping.
    // False when nothing is left, or when sending paused: then wait on the socket's handle
    // (it signals once the socket can take more).
    bool pumpOutgoing(PacketSink* sink);
    // The last pumpOutgoing left something unsent (paused by a full socket, or more queued than
    // one pump sends).
    bool leftUnsent() const { return m_leftUnsent; }
    // Ends the pipe's service before it is destroyed: every thread blocked in sendRequest or
    // respond wakes and returns empty-handed, later calls of the two return at once, and close
    // returns once no thread is inside either of them any more.
    void close();

    // Drops the responses not yet wholly sent, waking their respond calls: for a pipe taken over
    // by another connection, which did not ask for them.
    void dropUnsentResponses();
    // Counts a message for this pipe that came over a connection it is not attached to.
    void countMessageFromOtherConnection();
    // Takes a received Request, Response or Notify for this pipe (decoded by
    // pipe_protocol::decode) and reassembles it. Malformed, stale or oversized packets are
    // dropped and counted (see PipeStatistics).
    void receive(const pipe_protocol::Message& message);
    // The Response chunk at the front of `socket` (its fields in `message`, decoded from the
    // frame's beginning) has its bytes received straight into its caller's buffer, when they
    // fit it and would be taken; otherwise the frame is declined, for the usual path.
    SteeredTail receiveResponseTail(net::Socket& socket, const pipe_protocol::Message& message);
    // The socket the pipe is attached to, or null.
    net::Socket* attachedSocket() const { return m_socket.load(); }

    // For any thread: the answer to `requestId` has arrived (or the request is gone).
    bool isAnswered(uint32_t requestId);
    // Counts an answer that its caller read itself (see PipeStatistics).
    void countAnswerReadDirectly() {
        m_answersReadDirectly.fetch_add(1, std::memory_order_relaxed);
    }

private:
    struct RequestRecord {
        uint64_t arrival = 0;  // incoming: order in which the first chunks came
        uint32_t id = 0;
        uint32_t value = 0;
        zu::InplaceString<128> text;
        zu::InplaceString<128> responseText;
        bool responseReceived = false;
        bool sent = false;
        bool complete = false;   // incoming: every chunk has arrived
        uint32_t bytesSent = 0;  // outgoing: data bytes already on the wire
        void* responseBuffer = nullptr;
        uint32_t responseCapacity = 0;
        uint32_t responseSize = 0;
        // Outgoing: the caller's data (read only, never owned).
        const void* data = nullptr;
        // Incoming: the data, in a buffer the pipe owns, grown as chunks arrive; chunks wrote
        // the bytes in `received`.
        zu::Buffer ownedData;
        uint32_t dataSize = 0;
        // Incoming: the data bytes that arrived. Outgoing: the response bytes that arrived.
        ReceivedRanges received;
        zu::Signal* event = nullptr;  // outgoing: sendRequest waits on it
    };
    struct ResponseRecord {
        uint32_t serial = 0;  // tells apart responses that share a request id
        uint32_t requestId = 0;
        zu::InplaceString<128> text;
        bool sent = false;
        uint32_t bytesSent = 0;  // data bytes already on the wire
        const void* data = nullptr;
        uint32_t dataSize = 0;
        zu::Signal* event = nullptr;  // respond waits on it
    };
    // What the pump sends of an outgoing request: a view of its record, taken under the lock.
    struct RequestToSend {
        uint32_t id = 0;
        uint32_t value = 0;
        zu::InplaceString<128> text;
        const void* data = nullptr;
        uint32_t dataSize = 0;
        uint32_t bytesSent = 0;
        bool sent = false;
    };
    struct NotificationRecord {
        uint64_t arrival = 0;  // incoming: order in which the first chunks came
        uint32_t id = 0;
        uint32_t value = 0;
        zu::InplaceString<128> text;
        uint32_t expectedLength = 0;
        uint32_t receivedLength = 0;
        uint32_t bytesSent = 0;  // outgoing: text bytes already on the wire
        bool sent = false;       // outgoing, in the pump's copies: wholly sent
    };
    // Queues take from the front and add at the back in constant time; records keep their
    // place, and ids rise from front to back (see the find functions).
    template <typename T>
    using RecordQueue = std::deque<T, zu::Allocator<T>>;
    // Outgoing requests and responses: one per thread blocked in sendRequest or respond, so
    // few. A vector keeps its storage from call to call, where a deque would allocate a block
    // for every record. Records move when others go: they are found by id, under the lock.
    template <typename T>
    using BlockedCallQueue = std::vector<T, zu::Allocator<T>>;
    using Chunk = pipe_protocol::Chunk;
    enum class Drop { kMalformed, kOverLimit, kStale, kEmptyText, kConnectionLimit };

    static constexpr uint32_t kNoId = 0xFFFFFFFFu;
    static constexpr size_t kInitialQueueRoom = 16;
    static constexpr size_t kMaxSpareRequestData = 4096;
    static constexpr size_t kMaxSentPerPump = 8;

    // Outgoing side. The pump's steps (collectOutgoing, sendCollected, markSent) run on the
    // manager's thread and take the lock where they need it.
    zu::Signal* takeEvent() ZU_REQUIRES(m_outgoingLock);
    void releaseEvent(zu::Signal* event) ZU_REQUIRES(m_outgoingLock);
    static uint32_t idOf(const RequestRecord& record) { return record.id; }
    static uint32_t idOf(const ResponseRecord& record) { return record.serial; }
    static uint32_t idOf(const NotificationRecord& record) { return record.id; }
    template <typename Queue>
    static typename Queue::value_type* findById(Queue& queue, uint32_t id,
                                                size_t* outIndex = nullptr);
    RequestRecord* findOutgoingRequest(uint32_t id, size_t* outIndex = nullptr)
        ZU_REQUIRES(m_outgoingLock);
    ResponseRecord* findOutgoingResponse(uint32_t serial, size_t* outIndex = nullptr)
        ZU_REQUIRES(m_outgoingLock);
    bool collectOutgoing();
    bool markSent();
    void markSentLocked() ZU_REQUIRES(m_outgoingLock);
    bool hasUnsentInWindow() const ZU_REQUIRES(m_outgoingLock);
    void wakeAfterPass(zu::Signal* event);
    void callAfterPass(const PipeCallback& callback);
    void wakeToSend();
    void leaveBlockingCall() ZU_REQUIRES(m_outgoingLock);
    bool sendCollected(PacketSink& sink);
    // The direct write (see writeDirectly).
    bool writeRequestDirectly(uint32_t id);
    bool writeResponseDirectly(uint32_t serial);
    // `requestId`: the request whose answer the caller may read itself; null for a response.
    template <typename Write>
    bool writeDirectly(const Write& write, const uint32_t* requestId);
    bool requestMayGoDirectly(size_t index) const ZU_REQUIRES(m_outgoingLock);
    bool responseMayGoDirectly(size_t index) const ZU_REQUIRES(m_outgoingLock);

    // Incoming side.
    void discardAbortedRequest() ZU_REQUIRES(m_incomingLock);
    void freeIncomingRequests() ZU_REQUIRES(m_incomingLock);
    void dropIncompleteNotifications() ZU_REQUIRES(m_incomingLock);
    RequestRecord* findPartialRequest(uint32_t id, size_t* outIndex) ZU_REQUIRES(m_incomingLock);
    RequestRecord* addIncomingRequest(const pipe_protocol::Message& message)
        ZU_REQUIRES(m_incomingLock);
    bool roomForUnfinishedRequest(uint32_t dataSize) const ZU_REQUIRES(m_incomingLock);
    bool justifiedByArrivedBytes(const RequestRecord& request, const Chunk& chunk) const
        ZU_REQUIRES(m_incomingLock);
    bool reserveRequestData(RequestRecord& request, uint32_t end, Drop* refusal)
        ZU_REQUIRES(m_incomingLock);
    void keepAsSpare(zu::Buffer data) ZU_EXCLUDES(m_incomingLock);
    void dropPartialRequest(size_t index) ZU_REQUIRES(m_incomingLock);
    void completeRequest(size_t index) ZU_REQUIRES(m_incomingLock);
    bool oldestRequestWaitsForChunks() const ZU_REQUIRES(m_incomingLock);
    NotificationRecord* findPartialNotification(uint32_t id, size_t* outIndex)
        ZU_REQUIRES(m_incomingLock);
    void dropPartialNotification(size_t index) ZU_REQUIRES(m_incomingLock);
    bool oldestNotificationWaitsForChunks() const ZU_REQUIRES(m_incomingLock);
    bool discardsRestOf(uint32_t* discardedId, const pipe_protocol::Message& message)
        ZU_REQUIRES(m_incomingLock);
    // Bytes held for incoming messages, counted against the connection's budget.
    bool chargeUnfinished(uint64_t bytes) ZU_REQUIRES(m_incomingLock);
    void releaseUnfinished(uint64_t bytes) ZU_REQUIRES(m_incomingLock);
    void chargeQueued(uint64_t bytes) ZU_REQUIRES(m_incomingLock);
    void releaseQueued(uint64_t bytes) ZU_REQUIRES(m_incomingLock);
    void leaveBudget() ZU_EXCLUDES(m_incomingLock);
    static uint64_t queuedCharge(const RequestRecord& request);
    static uint64_t queuedCharge(const NotificationRecord& notification);
    bool storeRequestChunk(const pipe_protocol::Message& message) ZU_REQUIRES(m_incomingLock);
    // An outgoing request's response.
    bool storeResponseChunk(RequestRecord& request, const char* text, const Chunk& chunk)
        ZU_REQUIRES(m_outgoingLock);
    static uint8_t* responseTarget(const RequestRecord& request, const Chunk& chunk);
    bool storeNotifyChunk(const pipe_protocol::Message& message) ZU_REQUIRES(m_incomingLock);
    bool fitsMessageLimit(uint32_t totalSize) const;
    void invoke(const PipeCallback& callback);
    void onRequest(const pipe_protocol::Message& message);
    void onResponse(const pipe_protocol::Message& message);
    void onNotify(const pipe_protocol::Message& message);
    void count(Drop drop);

    PipeOwner* const m_owner;
    const zu::InplaceString<128> m_name;

    mutable zu::Mutex m_incomingLock;
    RequestRecord m_currentRequest ZU_GUARDED_BY(m_incomingLock);
    // The data buffer of an answered request, for the next one's data (see keepAsSpare).
    zu::Buffer m_spareRequestData ZU_GUARDED_BY(m_incomingLock);
    // Whole messages in the order their first chunks came, and those still arriving (at most
    // kMaxUnfinishedIncoming each), which hold back whole ones that came after them.
    RecordQueue<RequestRecord> m_incomingRequests ZU_GUARDED_BY(m_incomingLock);
    RecordQueue<NotificationRecord> m_incomingNotifications ZU_GUARDED_BY(m_incomingLock);
    zu::Vector<RequestRecord> m_partialRequests ZU_GUARDED_BY(m_incomingLock);
    zu::Vector<NotificationRecord> m_partialNotifications ZU_GUARDED_BY(m_incomingLock);
    uint64_t m_nextArrival ZU_GUARDED_BY(m_incomingLock) = 0;
    // A message dropped part-way: its later chunks are dropped too, up to its last.
    uint32_t m_discardedRequestId ZU_GUARDED_BY(m_incomingLock) = kNoId;
    Drop m_discardedRequestReason ZU_GUARDED_BY(m_incomingLock) = Drop::kOverLimit;
    uint32_t m_discardedNotifyId ZU_GUARDED_BY(m_incomingLock) = kNoId;
    ConnectionBudget* m_budget ZU_GUARDED_BY(m_incomingLock) = nullptr;
    // Held for partial messages, and for whole messages not yet taken.
    uint64_t m_unfinishedCharge ZU_GUARDED_BY(m_incomingLock) = 0;
    uint64_t m_queuedCharge ZU_GUARDED_BY(m_incomingLock) = 0;
    uint32_t m_lastCompletedRequestId ZU_GUARDED_BY(m_incomingLock) = kNoId;
    uint32_t m_lastCompletedNotifyId ZU_GUARDED_BY(m_incomingLock) = kNoId;
    PipeCallback m_connectionCallback ZU_GUARDED_BY(m_incomingLock);
    PipeCallback m_notifyCallback ZU_GUARDED_BY(m_incomingLock);
    PipeCallback m_requestCallback ZU_GUARDED_BY(m_incomingLock);

    mutable zu::Mutex m_outgoingLock;
    BlockedCallQueue<RequestRecord> m_outgoingRequests ZU_GUARDED_BY(m_outgoingLock);
    RecordQueue<NotificationRecord> m_outgoingNotifications ZU_GUARDED_BY(m_outgoingLock);
    BlockedCallQueue<ResponseRecord> m_outgoingResponses ZU_GUARDED_BY(m_outgoingLock);
    uint64_t m_outgoingNotificationBytes ZU_GUARDED_BY(m_outgoingLock) = 0;
    // Every event a blocking call has used; they live as long as the pipe, because the manager
    // may still signal one a moment after its caller returned. The spares are the ones free for
    // the next call (room for all of them is kept, so giving one back cannot fail).
    zu::Vector<zu::UniquePtr<zu::Signal>> m_events ZU_GUARDED_BY(m_outgoingLock);
    zu::Vector<zu::Signal*> m_spareEvents ZU_GUARDED_BY(m_outgoingLock);
    uint32_t m_nextRequestId ZU_GUARDED_BY(m_outgoingLock) = 0;
    uint32_t m_nextNotifyId ZU_GUARDED_BY(m_outgoingLock) = 0;
    uint32_t m_nextResponseSerial ZU_GUARDED_BY(m_outgoingLock) = 0;
    zu::InplaceString<128> m_connectedIP ZU_GUARDED_BY(m_outgoingLock);
    bool m_closed ZU_GUARDED_BY(m_outgoingLock) = false;
    // Threads inside sendRequest or respond.
    uint32_t m_blockedCallers ZU_GUARDED_BY(m_outgoingLock) = 0;
    std::condition_variable_any m_blockedCallersLeft;

    std::atomic<net::Socket*> m_socket{nullptr};
    std::atomic<uint32_t> m_maxMessageSize{kDefaultMaxMessageSize};
    // Packets dropped on receipt, by reason (see PipeStatistics). Written on the manager's
    // thread only; read by any.
    std::atomic<uint64_t> m_droppedMalformed{0};
    std::atomic<uint64_t> m_droppedOverLimit{0};
    std::atomic<uint64_t> m_droppedStale{0};
    std::atomic<uint64_t> m_droppedEmptyText{0};
    std::atomic<uint64_t> m_droppedOtherConnection{0};
    std::atomic<uint64_t> m_droppedConnectionLimit{0};
    std::atomic<uint64_t> m_sentDirectly{0};
    std::atomic<uint64_t> m_sentDirectlyInPart{0};
    std::atomic<uint64_t> m_answersReadDirectly{0};
    zu::Event m_wakeEvent;

    // Manager thread only: copies taken by pumpOutgoing and the packet it builds messages in,
    // kept between passes so that pumping allocates nothing once warmed up.
    zu::Vector<ResponseRecord> m_pumpResponses;
    zu::Vector<RequestToSend> m_pumpRequests;
    zu::Vector<NotificationRecord> m_pumpNotifications;
    zu::Vector<zu::Signal*> m_pumpWaiters;
    bool m_leftUnsent = false;  // respond calls to wake once the lock is released
    // Messages are framed in it by whoever holds the owner's socket lock: the manager's thread
    // in its pass, or a caller writing directly (with no owner lock, the pumping thread).
    net::Packet m_sendPacket;
};

}  // namespace dm
