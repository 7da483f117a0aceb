// The pipe messages on the wire: every message is one net::Packet with id kPipePacketId whose
// payload starts with the message kind. Request, Response and Notify carry a payload that is
// split over as many packets as it needs (chunks); the rest are single packets.
#pragma once

#include <cstdint>

#include "comm/packet_sink.h"
#include "net/packet.h"
#include "net/socket.h"

namespace dm {
namespace pipe_protocol {

constexpr int kPipePacketId = 205;
constexpr uint32_t kProtocolVersion = 2;

enum MessageKind : int32_t {
    kOpenPipe = 0,     // client to server: pipeName, senderManagerName
    kPipeOpened = 1,   // server to client: pipeName
    kPipeRefused = 2,  // server to client: pipeName
    kRequest = 3,      // pipeName, requestId, value, text, dataSize, offset, chunkSize, chunk
    kResponse = 4,     // pipeName, requestId, text, dataSize, offset, chunkSize, chunk
    kNotify = 5,       // pipeName, notifyId, value, textLength, offset, chunkSize, chunk
    kRedirect = 6,     // server to client: host, port
    kWelcome = 7,      // server to client: protocolVersion, connectionId, serverManagerName
};

// --- Reading: a received packet is decoded once, into a Message. ---

// A piece of the chunked payload of a Request, Response or Notify.
struct Chunk {
    uint32_t totalSize = 0;  // of the whole payload
    uint32_t offset = 0;     // where this chunk lies in it
    uint32_t size = 0;
    const uint8_t* bytes = nullptr;  // `size` bytes inside the packet

    // The chunk lies inside the payload (no overflow for any field values).
    bool liesInside() const { return static_cast<uint64_t>(offset) + size <= totalSize; }
    bool endsPayload() const { return static_cast<uint64_t>(offset) + size == totalSize; }
};

// One pipe message. Only the fields of its kind are set; texts and the chunk's bytes point into
// the packet and live as long as it.
struct Message {
    MessageKind kind = kOpenPipe;
    // The packet ended before the kind's fields did, or its chunk claims more bytes than
    // follow. The fields read before the fault keep their values (the pipe name, say).
    bool malformed = false;

    const char* pipeName = "";     // OpenPipe, PipeOpened, PipeRefused, Request, Response, Notify
    const char* managerName = "";  // OpenPipe: the sender's; Welcome: the server's
    uint32_t id = 0;               // Request, Response: the request id; Notify: the notify id
    uint32_t value = 0;            // Request, Notify
    const char* text = "";         // Request, Response
    Chunk chunk;                   // Request, Response, Notify
    const char* host = "";         // Redirect
    int32_t port = 0;              // Redirect
    uint32_t protocolVersion = 0;  // Welcome
    uint32_t connectionId = 0;     // Welcome
};

// False when the packet is no pipe message (another id, or not even a kind). Kinds this side
// does not know come back as they are, for the caller to skip. A Request may end right after
// its text: its chunk fields then count as 0 (a request without data).
bool decode(net::Packet& packet, Message& message);
// A Request, Response or Notify, by its kind alone (nothing else is checked): the traffic of
// the pipes, which touches no connection state and calls no callback while it is dispatched.
bool carriesPipeTraffic(const net::Packet& packet);

// --- The beginning of a large frame, before its bulk has arrived (see net::Socket's tail
// steering) ---

enum class HeadDecode {
    kResponseChunk,  // a Response whose chunk's bytes, and nothing else, follow its fields
    kNeedMore,       // more of the frame may tell
    kOther,          // anything else: it is received and decoded as usual
};
// Decodes the fields of a Response, up to its chunk's size, from the buffered beginning of a
// frame, through `scratch` (the texts point into it; chunk.bytes stays null).
HeadDecode decodeResponseHead(net::Packet& scratch, const net::Socket::PartialFrame& frame,
                              Message& message);

// --- Sending. The chunked messages go to a sink (see PacketSink); `scratch` is the caller's
// packet, reused so that sending allocates nothing once it has grown. ---

// Whether a Request or Response with these texts can be framed: its head must fit one packet
// and, with data, leave room for at least one byte of it.
bool requestFitsPacket(const char* pipeName, const char* text, uint32_t dataSize);
bool responseFitsPacket(const char* pipeName, const char* text, uint32_t dataSize);
// Whether the whole message, data and all, goes in a single packet.
bool requestFitsOnePacket(const char* pipeName, const char* text, uint32_t dataSize);
bool responseFitsOnePacket(const char* pipeName, const char* text, uint32_t dataSize);

// How far a chunked send got.
enum class SendResult {
    kWhole,   // the last packet of the message has gone to the socket
    kPaused,  // the socket had too much queued: call again later to go on
    kFailed,  // the socket refused a packet, or the message cannot be framed
};

// Where a chunked message stands: the payload bytes sent so far, and how many bytes the socket
// may hold queued (not yet taken by the OS) before sending pauses. A message is sent by calls
// with the same progress until one returns kWhole; its packets are those that one call would
// have sent (each chunk's offset is the bytes sent before it). A paused send leaves the socket
// with queued bytes, so its wait handle then also signals when it can take more.
struct SendProgress {
    uint32_t bytesSent = 0;
    uint32_t queueLimit = 0xFFFFFFFFu;
};

SendResult sendRequest(PacketSink& sink, net::Packet& scratch, SendProgress& progress,
                       const char* pipeName, uint32_t requestId, uint32_t value, const char* text,
                       const void* data, uint32_t dataSize);
SendResult sendResponse(PacketSink& sink, net::Packet& scratch, SendProgress& progress,
                        const char* pipeName, uint32_t requestId, const char* text,
                        const void* data, uint32_t dataSize);
// The chunked payload of a notification is its text, without the terminating zero.
SendResult sendNotify(PacketSink& sink, net::Packet& scratch, SendProgress& progress,
                      const char* pipeName, uint32_t notifyId, uint32_t value, const char* text);

// The single-packet messages; false when the socket refused the packet.
bool sendOpenPipe(net::Socket& socket, const char* pipeName, const char* senderManagerName);
bool sendPipeOpened(net::Socket& socket, const char* pipeName);
bool sendPipeRefused(net::Socket& socket, const char* pipeName);
bool sendRedirect(net::Socket& socket, const char* host, int32_t port);
// Sends kProtocolVersion with the connection id and the server's name.
bool sendWelcome(net::Socket& socket, uint32_t connectionId, const char* serverManagerName);

}  // namespace pipe_protocol
}  // namespace dm
