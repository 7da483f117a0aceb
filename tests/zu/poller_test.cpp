// Waiting on events and sockets: zu::waitForAny and zu::Poller.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "zu/event.h"
#include "zu/poller.h"

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

// What one wait finds: the handles in report order (at most 8).
struct Found {
    int count = 0;
    zu::Poller::Ready ready[8];
    bool has(zu::WaitHandle handle) const {
        return std::any_of(ready, ready + count,
                           [&](const zu::Poller::Ready& one) { return one.handle == handle; });
    }
};

Found waitOn(zu::Poller& poller, uint32_t timeoutMs) {
    Found found;
    found.count = poller.wait(timeoutMs, found.ready, 8);
    return found;
}

TEST(WaitForAny, WaitsOnEventsAndSocketsTogether) {
    zu::Event first, second;
    SocketPair socket;
    zu::WaitHandle handles[] = {first.getWaitHandle(), socket.handle(0), second.getWaitHandle()};

    EXPECT_EQ(zu::waitForAny(handles, 3, 10), zu::kWaitTimeout);

    second.signal();
    EXPECT_EQ(zu::waitForAny(handles, 3, 1000), 2);
    EXPECT_FALSE(second.tryWait());  // the wait took the signal

    socket.send();
    EXPECT_EQ(zu::waitForAny(handles, 3, 1000), 1);
    EXPECT_EQ(zu::waitForAny(handles, 3, 1000), 1);  // readiness is not consumed

    std::thread signaller([&] { first.signal(); });
    signaller.join();
    EXPECT_EQ(zu::waitForAny(handles, 3, 1000), 0);  // lowest ready index first
    // Invalid calls fail; an empty handle never becomes ready.
    std::vector<zu::WaitHandle> tooMany(65);
    EXPECT_EQ(zu::waitForAny(tooMany.data(), tooMany.size(), 0), zu::kWaitFailed);
    zu::WaitHandle closed{zu::WaitHandle::SocketRead, 1000000};
    EXPECT_EQ(zu::waitForAny(&closed, 1, 0), zu::kWaitFailed);
    zu::WaitHandle none{};
    EXPECT_EQ(zu::waitForAny(&none, 1, 5), zu::kWaitTimeout);
}

TEST(Poller, ReportsReadySocketsAndEventsTakingTheEventsSignals) {
    zu::Poller poller;
    ASSERT_TRUE(poller.isOpen());
    zu::Event event;
    SocketPair sockets;
    ASSERT_TRUE(poller.watch(event.getWaitHandle()));
    ASSERT_TRUE(poller.watch(sockets.handle(1)));
    EXPECT_EQ(waitOn(poller, 10).count, 0);

    std::thread signaller([&] {
        event.signal();
        sockets.send();
    });
    signaller.join();
    Found found = waitOn(poller, 1000);
    if (found.count == 1) {  // the two may be seen in two waits
        Found more = waitOn(poller, 1000);
        found.ready[found.count++] = more.ready[0];
    }
    ASSERT_EQ(found.count, 2);
    EXPECT_TRUE(found.has(event.getWaitHandle()));
    EXPECT_TRUE(found.has(sockets.handle(1)));
    EXPECT_FALSE(event.tryWait());  // the wait took the signal

    found = waitOn(poller, 1000);  // a socket stays ready until read
    ASSERT_EQ(found.count, 1);
    EXPECT_TRUE(found.ready[0].readable);
    EXPECT_TRUE(found.has(sockets.handle(1)));

    // Watched for writing as well, the same socket is one registration that reports both.
    ASSERT_TRUE(poller.watch(sockets.handle(1, zu::WaitHandle::SocketReadWrite)));
    found = waitOn(poller, 1000);
    ASSERT_EQ(found.count, 1);
    EXPECT_TRUE(found.ready[0].readable && found.ready[0].writable);

    poller.unwatch(sockets.handle(1));
    EXPECT_FALSE(poller.isWatching(sockets.handle(1)));
    EXPECT_EQ(waitOn(poller, 20).count, 0);  // unwatched: never reported again

    // What it cannot watch is refused.
    EXPECT_FALSE(poller.watch({zu::WaitHandle::SocketRead, -1, 1}));
    EXPECT_EQ(poller.wait(0, found.ready, 0), zu::kWaitFailed);
    EXPECT_TRUE(poller.watch({}));  // kind None: nothing to watch
    EXPECT_EQ(waitOn(poller, 1).count, 0);
}

TEST(Poller, RegistersADescriptorNumberAgainForItsNextSocket) {
    zu::Poller poller;
    SocketPair first;
    ASSERT_TRUE(poller.watch(first.handle(1)));
    EXPECT_EQ(waitOn(poller, 5).count, 0);

    // The number is closed and given to a new socket, whose readiness must be seen.
    SocketPair second;
    ASSERT_EQ(dup2(second.reader, first.reader), first.reader);
    close(second.reader);
    second.reader = first.reader;
    first.reader = -1;
    EXPECT_TRUE(poller.isWatching(second.handle(1)));  // by number: only the generation tells
    EXPECT_FALSE(poller.isWatching(second.handle(2)));
    ASSERT_TRUE(poller.watch(second.handle(2)));
    second.send();
    Found found = waitOn(poller, 1000);
    ASSERT_EQ(found.count, 1);
    EXPECT_EQ(found.ready[0].handle, second.handle(2));

    // Handles of an earlier generation are no longer this poller's to unwatch.
    poller.unwatch(second.handle(1));
    EXPECT_EQ(waitOn(poller, 1000).count, 1);
}

}  // namespace
