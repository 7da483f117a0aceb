// Communication pipes: named two-way message channels between processes, carried over TCP,
// and the text encoders for binary data and URLs.
//
// A pipe is owned by a pipe manager, whose single thread moves the queued messages over the
// connection's socket and feeds received packets back into the pipe. Application threads use
// the CommunicationPipe interface only.
#pragma once

#include <cstddef>
#include <cstdint>

#include "dm/export.h"
#include "zu/string.h"
#include "zu/thread.h"
#include "zu/vector.h"

namespace dm {

class CommunicationPipe;
class CommunicationPipeManager;

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

    // Queues a notification; false (nothing queued) while not connected, for an empty (or
    // null) text, which is refused with a log line (the far end could not tell it from "no
    // notification"), and while the pipe's outgoing queue is full (1024 notifications or
    // 16 MiB of text not yet handed to the connection: the peer does not read); try again
    // later. A value of 0 is sent as the owning manager's id. Does not block.
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
    // Requests and notifications that arrive with an empty text are dropped (and counted, see
    // PipeStatistics).
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

// A pipe's queue lengths and the packets it has dropped on receipt, for diagnostics. A peer
// that follows the wire format never makes a pipe drop anything; each count is a packet thrown
// away unread, so that a misbehaving or hostile peer leaves a trace.
struct PipeStatistics {
    size_t incomingRequests = 0;
    size_t outgoingRequests = 0;
    size_t incomingNotifications = 0;
    size_t outgoingNotifications = 0;
    size_t outgoingResponses = 0;
    // Fields missing, a chunk outside its message, or chunks that contradict the ones before.
    uint64_t droppedMalformed = 0;
    // A message over the pipe's size limit, one unfinished message too many, or no memory.
    uint64_t droppedOverLimit = 0;
    // A request already answered (sent again after a reconnect), or a response nobody waits for.
    uint64_t droppedStale = 0;
    // A request or notification with an empty text, which the application could not tell from
    // "nothing arrived" (a sender of this library never sends one; another may). Counted once
    // per message.
    uint64_t droppedEmptyText = 0;
    // A Request, Response or Notify that came over a connection the pipe is not attached to:
    // a pipe belongs to the connection that opened it last.
    uint64_t droppedOtherConnection = 0;
    // A request or notification whose data would have taken the unfinished incoming data of
    // its connection (all the connection's pipes together) over the bound, and the later
    // chunks of such a message (see setConnectionIncomingLimits).
    uint64_t droppedConnectionLimit = 0;
    // Bytes held now for incoming messages still arriving (their buffers), and for whole ones
    // not yet taken by the application (with their records).
    uint64_t unfinishedIncomingBytes = 0;
    uint64_t queuedIncomingBytes = 0;
    // Requests and responses that the calling thread wrote to the connection itself, the
    // manager's thread being idle, and those of them of which the system took only a part at
    // once (the manager's thread sent the rest).
    uint64_t sentDirectly = 0;
    uint64_t sentDirectlyInPart = 0;
    // Answers to requests of this pipe that their caller read from the connection itself,
    // while the client manager's thread slept (a lone caller whose request went directly).
    uint64_t answersReadDirectly = 0;
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
    // Valid until the next setName, whose text it shares: a thread that may run while another
    // calls setName takes copyName instead.
    virtual const char* getName() const = 0;
    virtual zu::InplaceString<128> copyName() const = 0;
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
    // Like getName, a thread that may run while another calls setHost takes copyHost instead.
    virtual const char* getHost(uint32_t* outPort) = 0;
    virtual zu::InplaceString<128> copyHost(uint32_t* outPort) = 0;
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

// The statistics of a pipe made by a pipe manager (all zero for any other implementation).
DM_API PipeStatistics getPipeStatistics(const CommunicationPipe* pipe);
// Limit for the total size of incoming request data and notification texts on a pipe made by
// a pipe manager (512 MiB unless set); larger messages are dropped instead of allocated. False
// for any other implementation.
DM_API bool setPipeMaxMessageSize(CommunicationPipe* pipe, uint32_t bytes);
// Bounds, per connection of a manager made by the registry (all pipes attached to it
// together), what peers can make it hold:
// - `maxUnfinishedBytes` (512 MiB unless set, the default message size limit): data of incoming
//   messages still arriving. A chunk that would take it further is dropped with the rest of its
//   message (counted in droppedConnectionLimit), never allocated; so no request with more data
//   than this can arrive, whatever the pipe's message size limit. Buffers grow only with bytes
//   that arrived, so what is held stays near what peers really sent.
// - `maxQueuedBytes` (64 MiB unless set): whole incoming messages the application has not
//   taken yet. From this on, the manager stops reading the connection (TCP then holds the
//   sender back; its other connections are served as before) and reads on as soon as the
//   application takes messages. Nothing is dropped; one message may take it past the bound.
// Changes apply at once. False for any other implementation.
DM_API bool setConnectionIncomingLimits(CommunicationPipeManager* manager,
                                        uint64_t maxUnfinishedBytes, uint64_t maxQueuedBytes);

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
