#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "net/socket.h"
#include "net_wire.h"
#include "posix/net_posix.h"
#include "zu/exception.h"
#include "zu/memory.h"

namespace net {
namespace {

#if defined(MSG_NOSIGNAL)
constexpr int kSendFlags = MSG_NOSIGNAL;  // a peer that has gone must not raise SIGPIPE
#else
constexpr int kSendFlags = 0;  // SO_NOSIGPIPE is set per socket instead
#endif

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

int toFd(zu::NativeHandle handle) {
    return static_cast<int>(handle);
}

bool isWouldBlock(int error) {
    return error == EAGAIN || error == EWOULDBLOCK;
}

uint8_t* allocateBuffer(uint32_t size) {
    return static_cast<uint8_t*>(zu::allocateMemory(size, kBufferAlignment));
}

using Clock = std::chrono::steady_clock;

uint32_t millisecondsSince(Clock::time_point start) {
    auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    return static_cast<uint32_t>(elapsed.count());
}

}  // namespace

namespace posix {

bool resolveIPv4(const char* host, in_addr* address) {
    if (!host || host[0] == '\0') {
        address->s_addr = htonl(INADDR_ANY);
        return true;
    }
    if (inet_pton(AF_INET, host, address) == 1) {
        return true;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host, nullptr, &hints, &found) != 0 || !found) {
        return false;
    }
    *address = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr;
    freeaddrinfo(found);
    return true;
}

bool configureSocket(int fd) {
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
        return false;
    }
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
#if defined(SO_NOSIGPIPE)
    setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof(on));
#endif
    return true;
}

}  // namespace posix

void* Socket::operator new(size_t size) {
    return zu::allocateMemory(
        size, alignof(Socket) > zu::kDefaultAlignment ? alignof(Socket) : zu::kDefaultAlignment);
}

void Socket::operator delete(void* memory) {
    zu::deleteMemory(memory);
}

Socket::Socket() = default;

Socket::Socket(zu::NativeHandle connected) {
    int fd = toFd(connected);
    if (fd < 0) {
        return;
    }
    sockaddr_in peer{};
    socklen_t peerLength = sizeof(peer);
    if (!posix::configureSocket(fd) ||
        getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0) {
        ::close(fd);
        return;
    }
    m_handle = connected;
    m_peerAddress = peer.sin_addr.s_addr;
    try {
        becomeConnected();
    } catch (...) {
        close();  // the descriptor is ours from here on, even when construction fails
        throw;
    }
}

Socket::~Socket() {
    close();
    zu::deleteMemory(m_sendBuffer);
    zu::deleteMemory(m_receiveBuffer);
}

// ---------------------------------------------------------------------------------------------
// Connection state

bool Socket::connect(const char* host, uint32_t port) {
    close();
    in_addr address{};
    if (!host || host[0] == '\0' || port > 0xFFFF || !posix::resolveIPv4(host, &address)) {
        return false;
    }
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        return false;
    }
    if (!posix::configureSocket(fd)) {
        ::close(fd);
        return false;
    }
    m_handle = fd;
    m_peerAddress = address.s_addr;

    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(static_cast<uint16_t>(port));
    target.sin_addr = address;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&target), sizeof(target)) == 0) {
        becomeConnected();
        return true;
    }
    // An interrupted connect goes on in the background, just like a non-blocking one.
    if (errno == EINPROGRESS || errno == EINTR) {
        m_state = State::Connecting;
        return true;
    }
    close();
    return false;
}

void Socket::becomeConnected() {
    m_state = State::Connected;
    m_drained = false;
    if (!m_receiveBuffer) {
        m_receiveBuffer = allocateBuffer(kReceiveCapacity);
        m_receiveCapacity = kReceiveCapacity;
    }
    m_receiveBegin = 0;
    m_receiveEnd = 0;
}

void Socket::finishConnect() {
    pollfd entry{toFd(m_handle), POLLOUT, 0};
    if (poll(&entry, 1, 0) <= 0) {
        return;  // still pending
    }
    int error = 0;
    socklen_t length = sizeof(error);
    if (getsockopt(toFd(m_handle), SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
        close();
        return;
    }
    becomeConnected();
}

// The peer closed or reset the connection: nothing more can be sent, but frames already
// received stay pollable (isConnected stays true until they are gone).
void Socket::peerClosed() {
    m_state = State::PeerClosed;
    m_sendBegin = 0;
    m_sendQueued = 0;
}

bool Socket::isConnected() const {
    return m_state == State::Connected || (m_state == State::PeerClosed && wholeFrameSize() > 0);
}

void Socket::close() {
    if (m_handle != zu::kInvalidHandle) {
        ::close(toFd(m_handle));
        m_handle = zu::kInvalidHandle;
    }
    m_state = State::Closed;
    m_peerAddress = 0;
    m_sendBegin = 0;
    m_sendQueued = 0;
    m_receiveBegin = 0;
    m_receiveEnd = 0;
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
    if (m_state == State::PeerClosed && wholeFrameSize() == 0) {
        close();
    }
}

zu::WaitHandle Socket::getWaitHandle() const {
    switch (m_state) {
        case State::Connecting:
            return {zu::WaitHandle::SocketWrite, m_handle};
        case State::Connected:
            return {hasSendsToDo() ? zu::WaitHandle::SocketReadWrite : zu::WaitHandle::SocketRead,
                    m_handle};
        case State::PeerClosed:
            return {zu::WaitHandle::SocketRead, m_handle};
        case State::Closed:
            break;
    }
    return {};
}

zu::InplaceString<128> Socket::getConnectedIP() const {
    if (!isConnected()) {
        return "";
    }
    in_addr address{};
    address.s_addr = m_peerAddress;
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address, text, sizeof(text));
    return text;
}

// ---------------------------------------------------------------------------------------------
// Sending

bool Socket::sendPacket(const Packet& packet) {
    try {
        return sendFrame(packet);
    } catch (const zu::OutOfMemoryException&) {
        // No room to queue what the OS did not take: part of the frame may be on its way, so
        // nothing sent after it could be read. The connection is given up.
        close();
        return false;
    }
}

bool Socket::sendFrame(const Packet& packet) {
    if (m_state != State::Connected && m_state != State::Connecting) {
        return false;
    }
    uint8_t header[wire::kHeaderSize];
    wire::storeHeader(header, packet.getID(), packet.getSize());
    if (m_state == State::Connected && hasSendsToDo() && !flushSends()) {
        return false;
    }
    if (m_state == State::Connected && !hasSendsToDo()) {
        return sendDirect(header, packet);
    }
    if (!waitForSendRoom(wire::kHeaderSize + packet.getSize())) {
        return false;
    }
    appendToSendQueue(header, wire::kHeaderSize);
    appendToSendQueue(packet.getData(), packet.getSize());
    return m_state != State::Connected || flushSends();
}

// With nothing queued the frame goes straight from the packet to the OS; only what the OS
// does not take now is copied into the queue.
bool Socket::sendDirect(const uint8_t* header, const Packet& packet) {
    uint32_t payloadSize = packet.getSize();
    iovec parts[2] = {{const_cast<uint8_t*>(header), wire::kHeaderSize},
                      {const_cast<uint8_t*>(packet.getData()), payloadSize}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = payloadSize > 0 ? 2 : 1;
    ssize_t sent;
    do {
        sent = sendmsg(toFd(m_handle), &message, kSendFlags);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        if (!isWouldBlock(errno)) {
            peerClosed();
            return false;
        }
        sent = 0;
    }
    uint32_t done = static_cast<uint32_t>(sent);
    uint32_t frameSize = wire::kHeaderSize + payloadSize;
    if (done == frameSize) {
        return true;
    }
    reserveSendRoom(frameSize - done);
    if (done < wire::kHeaderSize) {
        appendToSendQueue(header + done, wire::kHeaderSize - done);
        done = wire::kHeaderSize;
    }
    appendToSendQueue(packet.getData() + (done - wire::kHeaderSize), frameSize - done);
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
        pollfd entry{toFd(m_handle), POLLOUT, 0};
        if (poll(&entry, 1, static_cast<int>(kSendStallTimeoutMs - waited)) <= 0) {
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
    if (m_sendCapacity - m_sendQueued >= length) {
        return;
    }
    uint64_t needed = static_cast<uint64_t>(m_sendQueued) + length;
    uint64_t capacity =
        m_sendCapacity * 2ull > kInitialSendCapacity ? m_sendCapacity * 2ull : kInitialSendCapacity;
    capacity = capacity < kMaxSendCapacity ? capacity : kMaxSendCapacity;
    capacity = capacity > needed ? capacity : needed;
    uint8_t* buffer = allocateBuffer(static_cast<uint32_t>(capacity));
    // Unwrap the queued bytes to the front of the new ring.
    uint32_t first = m_sendCapacity - m_sendBegin;
    first = first < m_sendQueued ? first : m_sendQueued;
    if (first > 0) {
        std::memcpy(buffer, m_sendBuffer + m_sendBegin, first);
    }
    if (m_sendQueued > first) {
        std::memcpy(buffer + first, m_sendBuffer, m_sendQueued - first);
    }
    zu::deleteMemory(m_sendBuffer);
    m_sendBuffer = buffer;
    m_sendCapacity = static_cast<uint32_t>(capacity);
    m_sendBegin = 0;
}

// The caller has reserved room for `length` bytes.
void Socket::appendToSendQueue(const uint8_t* bytes, uint32_t length) {
    if (length == 0) {
        return;
    }
    uint32_t tail = m_sendBegin + m_sendQueued;
    if (tail >= m_sendCapacity) {
        tail -= m_sendCapacity;
    }
    uint32_t first = m_sendCapacity - tail;
    first = first < length ? first : length;
    std::memcpy(m_sendBuffer + tail, bytes, first);
    if (length > first) {
        std::memcpy(m_sendBuffer, bytes + first, length - first);
    }
    m_sendQueued += length;
}

void Socket::consumeSendQueue(uint32_t length) {
    m_sendQueued -= length;
    m_sendBegin += length;
    if (m_sendBegin >= m_sendCapacity) {
        m_sendBegin -= m_sendCapacity;
    }
    if (m_sendQueued == 0) {
        m_sendBegin = 0;
    }
}

// Hands queued bytes to the OS until it takes no more. False when the connection broke.
bool Socket::flushSends() {
    while (m_sendQueued > 0) {
        uint32_t first = m_sendCapacity - m_sendBegin;
        first = first < m_sendQueued ? first : m_sendQueued;
        iovec parts[2] = {{m_sendBuffer + m_sendBegin, first},
                          {m_sendBuffer, m_sendQueued - first}};
        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = m_sendQueued > first ? 2 : 1;
        ssize_t sent = sendmsg(toFd(m_handle), &message, kSendFlags);
        if (sent > 0) {
            consumeSendQueue(static_cast<uint32_t>(sent));
        } else if (sent < 0 && errno == EINTR) {
            continue;
        } else if (sent < 0 && isWouldBlock(errno)) {
            return true;
        } else {
            peerClosed();
            return false;
        }
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// Receiving

// Reads until the OS has nothing more, the buffer is full, or the peer has gone.
void Socket::receive() {
    if (m_drained && m_readsOnlyWhenReady) {
        return;  // the OS had nothing more at the last read, and no wait has said otherwise
    }
    for (;;) {
        prepareReceiveRoom();
        uint32_t room = m_receiveCapacity - m_receiveEnd;
        if (room == 0) {
            return;  // full of frames nobody polled yet: let TCP hold the peer back
        }
        ssize_t got = recv(toFd(m_handle), m_receiveBuffer + m_receiveEnd, room, 0);
        if (got > 0) {
            m_receiveEnd += static_cast<uint32_t>(got);
            if (static_cast<uint32_t>(got) < room) {
                m_drained = true;  // the OS had less than asked for
                return;
            }
        } else if (got < 0 && errno == EINTR) {
            continue;
        } else if (got < 0 && isWouldBlock(errno)) {
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
    if (m_receiveCapacity - m_receiveEnd < kMinReceiveSpace && m_receiveBegin >= pending) {
        std::memmove(m_receiveBuffer, m_receiveBuffer + m_receiveBegin, pending);
        m_receiveBegin = 0;
        m_receiveEnd = pending;
    }
}

uint32_t Socket::wholeFrameSize() const {
    uint32_t frameSize = 0;
    const wire::FrameCheck check = wire::checkFrame(m_receiveBuffer + m_receiveBegin,
                                                    m_receiveEnd - m_receiveBegin, &frameSize);
    return check == wire::FrameCheck::Whole ? frameSize : 0;
}

bool Socket::extractPacket(uint32_t* outSize) {
    const uint8_t* frame = m_receiveBuffer + m_receiveBegin;
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
    if (outSize) {
        *outSize = payloadSize;
    }
    return true;
}

Packet* Socket::pollPacket(uint32_t* outSize) {
    if (outSize) {
        *outSize = 0;
    }
    m_packet.reset(0);
    bool open = m_state == State::Connected || m_state == State::PeerClosed;
    if (open && wholeFrameSize() == 0) {
        receive();
    }
    if ((m_state == State::Connected || m_state == State::PeerClosed) && extractPacket(outSize)) {
        return &m_packet;
    }
    if (m_state == State::PeerClosed) {
        close();  // what was left is a truncated frame at most
    }
    return nullptr;
}

}  // namespace net
