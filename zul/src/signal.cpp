// zu::Signal: the state is one word, the signal bit and a count of sleeping waiters above it.
// Threads only go to the system to sleep, or to wake a counted sleeper.
#include "zu/signal.h"

#include <chrono>

#include "wait_platform.h"

namespace zu {

void Signal::signal() {
    const uint32_t before = m_state.fetch_or(kSet, std::memory_order_acq_rel);
    if ((before & kSet) == 0 && before >= kOneWaiter) {
        platform::wakeOneWaiter(m_state);
    }
}

bool Signal::takeSignal() {
    uint32_t state = kSet;  // the likely case: set, nobody asleep
    while (state & kSet) {
        if (m_state.compare_exchange_weak(state, state & ~kSet, std::memory_order_acquire,
                                          std::memory_order_relaxed)) {
            return true;
        }
    }
    return false;
}

bool Signal::wait(uint32_t timeoutMs) {
    if (takeSignal()) {
        return true;
    }
    return timeoutMs != 0 && sleepUntilSignalled(timeoutMs);
}

// Counted as a waiter from before the first look at the bit, so that a signal given after that
// look knows to wake someone. A waiter that takes the signal, or gives up, leaves the count in
// the same step.
bool Signal::sleepUntilSignalled(uint32_t timeoutMs) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    uint32_t state = m_state.fetch_add(kOneWaiter, std::memory_order_relaxed) + kOneWaiter;
    for (;;) {
        if (state & kSet) {
            if (m_state.compare_exchange_weak(state, (state & ~kSet) - kOneWaiter,
                                              std::memory_order_acquire,
                                              std::memory_order_relaxed)) {
                return true;
            }
            continue;
        }
        std::chrono::nanoseconds left = deadline - Clock::now();
        if (timeoutMs != kInfinite && left.count() <= 0) {
            if (m_state.compare_exchange_weak(state, state - kOneWaiter,
                                              std::memory_order_relaxed)) {
                return false;
            }
            continue;
        }
        platform::waitOnWord(m_state, state, timeoutMs == kInfinite ? nullptr : &left);
        state = m_state.load(std::memory_order_relaxed);
    }
}

}  // namespace zu
