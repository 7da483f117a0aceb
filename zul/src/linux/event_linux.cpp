// Events on Linux are eventfds (non-semaphore mode): a write sets the counter, a read that succeeds
// takes it back to zero. That is exactly an auto-reset event, and the same poll() that watches
// sockets can watch events.
#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>

#include "handle_generation.h"
#include "poller_platform.h"
#include "posix/poll_events.h"
#include "wait_deadline.h"
#include "zu/event.h"
#include "zu/exception.h"

namespace zu {

namespace {

constexpr size_t kMaxWaitHandles = 64;

bool consumeSignal(NativeHandle handle) {
    uint64_t value = 0;
    return read(static_cast<int>(handle), &value, sizeof(value)) == sizeof(value);
}

// Sockets stay ready until read, so a wait that goes on keeps what an earlier round found.
void noteReadySockets(const WaitHandle* handles, const pollfd* entries, size_t count, bool* ready) {
    for (size_t i = 0; ready && i < count; ++i) {
        if (handles[i].kind != WaitHandle::Event && entries[i].revents != 0) {
            ready[i] = true;
        }
    }
}

}  // namespace

namespace platform {

bool takeEventSignal(NativeHandle event) {
    return consumeSignal(event);
}

}  // namespace platform

Event::Event()
    : m_handle(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      m_generation(platform::noteHandleOpened(m_handle)) {
    if (m_handle < 0) {
        throw Exception("Event: eventfd failed (errno %d)", errno);
    }
}

Event::~Event() {
    platform::noteHandleClosing(m_handle);
    ::close(static_cast<int>(m_handle));
}

void Event::signal() {
    uint64_t one = 1;
    // Cannot fail short of a counter overflow, which a set event never reaches.
    ssize_t written = write(static_cast<int>(m_handle), &one, sizeof(one));
    (void)written;
}

void Event::reset() {
    consumeSignal(m_handle);
}

bool Event::wait(uint32_t timeoutMs) {
    WaitHandle handle = getWaitHandle();
    return waitForAny(&handle, 1, timeoutMs) == 0;
}

int waitForAny(const WaitHandle* handles, size_t count, uint32_t timeoutMs) {
    return waitForAny(handles, count, timeoutMs, nullptr);
}

int waitForAny(const WaitHandle* handles, size_t count, uint32_t timeoutMs, bool* ready) {
    if (count > kMaxWaitHandles || (count > 0 && handles == nullptr)) {
        return kWaitFailed;
    }
    pollfd entries[kMaxWaitHandles];
    for (size_t i = 0; i < count; ++i) {
        entries[i].fd =
            handles[i].kind == WaitHandle::None ? -1 : static_cast<int>(handles[i].handle);
        entries[i].events = pollEventsOf(handles[i].kind);
        if (ready) {
            ready[i] = false;
        }
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        for (size_t i = 0; i < count; ++i) {
            entries[i].revents = 0;
        }
        int found = poll(entries, static_cast<nfds_t>(count), remainingMs(timeoutMs, deadline));
        if (found < 0 && errno != EINTR) {
            return kWaitFailed;
        }
        noteReadySockets(handles, entries, count, ready);
        for (size_t i = 0; found > 0 && i < count; ++i) {
            if (entries[i].revents == 0) {
                continue;
            }
            if (entries[i].revents & POLLNVAL) {
                return kWaitFailed;
            }
            // Another waiter may have taken the event's signal first: then keep waiting.
            if (handles[i].kind != WaitHandle::Event || consumeSignal(handles[i].handle)) {
                if (ready) {
                    ready[i] = true;
                }
                return static_cast<int>(i);
            }
        }
        if (remainingMs(timeoutMs, deadline) == 0) {
            return kWaitTimeout;
        }
    }
}

}  // namespace zu
