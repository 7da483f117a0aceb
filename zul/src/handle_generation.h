// Generations of waitable handles (see zu::WaitHandle::generation): every descriptor that the
// runtime opens for waiting gets the next one, so that a registration kept for a closed
// descriptor is never taken for one of its successors under the same number.
//
// The runtime also notes which generation each descriptor number is open under (for numbers
// below kTrackedHandles). A poller dropping a registration asks first: a descriptor closed since
// took its registration with it, and its number may already name another thread's descriptor,
// which the poller must not touch.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "zu/event.h"

namespace zu::platform {

constexpr size_t kTrackedHandles = size_t(1) << 16;

// The slot of a tracked number, or null.
std::atomic<uint32_t>* openGenerationOf(NativeHandle handle);

inline uint32_t nextHandleGeneration() {
    static std::atomic<uint32_t> next{1};
    return next.fetch_add(1, std::memory_order_relaxed);
}

// A descriptor was opened: its generation, noted under its number.
inline uint32_t noteHandleOpened(NativeHandle handle) {
    const uint32_t generation = nextHandleGeneration();
    if (std::atomic<uint32_t>* slot = openGenerationOf(handle)) {
        slot->store(generation, std::memory_order_release);
    }
    return generation;
}

// Called before the descriptor is closed.
inline void noteHandleClosing(NativeHandle handle) {
    if (std::atomic<uint32_t>* slot = openGenerationOf(handle)) {
        slot->store(0, std::memory_order_release);
    }
}

// Whether `handle` is still open under `generation`; numbers not tracked are taken as open.
inline bool isHandleOpenUnder(NativeHandle handle, uint32_t generation) {
    const std::atomic<uint32_t>* slot = openGenerationOf(handle);
    return !slot || slot->load(std::memory_order_acquire) == generation;
}

}  // namespace zu::platform
