// dm-monitor run as a separate process against the stand-in game dm-fake-game, also a separate
// process.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/loopback.h"

namespace {

using dmtest::ChildProcess;

const std::string kTool = DM_MONITOR_TOOL;

// The tool with its standard error joined to the output, through a shell.
ChildProcess monitorWithErrors(const std::string& arguments) {
    return ChildProcess("/bin/sh", {"-c", kTool + " " + arguments + " 2>&1"}, true);
}

// The stand-in game in a second process, and the port it listens on.
struct MonitorToolWithGame : ::testing::Test {
    void SetUp() override { ASSERT_FALSE(port.empty()) << game.output(); }
    ChildProcess game{DM_FAKE_GAME_TOOL, {"--port", "0", "--fps", "100"}};
    const std::string port = game.portAfter("port ");
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Two monitors at once: each shows what the game sends, and the answers to the other's
// commands; commands the game does not know stay in the tool with a warning. One leaves at the
// end of its input, the other with quit; the game sees both go.
TEST_F(MonitorToolWithGame, MonitorsShowWhatTheGameSendsAndSendCommandsBack) {
    for (int round = 0; round < 2; ++round) {  // the game goes on when they leave
        ChildProcess tool = monitorWithErrors("127.0.0.1 " + port);
        ChildProcess other(kTool, {"127.0.0.1", port}, true);
        ASSERT_TRUE(tool.waitForOutput("[profile] 2 threads")) << tool.output() << game.output();
        ASSERT_TRUE(tool.waitForOutput("[3] warning: frame ")) << tool.output();
        ASSERT_TRUE(tool.waitForOutput(" done\n")) << tool.output();  // channel 0
        const std::string seen = tool.output();
        EXPECT_TRUE(contains(seen, "[Engine Statistics] fps = ")) << seen;
        EXPECT_TRUE(contains(seen, "[Streaming Statistics] queued files = ")) << seen;
        EXPECT_TRUE(contains(seen, "[Resource Statistics] textures = ")) << seen;
        EXPECT_TRUE(contains(seen, "[Default In Place Data] level = harbour\n")) << seen;
        EXPECT_TRUE(contains(seen, "\"Game Main\": ")) << seen;

        ASSERT_TRUE(tool.writeInput("request 3\nrequest -1\nrequest x\nfrobnicate\nhelp\n"));
        ASSERT_TRUE(tool.writeInput("request 1\ndata round " + std::to_string(round) + "\n"));
        EXPECT_TRUE(other.waitForOutput("request 1 handled (reload)")) << other.output();
        EXPECT_TRUE(other.waitForOutput("[0] data received: round " + std::to_string(round)));
        ASSERT_TRUE(tool.writeInput("ping\n"));
        tool.closeInput();
        ASSERT_TRUE(other.writeInput("quit\n"));  // ends the run as the end of input does
        EXPECT_EQ(tool.wait(), 0) << tool.output();
        EXPECT_EQ(other.wait(), 0);
        const std::string& said = tool.output();
        EXPECT_TRUE(contains(said, "request 3 not sent: the game only knows requests 0, 1 and 2"))
            << said;
        EXPECT_TRUE(contains(said, "request -1 not sent"));
        EXPECT_TRUE(contains(said, "request needs a whole number"));
        EXPECT_TRUE(contains(said, "unknown command \"frobnicate\""));
        EXPECT_TRUE(contains(said, "commands: data TEXT, request 0|1|2"));
    }
    EXPECT_TRUE(game.waitForOutput("game: 0 monitors connected")) << game.output();
    const std::string& said = game.output();
    EXPECT_TRUE(contains(said, "game: 2 monitors connected")) << said;
    EXPECT_TRUE(contains(said, "game: request 1 (reload) -> answered"));
    EXPECT_FALSE(contains(said, "game: request 3"));
    EXPECT_TRUE(contains(said, "game: data \"round 1\""));
    EXPECT_TRUE(contains(said, "game: sends text [0] frame"));
    EXPECT_TRUE(contains(said, "game: sends a profile snapshot"));
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

// Exit codes: 1 when nothing listens, 3 on a time-out before the count, 2 on bad usage (of the
// terminal and of the web mode).
TEST(MonitorTool, ExitCodesTellWhatWentWrong) {
    const std::string closedPort = std::to_string(dmtest::pickFreePort());  // refuses
    net::Listener silentGame(0, "127.0.0.1");  // accepts in the backlog, never sends
    const std::string silentPort = std::to_string(silentGame.getPort());
    const std::vector<std::pair<std::string, int>> runs = {
        {"127.0.0.1 " + closedPort, 1},
        {"--count 1 --timeout 0.2 127.0.0.1 " + silentPort, 3},
        {"", 2},
        {"127.0.0.1", 2},
        {"127.0.0.1 0", 2},
        {"127.0.0.1 port", 2},
        {"--count x 127.0.0.1 1", 2},
        {"--frobnicate 127.0.0.1 1", 2},
        {"--web 70000 127.0.0.1 1", 2},
        {"--web x 127.0.0.1 1", 2},
        {"--web 0 127.0.0.1", 2},
        {"--web 0 --bind 1.2.3.4.5 127.0.0.1 1", 1}};  // cannot listen there
    for (const auto& run : runs) {
        ChildProcess tool = monitorWithErrors(run.first);
        EXPECT_EQ(tool.wait(), run.second) << run.first;
        EXPECT_TRUE(run.second == 3 || contains(tool.output(), "dm-monitor: ")) << tool.output();
    }
    ChildProcess help = monitorWithErrors("--help");
    EXPECT_EQ(help.wait(), 0);
    EXPECT_TRUE(contains(help.output(), "--web")) << help.output();
    EXPECT_TRUE(contains(help.output(), "request N"));
}

}  // namespace
