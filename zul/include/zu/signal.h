// zu::Signal: an auto-reset event for a thread that waits on it alone.
//
// signal() sets it; a wait that finds it set returns and clears it, so one signal wakes one
// wait, and signals given while it is set merge into one. Unlike zu::Event it has no
// descriptor and cannot be waited on together with sockets, but it costs no system call where
// none is needed: signal() with nobody asleep on it, and a wait() that finds it set, are one
// atomic operation each. A blocked wait sleeps in the system (a futex on Linux).
#pragma once

#include <atomic>
#include <cstdint>

#include "zu/event.h"
#include "zu/export.h"

namespace zu {

class ZUL_API Signal {
public:
    Signal() = default;
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;

    void signal();
    // Clears a signal not yet taken.
    void reset() { m_state.fetch_and(~kSet, std::memory_order_relaxed); }
    // Waits until signalled (and clears it) or `timeoutMs` passed: true if signalled.
    bool wait(uint32_t timeoutMs = kInfinite);
    // Clears and reports the signal without waiting.
    bool tryWait() { return takeSignal(); }

private:
    // The lowest bit is the signal; the bits above it count the threads inside a slow wait.
    static constexpr uint32_t kSet = 1;
    static constexpr uint32_t kOneWaiter = 2;

    bool takeSignal();
    bool sleepUntilSignalled(uint32_t timeoutMs);

    std::atomic<uint32_t> m_state{0};
};

}  // namespace zu
