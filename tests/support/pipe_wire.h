// The pipe messages as the wire format fixes them, written and read back independently of the
// library, so that a test checks the library against the format rather than against itself.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "net/packet.h"
#include "net/socket.h"
#include "support/loopback.h"

namespace dmtest {
namespace pipewire {

constexpr int kPacketId = 205;
constexpr int32_t kOpenPipe = 0;
constexpr int32_t kPipeOpened = 1;
constexpr int32_t kPipeRefused = 2;
constexpr int32_t kRequest = 3;
constexpr int32_t kResponse = 4;
constexpr int32_t kNotify = 5;
constexpr int32_t kRedirect = 6;
constexpr int32_t kWelcome = 7;

// --- Writing ---

inline net::Packet request(const char* pipe, uint32_t id, uint32_t value, const char* text,
                           uint32_t dataSize = 0, uint32_t offset = 0, uint32_t chunkSize = 0,
                           const void* chunk = nullptr) {
    net::Packet packet(kPacketId);
    packet << kRequest << pipe << id << value << text << dataSize << offset << chunkSize;
    packet.write(chunk, chunkSize);
    return packet;
}

inline net::Packet response(const char* pipe, uint32_t id, const char* text, uint32_t dataSize = 0,
                            uint32_t offset = 0, uint32_t chunkSize = 0,
                            const void* chunk = nullptr) {
    net::Packet packet(kPacketId);
    packet << kResponse << pipe << id << text << dataSize << offset << chunkSize;
    packet.write(chunk, chunkSize);
    return packet;
}

inline net::Packet notify(const char* pipe, uint32_t id, uint32_t value, uint32_t textLength,
                          uint32_t offset, uint32_t chunkSize, const void* chunk) {
    net::Packet packet(kPacketId);
    packet << kNotify << pipe << id << value << textLength << offset << chunkSize;
    packet.write(chunk, chunkSize);
    return packet;
}

inline net::Packet welcome(uint32_t version, uint32_t connectionId, const char* serverName) {
    net::Packet packet(kPacketId);
    packet << kWelcome << version << connectionId << serverName;
    return packet;
}

// PipeOpened, PipeRefused (and the start of OpenPipe): the kind and a pipe name.
inline net::Packet pipeMessage(int32_t kind, const char* pipeName) {
    net::Packet packet(kPacketId);
    packet << kind << pipeName;
    return packet;
}

inline net::Packet openPipe(const char* pipeName, const char* senderName) {
    net::Packet packet = pipeMessage(kOpenPipe, pipeName);
    packet << senderName;
    return packet;
}

// --- Reading ---

// A received pipe message, field by field; `endsAfterChunk` tells whether anything follows.
struct Message {
    int32_t kind = -1;
    std::string first;   // pipe name, or the host of a Redirect
    std::string second;  // the sender's name (OpenPipe)
    uint32_t id = 0;
    uint32_t value = 0;
    std::string text;
    uint32_t total = 0;
    uint32_t offset = 0;
    std::vector<uint8_t> chunk;
    bool endsAfterChunk = false;
};

inline Message read(net::Packet& packet) {
    Message message;
    const char* first = "";
    const char* second = "";
    const char* text = "";
    EXPECT_EQ(kPacketId, packet.getID());
    packet >> message.kind;
    const int32_t kind = message.kind;
    if (kind == kOpenPipe) {
        packet >> first >> second;
    } else if (kind == kPipeOpened || kind == kPipeRefused || kind == kRedirect) {
        packet >> first;
    } else if (kind == kWelcome) {
        packet >> message.value >> message.id >> first;  // version, connection id, server name
    } else if (kind == kRequest || kind == kResponse || kind == kNotify) {
        packet >> first >> message.id;
        if (kind == kRequest) {
            packet >> message.value >> text;
        } else if (kind == kResponse) {
            packet >> text;
        } else {
            packet >> message.value;
        }
        uint32_t chunkSize = 0;
        packet >> message.total >> message.offset >> chunkSize;
        message.chunk.resize(chunkSize);
        EXPECT_EQ(chunkSize, packet.read(message.chunk.data(), chunkSize));
        EXPECT_FALSE(packet.hasError());
    }
    message.first = first;
    message.second = second;
    message.text = text;
    message.endsAfterChunk = packet.getRemaining() == 0;
    return message;
}

// A peer that speaks the wire format by hand to a pipe manager over loopback.
struct RawPeer {
    explicit RawPeer(uint32_t port) { connected = socket.connect("127.0.0.1", port); }
    // Sends at once: a raw socket otherwise sends only when it is next updated.
    void send(const net::Packet& packet) {
        socket.sendPacket(packet);
        socket.update();
    }
    // The next message (kind -1 when none came within the bound).
    Message next() {
        net::Packet* packet = nextPacket(socket);
        return packet ? read(*packet) : Message();
    }
    // The next Request, Response or Notify, skipping handshake messages.
    Message nextPipeMessage() {
        for (int skipped = 0; skipped < 16; ++skipped) {
            Message message = next();
            if (message.kind < kOpenPipe || message.kind == kRequest || message.kind == kResponse ||
                message.kind == kNotify) {
                return message;
            }
        }
        return Message();
    }
    // Asks for `pipe` and waits until it is opened.
    void open(const std::string& pipe) {
        send(openPipe(pipe.c_str(), "peer"));
        for (int i = 0; i < 4; ++i) {
            if (next().kind == kPipeOpened) {
                return;
            }
        }
        ADD_FAILURE() << "pipe " << pipe << " not opened";
    }
    net::Socket socket;
    bool connected = false;
};

}  // namespace pipewire
}  // namespace dmtest
