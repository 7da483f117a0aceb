// The pipe messages on the wire: every message is one net::Packet with id kPipePacketId whose
// payload starts with the message kind. Request, Response and Notify carry a payload that is
// split over as many packets as it needs (chunks); the rest are single packets.
#pragma once

#include <cstdint>

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

// --- Reading. Texts point into the packet and live as long as it. Every reader returns false
// when the packet ends before its fields do. ---

// Checks the packet id and reads the kind; the packet is then positioned on the next field.
bool readKind(net::Packet& packet, int32_t& kind);

struct RequestHead {
    const char* pipeName = "";
    uint32_t requestId = 0;
    uint32_t value = 0;
    const char* text = "";
};
struct ResponseHead {
    const char* pipeName = "";
    uint32_t requestId = 0;
    const char* text = "";
};
struct NotifyHead {
    const char* pipeName = "";
    uint32_t notifyId = 0;
    uint32_t value = 0;
};
// The fields after the head, read by the pipe's receive handlers.
bool readRequestHead(net::Packet& packet, RequestHead& head);
bool readResponseHead(net::Packet& packet, ResponseHead& head);
bool readNotifyHead(net::Packet& packet, NotifyHead& head);

// The chunk fields of Request, Response and Notify: the payload's total size, where this
// chunk lies in it and its length.
struct ChunkFields {
    uint32_t totalSize = 0;
    uint32_t offset = 0;
    uint32_t chunkSize = 0;

    // The chunk lies inside the payload (no overflow for any field values).
    bool liesInside() const { return static_cast<uint64_t>(offset) + chunkSize <= totalSize; }
    bool endsPayload() const { return static_cast<uint64_t>(offset) + chunkSize == totalSize; }
};
// Reads the three fields and checks that `chunkSize` bytes follow them in the packet; the
// packet is left on the chunk's first byte.
bool readChunkFields(net::Packet& packet, ChunkFields& chunk);

// OpenPipe carries two texts; PipeOpened and PipeRefused just the pipe name.
bool readOpenPipe(net::Packet& packet, const char*& pipeName, const char*& senderManagerName);
bool readPipeName(net::Packet& packet, const char*& pipeName);
bool readRedirect(net::Packet& packet, const char*& host, int32_t& port);
bool readWelcome(net::Packet& packet, uint32_t& protocolVersion, uint32_t& connectionId,
                 const char*& serverManagerName);

// --- Sending. `scratch` is the caller's packet, reused so that sending allocates nothing once
// it has grown. ---

// Whether a Request or Response with these texts can be framed: its head must fit one packet
// and, with data, leave room for at least one byte of it.
bool requestFitsPacket(const char* pipeName, const char* text, uint32_t dataSize);
bool responseFitsPacket(const char* pipeName, const char* text, uint32_t dataSize);

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

SendResult sendRequest(net::Socket& socket, net::Packet& scratch, SendProgress& progress,
                       const char* pipeName, uint32_t requestId, uint32_t value, const char* text,
                       const void* data, uint32_t dataSize);
SendResult sendResponse(net::Socket& socket, net::Packet& scratch, SendProgress& progress,
                        const char* pipeName, uint32_t requestId, const char* text,
                        const void* data, uint32_t dataSize);
// The chunked payload of a notification is its text, without the terminating zero.
SendResult sendNotify(net::Socket& socket, net::Packet& scratch, SendProgress& progress,
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
