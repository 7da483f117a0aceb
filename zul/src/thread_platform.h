// What the thread code needs from the operating system; one implementation file per OS.
#pragma once

#include "zu/thread.h"

namespace zu::platform {

ThreadId currentThreadId();
// Gives the calling thread `name` as the OS shows it (the OS may truncate it).
void setCurrentThreadOsName(const char* name);

}  // namespace zu::platform
