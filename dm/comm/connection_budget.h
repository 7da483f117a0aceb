// ConnectionBudget: the incoming bytes that the pipes attached to one connection hold together.
// Unfinished messages (their buffers, as they grow) are bounded hard: a chunk that would take
// them over the bound is refused, so no peer can make the receiver allocate more. Whole
// messages that the application has not taken yet are bounded softly: once they reach their
// bound, the manager stops reading the connection, so that TCP holds the sender back, and reads
// on once the application has taken some.
#pragma once

#include <atomic>
#include <cstdint>

namespace dm {

class ConnectionBudget {
public:
    // Unfinished incoming data a connection may hold, all its pipes together, by default: the
    // default message size limit, so that any message a pipe takes can still arrive, while
    // many pipes cannot add up more than one may hold.
    static constexpr uint64_t kDefaultMaxUnfinished = 512ull * 1024 * 1024;
    // Whole messages not yet taken, by default, from which on the connection is not read.
    static constexpr uint64_t kDefaultMaxQueued = 64ull * 1024 * 1024;

    // The bounds are read as they are at each use, so that changing them takes effect at once.
    ConnectionBudget(const std::atomic<uint64_t>& maxUnfinished,
                     const std::atomic<uint64_t>& maxQueued)
        : m_maxUnfinished(maxUnfinished), m_maxQueued(maxQueued) {}
    ConnectionBudget(const ConnectionBudget&) = delete;
    ConnectionBudget& operator=(const ConnectionBudget&) = delete;

    // Takes `bytes` more of unfinished data; false, taking nothing, beyond the bound.
    bool reserveUnfinished(uint64_t bytes) {
        if (m_unfinished + bytes > m_maxUnfinished.load(std::memory_order_relaxed)) {
            return false;
        }
        m_unfinished += bytes;
        return true;
    }
    void releaseUnfinished(uint64_t bytes) { m_unfinished -= bytes; }
    uint64_t unfinished() const { return m_unfinished; }

    void addQueued(uint64_t bytes) { m_queued.fetch_add(bytes, std::memory_order_relaxed); }
    // True when this release made room in a connection that was full: it may be read again.
    bool releaseQueued(uint64_t bytes) {
        const uint64_t bound = m_maxQueued.load(std::memory_order_relaxed);
        const uint64_t before = m_queued.fetch_sub(bytes, std::memory_order_relaxed);
        return before >= bound && before - bytes < bound;
    }
    // The application has not taken enough: stop reading the connection.
    bool queuedFull() const {
        return m_queued.load(std::memory_order_relaxed) >=
               m_maxQueued.load(std::memory_order_relaxed);
    }
    uint64_t queued() const { return m_queued.load(std::memory_order_relaxed); }

private:
    const std::atomic<uint64_t>& m_maxUnfinished;
    const std::atomic<uint64_t>& m_maxQueued;
    uint64_t m_unfinished = 0;  // manager thread only: chunks arrive there
    // Whole messages are taken on application threads.
    std::atomic<uint64_t> m_queued{0};
};

}  // namespace dm
