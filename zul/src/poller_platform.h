// What zu::Poller needs from the operating system; one implementation per OS (epoll on Linux)
// and a portable one over poll(). The poller's bookkeeping, which registration a report
// belongs to and the taking of events' signals, is the portable code's (poller.cpp).
#pragma once

#include <cstddef>

#include "zu/buffer.h"
#include "zu/event.h"
#include "zu/poller.h"
#include "zu/vector.h"

namespace zu::platform {

// kInvalidHandle when the system has none to give. An implementation that needs no system
// object returns another value, which closePoller ignores.
NativeHandle openPoller();
void closePoller(NativeHandle poller);
// Registers `handle` with the system (`isNew`) or changes what it is watched for.
bool watchOnPoller(NativeHandle poller, const WaitHandle& handle, bool isNew);
void unwatchOnPoller(NativeHandle poller, const WaitHandle& handle);
// Watches a registered `handle` for errors and hang-ups only (`muted`), or again for what its
// kind asks. Safe while another thread waits on the poller. False where not supported.
bool muteOnPoller(NativeHandle poller, const WaitHandle& handle, bool muted);
// Waits once, up to `timeoutMs` (-1: no limit), and stores what the system found ready:
// descriptor and generation as registered, and the readiness. A report with neither readable
// nor writable set means the descriptor is no longer open. Returns how many, 0 on time-out or
// interruption, or kWaitFailed. `scratch` is the implementation's to size and keep.
int waitOnPoller(NativeHandle poller, const Vector<WaitHandle>& byDescriptor, size_t watchedCount,
                 int timeoutMs, Poller::Ready* ready, size_t capacity, Buffer& scratch);
// Takes an event's signal without waiting (see Event): true when it was set.
bool takeEventSignal(NativeHandle event);

}  // namespace zu::platform
