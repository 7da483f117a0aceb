// Helpers of the net tests: connected socket pairs over loopback, raw POSIX peers that speak
// the frame format byte by byte, and frame building.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "net/listener.h"
#include "net/socket.h"
#include "support/loopback.h"
#include "support/test_support.h"

namespace nettest {

using Bytes = std::vector<uint8_t>;

inline void appendLE32(Bytes& bytes, uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) {
        bytes.push_back(static_cast<uint8_t>(value >> shift));
    }
}

// One frame as docs/packet-format.md describes it.
inline Bytes makeFrame(int id, const Bytes& payload) {
    Bytes frame;
    appendLE32(frame, static_cast<uint32_t>(payload.size() + 4));
    appendLE32(frame, static_cast<uint32_t>(id));
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

using dmtest::SocketPair;

// A blocking POSIX socket connected to 127.0.0.1:port, or -1.
inline int rawConnect(uint32_t port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        if (fd >= 0) {
            close(fd);
        }
        return -1;
    }
    int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return fd;
}

// A raw POSIX client connected to a Socket that a Listener accepted.
struct RawPeer {
    net::Listener listener{0, "127.0.0.1"};
    int fd = -1;
    zu::UniquePtr<net::Socket> server;

    RawPeer() : fd(rawConnect(listener.getPort())) {
        if (fd >= 0) {
            server = dmtest::acceptOne(listener);
        }
    }
    ~RawPeer() { closeRaw(); }
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    bool connected() const { return fd >= 0 && server && server->isConnected(); }
    void closeRaw() {
        if (fd >= 0) {
            close(fd);
            fd = -1;
        }
    }
};

inline bool rawSendAll(int fd, const uint8_t* bytes, size_t length) {
    while (length > 0) {
        ssize_t sent = send(fd, bytes, length, MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        bytes += sent;
        length -= static_cast<size_t>(sent);
    }
    return true;
}

inline bool rawSendAll(int fd, const Bytes& bytes) {
    return rawSendAll(fd, bytes.data(), bytes.size());
}

// Shrinks the OS buffers of both ends to 64 KiB so that a few large packets overfill them.
inline void shrinkSocketBuffers(SocketPair& pair) {
    int bytes = 64 * 1024;
    for (net::Socket* end : {pair.client.get(), pair.server.get()}) {
        int fd = static_cast<int>(end->getWaitHandle().handle);
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes));
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof(bytes));
    }
}

// True when `fd` becomes readable within `timeoutMs`.
inline bool waitReadable(int fd, int timeoutMs) {
    pollfd entry{fd, POLLIN, 0};
    return poll(&entry, 1, timeoutMs) == 1;
}

// Virtual size of this process: a bogus huge allocation would show up here even untouched.
inline size_t virtualMemoryBytes() {
    size_t pages = 0;
    if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%zu", &pages) != 1) {
            pages = 0;
        }
        std::fclose(statm);
    }
    return pages * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace nettest
