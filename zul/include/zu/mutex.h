// A recursive mutex (the same thread may lock it again) and its scoped guard.
#pragma once

#include <mutex>

namespace zu {

class Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() { m_mutex.lock(); }
    bool tryLock() { return m_mutex.try_lock(); }
    void unlock() { m_mutex.unlock(); }

    // BasicLockable names, so std::lock_guard and std::unique_lock work too.
    bool try_lock() { return tryLock(); }

private:
    std::recursive_mutex m_mutex;
};

class ScopedLock {
public:
    explicit ScopedLock(Mutex& mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~ScopedLock() { m_mutex.unlock(); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    Mutex& m_mutex;
};

}  // namespace zu
