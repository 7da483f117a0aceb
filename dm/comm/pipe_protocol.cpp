#include "comm/pipe_protocol.h"

#include <algorithm>
#include <cstring>

namespace dm {
namespace pipe_protocol {

namespace {

// The fields of a Response whose bulk is received straight into its caller's buffer must lie
// in this much of its frame; longer ones (absurd names) are received as usual.
constexpr uint32_t kMaxResponseHead = 1024;

const char* orEmpty(const char* text) {
    return text ? text : "";
}

// Sends the message in packets of id kPipePacketId from `progress.bytesSent` on, until the
// whole payload has gone or the socket has more than `progress.queueLimit` bytes queued.
// `writeHead` writes the kind and the fields up to and including the payload's total size;
// each packet then gets the chunk's offset and size in `packet`, and the chunk itself goes to
// the sink from the caller's memory, as the packet's tail.
template <typename WriteHead>
SendResult sendChunked(PacketSink& sink, net::Packet& packet, SendProgress& progress,
                       const WriteHead& writeHead, const void* payload, uint32_t totalSize) {
    const uint8_t* bytes = static_cast<const uint8_t*>(payload);
    do {
        if (sink.getQueuedSendBytes() > progress.queueLimit) {
            sink.update();  // the OS may have room again since the queue was last flushed
            if (sink.getQueuedSendBytes() > progress.queueLimit) {
                return SendResult::kPaused;
            }
        }
        packet.reset(kPipePacketId);
        writeHead(packet);
        packet << progress.bytesSent;
        const uint32_t headSize = packet.getSize() + 4;  // with the chunk size still to come
        if (packet.hasError() || headSize > net::Packet::kMaxPayload) {
            return SendResult::kFailed;
        }
        const uint32_t room = net::Packet::kMaxPayload - headSize;
        const uint32_t left = totalSize - progress.bytesSent;
        const uint32_t taken = left < room ? left : room;
        if (totalSize != 0 && taken == 0) {
            return SendResult::kFailed;  // the head alone fills a packet: this would never end
        }
        packet << taken;
        if (packet.hasError() || !sink.sendPacket(packet, bytes + progress.bytesSent, taken)) {
            return SendResult::kFailed;
        }
        progress.bytesSent += taken;
    } while (progress.bytesSent < totalSize);
    return SendResult::kWhole;
}

// A text field: its length, its bytes and the terminator.
uint64_t textFieldSize(const char* text) {
    return 4u + std::strlen(orEmpty(text)) + 1u;
}

// kind, name, id, value, text, dataSize, offset, chunkSize
uint64_t requestHeadSize(const char* pipeName, const char* text) {
    return 4 + textFieldSize(pipeName) + 4 + 4 + textFieldSize(text) + 3 * 4;
}

// kind, name, id, text, dataSize, offset, chunkSize
uint64_t responseHeadSize(const char* pipeName, const char* text) {
    return 4 + textFieldSize(pipeName) + 4 + textFieldSize(text) + 3 * 4;
}

bool headLeavesRoom(uint64_t headSize, uint32_t dataSize) {
    return dataSize == 0 ? headSize <= net::Packet::kMaxPayload
                         : headSize < net::Packet::kMaxPayload;
}

template <typename WriteFields>
bool sendSingle(net::Socket& socket, const WriteFields& writeFields) {
    net::Packet packet(kPipePacketId);
    writeFields(packet);
    return !packet.hasError() && socket.sendPacket(packet);
}

// The chunk fields and the bytes they announce; false when the packet holds fewer.
bool readChunk(net::Packet& packet, Chunk& chunk) {
    packet >> chunk.totalSize >> chunk.offset >> chunk.size;
    if (packet.hasError() || chunk.size > packet.getRemaining()) {
        return false;
    }
    chunk.bytes = packet.getData() + packet.getPos();
    packet.setPos(packet.getPos() + chunk.size);
    return true;
}

// Reads the fields of the message's kind; false when the packet ends before they do.
bool readFields(net::Packet& packet, Message& message) {
    switch (message.kind) {
        case kOpenPipe:
            packet >> message.pipeName >> message.managerName;
            return !packet.hasError();
        case kPipeOpened:
        case kPipeRefused:
            packet >> message.pipeName;
            return !packet.hasError();
        case kRequest:
            packet >> message.pipeName >> message.id >> message.value >> message.text;
            // A request without data may end right after its text; the sizes then count as 0.
            return !packet.hasError() &&
                   (packet.getRemaining() == 0 || readChunk(packet, message.chunk));
        case kResponse:
            packet >> message.pipeName >> message.id >> message.text;
            return !packet.hasError() && readChunk(packet, message.chunk);
        case kNotify:
            packet >> message.pipeName >> message.id >> message.value;
            return !packet.hasError() && readChunk(packet, message.chunk);
        case kRedirect:
            packet >> message.host >> message.port;
            return !packet.hasError();
        case kWelcome:
            packet >> message.protocolVersion >> message.connectionId >> message.managerName;
            return !packet.hasError();
    }
    return true;  // a kind this side does not know: nothing to read
}

}  // namespace

bool decode(net::Packet& packet, Message& message) {
    message = Message();
    if (packet.getID() != kPipePacketId) {
        return false;
    }
    int32_t kind = -1;
    packet >> kind;
    if (packet.hasError()) {
        return false;
    }
    message.kind = static_cast<MessageKind>(kind);
    message.malformed = !readFields(packet, message);
    return true;
}

HeadDecode decodeResponseHead(net::Packet& scratch, const net::Socket::PartialFrame& frame,
                              Message& message) {
    message = Message();
    const uint32_t taken = std::min(frame.buffered, kMaxResponseHead);
    if (frame.id != kPipePacketId || !scratch.assign(frame.id, frame.payload, taken)) {
        return HeadDecode::kOther;
    }
    const bool mayGrow = taken == frame.buffered && taken < kMaxResponseHead;
    int32_t kind = -1;
    scratch >> kind;
    if (scratch.hasError() || kind != kResponse) {
        return scratch.hasError() && mayGrow ? HeadDecode::kNeedMore : HeadDecode::kOther;
    }
    message.kind = kResponse;
    Chunk& chunk = message.chunk;
    scratch >> message.pipeName >> message.id >> message.text >> chunk.totalSize >> chunk.offset >>
        chunk.size;
    if (scratch.hasError()) {
        return mayGrow ? HeadDecode::kNeedMore : HeadDecode::kOther;
    }
    const bool bytesEndFrame = uint64_t{scratch.getPos()} + chunk.size == frame.payloadSize;
    return bytesEndFrame ? HeadDecode::kResponseChunk : HeadDecode::kOther;
}

bool carriesPipeTraffic(const net::Packet& packet) {
    if (packet.getID() != kPipePacketId || packet.getSize() < 4) {
        return false;
    }
    const uint8_t* bytes = packet.getData();  // the kind, little-endian
    const uint32_t kind = bytes[0] | bytes[1] << 8 | bytes[2] << 16 | uint32_t{bytes[3]} << 24;
    return kind == kRequest || kind == kResponse || kind == kNotify;
}

bool requestFitsPacket(const char* pipeName, const char* text, uint32_t dataSize) {
    return headLeavesRoom(requestHeadSize(pipeName, text), dataSize);
}

bool responseFitsPacket(const char* pipeName, const char* text, uint32_t dataSize) {
    return headLeavesRoom(responseHeadSize(pipeName, text), dataSize);
}

bool requestFitsOnePacket(const char* pipeName, const char* text, uint32_t dataSize) {
    return requestHeadSize(pipeName, text) + dataSize <= net::Packet::kMaxPayload;
}

bool responseFitsOnePacket(const char* pipeName, const char* text, uint32_t dataSize) {
    return responseHeadSize(pipeName, text) + dataSize <= net::Packet::kMaxPayload;
}

SendResult sendRequest(PacketSink& sink, net::Packet& scratch, SendProgress& progress,
                       const char* pipeName, uint32_t requestId, uint32_t value, const char* text,
                       const void* data, uint32_t dataSize) {
    if (!data) {
        dataSize = 0;
    }
    const auto writeHead = [&](net::Packet& packet) {
        packet << int32_t(kRequest) << orEmpty(pipeName) << requestId << value << orEmpty(text)
               << dataSize;
    };
    return sendChunked(sink, scratch, progress, writeHead, data, dataSize);
}

SendResult sendResponse(PacketSink& sink, net::Packet& scratch, SendProgress& progress,
                        const char* pipeName, uint32_t requestId, const char* text,
                        const void* data, uint32_t dataSize) {
    if (!data) {
        dataSize = 0;
    }
    const auto writeHead = [&](net::Packet& packet) {
        packet << int32_t(kResponse) << orEmpty(pipeName) << requestId << orEmpty(text) << dataSize;
    };
    return sendChunked(sink, scratch, progress, writeHead, data, dataSize);
}

SendResult sendNotify(PacketSink& sink, net::Packet& scratch, SendProgress& progress,
                      const char* pipeName, uint32_t notifyId, uint32_t value, const char* text) {
    text = orEmpty(text);
    const uint32_t textLength = static_cast<uint32_t>(std::strlen(text));
    const auto writeHead = [&](net::Packet& packet) {
        packet << int32_t(kNotify) << orEmpty(pipeName) << notifyId << value << textLength;
    };
    return sendChunked(sink, scratch, progress, writeHead, text, textLength);
}

bool sendOpenPipe(net::Socket& socket, const char* pipeName, const char* senderManagerName) {
    return sendSingle(socket, [&](net::Packet& packet) {
        packet << int32_t(kOpenPipe) << orEmpty(pipeName) << orEmpty(senderManagerName);
    });
}

bool sendPipeOpened(net::Socket& socket, const char* pipeName) {
    return sendSingle(
        socket, [&](net::Packet& packet) { packet << int32_t(kPipeOpened) << orEmpty(pipeName); });
}

bool sendPipeRefused(net::Socket& socket, const char* pipeName) {
    return sendSingle(
        socket, [&](net::Packet& packet) { packet << int32_t(kPipeRefused) << orEmpty(pipeName); });
}

bool sendRedirect(net::Socket& socket, const char* host, int32_t port) {
    return sendSingle(socket, [&](net::Packet& packet) {
        packet << int32_t(kRedirect) << orEmpty(host) << port;
    });
}

bool sendWelcome(net::Socket& socket, uint32_t connectionId, const char* serverManagerName) {
    return sendSingle(socket, [&](net::Packet& packet) {
        packet << int32_t(kWelcome) << kProtocolVersion << connectionId
               << orEmpty(serverManagerName);
    });
}

}  // namespace pipe_protocol
}  // namespace dm
