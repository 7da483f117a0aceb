// The socket calls of POSIX systems behind net::Socket and net::Listener.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>

#include "socket_platform.h"

namespace net {
namespace platform {
namespace {

#if defined(MSG_NOSIGNAL)
constexpr int kSendFlags = MSG_NOSIGNAL;  // a peer that has gone must not raise SIGPIPE
#else
constexpr int kSendFlags = 0;  // SO_NOSIGPIPE is set per socket instead
#endif

constexpr uint32_t kMaxSendPieces = 4;
constexpr uint32_t kMaxReceivePieces = 2;

int toFd(zu::NativeHandle handle) {
    return static_cast<int>(handle);
}

bool isWouldBlock(int error) {
    return error == EAGAIN || error == EWOULDBLOCK;
}

IoResult failedCall() {
    return {isWouldBlock(errno) ? IoStatus::WouldBlock : IoStatus::Broken, 0};
}

}  // namespace

bool resolveIPv4(const char* host, uint32_t* address) {
    if (!host || host[0] == '\0') {
        *address = htonl(INADDR_ANY);
        return true;
    }
    in_addr parsed{};
    if (inet_pton(AF_INET, host, &parsed) == 1) {
        *address = parsed.s_addr;
        return true;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host, nullptr, &hints, &found) != 0 || !found) {
        return false;
    }
    *address = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr.s_addr;
    freeaddrinfo(found);
    return true;
}

zu::InplaceString<128> formatIPv4(uint32_t address) {
    in_addr parsed{};
    parsed.s_addr = address;
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &parsed, text, sizeof(text));
    return text;
}

bool configureSocket(zu::NativeHandle handle) {
    const int fd = toFd(handle);
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

zu::NativeHandle openTcpSocket() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        return zu::kInvalidHandle;
    }
    if (!configureSocket(fd)) {
        ::close(fd);
        return zu::kInvalidHandle;
    }
    return fd;
}

void closeSocket(zu::NativeHandle handle) {
    ::close(toFd(handle));
}

ConnectStatus startConnect(zu::NativeHandle handle, uint32_t address, uint16_t port) {
    sockaddr_in target{};
    target.sin_family = AF_INET;
    target.sin_port = htons(port);
    target.sin_addr.s_addr = address;
    if (::connect(toFd(handle), reinterpret_cast<const sockaddr*>(&target), sizeof(target)) == 0) {
        return ConnectStatus::Connected;
    }
    // An interrupted connect goes on in the background, just like a non-blocking one.
    return errno == EINPROGRESS || errno == EINTR ? ConnectStatus::Pending : ConnectStatus::Failed;
}

ConnectStatus pollConnect(zu::NativeHandle handle) {
    pollfd entry{toFd(handle), POLLOUT, 0};
    if (poll(&entry, 1, 0) <= 0) {
        return ConnectStatus::Pending;
    }
    int error = 0;
    socklen_t length = sizeof(error);
    if (getsockopt(toFd(handle), SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
        return ConnectStatus::Failed;
    }
    return ConnectStatus::Connected;
}

bool peerAddress(zu::NativeHandle handle, uint32_t* address) {
    sockaddr_in peer{};
    socklen_t peerLength = sizeof(peer);
    if (getpeername(toFd(handle), reinterpret_cast<sockaddr*>(&peer), &peerLength) != 0) {
        return false;
    }
    *address = peer.sin_addr.s_addr;
    return true;
}

IoResult send(zu::NativeHandle handle, const ConstBytes* pieces, uint32_t count) {
    iovec parts[kMaxSendPieces];
    count = count < kMaxSendPieces ? count : kMaxSendPieces;
    for (uint32_t i = 0; i < count; ++i) {
        parts[i] = {const_cast<uint8_t*>(pieces[i].data), pieces[i].size};
    }
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = count;
    ssize_t sent;
    do {
        sent = sendmsg(toFd(handle), &message, kSendFlags);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        return failedCall();
    }
    return {IoStatus::Done, static_cast<uint32_t>(sent)};
}

IoResult receive(zu::NativeHandle handle, const MutableBytes* pieces, uint32_t count) {
    iovec parts[kMaxReceivePieces];
    count = count < kMaxReceivePieces ? count : kMaxReceivePieces;
    for (uint32_t i = 0; i < count; ++i) {
        parts[i] = {pieces[i].data, pieces[i].size};
    }
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = count;
    ssize_t got;
    do {
        got = recvmsg(toFd(handle), &message, 0);
    } while (got < 0 && errno == EINTR);
    if (got == 0) {
        return {IoStatus::Broken, 0};  // orderly close
    }
    if (got < 0) {
        return failedCall();
    }
    return {IoStatus::Done, static_cast<uint32_t>(got)};
}

bool waitWritable(zu::NativeHandle handle, uint32_t timeoutMs) {
    pollfd entry{toFd(handle), POLLOUT, 0};
    return poll(&entry, 1, static_cast<int>(timeoutMs)) > 0;
}

}  // namespace platform
}  // namespace net
