// Test helper: a connected pair of local stream sockets.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "zu/event.h"

namespace {

// A connected pair of local stream sockets; `reader` is watched, `writer` makes it readable.
struct SocketPair {
    SocketPair() {
        int fds[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        reader = fds[0];
        writer = fds[1];
    }
    ~SocketPair() {
        close(reader);
        close(writer);
    }
    zu::WaitHandle handle(uint32_t generation,
                          zu::WaitHandle::Kind kind = zu::WaitHandle::SocketRead) const {
        return {kind, reader, generation};
    }
    void send() const { EXPECT_EQ(write(writer, "x", 1), 1); }
    int reader, writer;
};

}  // namespace
