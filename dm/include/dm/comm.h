// Communication pipes: named two-way message channels between processes, carried over TCP,
// and the text encoders for binary data and URLs.
//
// A pipe is owned by a pipe manager, whose single thread moves the queued messages over the
// connection's socket and feeds received packets back into the pipe. Application threads use
// the CommunicationPipe interface only.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>

#include "dm/export.h"
#include "net/packet.h"
#include "net/socket.h"
#include "zu/event.h"
#include "zu/mutex.h"
#include "zu/string.h"
#include "zu/thread.h"
#include "zu/vector.h"

namespace dm {

class CommunicationPipe;
class CommunicationPipeManager;
namespace pipe_protocol {
struct ChunkFields;
}

// A callback on a pipe: a context pointer and a function. It counts as set when either member
// is non-null; the function is then called with the context and the pipe.
struct PipeCallback {
    using Function = void (*)(void* context, CommunicationPipe* pipe);

    void* context = nullptr;
    Function function = nullptr;

    bool isSet() const { return context != nullptr || function != nullptr; }
};

// One named, two-way message channel. Thread-safe: any number of threads may call these.
class DM_API CommunicationPipe {
public:
    CommunicationPipe() = default;
    CommunicationPipe(const CommunicationPipe&) = delete;
    CommunicationPipe& operator=(const CommunicationPipe&) = delete;

    virtual const char* getName() const = 0;
    // True while the pipe is attached to a connection.
    virtual bool isConnected() const = 0;
    virtual CommunicationPipeManager* getManager() const = 0;
    // The peer's address while connected, else "".
    virtual zu::InplaceString<128> getConnectedIP() const = 0;

    // Queues a notification; false (nothing queued) while not connected, and for an empty (or
    // null) text, which is refused with a log line: the far end could not tell it from "no
    // notification". A value of 0 is sent as the owning manager's id. Does not block.
    virtual bool sendNotify(const char* text, uint32_t value) = 0;
    // The oldest notification if it has arrived whole (its value goes to `outValue` when that
    // is non-null), else "" with `outValue` untouched. Does not block.
    virtual zu::InplaceString<128> receiveNotify(uint32_t* outValue) = 0;

    // Queues a request and blocks, without a time-out, until its response has arrived; returns
    // the response text. Binary response data is copied to `responseBuffer` up to
    // `responseCapacity` bytes; its full size goes to `outResponseSize` (when non-null), so a
    // larger result than the buffer shows. `data` (may be null when `dataSize` is 0) must stay
    // valid until the call returns. Requests survive disconnects and go out once connected.
    // A text so long that the request's head does not fit one packet (net::Packet::kMaxPayload,
    // with room for a byte of data) can never be sent: the call then returns "" at once. So
    // does an empty (or null) text, refused with a log line: receiveRequest returns "" for "no
    // request", so an empty request could never be taken.
    virtual zu::InplaceString<128> sendRequest(const char* text, uint32_t value,
                                               void* responseBuffer, uint32_t responseCapacity,
                                               uint32_t* outResponseSize, const void* data,
                                               uint32_t dataSize) = 0;
    // Takes the oldest incoming request as the current one and returns its text (its value to
    // `outValue` when non-null), or "" with `outValue` untouched. Does not block. A request is
    // handed out only once all of its data has arrived; until then it holds back newer ones.
    // Requests and notifications that arrive with an empty text are dropped (see
    // NetCommunicationPipe::getEmptyTextsDropped).
    virtual zu::InplaceString<128> receiveRequest(uint32_t* outValue) = 0;
    // The binary data of the current request (null and 0 when there is none). The data stays
    // valid until respond returns, until receiveRequest takes another request, or until the
    // first of these calls after the pipe was reset by a reconnect.
    virtual void getRequestData(void** outData, uint32_t* outSize) = 0;
    // Answers the current request and blocks until the response has been written to the
    // socket. `data` must stay valid until then. A request taken before the pipe was last
    // reset (a reconnect) is not answered: the call returns at once. So does a call whose text
    // is too long to be sent (as with sendRequest); the request then stays current and can
    // still be answered with a shorter text.
    virtual void respond(const char* text, const void* data, uint32_t dataSize) = 0;

    // Callbacks run on the manager's thread, outside the pipe's locks, and must not block:
    // that thread does all the socket work of every pipe of the manager. In particular they
    // must not call sendRequest or respond, which wait for that very thread (a deadlock); they
    // may take what arrived (receiveRequest, receiveNotify) and send notifications.
    // Called when the pipe is attached to a connection.
    virtual void setConnectionCallback(PipeCallback callback) = 0;
    // Called when a notification has arrived whole.
    virtual void setNotifyCallback(PipeCallback callback) = 0;
    // Called when a request has arrived whole.
    virtual void setRequestCallback(PipeCallback callback) = 0;

    virtual ~CommunicationPipe();
};

// What a pipe needs from the manager that owns it.
class DM_API PipeOwner {
public:
    PipeOwner() = default;
    PipeOwner(const PipeOwner&) = delete;
    PipeOwner& operator=(const PipeOwner&) = delete;

    // The manager reported by CommunicationPipe::getManager (may be null).
    virtual CommunicationPipeManager* getOwningManager() = 0;
    // The value that replaces a notification value of 0 on sending.
    virtual uint32_t getOwnerId() const = 0;

protected:
    virtual ~PipeOwner();
};

// Snapshot of a pipe's queue lengths, for diagnostics.
struct PipeQueueSizes {
    size_t incomingRequests = 0;
    size_t outgoingRequests = 0;
    size_t incomingNotifications = 0;
    size_t outgoingNotifications = 0;
    size_t outgoingResponses = 0;
};

// The pipe over a net::Socket. The public CommunicationPipe operations are for any thread; the
// operations below them are for the owning manager's thread only (one thread per pipe).
class DM_API NetCommunicationPipe final : public CommunicationPipe {
public:
    // Incoming requests and notifications larger than this are dropped unread by default:
    // room for whole-file reads of a few hundred MiB.
    static constexpr uint32_t kDefaultMaxMessageSize = 512u * 1024u * 1024u;
    // Marks the current request as taken over an earlier connection (never sent).
    static constexpr const char* kAbortToken = "666ABORTALL666";
    // A pump stops sending for the pass once the socket holds more than this queued: the
    // manager then reads its connections and comes back when the socket can take more. Far
    // below net::Socket::kMaxQueuedSend, so that sending never waits for the peer to read,
    // which would deadlock two managers that both send large messages.
    static constexpr uint32_t kPauseSendingAbove = 2u * 1024u * 1024u;
    // Incoming requests, and notifications, that have begun to arrive but are not whole yet.
    // A sender finishes one message before it starts the next of the same kind, so more only
    // come from a broken or hostile peer.
    static constexpr size_t kMaxUnfinishedIncoming = 16;

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
    PipeQueueSizes getQueueSizes() const;
    // Incoming requests and notifications dropped because their text was empty (a sender of
    // this library never sends one; another may), since the pipe was made.
    uint32_t getEmptyTextsDropped() const { return m_emptyTextsDropped.load(); }
    // Signalled whenever something is queued for sending; a manager sleeps on it.
    zu::WaitHandle getWakeHandle() const { return m_wakeEvent.getWaitHandle(); }

    // --- For the owning manager's thread ---

    // Resets the pipe, binds it to `socket` (not owned) and calls the connection callback.
    void attachSocket(net::Socket* socket);
    // Unbinds the socket; queues are kept for the next attach.
    void detachSocket();
    // Starts over after a reconnect: incoming requests and incomplete incoming notifications
    // are dropped, a request taken before is not answered, unanswered outgoing requests (and
    // responses not wholly sent) go out again from their start, queued notifications go.
    void reset();
    // Sends up to 8 queued messages of each kind on `socket` (nothing when it is null). A
    // large message may take several calls: sending pauses while the socket has more than
    // kPauseSendingAbove bytes queued, and the next call goes on where it stopped. True when
    // messages are left that another call could send at once: pump again before sleeping.
    // False when nothing is left, or when sending paused: then wait on the socket's handle
    // (it signals once the socket can take more).
    bool pumpOutgoing(net::Socket* socket);
    // Ends the pipe's service before it is destroyed: every thread blocked in sendRequest or
    // respond wakes and returns empty-handed, later calls of the two return at once, and close
    // returns once no thread is inside either of them any more.
    void close();

    // Receive handlers. The connection loop has read the message head (kind, pipe name and
    // the fields up to the text); `packet` is positioned just behind them. Malformed or
    // oversized chunks are dropped.
    void onRequestPacket(uint32_t id, uint32_t value, const char* text, net::Packet& packet,
                         uint32_t packetSize);
    void onResponsePacket(uint32_t id, const char* text, net::Packet& packet);
    void onNotifyPacket(uint32_t id, uint32_t value, net::Packet& packet);

private:
    struct RequestRecord {
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
        uint32_t responseReceivedBytes = 0;
        // Outgoing: the caller's data (read only). Incoming: a buffer the pipe owns, of
        // dataCapacity bytes, grown as chunks arrive; chunks wrote below dataWrittenEnd.
        void* data = nullptr;
        uint32_t dataSize = 0;
        uint32_t dataReceivedBytes = 0;
        uint32_t dataCapacity = 0;
        uint32_t dataWrittenEnd = 0;
        zu::Event* event = nullptr;  // outgoing: sendRequest waits on it
    };
    struct ResponseRecord {
        uint32_t serial = 0;  // tells apart responses that share a request id
        uint32_t requestId = 0;
        zu::InplaceString<128> text;
        bool sent = false;
        uint32_t bytesSent = 0;  // data bytes already on the wire
        const void* data = nullptr;
        uint32_t dataSize = 0;
        zu::Event* event = nullptr;  // respond waits on it
    };
    struct NotificationRecord {
        uint32_t id = 0;
        uint32_t value = 0;
        zu::InplaceString<128> text;
        uint32_t expectedLength = 0;
        uint32_t receivedLength = 0;
        uint32_t bytesSent = 0;  // outgoing: text bytes already on the wire
        bool sent = false;       // outgoing, in the pump's copies: wholly sent
    };
    using ChunkFields = pipe_protocol::ChunkFields;

    static constexpr uint32_t kNoId = 0xFFFFFFFFu;
    static constexpr size_t kInitialQueueRoom = 16;
    static constexpr size_t kMaxSentPerPump = 8;

    // Outgoing side (outgoingLock held).
    zu::Event* takeEvent();
    void releaseEvent(zu::Event* event);
    RequestRecord* findOutgoingRequest(uint32_t id, size_t* outIndex = nullptr);
    ResponseRecord* findOutgoingResponse(uint32_t serial, size_t* outIndex = nullptr);
    bool collectOutgoing();
    bool markSent();
    void markSentLocked();
    bool hasUnsentInWindow() const;
    void leaveBlockingCall();
    bool sendCollected(net::Socket& socket);

    // Incoming side (incomingLock held).
    void discardAbortedRequest();
    void freeIncomingRequests();
    void dropIncompleteNotifications();
    RequestRecord* findPartialRequest(uint32_t id, size_t* outIndex);
    RequestRecord* addIncomingRequest(uint32_t id, uint32_t value, const char* text,
                                      const ChunkFields& chunk);
    bool roomForUnfinishedRequest(uint32_t dataSize) const;
    bool reserveRequestData(RequestRecord& request, uint32_t end);
    void dropIncomingRequest(size_t index);
    size_t countIncompleteNotifications() const;
    NotificationRecord* findPartialNotification(uint32_t id);
    bool storeRequestChunk(uint32_t id, uint32_t value, const char* text, const ChunkFields& chunk,
                           net::Packet& packet);
    bool storeResponseChunk(RequestRecord& request, const char* text, const ChunkFields& chunk,
                            net::Packet& packet);
    bool storeNotifyChunk(uint32_t id, uint32_t value, const ChunkFields& chunk,
                          net::Packet& packet);
    bool fitsMessageLimit(uint32_t totalSize) const;
    void invoke(const PipeCallback& callback);

    PipeOwner* const m_owner;
    const zu::InplaceString<128> m_name;

    // Guarded by m_incomingLock.
    mutable zu::Mutex m_incomingLock;
    RequestRecord m_currentRequest;
    zu::Vector<RequestRecord> m_incomingRequests;
    zu::Vector<NotificationRecord> m_incomingNotifications;
    uint32_t m_lastCompletedRequestId = kNoId;
    uint32_t m_lastCompletedNotifyId = kNoId;
    PipeCallback m_connectionCallback;
    PipeCallback m_notifyCallback;
    PipeCallback m_requestCallback;

    // Guarded by m_outgoingLock.
    mutable zu::Mutex m_outgoingLock;
    zu::Vector<RequestRecord> m_outgoingRequests;
    zu::Vector<NotificationRecord> m_outgoingNotifications;
    zu::Vector<ResponseRecord> m_outgoingResponses;
    zu::Vector<zu::Event*> m_spareEvents;  // reused by blocking calls, so none is made per call
    uint32_t m_nextRequestId = 0;
    uint32_t m_nextNotifyId = 0;
    uint32_t m_nextResponseSerial = 0;
    zu::InplaceString<128> m_connectedIP;
    bool m_closed = false;
    uint32_t m_blockedCallers = 0;  // threads inside sendRequest or respond
    std::condition_variable_any m_blockedCallersLeft;

    std::atomic<net::Socket*> m_socket{nullptr};
    std::atomic<uint32_t> m_maxMessageSize{kDefaultMaxMessageSize};
    std::atomic<uint32_t> m_emptyTextsDropped{0};
    zu::Event m_wakeEvent;

    // Manager thread only: copies taken by pumpOutgoing and the packet it builds messages in,
    // kept between passes so that pumping allocates nothing once warmed up.
    zu::Vector<ResponseRecord> m_pumpResponses;
    zu::Vector<RequestRecord> m_pumpRequests;
    zu::Vector<NotificationRecord> m_pumpNotifications;
    zu::Vector<zu::Event*> m_pumpWaiters;  // respond calls to wake once the lock is released
    net::Packet m_sendPacket;
};

// The manager's callbacks: a context pointer and a function, set when either is non-null.
struct ClientConnectionCallback {
    using Function = void (*)(void* context, CommunicationPipeManager* manager);
    void* context = nullptr;
    Function function = nullptr;
    bool isSet() const { return context != nullptr || function != nullptr; }
};

struct PipeCreateCallback {
    using Function = void (*)(void* context, CommunicationPipeManager* manager,
                              CommunicationPipe* pipe);
    void* context = nullptr;
    Function function = nullptr;
    bool isSet() const { return context != nullptr || function != nullptr; }
};

// Owns the pipes of one endpoint and the one thread that does all their socket work: a server
// listens and serves any number of client connections, a client keeps one connection alive
// (it reconnects every half second while it is down, and pipes asked for meanwhile are
// attached once it is up). Made and destroyed through the registry functions below.
//
// Callbacks (the manager's and its pipes') run on the manager's thread and must not block: in
// particular they must not call sendRequest or respond, which wait for that very thread, nor
// destroy their own manager. Registry calls made from a callback while the manager is being
// destroyed return empty-handed (null, false) instead of waiting for the registry.
//
// Destruction: the thread is stopped and joined, then every thread still blocked in sendRequest
// or respond on one of the pipes is woken and returns an empty result; only then are pipes and
// sockets destroyed. No other call on the manager or its pipes may be running or start then.
class DM_API CommunicationPipeManager : public zu::Thread {
public:
    ~CommunicationPipeManager() override;

    // The thread body.
    int run() override = 0;
    virtual bool isClient() const = 0;
    virtual bool isServer() const = 0;
    // Valid until the next setName.
    virtual const char* getName() const = 0;
    virtual void setName(const char* name) = 0;
    // The name of the manager at the other end ("" until learned; a server takes it from the
    // last pipe a client opened), cut to 127 characters. The text behind a pointer returned
    // never changes and stays valid while the manager lives; after 64 different names, later
    // ones are no longer taken.
    virtual const char* getRemoteName() const = 0;
    // A server's id from init; a client's from the server's welcome. Notifications sent with
    // value 0 carry it.
    virtual uint32_t getID() const = 0;
    // Finds or creates the pipe `pipeName` (letter case ignored). A new pipe is announced to the
    // pipe-create callback, on the calling thread.
    virtual CommunicationPipe* getPipe(const char* pipeName) = 0;
    // The configured host, valid until the next setHost; its port goes to `outPort` when
    // non-null. A server reports the port it listens on (0 when it could not listen).
    virtual const char* getHost(uint32_t* outPort) = 0;
    // Client: where to connect from the next connection on.
    virtual void setHost(const char* host, uint32_t port) = 0;
    // Server: the next accepted client is sent to host:port (only while a client-connection
    // callback is set). Client: the address to try first.
    virtual void setRedirect(const char* host, uint32_t port) = 0;
    // Server: called for each accepted client, which may then be redirected with setRedirect.
    // Client: called for each welcome from a server (also one of another protocol version,
    // whose connection is dropped).
    virtual void setClientConnectionCallback(ClientConnectionCallback callback) = 0;
    // Called for each pipe created, by getPipe or on the far end's request.
    virtual void setPipeCreateCallback(PipeCreateCallback callback) = 0;
    // True when the pipe exists; never creates it.
    virtual bool pipeExists(const char* pipeName);
};

// --- The process-wide registry of managers, keyed by name (letter case ignored) ---

// Creates a server manager listening on `port` on every interface (0 picks a free port; see
// getHost) and stores it under `name`. A manager stored under that name before is replaced but
// neither stopped nor destroyed: whoever holds it may `delete` it.
DM_API CommunicationPipeManager* initCommunicationManagerAsServer(const char* name, int port,
                                                                  uint32_t id,
                                                                  bool createPipesOnRequest);
// The same with the manager's callbacks in place before it accepts its first client: set
// afterwards, they miss a client that connects in between.
DM_API CommunicationPipeManager* initCommunicationManagerAsServer(
    const char* name, int port, uint32_t id, bool createPipesOnRequest,
    ClientConnectionCallback clientConnectionCallback, PipeCreateCallback pipeCreateCallback);
// Returns the manager `name` if there is one (host and port are then not applied), else
// creates a client manager that starts connecting to host:port at once.
DM_API CommunicationPipeManager* initCommunicationManagerAsClient(const char* name,
                                                                  const char* host, int port);
// Null when there is no such manager.
DM_API CommunicationPipeManager* getCommunicationPipeManager(const char* name);
// The only manager when exactly one is registered, else null.
DM_API CommunicationPipeManager* getCommunicationPipeManager();
DM_API bool communicationPipeManagerExists(const char* name);
DM_API bool isCommunicationPipeManagerMapEmpty();
// The manager's getPipe(pipeName), creating the pipe if needed; null without such a manager.
DM_API CommunicationPipe* getCommunicationPipe(const char* managerName, const char* pipeName);
DM_API CommunicationPipe* getCommunicationPipeChecked(const char* managerName,
                                                      const char* pipeName);
// The sole manager's getPipe(pipeName); null when there is not exactly one manager.
DM_API CommunicationPipe* getCommunicationPipe(const char* pipeName);
DM_API CommunicationPipe* getCommunicationPipeChecked(const char* pipeName);
// The sole manager's pipeExists(pipeName); false when there is not exactly one manager.
DM_API bool isResourceHotLoadPipeCreated(const char* pipeName);
// Stops, joins and destroys the manager `name` with its pipes; unknown names are ignored. The
// remaining manager becomes the sole one when exactly one is left.
DM_API void deinitCommunicationManager(const char* name);
// Stops, joins and destroys every manager. Until a manager is made again, the lookups by pipe
// name alone find nothing.
DM_API void deinitCommunicationManagers();

// Writes each byte as two lower-case hexadecimal digits, high nibble first; `out` becomes
// exactly 2 * size characters.
DM_API void binaryDataToString(const uint8_t* data, size_t size, zu::String& out);
// Reads pairs of hexadecimal digits (either case) into bytes; `out` gets length / 2 bytes and
// an odd last character is ignored. Invalid digits are not reported: they count as 255, so an
// invalid high digit gives 0xF0 + low and an invalid low digit gives high * 16 - 1.
DM_API void stringToBinaryData(const zu::String& in, zu::Vector<char>& out);

}  // namespace dm

namespace net {

// Keeps letters, digits and "$-_.+!*'()," and writes every other byte as "%XX" (upper case).
DM_API zu::InplaceString<256> urlEncodeString(zu::InplaceString<128> in);
// Turns "%" and the (up to) two characters after it into one byte, taking each escape digit
// as its distance from '0': decimal escapes such as "%20" decode, hexadecimal letters do not
// ("%2F" gives '6'). '+' stays as it is. A '%' at the end gives a zero byte.
DM_API zu::InplaceString<256> urlDecodeString(zu::InplaceString<128> in);

}  // namespace net
