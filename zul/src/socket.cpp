// net::Socket: framing, the send ring and the receive buffer, over the OS calls of
// socket_platform.h.
#include <algorithm>
#include <chrono>
#include <cstring>

#include "handle_generation.h"
#include "net/socket.h"
#include "net_wire.h"
#include "socket_platform.h"
#include "zu/exception.h"
#include "zu/memory.h"

namespace net {
namespace {

constexpr size_t kBufferAlignment = 64;

// Two whole frames: a partial frame at the front can always be completed after moving it down,
// and moving it down never copies more than was consumed since the last move.
constexpr uint32_t kReceiveCapacity =
    (2 * wire::kMaxFrameSize + kBufferAlignment - 1) & ~static_cast<uint32_t>(kBufferAlignment - 1);
// Below this much free space at the end of the receive buffer, pending bytes move to the front
// so that reads stay large.
constexpr uint32_t kMinReceiveSpace = 64 * 1024;

constexpr uint32_t kInitialSendCapacity = 64 * 1024;
constexpr uint32_t kMaxSendCapacity = Socket::kMaxQueuedSend + wire::kMaxFrameSize;

static_assert(kReceiveCapacity >= 2 * wire::kMaxFrameSize, "see kReceiveCapacity");

using Clock = std::chrono::steady_clock;

uint32_t millisecondsSince(Clock::time_point start) {
    auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    return static_cast<uint32_t>(elapsed.count());
}

}  // namespace

Socket::Socket() = default;

zu::UniquePtr<Socket> Socket::adopt(zu::NativeHandle connected) {
    zu::UniquePtr<Socket> socket;
    try {
        socket = zu::makeUnique<Socket>();
    } catch (...) {
        if (connected != zu::kInvalidHandle) {
            platform::closeSocket(connected);
        }
        throw;
    }
    socket->adoptHandle(connected);
    return socket;
}

Socket::Socket(zu::NativeHandle connected) {
    adoptHandle(connected);
}

void Socket::adoptHandle(zu::NativeHandle connected) {
    if (connected == zu::kInvalidHandle) {
        return;
    }
    uint32_t peer = 0;
    if (!platform::configureSocket(connected) || !platform::peerAddress(connected, &peer)) {
        platform::closeSocket(connected);
        return;
    }
    m_handle = connected;
    m_generation = zu::platform::noteHandleOpened(m_handle);
    m_peerAddress = peer;
    try {
        becomeConnected();
    } catch (...) {
        close();  // the descriptor is ours from here on, even when construction fails
        throw;
    }
}

Socket::~Socket() {
    close();
}

// ---------------------------------------------------------------------------------------------
// Connection state

bool Socket::connect(const char* host, uint32_t port) {
    close();
    uint32_t address = 0;
    if (!host || host[0] == '\0' || port > 0xFFFF || !platform::resolveIPv4(host, &address)) {
        return false;
    }
    zu::NativeHandle handle = platform::openTcpSocket();
    if (handle == zu::kInvalidHandle) {
        return false;
    }
    m_handle = handle;
    m_generation = zu::platform::noteHandleOpened(m_handle);
    m_peerAddress = address;
    switch (platform::startConnect(handle, address, static_cast<uint16_t>(port))) {
        case platform::ConnectStatus::Connected:
            becomeConnected();
            return true;
        case platform::ConnectStatus::Pending:
            m_state = State::Connecting;
            return true;
        case platform::ConnectStatus::Failed:
            break;
    }
    close();
    return false;
}

void Socket::becomeConnected() {
    m_state = State::Connected;
    m_drained = false;
    if (m_receiveBuffer.empty()) {
        m_receiveBuffer = zu::Buffer(kReceiveCapacity, kBufferAlignment);
    }
    m_receiveBegin = 0;
    m_receiveEnd = 0;
}

void Socket::finishConnect() {
    switch (platform::pollConnect(m_handle)) {
        case platform::ConnectStatus::Pending:
            return;
        case platform::ConnectStatus::Failed:
            close();
            return;
        case platform::ConnectStatus::Connected:
            becomeConnected();
            return;
    }
}

// The peer closed or reset the connection: nothing more can be sent, but frames already
// received stay pollable (isConnected stays true until they are gone).
void Socket::peerClosed() {
    m_state = State::PeerClosed;
    m_sendBegin = 0;
    m_sendQueued = 0;
}

bool Socket::isConnected() const {
    const bool leftToRead = wholeFrameSize() > 0 || m_tailSize > 0;
    return m_state == State::Connected || (m_state == State::PeerClosed && leftToRead);
}

void Socket::close() {
    if (m_handle != zu::kInvalidHandle) {
        zu::platform::noteHandleClosing(m_handle);
        platform::closeSocket(m_handle);
        m_handle = zu::kInvalidHandle;
    }
    m_state = State::Closed;
    m_peerAddress = 0;
    m_sendBegin = 0;
    m_sendQueued = 0;
    m_receiveBegin = 0;
    m_receiveEnd = 0;
    endTail();
    m_packet.reset(0);
}

void Socket::update() {
    m_packet.reset(0);  // the previous packet may point at bytes that are about to move
    if (m_state == State::Connecting) {
        finishConnect();
    }
    if (m_state == State::Connected) {
        flushSends();
    }
    // Also after a failed send: frames the peer sent before it went may still wait in the OS.
    if (m_state == State::Connected || m_state == State::PeerClosed) {
        receive();
    }
    if (m_state == State::PeerClosed && !isConnected()) {
        close();
    }
}

zu::WaitHandle Socket::getWaitHandle() const {
    switch (m_state) {
        case State::Connecting:
            return {zu::WaitHandle::SocketWrite, m_handle, m_generation};
        case State::Connected:
            return {hasSendsToDo() ? zu::WaitHandle::SocketReadWrite : zu::WaitHandle::SocketRead,
                    m_handle, m_generation};
        case State::PeerClosed:
            return {zu::WaitHandle::SocketRead, m_handle, m_generation};
        case State::Closed:
            break;
    }
    return {};
}

zu::InplaceString<128> Socket::getConnectedIP() const {
    if (!isConnected()) {
        return "";
    }
    return platform::formatIPv4(m_peerAddress);
}

// ---------------------------------------------------------------------------------------------
// Sending

bool Socket::sendPacket(const Packet& packet) {
    return sendPacket(packet, nullptr, 0);
}

bool Socket::sendPacket(const Packet& head, const void* tail, uint32_t tailSize) {
    if (!tail || tailSize == 0) {
        tail = nullptr;
        tailSize = 0;
    }
    if (static_cast<uint64_t>(head.getSize()) + tailSize > Packet::kMaxPayload) {
        return false;
    }
    try {
        return sendFrame(head, static_cast<const uint8_t*>(tail), tailSize);
    } catch (const zu::OutOfMemoryException&) {
        // No room to queue what the OS did not take: part of the frame may be on its way, so
        // nothing sent after it could be read. The connection is given up.
        close();
        return false;
    }
}

bool Socket::sendFrame(const Packet& head, const uint8_t* tail, uint32_t tailSize) {
    if (m_state != State::Connected && m_state != State::Connecting) {
        return false;
    }
    const uint32_t payloadSize = head.getSize() + tailSize;
    uint8_t header[wire::kHeaderSize];
    wire::storeHeader(header, head.getID(), payloadSize);
    if (m_state == State::Connected && hasSendsToDo() && !flushSends()) {
        return false;
    }
    if (m_state == State::Connected && !hasSendsToDo()) {
        return sendDirect(header, head, tail, tailSize);
    }
    if (!waitForSendRoom(wire::kHeaderSize + payloadSize)) {
        return false;
    }
    appendToSendQueue(header, wire::kHeaderSize);
    appendToSendQueue(head.getData(), head.getSize());
    appendToSendQueue(tail, tailSize);
    return m_state != State::Connected || flushSends();
}

// With nothing queued the frame goes straight from where its pieces lie to the OS; only what
// the OS does not take now is copied into the queue, so that the frame still goes out whole.
bool Socket::sendDirect(const uint8_t* header, const Packet& head, const uint8_t* tail,
                        uint32_t tailSize) {
    const platform::ConstBytes pieces[3] = {
        {header, wire::kHeaderSize}, {head.getData(), head.getSize()}, {tail, tailSize}};
    uint32_t count = 1;
    for (uint32_t i = 1; i < 3; ++i) {
        if (pieces[i].size > 0) {
            count = i + 1;
        }
    }
    const platform::IoResult sent = platform::send(m_handle, pieces, count);
    if (sent.status == platform::IoStatus::Broken) {
        peerClosed();
        return false;
    }
    uint32_t done = sent.status == platform::IoStatus::Done ? sent.bytes : 0;
    uint32_t frameSize = wire::kHeaderSize + head.getSize() + tailSize;
    if (done == frameSize) {
        return true;
    }
    reserveSendRoom(frameSize - done);
    for (const platform::ConstBytes& piece : pieces) {
        const uint32_t skipped = done < piece.size ? done : piece.size;
        done -= skipped;
        appendToSendQueue(piece.data + skipped, piece.size - skipped);
    }
    return true;
}

// Keeps the queue within kMaxQueuedSend: waits for the peer to take bytes, and gives the
// connection up when it takes none for kSendStallTimeoutMs.
bool Socket::waitForSendRoom(uint32_t frameSize) {
    Clock::time_point lastProgress = Clock::now();
    while (hasSendsToDo() && m_sendQueued + frameSize > kMaxQueuedSend) {
        uint32_t waited = millisecondsSince(lastProgress);
        if (waited >= kSendStallTimeoutMs) {
            close();
            return false;
        }
        if (!platform::waitWritable(m_handle, kSendStallTimeoutMs - waited)) {
            continue;
        }
        if (m_state == State::Connecting) {
            finishConnect();
            if (m_state == State::Closed) {
                return false;
            }
            continue;
        }
        uint32_t queuedBefore = m_sendQueued;
        if (!flushSends()) {
            return false;
        }
        if (m_sendQueued < queuedBefore) {
            lastProgress = Clock::now();
        }
    }
    reserveSendRoom(frameSize);
    return true;
}

void Socket::reserveSendRoom(uint32_t length) {
    if (sendCapacity() - m_sendQueued >= length) {
        return;
    }
    uint64_t needed = static_cast<uint64_t>(m_sendQueued) + length;
    uint64_t capacity =
        sendCapacity() * 2ull > kInitialSendCapacity ? sendCapacity() * 2ull : kInitialSendCapacity;
    capacity = capacity < kMaxSendCapacity ? capacity : kMaxSendCapacity;
    capacity = capacity > needed ? capacity : needed;
    zu::Buffer grown(static_cast<size_t>(capacity), kBufferAlignment);
    uint8_t* buffer = grown.data();
    // Unwrap the queued bytes to the front of the new ring.
    uint32_t first = sendCapacity() - m_sendBegin;
    first = first < m_sendQueued ? first : m_sendQueued;
    if (first > 0) {
        std::memcpy(buffer, m_sendBuffer.data() + m_sendBegin, first);
    }
    if (m_sendQueued > first) {
        std::memcpy(buffer + first, m_sendBuffer.data(), m_sendQueued - first);
    }
    m_sendBuffer = std::move(grown);
    m_sendBegin = 0;
}

// The caller has reserved room for `length` bytes.
void Socket::appendToSendQueue(const uint8_t* bytes, uint32_t length) {
    if (length == 0) {
        return;
    }
    uint32_t tail = m_sendBegin + m_sendQueued;
    if (tail >= sendCapacity()) {
        tail -= sendCapacity();
    }
    uint32_t first = sendCapacity() - tail;
    first = first < length ? first : length;
    std::memcpy(m_sendBuffer.data() + tail, bytes, first);
    if (length > first) {
        std::memcpy(m_sendBuffer.data(), bytes + first, length - first);
    }
    m_sendQueued += length;
}

void Socket::consumeSendQueue(uint32_t length) {
    m_sendQueued -= length;
    m_sendBegin += length;
    if (m_sendBegin >= sendCapacity()) {
        m_sendBegin -= sendCapacity();
    }
    if (m_sendQueued == 0) {
        m_sendBegin = 0;
    }
}

// Hands queued bytes to the OS until it takes no more. False when the connection broke.
bool Socket::flushSends() {
    while (m_sendQueued > 0) {
        uint32_t first = sendCapacity() - m_sendBegin;
        first = first < m_sendQueued ? first : m_sendQueued;
        const platform::ConstBytes pieces[2] = {{m_sendBuffer.data() + m_sendBegin, first},
                                                {m_sendBuffer.data(), m_sendQueued - first}};
        const platform::IoResult sent =
            platform::send(m_handle, pieces, m_sendQueued > first ? 2 : 1);
        if (sent.status == platform::IoStatus::WouldBlock) {
            return true;
        }
        if (sent.status == platform::IoStatus::Broken || sent.bytes == 0) {
            peerClosed();
            return false;
        }
        consumeSendQueue(sent.bytes);
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// Receiving

// Reads until the OS has nothing more, the buffer is full, or the peer has gone.
void Socket::receive() {
    if (m_tailSize > 0) {
        return;  // the next bytes are a tail's, which only readFrameTail reads
    }
    if (m_drained && m_readsOnlyWhenReady) {
        return;  // the OS had nothing more at the last read, and no wait has said otherwise
    }
    for (;;) {
        prepareReceiveRoom();
        uint32_t room = receiveCapacity() - m_receiveEnd;
        if (m_tailSteering) {
            room = std::min(room, steeringReadLimit());
        }
        if (room == 0) {
            return;  // full of frames nobody polled yet: let TCP hold the peer back
        }
        const platform::MutableBytes into{m_receiveBuffer.data() + m_receiveEnd, room};
        const platform::IoResult got = platform::receive(m_handle, &into, 1);
        if (got.status == platform::IoStatus::Done) {
            m_receiveEnd += got.bytes;
            if (got.bytes < room) {
                m_drained = true;  // the OS had less than asked for
                return;
            }
        } else if (got.status == platform::IoStatus::WouldBlock) {
            m_drained = true;
            return;
        } else {
            peerClosed();  // orderly close (0) or reset
            return;
        }
    }
}

void Socket::prepareReceiveRoom() {
    uint32_t pending = m_receiveEnd - m_receiveBegin;
    if (pending == 0) {
        m_receiveBegin = 0;
        m_receiveEnd = 0;
        return;
    }
    // Move only when it copies no more than was consumed, so moving costs at most one copy of
    // the stream in the worst case and usually far less.
    if (receiveCapacity() - m_receiveEnd < kMinReceiveSpace && m_receiveBegin >= pending) {
        std::memmove(m_receiveBuffer.data(), m_receiveBuffer.data() + m_receiveBegin, pending);
        m_receiveBegin = 0;
        m_receiveEnd = pending;
    }
}

uint32_t Socket::wholeFrameSize() const {
    uint32_t frameSize = 0;
    const wire::FrameCheck check = wire::checkFrame(m_receiveBuffer.data() + m_receiveBegin,
                                                    m_receiveEnd - m_receiveBegin, &frameSize);
    return check == wire::FrameCheck::Whole ? frameSize : 0;
}

bool Socket::extractPacket(uint32_t* outSize) {
    const uint8_t* frame = m_receiveBuffer.data() + m_receiveBegin;
    uint32_t frameSize = 0;
    switch (wire::checkFrame(frame, m_receiveEnd - m_receiveBegin, &frameSize)) {
        case wire::FrameCheck::Incomplete:
            return false;
        case wire::FrameCheck::Invalid:
            close();  // not our protocol, or corrupted: nothing after this can be trusted
            return false;
        case wire::FrameCheck::Whole:
            break;
    }
    const uint32_t payloadSize = frameSize - wire::kHeaderSize;
    m_packet.view(wire::frameId(frame), frame + wire::kHeaderSize, payloadSize);
    m_receiveBegin += frameSize;
    m_tailDeclined = false;  // a decision is for the frame it was made on
    if (outSize) {
        *outSize = payloadSize;
    }
    return true;
}

// Reads once when no whole frame is buffered, then takes the next whole frame into m_packet.
bool Socket::takeFrame(uint32_t* outSize) {
    if (outSize) {
        *outSize = 0;
    }
    m_packet.reset(0);
    // A peer that has gone may have left bytes in the system (a failed send finds it gone).
    const bool open = m_state == State::Connected || m_state == State::PeerClosed;
    if (open && wholeFrameSize() == 0) {
        receive();
    }
    return open && extractPacket(outSize);
}

Packet* Socket::pollPacket(uint32_t* outSize) {
    if (takeFrame(outSize)) {
        return &m_packet;
    }
    if (m_state == State::PeerClosed) {
        close();  // what was left is a truncated frame at most
    }
    return nullptr;
}

Packet* Socket::pollPacketIf(bool (*wanted)(const Packet&), uint32_t* outSize) {
    if (!takeFrame(outSize)) {
        return nullptr;
    }
    if (wanted(m_packet)) {
        return &m_packet;
    }
    m_receiveBegin -= wire::kHeaderSize + m_packet.getSize();  // first in line again
    m_packet.reset(0);
    if (outSize) {
        *outSize = 0;
    }
    return nullptr;
}

}  // namespace net
