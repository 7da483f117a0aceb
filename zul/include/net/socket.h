// net::Socket: a non-blocking TCP connection (TCP_NODELAY) that sends and receives whole
// net::Packets. Nothing here blocks except a sender that runs into kMaxQueuedSend (see
// sendPacket) and the name lookup of connect. Frames are described in docs/packet-format.md.
// A socket is used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>

#include "net/packet.h"
#include "zu/buffer.h"
#include "zu/event.h"
#include "zu/export.h"
#include "zu/memory.h"
#include "zu/string.h"

namespace net {

class ZUL_API Socket {
public:
    // Bytes a socket queues for sending before sendPacket waits for the peer to take some.
    static constexpr uint32_t kMaxQueuedSend = 16 * 1024 * 1024;
    // How long sendPacket waits on a peer that takes nothing before it gives the connection up.
    static constexpr uint32_t kSendStallTimeoutMs = 10000;

    Socket();
    // Adopts a connected OS socket. The descriptor is closed when it cannot be used (the socket
    // is then not connected) or when construction throws (out of memory for the receive buffer).
    explicit Socket(zu::NativeHandle connected);
    // The same on the runtime's heap (used by Listener); the descriptor is closed also when
    // there is no memory for the socket itself.
    static zu::UniquePtr<Socket> adopt(zu::NativeHandle connected);
    ~Socket();
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    // Starts connecting to host:port (a numeric address or a name). Closes any earlier
    // connection first. True when the connection is made or pending; false when it failed.
    bool connect(const char* host, uint32_t port);
    // Connected and usable. A connection whose peer has gone stays "connected" until the
    // packets that arrived before the close have been polled, so none is lost; a partial
    // packet left by the peer is dropped.
    bool isConnected() const;
    // A connect was started and has not finished yet.
    bool isConnecting() const { return m_state == State::Connecting; }
    void close();

    // Finishes a pending connect, sends what is queued, and reads what has arrived.
    void update();
    // Queues one packet for sending and tries to send at once. False when neither connected
    // nor connecting, or when the peer stopped reading for so long (kSendStallTimeoutMs with
    // kMaxQueuedSend bytes queued) that the connection was given up. Running out of memory
    // for the send queue also gives the connection up (false), rather than throwing.
    bool sendPacket(const Packet& packet);
    // The same for one frame whose payload is the packet's followed by `tailSize` bytes of
    // `tail`, gathered from where they lie: bulk data goes to the OS without first being
    // copied into a packet. False (nothing sent) when the whole payload exceeds
    // Packet::kMaxPayload.
    bool sendPacket(const Packet& head, const void* tail, uint32_t tailSize);
    // Returns the next whole received packet, or null. The packet belongs to the socket and
    // stays valid until the next pollPacket, update or close. `outSize` (may be null) gets its
    // payload size. When no whole packet is buffered it reads the socket once first, so a
    // loop of pollPacket calls drains the connection without update calls in between.
    Packet* pollPacket(uint32_t* outSize);
    // The same, but the next whole packet is handed out only when `wanted` accepts it; one it
    // refuses stays buffered, first in line for the next poll. Unlike pollPacket it never closes
    // a connection whose peer has gone: that is left for pollPacket to find.
    Packet* pollPacketIf(bool (*wanted)(const Packet&), uint32_t* outSize);
    // A whole received packet is buffered: a wait on the socket would not report it.
    bool hasWholePacket() const { return wholeFrameSize() > 0; }
    // Owners that wait on the socket can spare the read that finds nothing: with this set, once
    // a read came back short the socket reads again only after noteReadable. The owner must
    // then call noteReadable whenever its wait found the socket ready, or whenever it did not
    // wait on the socket's readiness at all. Off by default.
    void setReadsOnlyWhenReady(bool on) { m_readsOnlyWhenReady = on; }
    // The owner's wait found the socket ready: the next update or pollPacket reads again.
    void noteReadable() { m_drained = false; }

    // --- Bulk tails straight into the owner's memory ---
    // A frame whose payload ends in bulk data (a response chunk, say) can have that data read
    // from the OS straight to where its owner keeps it, saving a copy. With steering on, reads
    // stop a little way (kSteeringLookahead bytes) into a frame of kMinSteeredPayload bytes or
    // more that is not whole yet, so that the owner, before each poll, can look at its
    // beginning (peekPartialFrame) and either take its tail (readFrameTail) or decline it
    // (declineFrameTail), after which reads go on as usual. Off by default.
    static constexpr uint32_t kSteeringLookahead = 4 * 1024;
    static constexpr uint32_t kMinSteeredPayload = 16 * 1024;
    void setTailSteering(bool on) { m_tailSteering = on; }

    // The frame at the front that has not all arrived: its id, the start of its payload, how
    // much of the payload is buffered, and its whole payload size.
    struct PartialFrame {
        int id = 0;
        const uint8_t* payload = nullptr;
        uint32_t buffered = 0;
        uint32_t payloadSize = 0;
    };
    // False when the front holds a whole frame, less than a frame header, or nothing.
    bool peekPartialFrame(PartialFrame& out) const;
    // Steering is on, and a partial frame large enough for it is at the front, neither taken
    // nor declined yet.
    bool awaitsTailDecision() const;
    void declineFrameTail() { m_tailDeclined = true; }

    enum class TailRead : uint8_t {
        kComplete,  // the whole tail is at `tail`; end with dropFrameWithTail
        kPending,   // part of it is there; call again with the same arguments when readable
        kFailed     // the connection broke, or the arguments do not fit the frame
    };
    // Puts the last `tailSize` payload bytes of the partial frame at `tail`: those buffered
    // already, then the rest as the OS has them, with the next frame's start (up to
    // kSteeringLookahead bytes) going to the buffer in the same read. The tail must be longer
    // than that, so that those bytes never pass for the rest of the frame. Until the tail is
    // complete the socket reads nothing else, and `tail` must stay valid: an owner that can no
    // longer keep it must close the socket.
    TailRead readFrameTail(uint8_t* tail, uint32_t tailSize);
    // A tail is underway (readFrameTail returned kPending).
    bool isReadingTail() const { return m_tailSize > 0; }
    // After kComplete: the frame is done with; the payload's beginning, still readable through
    // peekPartialFrame's pointer until then, goes.
    void dropFrameWithTail();

    // Queued bytes not yet handed to the OS.
    bool hasSendsToDo() const { return m_sendQueued > 0; }
    // Bytes queued and not yet handed to the OS; lets a sender that must never wait drop
    // what a slow peer cannot take.
    uint32_t getQueuedSendBytes() const { return m_sendQueued; }

    // Handle to wait on: writability while connecting, readability and writability with sends
    // queued, else readability; kind None when closed.
    zu::WaitHandle getWaitHandle() const;
    // The peer's address ("a.b.c.d"), or "" when not connected.
    zu::InplaceString<128> getConnectedIP() const;

private:
    enum class State : uint8_t { Closed, Connecting, Connected, PeerClosed };

    void adoptHandle(zu::NativeHandle connected);
    void becomeConnected();
    void finishConnect();
    void peerClosed();

    bool sendFrame(const Packet& head, const uint8_t* tail, uint32_t tailSize);
    bool sendDirect(const uint8_t* header, const Packet& head, const uint8_t* tail,
                    uint32_t tailSize);
    bool waitForSendRoom(uint32_t frameSize);
    void reserveSendRoom(uint32_t length);
    void appendToSendQueue(const uint8_t* bytes, uint32_t length);
    void consumeSendQueue(uint32_t length);
    bool flushSends();

    void receive();
    void prepareReceiveRoom();
    // Size of the whole frame at the front of the receive buffer; 0 when it is not all there
    // (or its length is invalid, which extractPacket reports).
    uint32_t wholeFrameSize() const;
    bool extractPacket(uint32_t* outSize);
    bool takeFrame(uint32_t* outSize);

    zu::NativeHandle m_handle = zu::kInvalidHandle;
    uint32_t m_generation = 0;  // of m_handle; see zu::WaitHandle
    State m_state = State::Closed;
    uint32_t m_peerAddress = 0;  // IPv4, network byte order

    uint32_t sendCapacity() const { return static_cast<uint32_t>(m_sendBuffer.size()); }
    uint32_t receiveCapacity() const { return static_cast<uint32_t>(m_receiveBuffer.size()); }

    // A ring: m_sendQueued bytes from m_sendBegin, wrapping at its capacity. Nothing is ever
    // moved inside it, however slowly the peer reads.
    zu::Buffer m_sendBuffer;
    uint32_t m_sendBegin = 0;
    uint32_t m_sendQueued = 0;

    zu::Buffer m_receiveBuffer;  // 64-byte aligned: large loopback reads are faster
    uint32_t m_receiveBegin = 0;
    uint32_t m_receiveEnd = 0;

    Packet m_packet;

    bool m_readsOnlyWhenReady = false;
    bool m_drained = false;  // the last read came back short; see setReadsOnlyWhenReady

    uint32_t steeringReadLimit() const;
    bool frontIsSteerable() const;
    void startTail(uint8_t* tail, uint32_t tailSize);
    void endTail();

    bool m_tailSteering = false;
    bool m_tailDeclined = false;  // for the frame at the front
    uint32_t m_tailSize = 0;      // of the tail underway; 0 when none
    uint32_t m_tailDone = 0;      // of its bytes, already at the owner's memory
};

}  // namespace net
