// zu::Thread, zu::Timer, and zu::Mutex, zu::RecursiveMutex and zu::ScopedLock seen from two
// real threads.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <thread>

#include "zu/event.h"
#include "zu/mutex.h"
#include "zu/thread.h"
#include "zu/timer.h"

namespace {

class NamedWorker : public zu::Thread {
public:
    ~NamedWorker() override { joinThread(); }
    int run() override {
        zu::setThreadName(zu::getCurrentThreadId(), "ZMK - a name longer than fifteen chars");
        zu::registerThread(9);
        id = zu::getCurrentThreadId();
        go.wait();
        return 42;
    }
    zu::Event go;
    std::atomic<zu::ThreadId> id{0};
};

TEST(Thread, StartJoinResultAndTimers) {
    NamedWorker worker;
    EXPECT_EQ(worker.joinThread(), 0);  // nothing started: returns at once
    ASSERT_TRUE(worker.startThread());
    EXPECT_FALSE(worker.startThread());  // already running
    worker.go.signal();
    EXPECT_EQ(worker.joinThread(), 42);
    EXPECT_EQ(worker.joinThread(), 0);
    EXPECT_NE(worker.id.load(), zu::getCurrentThreadId());

    // The full name is kept even though the OS shows only 15 characters.
    EXPECT_EQ(zu::getThreadName(worker.id), "ZMK - a name longer than fifteen chars");
    EXPECT_EQ(zu::getRegisteredThreadSlot(worker.id), 9);
    EXPECT_EQ(zu::getRegisteredThreadSlot(zu::getCurrentThreadId()), -1);

    // A thread object can run again after a join.
    ASSERT_TRUE(worker.startThread());
    worker.go.signal();
    EXPECT_EQ(worker.joinThread(), 42);

    // Timers measure elapsed time.
    zu::Timer timer;
    double age = zu::Timer::getAppAge();
    zu::sleepMs(20);
    EXPECT_GE(timer.getElapsedSeconds(), 0.019);
    EXPECT_GT(zu::Timer::getAppAge(), age);
    timer.restart();
    EXPECT_LT(timer.getElapsedSeconds(), 0.019);
}

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

    // A recursive mutex is held until every lock of its thread is given back.
    zu::RecursiveMutex recursive;
    {
        zu::ScopedLock outer(recursive);
        {
            zu::ScopedLock inner(recursive);
            EXPECT_FALSE(freeForAnotherThread(recursive));
        }
        EXPECT_FALSE(freeForAnotherThread(recursive));
    }
    EXPECT_TRUE(freeForAnotherThread(recursive));
}

}  // namespace
