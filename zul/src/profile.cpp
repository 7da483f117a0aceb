// Recording side of the thread profiler: per-thread rings of finished scopes and the registry
// through which a snapshot reaches all of them. The packet format lives in profile_packet.cpp.
#include <algorithm>
#include <vector>

#include "d/profile.h"
#include "profile_internal.h"
#include "zu/memory.h"
#include "zu/mutex.h"
#include "zu/thread.h"
#include "zu/timer.h"

namespace d {
namespace Profile {

namespace {

constexpr uint32_t kRingSize = ThreadProfiler::kScopesPerThread;
constexpr uint32_t kMaxDepth = ThreadProfiler::kMaxDepth;

// Copies at most kMaxNameLength characters; never reads past the end of `name`.
void copyName(char* destination, const char* name) {
    uint32_t length = 0;
    if (name) {
        while (length < ThreadProfiler::kMaxNameLength && name[length] != 0) {
            destination[length] = name[length];
            ++length;
        }
    }
    destination[length] = 0;
}

struct OpenScope {
    const char* name;
    uint64_t beginMicroseconds;
};

// One thread's recording. Only the owning thread calls begin and end; the open-scope stack is
// therefore unguarded, and the mutex only keeps the ring consistent for a concurrent snapshot.
class ThreadBuffer {
public:
    explicit ThreadBuffer(zu::ThreadId threadId) : m_threadId(threadId) {}
    ThreadBuffer(const ThreadBuffer&) = delete;
    ThreadBuffer& operator=(const ThreadBuffer&) = delete;

    void begin(const char* name) {
        if (m_depth < kMaxDepth) {
            m_open[m_depth] = {name, ThreadProfiler::nowMicroseconds()};
        }
        ++m_depth;  // counted even when too deep, so that the ends still pair up
    }

    void end() {
        if (m_depth == 0) {
            return;
        }
        --m_depth;
        if (m_depth >= kMaxDepth) {
            return;
        }
        const uint64_t endMicroseconds = ThreadProfiler::nowMicroseconds();
        const OpenScope& open = m_open[m_depth];
        zu::ScopedLock guard(m_mutex);
        FinishedScope& slot = m_ring[m_finished % kRingSize];
        copyName(slot.name, open.name);
        slot.depth = m_depth;
        slot.beginMicroseconds = open.beginMicroseconds;
        slot.endMicroseconds = endMicroseconds;
        ++m_finished;
    }

    void copyTo(ThreadScopes& out) const {
        zu::ScopedLock guard(m_mutex);
        out.threadId = m_threadId;
        out.finishedTotal = m_finished;
        const uint64_t kept = std::min<uint64_t>(m_finished, kRingSize);
        out.scopes.clear();
        out.scopes.reserve(kept);
        for (uint64_t index = m_finished - kept; index < m_finished; ++index) {
            out.scopes.push_back(m_ring[index % kRingSize]);
        }
    }

    void clear() {
        zu::ScopedLock guard(m_mutex);
        m_finished = 0;
    }

private:
    const zu::ThreadId m_threadId;
    OpenScope m_open[kMaxDepth] = {};
    uint32_t m_depth = 0;

    mutable zu::Mutex m_mutex;
    FinishedScope m_ring[kRingSize] ZU_GUARDED_BY(m_mutex) = {};
    uint64_t m_finished ZU_GUARDED_BY(m_mutex) =
        0;  // finished scopes since the start or the last clear
};

// Every live thread's buffer. Never destroyed: threads may still end after static destruction.
class Registry {
public:
    static Registry& instance() {
        // Made once and never destroyed: threads may still record while statics go.
        static Registry* registry = zu::newObject<Registry>();
        return *registry;
    }

    void add(ThreadBuffer* buffer) {
        zu::ScopedLock guard(m_mutex);
        m_buffers.push_back(buffer);
    }
    void remove(ThreadBuffer* buffer) {
        zu::ScopedLock guard(m_mutex);
        m_buffers.erase(std::remove(m_buffers.begin(), m_buffers.end(), buffer), m_buffers.end());
    }
    void copyAll(std::vector<ThreadScopes>& out) {
        zu::ScopedLock guard(m_mutex);
        out.resize(m_buffers.size());
        for (size_t i = 0; i < m_buffers.size(); ++i) {
            m_buffers[i]->copyTo(out[i]);
        }
    }
    void clearAll() {
        zu::ScopedLock guard(m_mutex);
        for (ThreadBuffer* buffer : m_buffers) {
            buffer->clear();
        }
    }

private:
    zu::Mutex m_mutex;
    std::vector<ThreadBuffer*> m_buffers ZU_GUARDED_BY(m_mutex);
};

// The calling thread's buffer; made on the thread's first scope and released when it ends.
thread_local ThreadBuffer* t_buffer = nullptr;
thread_local bool t_threadEnding = false;

struct BufferOwner {
    zu::UniquePtr<ThreadBuffer> buffer;
    ~BufferOwner() {
        Registry::instance().remove(buffer.get());
        buffer.reset();
        t_buffer = nullptr;
        t_threadEnding = true;  // scopes run by later thread-exit code are not recorded
    }
};

// Null when memory runs out: the profiler then records nothing rather than fail the caller.
ThreadBuffer* createBuffer() {
    static thread_local BufferOwner owner;
    try {
        zu::UniquePtr<ThreadBuffer> buffer = zu::makeUnique<ThreadBuffer>(zu::getCurrentThreadId());
        Registry::instance().add(buffer.get());
        owner.buffer = std::move(buffer);
    } catch (...) {
        return nullptr;
    }
    t_buffer = owner.buffer.get();
    return t_buffer;
}

ThreadBuffer* currentBuffer() {
    if (t_buffer) {
        return t_buffer;
    }
    return t_threadEnding ? nullptr : createBuffer();
}

}  // namespace

void snapshotAllThreads(std::vector<ThreadScopes>& out) {
    Registry::instance().copyAll(out);
}

void ThreadProfiler::beginScope(const char* name) {
    if (ThreadBuffer* buffer = currentBuffer()) {
        buffer->begin(name);
    }
}

void ThreadProfiler::endScope() {
    if (ThreadBuffer* buffer = t_buffer) {
        buffer->end();
    }
}

const ThreadProfiler& ThreadProfiler::instance() {
    static const ThreadProfiler profiler;
    return profiler;
}

void ThreadProfiler::clear() {
    Registry::instance().clearAll();
}

uint64_t ThreadProfiler::nowMicroseconds() {
    return static_cast<uint64_t>(zu::Timer::getAppAge() * 1e6);
}

}  // namespace Profile
}  // namespace d
