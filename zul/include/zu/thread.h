// Threads, thread names and sleeping.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "zu/export.h"
#include "zu/string.h"

namespace zu {

// The operating system's id of a thread (never 0 for a live thread).
using ThreadId = uint64_t;

ZUL_API ThreadId getCurrentThreadId();

// Names a thread. The full name is kept and returned by getThreadName, even where the OS
// truncates what it shows (Linux keeps 15 characters). The OS name is set only when `thread`
// is the calling thread.
ZUL_API void setThreadName(ThreadId thread, const char* name);
// The name given with setThreadName, or "" for a thread never named.
ZUL_API InplaceString<128> getThreadName(ThreadId thread);

// Tells the runtime which of the engine's thread slots the calling thread fills.
ZUL_API void registerThread(int slot);
// The slot the thread registered with, or -1.
ZUL_API int getRegisteredThreadSlot(ThreadId thread);

// Sleeps at least `microseconds`.
ZUL_API void sleep(uint32_t microseconds);
ZUL_API void sleepMs(uint32_t milliseconds);

// A thread with a virtual body. startThread runs run() on a new thread; joinThread waits for it.
// A derived class must join in its own destructor when run() may still be running: the base
// destructor joins too, but by then the derived part is gone.
class ZUL_API Thread {
public:
    Thread();
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // The thread body; its result is what joinThread returns.
    virtual int run() = 0;

    // Starts run() on a new thread. False when a thread is already started and not yet joined.
    bool startThread();
    // Waits for the thread to end and returns run()'s result; returns 0 at once when no thread
    // was started (or it was joined already). Calling it from the thread itself is a misuse and
    // returns -1.
    int joinThread();
    // True from startThread until joinThread.
    bool isThreadStarted() const { return m_thread.joinable(); }
    // Id of the running thread, 0 before it runs.
    ThreadId getThreadId() const { return m_threadId.load(std::memory_order_acquire); }

private:
    std::thread m_thread;
    std::atomic<ThreadId> m_threadId{0};
    int m_result = 0;
};

}  // namespace zu
