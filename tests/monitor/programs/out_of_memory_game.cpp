// A game whose memory runs out just as a monitor connects, for the out-of-memory monitor test.
// It replaces the runtime's allocator (zu::allocateMemory, which dm and zul use for all their
// memory; the executable's definition takes the shared libraries' place) with one that fails
// once on demand, connects to its own monitor port, and runs frames:
//
//   1. the allocation of the accepted socket fails, then that of its receive buffer: dm::update
//      must not throw, the monitor must be turned away (it reads end-of-file) and no descriptor
//      may stay open for it;
//   2. with memory back, a monitor that connects is accepted;
//   3. that monitor stops reading and its send queue cannot be allocated: dm::print must not
//      throw, and the monitor is dropped.
//
// Output: "turned away: <what>" for each failure handled, "accepted" at the end, or a line that
// says what went wrong (and a non-zero exit).
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>

#include "dm/monitor.h"
#include "net/net_test_util.h"
#include "net/socket.h"
#include "support/test_support.h"
#include "zu/exception.h"
#include "zu/memory.h"

namespace {

// Fails the next allocation for which the predicate holds, once.
std::function<bool(size_t)> g_failNext;
int g_failures = 0;

}  // namespace

namespace zu {

void* allocateMemory(size_t size, size_t alignment) {
    if (g_failNext && g_failNext(size)) {
        g_failNext = nullptr;
        ++g_failures;
        throw OutOfMemoryException("allocateMemory: out of memory (injected) for %zu bytes", size);
    }
    alignment = alignment < kDefaultAlignment ? kDefaultAlignment : alignment;
    void* memory = nullptr;
    if (posix_memalign(&memory, alignment, size == 0 ? 1 : size) != 0) {
        throw OutOfMemoryException("allocateMemory: out of memory allocating %zu bytes", size);
    }
    return memory;
}

void deleteMemory(void* memory) {
    std::free(memory);
}

}  // namespace zu

namespace {

int openDescriptorCount() {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                          std::filesystem::directory_iterator()));
}

// Runs frames until `done` holds (bounded). False when an exception left dm::update.
bool runFramesUntil(const std::function<bool()>& done) {
    return dmtest::waitUntil([&] {
        try {
            dm::update();
        } catch (const std::exception& error) {
            std::printf("escaped dm::update: %s\n", error.what());
            std::exit(3);
        }
        return done();
    });
}

bool readsEndOfFile(int fd) {
    char byte = 0;
    return nettest::waitReadable(fd, 10000) && recv(fd, &byte, 1, 0) == 0;
}

// Makes the allocation chosen by `failWhen` fail while a monitor connects; true when the game
// turned the monitor away cleanly.
bool survivesFailedAccept(const char* what, std::function<bool(size_t)> failWhen) {
    const int descriptorsBefore = openDescriptorCount();
    const int failuresBefore = g_failures;
    g_failNext = std::move(failWhen);
    const int monitor = nettest::rawConnect(static_cast<uint32_t>(dm::getMonitorPort()));
    if (monitor < 0) {
        std::printf("cannot connect\n");
        return false;
    }
    if (!runFramesUntil([&] { return g_failures > failuresBefore; })) {
        std::printf("the allocation never came: %s\n", what);
        return false;
    }
    const bool closed = readsEndOfFile(monitor);
    close(monitor);
    const int descriptorsAfter = openDescriptorCount();
    if (!closed || dm::getMonitorConnectionCount() != 0 || descriptorsAfter != descriptorsBefore) {
        std::printf("%s: closed %d, monitors %d, descriptors %d -> %d\n", what, closed,
                    dm::getMonitorConnectionCount(), descriptorsBefore, descriptorsAfter);
        return false;
    }
    std::printf("turned away: %s\n", what);
    return true;
}

// The accepted monitor stops reading and the send queue that its packets need cannot be had:
// print must not throw, and the monitor is dropped (what it got would end mid-packet).
bool survivesFailedSendQueue(int monitor) {
    int small = 4096;
    setsockopt(monitor, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
    const int failuresBefore = g_failures;
    g_failNext = [](size_t size) { return size >= 64 * 1024; };
    const std::string text(250, 'x');
    for (int i = 0; i < 100000 && g_failures == failuresBefore; ++i) {
        try {
            dm::print("%s", text.c_str());
        } catch (const std::exception& error) {
            std::printf("escaped dm::print: %s\n", error.what());
            return false;
        }
    }
    g_failNext = nullptr;
    if (g_failures == failuresBefore) {
        std::printf("the send queue was never allocated\n");
        return false;
    }
    if (!runFramesUntil([] { return dm::getMonitorConnectionCount() == 0; })) {
        std::printf("a monitor without its packets stayed\n");
        return false;
    }
    std::printf("dropped: send queue\n");
    return true;
}

}  // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    dm::init(0);
    if (dm::getMonitorPort() == 0) {
        std::printf("cannot listen\n");
        return 1;
    }
    constexpr size_t kLargeBuffer = 256 * 1024;
    if (!survivesFailedAccept("socket", [](size_t size) { return size == sizeof(net::Socket); }) ||
        !survivesFailedAccept("receive buffer", [](size_t size) { return size >= kLargeBuffer; })) {
        return 2;
    }
    const int monitor = nettest::rawConnect(static_cast<uint32_t>(dm::getMonitorPort()));
    if (!runFramesUntil([] { return dm::getMonitorConnectionCount() == 1; })) {
        std::printf("not accepted with memory back\n");
        return 4;
    }
    std::printf("accepted\n");
    if (!survivesFailedSendQueue(monitor)) {
        return 5;
    }
    close(monitor);
    dm::deinit();
    return 0;
}
