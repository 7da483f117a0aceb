#include "comm/pipe_protocol.h"

#include <cstring>

namespace dm {
namespace pipe_protocol {

namespace {

const char* orEmpty(const char* text) {
    return text ? text : "";
}

// Writes the message in packets of id kPipePacketId until the whole payload has gone.
// `writeHead` writes the kind and the fields up to and including the payload's total size;
// each packet then gets the chunk's offset, its size and as much of the payload as it takes.
template <typename WriteHead>
bool sendChunked(net::Socket& socket, net::Packet& packet, const WriteHead& writeHead,
                 const void* payload, uint32_t totalSize) {
    const uint8_t* bytes = static_cast<const uint8_t*>(payload);
    uint32_t bytesSent = 0;
    do {
        packet.reset(kPipePacketId);
        writeHead(packet);
        packet << bytesSent;
        const uint32_t chunkSizePos = packet.getPos();
        packet << uint32_t(0);
        if (totalSize != 0) {
            const uint32_t taken = packet.write(bytes + bytesSent, totalSize - bytesSent);
            if (taken == 0) {
                return false;  // the head alone fills a packet: this would never end
            }
            bytesSent += taken;
            const uint32_t endPos = packet.getPos();
            packet.setPos(chunkSizePos);
            packet << taken;
            packet.setPos(endPos);
        }
        if (packet.hasError() || !socket.sendPacket(packet)) {
            return false;
        }
    } while (bytesSent < totalSize);
    return true;
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

bool sendRequest(net::Socket& socket, net::Packet& scratch, const char* pipeName,
                 uint32_t requestId, uint32_t value, const char* text, const void* data,
                 uint32_t dataSize) {
    if (!data) {
        dataSize = 0;
    }
    const auto writeHead = [&](net::Packet& packet) {
        packet << int32_t(kRequest) << orEmpty(pipeName) << requestId << value << orEmpty(text)
               << dataSize;
    };
    return sendChunked(socket, scratch, writeHead, data, dataSize);
}

bool sendResponse(net::Socket& socket, net::Packet& scratch, const char* pipeName,
                  uint32_t requestId, const char* text, const void* data, uint32_t dataSize) {
    if (!data) {
        dataSize = 0;
    }
    const auto writeHead = [&](net::Packet& packet) {
        packet << int32_t(kResponse) << orEmpty(pipeName) << requestId << orEmpty(text) << dataSize;
    };
    return sendChunked(socket, scratch, writeHead, data, dataSize);
}

bool sendNotify(net::Socket& socket, net::Packet& scratch, const char* pipeName, uint32_t notifyId,
                uint32_t value, const char* text) {
    text = orEmpty(text);
    const uint32_t textLength = static_cast<uint32_t>(std::strlen(text));
    const auto writeHead = [&](net::Packet& packet) {
        packet << int32_t(kNotify) << orEmpty(pipeName) << notifyId << value << textLength;
    };
    return sendChunked(socket, scratch, writeHead, text, textLength);
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
