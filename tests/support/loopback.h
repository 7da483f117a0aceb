// Loopback TCP for tests: a connected socket pair, a free port, and bounded waits for a packet
// or a connection.
#pragma once

#include <cstdint>
#include <memory>

#include "net/listener.h"
#include "net/packet.h"
#include "net/socket.h"
#include "support/test_support.h"
#include "zu/event.h"

namespace dmtest {

struct SocketPair {
    zu::UniquePtr<net::Socket> client;  // the connecting side
    zu::UniquePtr<net::Socket> server;  // the accepted side
    bool connected() const {
        return client && server && client->isConnected() && server->isConnected();
    }
};

// Two connected sockets over 127.0.0.1 on a port the system picks; empty on failure.
inline SocketPair connectLoopback() {
    net::Listener listener(0, "127.0.0.1");
    SocketPair pair;
    auto client = zu::makeUnique<net::Socket>();
    if (!listener.isListening() || !client->connect("127.0.0.1", listener.getPort())) {
        return pair;
    }
    zu::UniquePtr<net::Socket> accepted;
    const bool done = waitUntil([&] {
        client->update();
        if (!accepted) {
            accepted = listener.pollConnect();
        }
        return accepted && client->isConnected();
    });
    if (done) {
        pair.client = std::move(client);
        pair.server = std::move(accepted);
    }
    return pair;
}

// A port that was free a moment ago: the system picks it for a listener that is closed again.
inline uint32_t pickFreePort() {
    net::Listener listener(0, "127.0.0.1");
    return listener.getPort();
}

// Waits for the next whole packet on `socket` (at most 10 seconds); null if none came.
inline net::Packet* nextPacket(net::Socket& socket, uint32_t* outSize = nullptr) {
    net::Packet* packet = nullptr;
    waitUntil([&] {
        socket.update();
        packet = socket.pollPacket(outSize);
        if (!packet && socket.isConnected()) {
            const zu::WaitHandle handle = socket.getWaitHandle();
            zu::waitForAny(&handle, 1, 5);
        }
        return packet != nullptr || !socket.isConnected();
    });
    return packet;
}

// Accepts one connection on `listener` (at most 10 seconds); null if none came.
inline zu::UniquePtr<net::Socket> acceptOne(net::Listener& listener) {
    zu::UniquePtr<net::Socket> socket;
    waitUntil([&] {
        socket = listener.pollConnect();
        if (!socket) {
            const zu::WaitHandle handle = listener.getWaitHandle();
            zu::waitForAny(&handle, 1, 5);
        }
        return socket != nullptr;
    });
    return socket;
}

}  // namespace dmtest
