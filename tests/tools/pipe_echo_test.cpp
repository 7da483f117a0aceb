// dm-pipe-echo run as a separate process: against a client that writes its packets by hand,
// and against itself.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "support/loopback.h"
#include "support/pipe_wire.h"
#include "support/test_support.h"

namespace {

using dmtest::ChildProcess;
namespace pipewire = dmtest::pipewire;

const std::string kTool = DM_PIPE_ECHO_TOOL;

// The tool with `args`, its error output joined to its standard output.
std::vector<std::string> withErrors(const std::vector<std::string>& args) {
    std::string command = "'" + kTool + "'";
    for (const std::string& arg : args) {
        command += " '" + arg + "'";
    }
    return {"-c", command + " 2>&1"};
}

TEST(PipeEchoTool, ServerReportsEmptyTextsAndGoesOnAnswering) {
    ChildProcess server(kTool, {"server", "0"});
    const std::string port = server.portAfter(" on port ");
    ASSERT_FALSE(port.empty()) << server.output();
    // A client of hand-written packets, for what the library itself never sends.
    pipewire::RawPeer client(static_cast<uint32_t>(std::stoul(port)));
    ASSERT_TRUE(client.connected);
    client.open("echo");

    const uint8_t data[16] = {1, 2, 3, 4};
    client.send(pipewire::request("echo", 0, 0, "", 16, 0, 16, data));
    client.send(pipewire::notify("echo", 0, 0, 0, 0, 0, nullptr));
    client.send(pipewire::request("echo", 1, 0, "after", 16, 0, 16, data));
    const pipewire::Message response = client.nextPipeMessage();
    EXPECT_EQ(response.kind, pipewire::kResponse) << server.output();
    EXPECT_EQ(response.id, 1u);
    EXPECT_EQ(response.text, "after");
    EXPECT_TRUE(server.waitForOutput("with an empty text; they get no answer")) << server.output();
}

TEST(PipeEchoTool, ArgumentsThatDoNotParseAreErrors) {
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"serve", "0"},
        {"server", "abc"},
        {"server", "70000"},
        {"server", "0", "many"},
        {"client", "127.0.0.1"},
        {"client", "127.0.0.1", "0"},
        {"client", "127.0.0.1", "12x"},
        {"client", "127.0.0.1", "5000", "--timeout", "never"},
    };
    for (const std::vector<std::string>& args : cases) {
        ChildProcess tool("/bin/sh", withErrors(args));
        std::string joined;
        for (const std::string& arg : args) {
            joined += arg + " ";
        }
        EXPECT_EQ(2, tool.wait()) << joined << tool.output();
        EXPECT_NE(std::string::npos, tool.output().find("--help")) << joined << tool.output();
        EXPECT_EQ(std::string::npos, tool.output().find("server: pipe")) << joined;
    }
}

TEST(PipeEchoTool, ClientAtADeadPortSaysSoAtOnce) {
    const auto start = std::chrono::steady_clock::now();
    ChildProcess client(
        "/bin/sh", withErrors({"client", "127.0.0.1", std::to_string(dmtest::pickFreePort())}));
    EXPECT_EQ(1, client.wait());
    // Far below the ten seconds it would otherwise wait for the pipe.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_NE(std::string::npos, client.output().find("connection refused")) << client.output();
}

TEST(PipeEchoTool, ServerPrintsALineForEveryClientThatComesAndGoes) {
    ChildProcess server(kTool, {"server", "0"});
    const std::string port = server.portAfter(" on port ");
    ASSERT_FALSE(port.empty()) << server.output();
    for (size_t round = 1; round <= 2; ++round) {
        ChildProcess client(kTool, {"client", "127.0.0.1", port, "1"});
        EXPECT_EQ(0, client.wait()) << client.output();
        EXPECT_TRUE(dmtest::waitUntil([&] {
            server.waitForOutput("\n", std::chrono::milliseconds(20));
            return dmtest::countOf(server.output(), "disconnected") == round;
        })) << server.output();
    }
    EXPECT_EQ(2u, dmtest::countOf(server.output(),
                                  "server: client \"dm-pipe-echo client\" at 127.0.0.1 "
                                  "connected\n"))
        << server.output();
}

}  // namespace
