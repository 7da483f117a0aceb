// The monitor link when resources run out as a monitor connects: the game's update must go on.
#include <gtest/gtest.h>

#include "support/test_support.h"

namespace {

// The game replaces the runtime's allocator, so it runs as a process of its own.
TEST(MonitorResourceFailure, RunningOutOfMemoryForAMonitorDropsItAndTheGameGoesOn) {
    dmtest::ChildProcess game("monitor_out_of_memory_game", {});
    ASSERT_TRUE(game.started());
    EXPECT_EQ(game.wait(std::chrono::seconds(60)), 0) << game.output();
    EXPECT_NE(game.output().find("turned away: socket"), std::string::npos) << game.output();
    EXPECT_NE(game.output().find("turned away: receive buffer"), std::string::npos);
    EXPECT_NE(game.output().find("1 monitor connection(s) turned away"), std::string::npos)
        << "the refusal is not logged";
    EXPECT_NE(game.output().find("accepted"), std::string::npos);
    EXPECT_NE(game.output().find("dropped: send queue"), std::string::npos);
}

}  // namespace
