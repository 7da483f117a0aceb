// net::Socket: a non-blocking TCP connection (TCP_NODELAY) that sends and receives whole
// net::Packets. Nothing here blocks except a sender that runs into kMaxQueuedSend (see
// sendPacket). Frames are described in docs/packet-format.md.
#pragma once

#include <cstdint>

#include "net/packet.h"
#include "zu/event.h"
#include "zu/export.h"
#include "zu/string.h"

namespace net {

class ZUL_API Socket {
public:
    // Bytes a socket queues for sending before sendPacket waits for the peer to take some.
    static constexpr uint32_t kMaxQueuedSend = 16 * 1024 * 1024;

    Socket();
    // Adopts a connected OS socket (used by Listener).
    explicit Socket(zu::NativeHandle connected);
    ~Socket();
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    // Starts connecting to host:port (a numeric address or a name). Closes any earlier
    // connection first. True when the connection is made or pending; false when it failed.
    bool connect(const char* host, uint32_t port);
    // Connected and usable. A connection whose peer has gone stays "connected" until the
    // packets that arrived before the close have been polled, so none is lost.
    bool isConnected() const;
    // A connect was started and has not finished yet.
    bool isConnecting() const;
    void close();

    // Finishes a pending connect, sends what is queued, and reads what has arrived.
    void update();
    // Queues one packet for sending and tries to send at once. False when not connected, or
    // when the peer stopped reading for so long that the connection was given up.
    bool sendPacket(const Packet& packet);
    // Returns the next whole received packet, or null. The packet belongs to the socket and
    // stays valid until the next pollPacket, update or close. `outSize` gets its payload size.
    Packet* pollPacket(uint32_t* outSize);
    // Queued bytes not yet handed to the OS.
    bool hasSendsToDo() const { return m_sendEnd > m_sendBegin; }

    // Handle to wait on: writability while connecting or with sends queued, else readability.
    zu::WaitHandle getWaitHandle() const;
    // The peer's address ("a.b.c.d"), or "" when not connected.
    zu::InplaceString<128> getConnectedIP() const;

private:
    enum class State : uint8_t { Closed, Connecting, Connected, PeerClosed };

    void finishConnect();
    bool flushSends();
    void receive();
    bool waitWritable(uint32_t timeoutMs);
    bool extractPacket(uint32_t* outSize);
    void compactReceiveBuffer();
    void fail();

    zu::NativeHandle m_handle = zu::kInvalidHandle;
    State m_state = State::Closed;

    uint8_t* m_sendBuffer = nullptr;
    uint32_t m_sendCapacity = 0;
    uint32_t m_sendBegin = 0;
    uint32_t m_sendEnd = 0;

    uint8_t* m_receiveBuffer = nullptr;  // 64-byte aligned: large loopback reads are faster
    uint32_t m_receiveCapacity = 0;
    uint32_t m_receiveBegin = 0;
    uint32_t m_receiveEnd = 0;

    Packet m_packet;
};

}  // namespace net
