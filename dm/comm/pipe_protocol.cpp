#include "comm/pipe_protocol.h"

#include <cstring>

namespace dm {
namespace pipe_protocol {

namespace {

const char* orEmpty(const char* text) {
    return text ? text : "";
}

// Writes the message in packets of id kPipePacketId from `progress.bytesSent` on, until the
// whole payload has gone or the socket has more than `progress.queueLimit` bytes queued.
// `writeHead` writes the kind and the fields up to and including the payload's total size;
// each packet then gets the chunk's offset, its size and as much of the payload as it takes.
template <typename WriteHead>
SendResult sendChunked(net::Socket& socket, net::Packet& packet, SendProgress& progress,
                       const WriteHead& writeHead, const void* payload, uint32_t totalSize) {
    const uint8_t* bytes = static_cast<const uint8_t*>(payload);
    do {
        if (socket.getQueuedSendBytes() > progress.queueLimit) {
            socket.update();  // the OS may have room again since the queue was last flushed
            if (socket.getQueuedSendBytes() > progress.queueLimit) {
                return SendResult::kPaused;
            }
        }
        packet.reset(kPipePacketId);
        writeHead(packet);
        packet << progress.bytesSent;
        const uint32_t chunkSizePos = packet.getPos();
        packet << uint32_t(0);
        uint32_t taken = 0;
        if (totalSize != 0) {
            taken = packet.write(bytes + progress.bytesSent, totalSize - progress.bytesSent);
            if (taken == 0) {
                return SendResult::kFailed;  // the head alone fills a packet: this would never end
            }
            const uint32_t endPos = packet.getPos();
            packet.setPos(chunkSizePos);
            packet << taken;
            packet.setPos(endPos);
        }
        if (packet.hasError() || !socket.sendPacket(packet)) {
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

}  // namespace

bool readKind(net::Packet& packet, int32_t& kind) {
    if (packet.getID() != kPipePacketId) {
        return false;
    }
    packet >> kind;
    return !packet.hasError();
}

bool readRequestHead(net::Packet& packet, RequestHead& head) {
    packet >> head.pipeName >> head.requestId >> head.value >> head.text;
    return !packet.hasError();
}

bool readResponseHead(net::Packet& packet, ResponseHead& head) {
    packet >> head.pipeName >> head.requestId >> head.text;
    return !packet.hasError();
}

bool readNotifyHead(net::Packet& packet, NotifyHead& head) {
    packet >> head.pipeName >> head.notifyId >> head.value;
    return !packet.hasError();
}

bool readChunkFields(net::Packet& packet, ChunkFields& chunk) {
    packet >> chunk.totalSize >> chunk.offset >> chunk.chunkSize;
    return !packet.hasError() && chunk.chunkSize <= packet.getRemaining();
}

bool readOpenPipe(net::Packet& packet, const char*& pipeName, const char*& senderManagerName) {
    packet >> pipeName >> senderManagerName;
    return !packet.hasError();
}

bool readPipeName(net::Packet& packet, const char*& pipeName) {
    packet >> pipeName;
    return !packet.hasError();
}

bool readRedirect(net::Packet& packet, const char*& host, int32_t& port) {
    packet >> host >> port;
    return !packet.hasError();
}

bool readWelcome(net::Packet& packet, uint32_t& protocolVersion, uint32_t& connectionId,
                 const char*& serverManagerName) {
    packet >> protocolVersion >> connectionId >> serverManagerName;
    return !packet.hasError();
}

bool requestFitsPacket(const char* pipeName, const char* text, uint32_t dataSize) {
    // kind, name, id, value, text, dataSize, offset, chunkSize
    const uint64_t head = 4 + textFieldSize(pipeName) + 4 + 4 + textFieldSize(text) + 3 * 4;
    return headLeavesRoom(head, dataSize);
}

bool responseFitsPacket(const char* pipeName, const char* text, uint32_t dataSize) {
    // kind, name, id, text, dataSize, offset, chunkSize
    const uint64_t head = 4 + textFieldSize(pipeName) + 4 + textFieldSize(text) + 3 * 4;
    return headLeavesRoom(head, dataSize);
}

SendResult sendRequest(net::Socket& socket, net::Packet& scratch, SendProgress& progress,
                       const char* pipeName, uint32_t requestId, uint32_t value, const char* text,
                       const void* data, uint32_t dataSize) {
    if (!data) {
        dataSize = 0;
    }
    const auto writeHead = [&](net::Packet& packet) {
        packet << int32_t(kRequest) << orEmpty(pipeName) << requestId << value << orEmpty(text)
               << dataSize;
    };
    return sendChunked(socket, scratch, progress, writeHead, data, dataSize);
}

SendResult sendResponse(net::Socket& socket, net::Packet& scratch, SendProgress& progress,
                        const char* pipeName, uint32_t requestId, const char* text,
                        const void* data, uint32_t dataSize) {
    if (!data) {
        dataSize = 0;
    }
    const auto writeHead = [&](net::Packet& packet) {
        packet << int32_t(kResponse) << orEmpty(pipeName) << requestId << orEmpty(text) << dataSize;
    };
    return sendChunked(socket, scratch, progress, writeHead, data, dataSize);
}

SendResult sendNotify(net::Socket& socket, net::Packet& scratch, SendProgress& progress,
                      const char* pipeName, uint32_t notifyId, uint32_t value, const char* text) {
    text = orEmpty(text);
    const uint32_t textLength = static_cast<uint32_t>(std::strlen(text));
    const auto writeHead = [&](net::Packet& packet) {
        packet << int32_t(kNotify) << orEmpty(pipeName) << notifyId << value << textLength;
    };
    return sendChunked(socket, scratch, progress, writeHead, text, textLength);
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
