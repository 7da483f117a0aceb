// net::Listener on POSIX systems: accept() with a spare descriptor for a full table.
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <new>

#include "handle_generation.h"
#include "net/listener.h"
#include "socket_platform.h"
#include "zu/exception.h"

namespace net {
namespace {

// Opens a non-blocking listening socket; returns its descriptor and the port it got, or -1.
int openListeningSocket(uint32_t port, const char* bindAddress, uint32_t* boundPort) {
    uint32_t address = 0;
    if (port > 0xFFFF || !platform::resolveIPv4(bindAddress, &address)) {
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
    local.sin_addr.s_addr = address;
    socklen_t localLength = sizeof(local);
    if (!platform::configureSocket(fd) ||
        bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0 ||
        listen(fd, SOMAXCONN) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) != 0) {
        close(fd);
        return -1;
    }
    *boundPort = ntohs(local.sin_port);
    return fd;
}

uint64_t nowMs() {
    using namespace std::chrono;
    return static_cast<uint64_t>(
        duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

int openSpareDescriptor() {
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

void closeDescriptor(zu::NativeHandle& handle) {
    if (handle != zu::kInvalidHandle) {
        close(static_cast<int>(handle));
        handle = zu::kInvalidHandle;
    }
}

// -1 with errno set when nothing could be accepted.
int acceptOne(zu::NativeHandle listening) {
    int fd;
    do {
        fd = accept(static_cast<int>(listening), nullptr, nullptr);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

bool isOutOfDescriptors(int error) {
    return error == EMFILE || error == ENFILE;
}

bool isOutOfKernelMemory(int error) {
    return error == ENOBUFS || error == ENOMEM;
}

}  // namespace

Listener::Listener(uint32_t port, const char* bindAddress) {
    uint32_t boundPort = 0;
    int fd = openListeningSocket(port, bindAddress, &boundPort);
    if (fd >= 0) {
        m_handle = fd;
        m_generation = zu::platform::noteHandleOpened(m_handle);
        m_port = boundPort;
        m_spare = openSpareDescriptor();
    }
}

Listener::~Listener() {
    zu::platform::noteHandleClosing(m_handle);
    closeDescriptor(m_handle);
    closeDescriptor(m_spare);
}

zu::UniquePtr<Socket> Listener::pollConnect() {
    if (!isListening() || isBackingOff()) {
        return nullptr;
    }
    m_retryAtMs = 0;
    int fd = acceptOne(m_handle);
    if (fd >= 0) {
        return adopt(fd);
    }
    const int error = errno;
    if (isOutOfDescriptors(error)) {
        if (zu::UniquePtr<Socket> socket = turnAwayWaiting()) {
            return socket;
        }
        startBackoff();
    } else if (isOutOfKernelMemory(error)) {
        startBackoff();
    }
    // Otherwise nobody is waiting, or the connection was aborted before we took it.
    return nullptr;
}

zu::WaitHandle Listener::getWaitHandle() const {
    if (!isListening() || isBackingOff()) {
        return {};
    }
    return {zu::WaitHandle::SocketRead, m_handle, m_generation};
}

bool Listener::isBackingOff() const {
    return m_retryAtMs != 0 && nowMs() < m_retryAtMs;
}

// Makes a socket of an accepted descriptor. The descriptor is closed when that fails: a
// connection the caller never sees must not keep a descriptor.
zu::UniquePtr<Socket> Listener::adopt(int fd) {
    zu::UniquePtr<Socket> socket;
    try {
        socket = Socket::adopt(fd);  // closes the descriptor when it throws
    } catch (...) {
        m_refused.fetch_add(1, std::memory_order_relaxed);
        startBackoff();
        return nullptr;
    }
    if (!socket->isConnected()) {
        return nullptr;
    }
    m_backoffMs = 0;
    if (m_spare == zu::kInvalidHandle) {
        m_spare = openSpareDescriptor();
    }
    return socket;
}

// The descriptor table is full. Lends the spare descriptor to accept each waiting connection
// and close it at once, so that the peers are told and the listener stops being readable. When
// the spare can be had back while an accepted connection is still open, descriptors have been
// freed meanwhile: that connection is kept and returned.
zu::UniquePtr<Socket> Listener::turnAwayWaiting() {
    for (uint32_t shed = 0; shed < kMaxShedPerPoll; ++shed) {
        if (m_spare == zu::kInvalidHandle) {
            m_spare = openSpareDescriptor();
            if (m_spare == zu::kInvalidHandle) {
                return nullptr;  // no descriptor to lend: the back-off keeps callers from spinning
            }
        }
        closeDescriptor(m_spare);
        const int fd = acceptOne(m_handle);
        m_spare = openSpareDescriptor();
        if (fd < 0) {
            return nullptr;  // drained, or another thread took the descriptor first
        }
        if (m_spare != zu::kInvalidHandle) {
            return adopt(fd);
        }
        refuse(fd);
        m_spare = openSpareDescriptor();
    }
    return nullptr;
}

void Listener::startBackoff() {
    m_backoffMs = m_backoffMs == 0 ? kMinBackoffMs : m_backoffMs * 2;
    m_backoffMs = m_backoffMs < kMaxBackoffMs ? m_backoffMs : kMaxBackoffMs;
    m_retryAtMs = nowMs() + m_backoffMs;
}

void Listener::refuse(int fd) {
    close(fd);
    m_refused.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace net
