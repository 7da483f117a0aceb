#include <chrono>
#include <map>

#include "thread_platform.h"
#include "zu/mutex.h"
#include "zu/thread.h"

namespace zu {

namespace {

struct ThreadInfo {
    InplaceString<128> name;
    int slot = -1;
};

// Full names and engine slots per thread. The OS keeps only a shortened name, so the
// complete one lives here.
class ThreadRegistry {
public:
    static ThreadRegistry& instance() {
        static ThreadRegistry registry;
        return registry;
    }

    void setName(ThreadId thread, const char* name) {
        ScopedLock guard(m_mutex);
        m_threads[thread].name = name ? name : "";
    }
    InplaceString<128> getName(ThreadId thread) {
        ScopedLock guard(m_mutex);
        auto found = m_threads.find(thread);
        return found == m_threads.end() ? InplaceString<128>() : found->second.name;
    }
    void setSlot(ThreadId thread, int slot) {
        ScopedLock guard(m_mutex);
        m_threads[thread].slot = slot;
    }
    int getSlot(ThreadId thread) {
        ScopedLock guard(m_mutex);
        auto found = m_threads.find(thread);
        return found == m_threads.end() ? -1 : found->second.slot;
    }

private:
    Mutex m_mutex;
    std::map<ThreadId, ThreadInfo> m_threads ZU_GUARDED_BY(m_mutex);
};

}  // namespace

ThreadId getCurrentThreadId() {
    return platform::currentThreadId();
}

void setThreadName(ThreadId thread, const char* name) {
    ThreadRegistry::instance().setName(thread, name);
    if (thread == platform::currentThreadId()) {
        platform::setCurrentThreadOsName(name ? name : "");
    }
}

InplaceString<128> getThreadName(ThreadId thread) {
    return ThreadRegistry::instance().getName(thread);
}

void registerThread(int slot) {
    ThreadRegistry::instance().setSlot(getCurrentThreadId(), slot);
}

int getRegisteredThreadSlot(ThreadId thread) {
    return ThreadRegistry::instance().getSlot(thread);
}

void sleep(uint32_t microseconds) {
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
}

void sleepMs(uint32_t milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

Thread::Thread() = default;

Thread::~Thread() {
    joinThread();
}

bool Thread::startThread() {
    if (m_thread.joinable()) {
        return false;
    }
    m_threadId.store(0, std::memory_order_release);
    m_thread = std::thread([this] {
        m_threadId.store(getCurrentThreadId(), std::memory_order_release);
        m_result = run();
    });
    return true;
}

int Thread::joinThread() {
    if (!m_thread.joinable()) {
        return 0;
    }
    if (m_thread.get_id() == std::this_thread::get_id()) {
        return -1;
    }
    m_thread.join();
    return m_result;
}

}  // namespace zu
