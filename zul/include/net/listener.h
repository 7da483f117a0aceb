// net::Listener: accepts TCP connections on a port without blocking.
#pragma once

#include <cstdint>

#include "net/socket.h"
#include "zu/event.h"
#include "zu/export.h"

namespace net {

class ZUL_API Listener {
public:
    // Listens on `port` on every interface; port 0 picks a free port (see getPort).
    // `bindAddress` may name one interface instead, for example "127.0.0.1".
    explicit Listener(uint32_t port, const char* bindAddress = nullptr);
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    bool isListening() const { return m_handle != zu::kInvalidHandle; }
    // The port listened on (the chosen one when constructed with 0), or 0 when not listening.
    uint32_t getPort() const { return m_port; }

    // Present for symmetry with Socket::update; accepting happens in pollConnect.
    void update() {}
    // Accepts one waiting connection: a new connected socket owned by the caller (destroy it
    // with delete or zu::deleteObject), or null.
    Socket* pollConnect();

    // Readable when a connection waits to be accepted.
    zu::WaitHandle getWaitHandle() const { return {zu::WaitHandle::SocketRead, m_handle}; }

private:
    zu::NativeHandle m_handle = zu::kInvalidHandle;
    uint32_t m_port = 0;
};

}  // namespace net
