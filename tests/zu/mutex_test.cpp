// zu::Mutex, zu::RecursiveMutex and zu::ScopedLock, seen from two real threads.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "zu/mutex.h"

namespace {

// Whether another thread can take `mutex` right now (it gives it back at once).
template <typename MutexType>
bool freeForAnotherThread(MutexType& mutex) {
    bool taken = false;
    std::thread other([&] {
        taken = mutex.tryLock();
        if (taken) {
            mutex.unlock();
        }
    });
    other.join();
    return taken;
}

TEST(RecursiveMutex, IsHeldUntilEveryLockOfItsThreadIsGivenBack) {
    zu::RecursiveMutex mutex;
    {
        zu::ScopedLock outer(mutex);
        {
            zu::ScopedLock inner(mutex);
            EXPECT_FALSE(freeForAnotherThread(mutex));
        }
        EXPECT_FALSE(freeForAnotherThread(mutex));
    }
    EXPECT_TRUE(freeForAnotherThread(mutex));
}

// A condition variable waits on a zu::Mutex held by a ScopedLock, as a pipe's close does.
TEST(Mutex, IsHeldForTheLocksScopeAndGivenBackWhileAConditionVariableWaits) {
    zu::Mutex mutex;
    std::condition_variable_any changed;
    bool ready = false;
    std::atomic<bool> waiting{false};
    std::thread setter([&] {
        for (int spins = 0; spins < 100000 && !waiting.load(); ++spins) {
            std::this_thread::yield();
        }
        zu::ScopedLock lock(mutex);  // free again while the waiter waits
        ready = true;
        changed.notify_all();
    });
    {
        zu::ScopedLock lock(mutex);
        EXPECT_FALSE(freeForAnotherThread(mutex));
        waiting = true;
        changed.wait(mutex, [&] { return ready; });
        EXPECT_TRUE(ready);
    }
    setter.join();
    EXPECT_TRUE(freeForAnotherThread(mutex));  // the lock gave it back with its scope
}

}  // namespace
