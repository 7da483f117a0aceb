#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "support/test_support.h"
#include "zu/named_mutex.h"

namespace {

// A name no other test run uses at the same time.
std::string uniqueName(const char* what) {
    static std::atomic<int> counter{0};
    return std::string("dmtest ") + what + "/" + std::to_string(getpid()) + "-" +
           std::to_string(counter++);
}

bool exists(const std::string& name) {
    return zu::NamedMutex::doesMutexExist(name.c_str());
}

TEST(NamedMutex, IsPresentWhileAnyHolderLivesUnderItsExactName) {
    std::string name = uniqueName("in-process");
    EXPECT_FALSE(exists(name));
    {
        zu::NamedMutex first(name.c_str());
        ASSERT_TRUE(first.isHeld());
        EXPECT_TRUE(exists(name));
        {
            zu::NamedMutex second(name.c_str());  // several holders at once
            ASSERT_TRUE(second.isHeld());
            EXPECT_TRUE(exists(name));
        }
        EXPECT_TRUE(exists(name));
    }
    EXPECT_FALSE(exists(name));
    EXPECT_FALSE(exists(name));  // probing does not create it

    // Names that look alike after cleaning stay apart.
    std::string base = uniqueName("alike");
    zu::NamedMutex slashed((base + "a/b").c_str());
    ASSERT_TRUE(slashed.isHeld());
    EXPECT_TRUE(exists(base + "a/b"));
    EXPECT_FALSE(exists(base + "a_b"));
    EXPECT_FALSE(exists(base + "a\\b"));

    std::string longName = base + std::string(300, 'n');
    zu::NamedMutex holdsLong(longName.c_str());
    ASSERT_TRUE(holdsLong.isHeld());
    EXPECT_TRUE(exists(longName));
    EXPECT_FALSE(exists(longName + "n"));
}

// Holders come and go on several threads while probes clean up after them: a holder must never
// find its own name missing.
TEST(NamedMutex, HoldersAndProbesRaceSafely) {
    std::string name = uniqueName("race");
    std::atomic<int> missing{0};
    std::atomic<bool> holdersDone{false};
    auto holder = [&] {
        for (int i = 0; i < 200; ++i) {
            zu::NamedMutex mutex(name.c_str());
            if (!mutex.isHeld() || !exists(name)) {
                ++missing;
            }
        }
    };
    std::thread prober([&] {
        for (int i = 0; i < 100000 && !holdersDone; ++i) {
            exists(name);
        }
    });
    std::thread holderA(holder);
    std::thread holderB(holder);
    holderA.join();
    holderB.join();
    holdersDone = true;
    prober.join();
    EXPECT_EQ(missing.load(), 0);
    EXPECT_FALSE(exists(name));
}

std::string askChild(const std::string& name) {
    dmtest::ChildProcess checker("zu_file_helper", {"exists", name});
    EXPECT_EQ(checker.wait(), 0);
    return checker.output();
}

TEST(NamedMutex, OtherProcessesSeeItAndAKilledHolderReleasesIt) {
    std::string name = uniqueName("processes");
    EXPECT_EQ(askChild(name), "absent\n");
    dmtest::ChildProcess holder("zu_file_helper", {"hold", name});
    {
        zu::NamedMutex mine(name.c_str());
        ASSERT_TRUE(mine.isHeld());
        EXPECT_EQ(askChild(name), "exists\n");
        ASSERT_TRUE(holder.waitForOutput("holding")) << holder.output();
    }
    EXPECT_TRUE(exists(name));  // the child still holds it
    holder.kill();
    EXPECT_FALSE(exists(name));  // the kernel dropped the dead holder's lock
}

}  // namespace
