#include <pthread.h>
#include <unistd.h>

#include <cstring>

#if defined(__linux__)
#include <sys/syscall.h>
#endif

#include "thread_platform.h"

namespace zu::platform {

ThreadId currentThreadId() {
#if defined(__linux__)
    return static_cast<ThreadId>(syscall(SYS_gettid));
#elif defined(__APPLE__)
    uint64_t id = 0;
    pthread_threadid_np(nullptr, &id);
    return id;
#else
    return static_cast<ThreadId>(reinterpret_cast<uintptr_t>(pthread_self()));
#endif
}

void setCurrentThreadOsName(const char* name) {
    // Linux shows at most 15 characters; the full name stays in the thread registry.
    char shortName[16];
    std::strncpy(shortName, name, sizeof(shortName) - 1);
    shortName[sizeof(shortName) - 1] = 0;
#if defined(__APPLE__)
    pthread_setname_np(shortName);
#else
    pthread_setname_np(pthread_self(), shortName);
#endif
}

}  // namespace zu::platform
