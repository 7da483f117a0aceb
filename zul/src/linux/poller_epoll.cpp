// zu::Poller on Linux: an epoll instance, level-triggered. Each registration carries its
// descriptor and generation, so a report is matched to the registration it came from.
#include <errno.h>
#include <sys/epoll.h>
#include <unistd.h>

#include "poller_platform.h"

namespace zu::platform {

namespace {

uint32_t epollEventsOf(WaitHandle::Kind kind) {
    switch (kind) {
        case WaitHandle::Event:
        case WaitHandle::SocketRead:
            return EPOLLIN;
        case WaitHandle::SocketWrite:
            return EPOLLOUT;
        case WaitHandle::SocketReadWrite:
            return EPOLLIN | EPOLLOUT;
        case WaitHandle::None:
            break;
    }
    return 0;
}

uint64_t tagOf(const WaitHandle& handle) {
    return static_cast<uint32_t>(handle.handle) | static_cast<uint64_t>(handle.generation) << 32;
}

}  // namespace

NativeHandle openPoller() {
    const int fd = epoll_create1(EPOLL_CLOEXEC);
    return fd >= 0 ? fd : kInvalidHandle;
}

void closePoller(NativeHandle poller) {
    ::close(static_cast<int>(poller));
}

bool watchOnPoller(NativeHandle poller, const WaitHandle& handle, bool isNew) {
    epoll_event entry{};
    entry.events = epollEventsOf(handle.kind);
    entry.data.u64 = tagOf(handle);
    const int fd = static_cast<int>(handle.handle);
    int operation = isNew ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
    if (epoll_ctl(static_cast<int>(poller), operation, fd, &entry) == 0) {
        return true;
    }
    // The system's view differs from ours (a descriptor closed and opened again between two
    // calls, or still open elsewhere): take it as it is.
    operation = errno == EEXIST ? EPOLL_CTL_MOD : errno == ENOENT ? EPOLL_CTL_ADD : -1;
    return operation >= 0 && epoll_ctl(static_cast<int>(poller), operation, fd, &entry) == 0;
}

void unwatchOnPoller(NativeHandle poller, const WaitHandle& handle) {
    epoll_ctl(static_cast<int>(poller), EPOLL_CTL_DEL, static_cast<int>(handle.handle), nullptr);
}

// With no events asked for, epoll still reports EPOLLERR and EPOLLHUP.
bool muteOnPoller(NativeHandle poller, const WaitHandle& handle, bool muted) {
    epoll_event entry{};
    entry.events = muted ? 0 : epollEventsOf(handle.kind);
    entry.data.u64 = tagOf(handle);
    return epoll_ctl(static_cast<int>(poller), EPOLL_CTL_MOD, static_cast<int>(handle.handle),
                     &entry) == 0;
}

int waitOnPoller(NativeHandle poller, const Vector<WaitHandle>&, size_t, int timeoutMs,
                 Poller::Ready* ready, size_t capacity, Buffer& scratch) {
    const size_t bytes = capacity * sizeof(epoll_event);
    if (scratch.size() < bytes) {
        try {
            scratch = Buffer(bytes, alignof(epoll_event));
        } catch (...) {
            return kWaitFailed;
        }
    }
    auto* events = reinterpret_cast<epoll_event*>(scratch.data());
    const int found =
        epoll_wait(static_cast<int>(poller), events, static_cast<int>(capacity), timeoutMs);
    if (found < 0) {
        return errno == EINTR ? 0 : kWaitFailed;
    }
    for (int i = 0; i < found; ++i) {
        const uint64_t tag = events[i].data.u64;
        const uint32_t flags = events[i].events;
        ready[i].handle = WaitHandle();
        ready[i].handle.handle = static_cast<NativeHandle>(static_cast<uint32_t>(tag));
        ready[i].handle.generation = static_cast<uint32_t>(tag >> 32);
        ready[i].readable = (flags & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0;
        ready[i].writable = (flags & (EPOLLOUT | EPOLLHUP | EPOLLERR)) != 0;
    }
    return found;
}

}  // namespace zu::platform
