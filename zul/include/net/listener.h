// net::Listener: accepts TCP connections on a port without blocking.
//
// A process whose descriptor table is full cannot accept: the connection stays in the backlog,
// the listener stays readable, and a caller that waits on it would wake at once, forever. The
// listener keeps one spare descriptor for that moment: it frees it, accepts and closes what
// waits, and takes the spare back, so the backlog drains, readiness clears and the peers learn
// at once that they were turned away. It then backs off for a while (see getWaitHandle).
#pragma once

#include <atomic>
#include <cstdint>

#include "net/socket.h"
#include "zu/event.h"
#include "zu/export.h"
#include "zu/memory.h"

namespace net {

class ZUL_API Listener {
public:
    // Shortest and longest pause after an accept failed for lack of descriptors or memory;
    // each failure in a row doubles it, an accepted connection resets it.
    static constexpr uint32_t kMinBackoffMs = 10;
    static constexpr uint32_t kMaxBackoffMs = 500;
    // Waiting connections turned away by one pollConnect at most while starved of descriptors.
    static constexpr uint32_t kMaxShedPerPoll = 64;

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
    // Accepts one waiting connection: a new connected socket owned by the caller, or null. Never
    // throws: a connection for which there is no descriptor or no memory is closed at once and
    // counted (getRefusedCount), and the listener backs off. While backing off it returns null
    // without asking the OS.
    zu::UniquePtr<Socket> pollConnect();

    // Readable when a connection waits to be accepted. While backing off, a handle of kind
    // None: a caller that waits on it sleeps for its own bound instead of waking at once for
    // connections that cannot be taken yet. Wait on it with a time-out.
    zu::WaitHandle getWaitHandle() const;

    // Connections accepted and closed at once for lack of descriptors or memory.
    uint32_t getRefusedCount() const { return m_refused.load(std::memory_order_relaxed); }
    // True while pollConnect backs off after running out of descriptors or memory.
    bool isBackingOff() const;

private:
    zu::UniquePtr<Socket> adopt(int fd);
    zu::UniquePtr<Socket> turnAwayWaiting();
    void startBackoff();
    void refuse(int fd);

    zu::NativeHandle m_handle = zu::kInvalidHandle;
    uint32_t m_generation = 0;  // of m_handle; see zu::WaitHandle
    // Kept open so that a full descriptor table leaves one to accept with; invalid when it
    // could not be had.
    zu::NativeHandle m_spare = zu::kInvalidHandle;
    uint32_t m_port = 0;
    uint32_t m_backoffMs = 0;  // the last pause; 0 once a connection was accepted
    uint64_t m_retryAtMs = 0;  // steady-clock milliseconds; 0 when not pausing
    std::atomic<uint32_t> m_refused{0};
};

}  // namespace net
