#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "net/listener.h"
#include "posix/net_posix.h"

namespace net {
namespace {

// Opens a non-blocking listening socket; returns its descriptor and the port it got, or -1.
int openListeningSocket(uint32_t port, const char* bindAddress, uint32_t* boundPort) {
    in_addr address{};
    if (port > 0xFFFF || !posix::resolveIPv4(bindAddress, &address)) {
        return -1;
    }
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        return -1;
    }
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(static_cast<uint16_t>(port));
    local.sin_addr = address;
    socklen_t localLength = sizeof(local);
    if (!posix::configureSocket(fd) ||
        bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0 ||
        listen(fd, SOMAXCONN) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) != 0) {
        close(fd);
        return -1;
    }
    *boundPort = ntohs(local.sin_port);
    return fd;
}

}  // namespace

Listener::Listener(uint32_t port, const char* bindAddress) {
    uint32_t boundPort = 0;
    int fd = openListeningSocket(port, bindAddress, &boundPort);
    if (fd >= 0) {
        m_handle = fd;
        m_port = boundPort;
    }
}

Listener::~Listener() {
    if (m_handle != zu::kInvalidHandle) {
        close(static_cast<int>(m_handle));
    }
}

Socket* Listener::pollConnect() {
    if (!isListening()) {
        return nullptr;
    }
    int fd;
    do {
        fd = accept(static_cast<int>(m_handle), nullptr, nullptr);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        return nullptr;  // nobody waiting, or the connection was aborted before we took it
    }
    Socket* socket = new Socket(fd);
    if (!socket->isConnected()) {
        delete socket;
        return nullptr;
    }
    return socket;
}

}  // namespace net
