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

// The stand-in game dm-fake-game in a second process, and the port it listens on.
struct MonitorToolWithGame : ::testing::Test {
    void SetUp() override { ASSERT_FALSE(port.empty()) << game.output(); }
    ChildProcess game{DM_FAKE_GAME_TOOL, {"--port", "0", "--fps", "100"}};
    const std::string port = game.portAfter("port ");
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST_F(MonitorToolWithGame, ShowsWhatTheGameSendsAndSendsCommandsBack) {
    ChildProcess tool(kTool, {"127.0.0.1", port}, true);
    ASSERT_TRUE(tool.started());
    ASSERT_TRUE(tool.waitForOutput("[profile] ")) << tool.output() << game.output();
    ASSERT_TRUE(tool.waitForOutput("[3] warning: frame ")) << tool.output();
    ASSERT_TRUE(tool.waitForOutput(" done\n")) << tool.output();  // channel 0
    const std::string seen = tool.output();
    EXPECT_TRUE(contains(seen, "[Engine Statistics] fps = ")) << seen;
    EXPECT_TRUE(contains(seen, "[Streaming Statistics] queued files = ")) << seen;
    EXPECT_TRUE(contains(seen, "[Resource Statistics] textures = ")) << seen;
    EXPECT_TRUE(contains(seen, "[Default In Place Data] level = harbour\n")) << seen;
    EXPECT_TRUE(contains(seen, "\"Game Main\": ")) << seen;

    ASSERT_TRUE(tool.writeInput("request 3\nrequest 1\n"));
    EXPECT_TRUE(tool.waitForOutput("request 1 handled (reload)")) << tool.output();
    ASSERT_TRUE(tool.writeInput("data hello there\n"));
    EXPECT_TRUE(tool.waitForOutput("[0] data received: hello there")) << tool.output();
    ASSERT_TRUE(tool.writeInput("ping\nbogus\n"));

    tool.closeInput();
    EXPECT_EQ(tool.wait(), 0) << tool.output();
    EXPECT_TRUE(game.waitForOutput("game: 0 monitors connected")) << game.output();
    EXPECT_TRUE(contains(game.output(), "game: request 1 (reload)"));
    EXPECT_FALSE(contains(game.output(), "game: request 3"));
    EXPECT_TRUE(contains(game.output(), "game: data \"hello there\""));
}

TEST_F(MonitorToolWithGame, QuitEndsTheRunAndTheGameSeesItLeave) {
    ChildProcess tool(kTool, {"127.0.0.1", port}, true);
    ASSERT_TRUE(game.waitForOutput("game: 1 monitor connected")) << game.output();
    ASSERT_TRUE(tool.writeInput("quit\n"));
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_TRUE(game.waitForOutput("game: 0 monitors connected")) << game.output();
}

TEST_F(MonitorToolWithGame, CountEndsTheRunAfterThatManyPackets) {
    ChildProcess tool(kTool, {"--count", "2", "127.0.0.1", port}, true);
    tool.closeInput();  // with --count, the end of input does not end the run
    EXPECT_EQ(tool.wait(), 0);
    EXPECT_EQ(dmtest::countOf(tool.output(), "\n"), 2u) << tool.output();
}

TEST_F(MonitorToolWithGame, TheGameLeavingEndsTheRun) {
    ChildProcess tool(kTool, {"127.0.0.1", port}, true);
    ASSERT_TRUE(tool.waitForOutput("[profile] ")) << tool.output();
    game.kill();
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
