// Where the library's diagnostic lines go. They are written to standard output unless the host
// (or a test) installs a sink of its own; the texts are the same either way.
#pragma once

#include "dm/export.h"

namespace dm {

// Receives one whole diagnostic line, ending in '\n'. It is called on whichever thread logs,
// one line at a time, and must not log itself.
using LogSink = void (*)(void* context, const char* line);

// Sends every later diagnostic line to `sink`, called with `context`; a null sink restores
// standard output. When this returns, no line is being delivered to the previous sink any more,
// so its context may be destroyed.
DM_API void setLogSink(LogSink sink, void* context);

}  // namespace dm
