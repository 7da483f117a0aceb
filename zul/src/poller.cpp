// zu::Poller: the registrations, by descriptor number, and what a wait reports. The system
// side is in poller_platform.h.
#include "zu/poller.h"

#include <algorithm>
#include <chrono>

#include "handle_generation.h"
#include "poller_platform.h"
#include "wait_deadline.h"
#include "zu/exception.h"

namespace zu {

Poller::Poller() : m_handle(platform::openPoller()) {}

Poller::~Poller() {
    if (isOpen()) {
        platform::closePoller(m_handle);
    }
}

WaitHandle* Poller::findWatched(NativeHandle descriptor) {
    if (descriptor < 0 || static_cast<size_t>(descriptor) >= m_byDescriptor.size()) {
        return nullptr;
    }
    WaitHandle& watched = m_byDescriptor[static_cast<size_t>(descriptor)];
    return watched.kind == WaitHandle::None ? nullptr : &watched;
}

bool Poller::isWatching(WaitHandle handle) const {
    const auto descriptor = static_cast<size_t>(handle.handle);
    return handle.handle >= 0 && descriptor < m_byDescriptor.size() &&
           m_byDescriptor[descriptor].kind != WaitHandle::None &&
           m_byDescriptor[descriptor].sameDescriptor(handle);
}

bool Poller::watch(WaitHandle handle) {
    if (handle.kind == WaitHandle::None) {
        unwatch(handle);
        return true;
    }
    if (!isOpen() || handle.handle < 0 || handle.handle >= kMaxDescriptor) {
        return false;
    }
    const auto descriptor = static_cast<size_t>(handle.handle);
    if (descriptor >= m_byDescriptor.size()) {
        try {
            m_byDescriptor.reserve(
                std::max(descriptor + 1, Vector<WaitHandle>::grownCapacity(descriptor)));
            m_byDescriptor.resize(descriptor + 1);
        } catch (const OutOfMemoryException&) {
            return false;
        }
    }
    WaitHandle& watched = m_byDescriptor[descriptor];
    if (watched == handle) {
        return true;
    }
    // A registration of an earlier generation went with its descriptor's close.
    const bool isNew = watched.kind == WaitHandle::None || !watched.sameDescriptor(handle);
    if (!platform::watchOnPoller(m_handle, handle, isNew)) {
        unwatch(watched);
        return false;
    }
    m_watchedCount += watched.kind == WaitHandle::None ? 1 : 0;
    watched = handle;
    return true;
}

void Poller::unwatch(WaitHandle handle) {
    WaitHandle* watched = findWatched(handle.handle);
    if (!watched || !watched->sameDescriptor(handle)) {
        return;
    }
    // A descriptor closed since took its registration with it; its number may already be
    // another's.
    if (platform::isHandleOpenUnder(watched->handle, watched->generation)) {
        platform::unwatchOnPoller(m_handle, *watched);
    }
    *watched = WaitHandle();
    --m_watchedCount;
}

bool Poller::mute(WaitHandle handle) {
    return isOpen() && platform::muteOnPoller(m_handle, handle, true);
}

void Poller::unmute(WaitHandle handle) {
    if (isOpen()) {
        platform::muteOnPoller(m_handle, handle, false);
    }
}

int Poller::wait(uint32_t timeoutMs, Ready* ready, size_t capacity) {
    if (!isOpen() || ready == nullptr || capacity == 0) {
        return kWaitFailed;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        const int found =
            platform::waitOnPoller(m_handle, m_byDescriptor, m_watchedCount,
                                   remainingMs(timeoutMs, deadline), ready, capacity, m_scratch);
        if (found == kWaitFailed) {
            return kWaitFailed;
        }
        const int kept = collectReady(ready, found);
        if (kept > 0 || remainingMs(timeoutMs, deadline) == 0) {
            return kept;
        }
    }
}

// Keeps the reports of handles still watched, under the generation watched, and takes the
// signals of the events among them; moves the kept ones to the front.
int Poller::collectReady(Ready* ready, int found) {
    int kept = 0;
    for (int i = 0; i < found; ++i) {
        WaitHandle* watched = findWatched(ready[i].handle.handle);
        if (!watched || watched->generation != ready[i].handle.generation) {
            continue;  // unwatched, or a closed descriptor's late report
        }
        if (!ready[i].readable && !ready[i].writable) {
            *watched = WaitHandle();  // closed while watched: gone, as a system poller drops it
            --m_watchedCount;
            continue;
        }
        if (watched->kind == WaitHandle::Event && !platform::takeEventSignal(watched->handle)) {
            continue;
        }
        ready[kept] = ready[i];
        ready[kept].handle = *watched;
        ++kept;
    }
    return kept;
}

}  // namespace zu
