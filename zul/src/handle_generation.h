// Generations of waitable handles (see zu::WaitHandle::generation): every descriptor that the
// runtime opens for waiting gets the next one, so that a registration kept for a closed
// descriptor is never taken for one of its successors under the same number.
#pragma once

#include <atomic>
#include <cstdint>

namespace zu::platform {

inline uint32_t nextHandleGeneration() {
    static std::atomic<uint32_t> next{1};
    return next.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace zu::platform
