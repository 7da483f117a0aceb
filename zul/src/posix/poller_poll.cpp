// zu::Poller over poll(), for systems without a kernel poller: the registrations live only in
// the portable bookkeeping, and every wait hands all of them to poll().
#include <errno.h>
#include <poll.h>

#include "poller_platform.h"
#include "posix/poll_events.h"

namespace zu::platform {

namespace {

// Stands for the poller; there is nothing to close.
constexpr NativeHandle kNoSystemPoller = 0;

}  // namespace

NativeHandle openPoller() {
    return kNoSystemPoller;
}

void closePoller(NativeHandle) {}

bool watchOnPoller(NativeHandle, const WaitHandle&, bool) {
    return true;
}

void unwatchOnPoller(NativeHandle, const WaitHandle&) {}

// A wait already under way polls the list it was given.
bool muteOnPoller(NativeHandle, const WaitHandle&, bool) {
    return false;
}

int waitOnPoller(NativeHandle, const Vector<WaitHandle>& byDescriptor, size_t watchedCount,
                 int timeoutMs, Poller::Ready* ready, size_t capacity, Buffer& scratch) {
    const size_t bytes = (watchedCount > 0 ? watchedCount : 1) * sizeof(pollfd);
    if (scratch.size() < bytes) {
        try {
            scratch = Buffer(bytes, alignof(pollfd));
        } catch (...) {
            return kWaitFailed;
        }
    }
    auto* entries = reinterpret_cast<pollfd*>(scratch.data());
    nfds_t count = 0;
    for (const WaitHandle& handle : byDescriptor) {
        if (handle.kind != WaitHandle::None) {
            entries[count++] = {static_cast<int>(handle.handle), pollEventsOf(handle.kind), 0};
        }
    }
    if (poll(entries, count, timeoutMs) < 0) {
        return errno == EINTR ? 0 : kWaitFailed;
    }
    int reported = 0;
    for (nfds_t i = 0; i < count && static_cast<size_t>(reported) < capacity; ++i) {
        const short flags = entries[i].revents;
        if (flags == 0) {
            continue;
        }
        Poller::Ready& entry = ready[reported++];
        entry.handle = byDescriptor[static_cast<size_t>(entries[i].fd)];
        const bool closed = (flags & POLLNVAL) != 0;
        entry.readable = !closed && (flags & (POLLIN | POLLHUP | POLLERR)) != 0;
        entry.writable = !closed && (flags & (POLLOUT | POLLHUP | POLLERR)) != 0;
    }
    return reported;
}

}  // namespace zu::platform
