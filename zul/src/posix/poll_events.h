// What poll() watches a wait handle for.
#pragma once

#include <poll.h>

#include "zu/event.h"

namespace zu {

inline short pollEventsOf(WaitHandle::Kind kind) {
    switch (kind) {
        case WaitHandle::Event:
        case WaitHandle::SocketRead:
            return POLLIN;
        case WaitHandle::SocketWrite:
            return POLLOUT;
        case WaitHandle::SocketReadWrite:
            return POLLIN | POLLOUT;
        case WaitHandle::None:
            break;
    }
    return 0;
}

}  // namespace zu
