// Turning a wait's bound into what poll() and epoll_wait() take, for the waits that go round
// more than once (an event's signal taken by another waiter, a report of a closed descriptor).
#pragma once

#include <chrono>
#include <cstdint>

#include "zu/event.h"

namespace zu {

// Milliseconds left until `deadline`, rounded up (a part of one left is waited as a whole, or a
// short wait would not wait at all); -1 waits without limit.
inline int remainingMs(uint32_t timeoutMs, std::chrono::steady_clock::time_point deadline) {
    if (timeoutMs == kInfinite) {
        return -1;
    }
    auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

}  // namespace zu
