// zu::Poller: waits on many events and sockets at once, keeping what it watches from one wait
// to the next, so that a wait costs one system call however many handles it watches (epoll on
// Linux; a poll-based fallback elsewhere).
//
// Registrations are keyed by descriptor and generation (see zu::WaitHandle): a handle whose
// descriptor number was closed and given to a new socket is a new handle, registered anew.
// An owner unwatches what it no longer waits on; a descriptor closed while watched is dropped
// by the system and never reported under its number's next owner.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zu/buffer.h"
#include "zu/event.h"
#include "zu/export.h"
#include "zu/vector.h"

namespace zu {

class ZUL_API Poller {
public:
    struct Ready {
        WaitHandle handle;  // as it is watched
        bool readable;      // data, a peer's close or an error: a read will not block
        bool writable;
    };

    Poller();
    ~Poller();
    Poller(const Poller&) = delete;
    Poller& operator=(const Poller&) = delete;

    // False when the system had no poller to give (out of descriptors): watch fails then.
    bool isOpen() const { return m_handle != kInvalidHandle; }
    // Watches `handle` for what its kind asks: registers it, changes what it is watched for,
    // or replaces a handle of an earlier generation on the same descriptor. Kind None stops
    // watching it. False when the system refused it (out of memory); it is not watched then.
    bool watch(WaitHandle handle);
    // Stops watching `handle`; nothing is reported for it from then on. Handles of other
    // generations on the same descriptor stay as they are.
    void unwatch(WaitHandle handle);
    bool isWatching(WaitHandle handle) const;

    // Stops reporting `handle` (watched as `handle.kind`) as ready, except for an error or a
    // hang-up, without changing what is registered; unmute undoes it. Unlike the rest of the
    // poller, these two may be called while another thread waits on it: the owner lends the
    // handle for a while to a thread that waits on it alone. False where the system cannot
    // do this (the poll-based poller, which hands its list to each wait): nothing changed then.
    bool mute(WaitHandle handle);
    void unmute(WaitHandle handle);

    // Waits until a watched handle is ready or `timeoutMs` passed, and stores up to `capacity`
    // ready handles in `ready`. Returns how many (0 on time-out) or kWaitFailed. An event
    // reported was cleared by the wait; one whose signal another waiter took is not reported.
    int wait(uint32_t timeoutMs, Ready* ready, size_t capacity);

private:
    // Descriptors are numbered densely from 0; watch refuses any beyond this.
    static constexpr NativeHandle kMaxDescriptor = 1 << 20;

    WaitHandle* findWatched(NativeHandle descriptor);
    int collectReady(Ready* ready, int found);

    NativeHandle m_handle = kInvalidHandle;
    Vector<WaitHandle> m_byDescriptor;  // kind None where nothing is watched
    size_t m_watchedCount = 0;
    Buffer m_scratch;  // what the system's wait call needs beside the results
};

}  // namespace zu
