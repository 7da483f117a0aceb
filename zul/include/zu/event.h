// Auto-reset events and waiting on several handles at once.
//
// An Event is a descriptor, so that it can be waited on together with sockets; a thread that
// only ever waits on one thing at a time is better served by a zu::Signal, which costs no
// system call where nobody has to sleep or be woken.
//
// An Event is either signalled or not. signal() sets it; a wait that finds it set returns and
// clears it, so one signal wakes one wait, and signals given while already set merge into one.
// waitForAny waits on events and socket readiness together in one call: a pipe manager sleeps
// until a pipe queues work or data arrives, whichever comes first.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zu/export.h"

namespace zu {

// The OS handle behind an event or socket (a file descriptor on POSIX).
using NativeHandle = intptr_t;
constexpr NativeHandle kInvalidHandle = -1;

constexpr uint32_t kInfinite = 0xFFFFFFFFu;

// One thing to wait on. Made by Event::getWaitHandle and net::Socket::getWaitHandle.
struct WaitHandle {
    enum Kind : uint8_t {
        None,
        Event,           // ready when signalled; the wait consumes the signal
        SocketRead,      // ready when data (or the peer's close) can be read
        SocketWrite,     // ready when data can be written (a pending connect has finished)
        SocketReadWrite  // either of the two
    };
    Kind kind = None;
    NativeHandle handle = kInvalidHandle;
    // Tells apart the descriptors that the system gave the same number one after another (a
    // socket closed, another opened), for waits that keep registrations (zu::Poller).
    uint32_t generation = 0;

    bool operator==(const WaitHandle& other) const {
        return kind == other.kind && handle == other.handle && generation == other.generation;
    }
    // The same descriptor of the same generation, whatever it is watched for.
    bool sameDescriptor(const WaitHandle& other) const {
        return handle == other.handle && generation == other.generation;
    }
};

class ZUL_API Event {
public:
    Event();
    ~Event();
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    void signal();
    void reset();
    // Waits until signalled (and clears it) or `timeoutMs` passed: true if signalled.
    bool wait(uint32_t timeoutMs = kInfinite);
    // Clears and reports the signal without waiting.
    bool tryWait() { return wait(0); }

    WaitHandle getWaitHandle() const { return {WaitHandle::Event, m_handle, m_generation}; }

private:
    NativeHandle m_handle;
    uint32_t m_generation;
};

constexpr int kWaitTimeout = -1;
constexpr int kWaitFailed = -2;

// Waits until one of `handles` is ready or `timeoutMs` passed. Returns the index of a ready
// handle (the lowest one when several are), kWaitTimeout, or kWaitFailed for an invalid call.
// An event that is returned has been cleared. Handles of kind None are ignored.
ZUL_API int waitForAny(const WaitHandle* handles, size_t count, uint32_t timeoutMs);
// The same, and `ready[i]` (an array of `count`) tells whether handle i was found ready; for
// events only the one returned counts as ready. Lets an owner of several sockets learn which
// of them have data without reading each of them.
ZUL_API int waitForAny(const WaitHandle* handles, size_t count, uint32_t timeoutMs, bool* ready);

}  // namespace zu
