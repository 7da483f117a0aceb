// dm-monitor run as a separate process against a stand-in game, also a separate process.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "support/loopback.h"

namespace {

using dmtest::ChildProcess;

const std::string kTool = DM_MONITOR_TOOL;

// A stand-in game in a second process, and the port it listens on.
struct MonitorToolWithGame : ::testing::Test {
    void SetUp() override { ASSERT_FALSE(port.empty()) << game.output(); }
    ChildProcess game{"monitor_fake_game", {}};
    const std::string port = game.portAfter("port ");
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST_F(MonitorToolWithGame, ShowsWhatTheGameSendsAndSendsCommandsBack) {
    ChildProcess tool(kTool, {"127.0.0.1", port}, true);
    ASSERT_TRUE(tool.started());

    ASSERT_TRUE(tool.waitForOutput("[0] greeting done")) << tool.output() << game.output();
    const std::string greeting = tool.output();
    EXPECT_TRUE(contains(greeting, "[0] hello from the game\n")) << greeting;
    EXPECT_TRUE(contains(greeting, "[3] warning: low fuel\n"));
    EXPECT_TRUE(contains(greeting, "[Engine Statistics] fps = 60\n"));
    EXPECT_TRUE(contains(greeting, "[Streaming Statistics] queued files = 3\n"));
    EXPECT_TRUE(contains(greeting, "[Default In Place Data] score = 42\n"));
    EXPECT_TRUE(contains(greeting, "[Engine Statistics] fps = 59\n"));
    EXPECT_TRUE(contains(greeting, "[profile] "));
    EXPECT_TRUE(contains(greeting, "\"Fake Game Main\": 3 scopes, longest \"frame\""));
    EXPECT_LT(greeting.find("hello from the game"), greeting.find("warning: low fuel"));
    EXPECT_LT(greeting.find("[profile]"), greeting.find("greeting done"));

    ASSERT_TRUE(tool.writeInput("request 3\nrequest 1\n"));
    EXPECT_TRUE(tool.waitForOutput("[0] request 1 handled")) << tool.output();
    ASSERT_TRUE(tool.writeInput("data hello there\n"));
    EXPECT_TRUE(tool.waitForOutput("[0] data received: hello there")) << tool.output();
    ASSERT_TRUE(tool.writeInput("ping\nbogus\n"));

    tool.closeInput();
    EXPECT_EQ(tool.wait(), 0) << tool.output();
    EXPECT_EQ(game.wait(), 0) << game.output();
    EXPECT_TRUE(contains(game.output(), "game: request 1\n"));
    EXPECT_FALSE(contains(game.output(), "game: request 3"));
    EXPECT_TRUE(contains(game.output(), "game: data hello there\n"));
    EXPECT_TRUE(contains(game.output(), "game: done\n"));
}

TEST_F(MonitorToolWithGame, QuitEndsTheRunAndTheGameSeesItLeave) {
    ChildProcess tool(kTool, {"127.0.0.1", port}, true);
    ASSERT_TRUE(tool.waitForOutput("[0] greeting done"));
    ASSERT_TRUE(tool.writeInput("quit\n"));
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_EQ(game.wait(), 0) << game.output();
}

TEST_F(MonitorToolWithGame, CountEndsTheRunAfterThatManyPackets) {
    ChildProcess tool(kTool, {"--count", "2", "127.0.0.1", port}, true);
    tool.closeInput();  // with --count, the end of input does not end the run
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_EQ(tool.output(), "[0] hello from the game\n[3] warning: low fuel\n");
    EXPECT_EQ(game.wait(), 0) << game.output();
}

TEST_F(MonitorToolWithGame, TheGameLeavingEndsTheRun) {
    ChildProcess tool(kTool, {"127.0.0.1", port}, true);
    ASSERT_TRUE(tool.waitForOutput("[0] greeting done"));
    ASSERT_TRUE(tool.writeInput("data quit\n"));  // the stand-in game ends on this
    EXPECT_EQ(game.wait(), 0) << game.output();
    EXPECT_EQ(tool.wait(), 0) << tool.output();
}

// Exit codes: 1 when nothing listens, 3 on a time-out before the count, 2 on bad usage.
TEST(MonitorTool, ExitCodesTellWhatWentWrong) {
    const std::string closedPort = std::to_string(dmtest::pickFreePort());  // refuses
    net::Listener silentGame(0, "127.0.0.1");  // accepts in the backlog, never sends
    const std::string silentPort = std::to_string(silentGame.getPort());
    const std::vector<std::pair<std::vector<std::string>, int>> runs = {
        {{"127.0.0.1", closedPort}, 1},
        {{"--count", "1", "--timeout", "0.2", "127.0.0.1", silentPort}, 3},
        {{}, 2},
        {{"127.0.0.1"}, 2},
        {{"127.0.0.1", "0"}, 2},
        {{"127.0.0.1", "port"}, 2},
        {{"--count", "x", "127.0.0.1", "1"}, 2},
        {{"--frobnicate", "127.0.0.1", "1"}, 2}};
    for (const auto& run : runs) {
        ChildProcess tool(kTool, run.first, true);
        EXPECT_EQ(tool.wait(), run.second) << run.first.size() << " arguments";
    }
}

}  // namespace
