#include <gtest/gtest.h>

#include <atomic>

#include "zu/event.h"
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

TEST(Thread, StartJoinAndResult) {
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
}

TEST(Timer, MeasuresElapsedTime) {
    zu::Timer timer;
    double age = zu::Timer::getAppAge();
    zu::sleepMs(20);
    EXPECT_GE(timer.getElapsedSeconds(), 0.019);
    EXPECT_GT(zu::Timer::getAppAge(), age);
    timer.restart();
    EXPECT_LT(timer.getElapsedSeconds(), 0.019);
}

}  // namespace
