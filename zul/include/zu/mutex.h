// zu::Mutex (a thread locks it once), zu::RecursiveMutex (a thread may lock it again while it
// holds it) and zu::ScopedLock, which holds either for a scope.
//
// Use a Mutex unless re-entry is part of a design, such as code that calls back into user code
// that may call in again; say at the RecursiveMutex why. Both carry thread-safety annotations
// (zu/thread_annotations.h), so a Clang build with -Wthread-safety checks the locking rules.
#pragma once

#include <mutex>

#include "zu/thread_annotations.h"

namespace zu {

class ZU_CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() ZU_ACQUIRE() { m_mutex.lock(); }
    bool tryLock() ZU_TRY_ACQUIRE(true) { return m_mutex.try_lock(); }
    void unlock() ZU_RELEASE() { m_mutex.unlock(); }

    // BasicLockable names, so std::unique_lock and std::condition_variable_any work too.
    bool try_lock() ZU_TRY_ACQUIRE(true) { return m_mutex.try_lock(); }

private:
    std::mutex m_mutex;
};

class ZU_CAPABILITY("mutex") RecursiveMutex {
public:
    RecursiveMutex() = default;
    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;

    void lock() ZU_ACQUIRE() { m_mutex.lock(); }
    bool tryLock() ZU_TRY_ACQUIRE(true) { return m_mutex.try_lock(); }
    void unlock() ZU_RELEASE() { m_mutex.unlock(); }

    bool try_lock() ZU_TRY_ACQUIRE(true) { return m_mutex.try_lock(); }

private:
    std::recursive_mutex m_mutex;
};

// Holds a Mutex or RecursiveMutex from construction to destruction.
template <typename MutexType>
class ZU_SCOPED_CAPABILITY ScopedLock {
public:
    explicit ScopedLock(MutexType& mutex) ZU_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~ScopedLock() ZU_RELEASE() { m_mutex.unlock(); }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

private:
    MutexType& m_mutex;
};

template <typename MutexType>
ScopedLock(MutexType&) -> ScopedLock<MutexType>;

}  // namespace zu
