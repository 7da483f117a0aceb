// A thread that works through a bounded queue: the hub's callbacks, which run on pipe managers'
// threads and must not block, hand it what may take long or take other managers' locks.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <utility>

#include "zu/exception.h"
#include "zu/mutex.h"
#include "zu/thread.h"
#include "zu/vector.h"

namespace dm {

template <typename Item>
class HubQueueThread : private zu::Thread {
public:
    explicit HubQueueThread(size_t capacity) : m_capacity(capacity) {}
    // A derived class calls stop in its own destructor, while work can still be called.
    ~HubQueueThread() override { stop(); }
    HubQueueThread(const HubQueueThread&) = delete;
    HubQueueThread& operator=(const HubQueueThread&) = delete;

    void start() { startThread(); }

    // Queues `item`; false (nothing queued) when the queue is full or the thread stopped.
    bool push(Item item) {
        {
            zu::ScopedLock lock(m_lock);
            if (m_stopping || m_items.size() >= m_capacity) {
                return false;
            }
            try {
                m_items.push_back(std::move(item));
            } catch (const zu::OutOfMemoryException&) {
                return false;
            }
        }
        m_wake.notify_one();
        return true;
    }

    // Lets the item being worked on finish, drops the rest and joins the thread.
    void stop() {
        {
            zu::ScopedLock lock(m_lock);
            m_stopping = true;
            m_items.clear();
        }
        m_wake.notify_one();
        joinThread();
    }

protected:
    // Works on one batch of items, on the thread, outside the queue's lock.
    virtual void work(zu::Vector<Item>& items) = 0;
    bool isStopping() {
        zu::ScopedLock lock(m_lock);
        return m_stopping;
    }

private:
    int run() override {
        zu::Vector<Item> batch;
        for (;;) {
            {
                zu::ScopedLock lock(m_lock);
                m_wake.wait(m_lock, [this]() ZU_REQUIRES(m_lock) {
                    return m_stopping || !m_items.empty();
                });
                if (m_stopping) {
                    return 0;
                }
                batch.clear();
                batch.swap(m_items);
            }
            work(batch);
        }
    }

    const size_t m_capacity;
    zu::Mutex m_lock;
    std::condition_variable_any m_wake;  // waits on m_lock
    zu::Vector<Item> m_items ZU_GUARDED_BY(m_lock);
    bool m_stopping ZU_GUARDED_BY(m_lock) = false;
};

}  // namespace dm
