// PacketSink: where a pipe's pump sends its packets. The manager hands the pump its
// connection's socket; unit tests hand it a buffer and read the packets back from there.
#pragma once

#include <cstdint>

#include "net/packet.h"
#include "net/socket.h"

namespace dm {

class PacketSink {
public:
    // Sends one packet whose payload is `head`'s followed by `tailSize` bytes at `tail` (bulk
    // data, taken from where it lies). False when it was refused (the connection is gone, or it
    // cannot be framed).
    virtual bool sendPacket(const net::Packet& head, const void* tail, uint32_t tailSize) = 0;
    // Bytes accepted but not yet handed on; the pump pauses above a limit.
    virtual uint32_t getQueuedSendBytes() const = 0;
    // Hands queued bytes on as far as the far end takes them.
    virtual void update() = 0;
    // A pump stops sending for the pass once the sink holds more than this queued: the manager
    // then reads its connections and comes back when the sink can take more. Far below
    // net::Socket::kMaxQueuedSend, so that sending never waits for the peer to read, which
    // would deadlock two managers that both send large messages.
    static constexpr uint32_t kPauseSendingAbove = 2u * 1024u * 1024u;
    virtual uint32_t pauseSendingAbove() const { return kPauseSendingAbove; }

protected:
    ~PacketSink() = default;
};

// A connection's socket as a sink; a view of it, made for each pump.
class SocketSink final : public PacketSink {
public:
    explicit SocketSink(net::Socket& socket) : m_socket(socket) {}

    bool sendPacket(const net::Packet& head, const void* tail, uint32_t tailSize) override {
        return m_socket.sendPacket(head, tail, tailSize);
    }
    uint32_t getQueuedSendBytes() const override { return m_socket.getQueuedSendBytes(); }
    void update() override { m_socket.update(); }
    // What the system does not take at once is copied into the socket's queue. Pausing as soon
    // as there is any keeps bulk data going from its owner's memory straight to the system,
    // whose own buffer keeps the connection busy until the manager comes back.
    uint32_t pauseSendingAbove() const override { return 0; }

private:
    net::Socket& m_socket;
};

}  // namespace dm
